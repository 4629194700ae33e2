// Disks that are full, calls that fail, memory that is refused: whatever call of a run fails, a file
// is either replaced by a complete picture, or nothing has changed and one message says why.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <map>
#include <sstream>

#include <ka/mem.h>
#include <ka/message.h>

#include "inject.h"
#include "support.h"

int vel_diff_main(int argc, char** argv);  // the tool's, renamed

namespace {

using test::Call;
using test::Fault;

constexpr int kMostCalls = 10000;  // of one kind in a run
constexpr char kNoMemory[] = "failed to allocate memory";

struct Kind {
  const char* name;
  Fault fault;
  enum { kEither, kSucceeds, kFails } end;  // what every such run must do
};
constexpr Kind kKinds[] = {
    {"memory", {.call = Call::kMemory, .error = ENOMEM}, Kind::kEither},
    {"open EMFILE", {.call = Call::kOpen, .error = EMFILE}, Kind::kEither},
    {"read EIO", {.call = Call::kRead, .error = EIO}, Kind::kEither},
    {"read EINTR", {.call = Call::kRead, .error = EINTR}, Kind::kSucceeds},
    {"short read", {.call = Call::kRead}, Kind::kSucceeds},
    {"write EIO", {.call = Call::kWrite, .error = EIO}, Kind::kFails},
    {"full disk", {.call = Call::kWrite, .error = ENOSPC, .is_lasting = true}, Kind::kFails},
    {"write EINTR", {.call = Call::kWrite, .error = EINTR}, Kind::kSucceeds},
    {"short write", {.call = Call::kWrite}, Kind::kSucceeds},
    {"lseek EIO", {.call = Call::kSeek, .error = EIO}, Kind::kEither},
    {"ftruncate ENOSPC", {.call = Call::kSize, .error = ENOSPC}, Kind::kEither},
    {"mmap ENOMEM", {.call = Call::kMap, .error = ENOMEM}, Kind::kEither},
    {"fsync EIO", {.call = Call::kSync, .error = EIO}, Kind::kEither},
    {"stat EIO", {.call = Call::kStatus, .error = EIO}, Kind::kEither},
    {"link EIO", {.call = Call::kLink, .error = EIO}, Kind::kEither},
    {"link EEXIST", {.call = Call::kLink, .error = EEXIST}, Kind::kEither},
    {"rename EIO", {.call = Call::kRename, .error = EIO}, Kind::kEither},
    {"close EIO", {.call = Call::kClose, .error = EIO}, Kind::kEither},
    {"close EINTR", {.call = Call::kClose, .error = EINTR}, Kind::kSucceeds},
};

using Work = std::function<int(const Fault& fault)>;  // in a process of its own; its exit status

using Content = std::pair<std::string, std::filesystem::perms>;  // bytes, permissions
using Folder = std::map<std::string, Content>;                   // by name

Folder contents(const test::Scratch& scratch) {
  Folder folder;
  for (const auto& entry : std::filesystem::directory_iterator(scratch.path("")))
    folder[entry.path().filename()] = {test::read_file(entry.path()), entry.status().permissions()};
  return folder;
}

test::Outcome run(const Fault& fault, const Work& work) {
  return test::run([&] { return work(fault); });
}

// One error, or one fatal message, which an error may explain; nothing else, no sanitizer's report.
// Memory that is refused has its own message.
bool is_one_message(const std::string& text, Call failed) {
  int errors = 0, fatals = 0, others = 0;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    const std::string_view level = std::string_view(line).substr(0, 20);
    const bool is_error = level.find(" error ") != level.npos;
    const bool is_fatal = level.find(" fatal") != level.npos;
    ++(is_error ? errors : is_fatal ? fatals : others);
  }
  if (others != 0 || errors > 1 || fatals > 1) return false;
  if (failed == Call::kMemory) return errors == 0 && text.find(kNoMemory) != text.npos;
  return errors + fatals > 0;
}

class Injection : public testing::Test {
 protected:
  // A file that must not be lost.
  std::string precious(const std::string& name) {
    std::string path = scratch.write(name, "precious");
    chmod(path.c_str(), 0640);
    return path;
  }

  // Runs the work undisturbed, then with each call of each kind failing.
  void expect_whole_or_unchanged(const Work& work, bool has_unnamed_files = true) {
    const Folder before = contents(scratch);
    const test::Outcome whole = run({}, work);
    ASSERT_EQ(whole.status, 0) << whole.err;
    const Folder after = contents(scratch);
    for (const Kind& kind : kKinds) {
      Fault fault = kind.fault;
      fault.has_unnamed_files = has_unnamed_files;
      for (fault.at = 1; fault.at < kMostCalls; ++fault.at) {
        restore(before);
        const test::Outcome outcome = run(fault, work);
        if (test::counted_calls() < fault.at) break;
        const std::string what = std::string(kind.name) + ", number " + std::to_string(fault.at);
        EXPECT_TRUE(contents(scratch) == (outcome.status == 0 ? after : before)) << what << '\n'
                                                                                 << outcome.err;
        expect_end(outcome, kind, what);
      }
    }
  }

  test::Scratch scratch;

 private:
  void expect_end(const test::Outcome& outcome, const Kind& kind, const std::string& what) const {
    const bool may_fail = kind.end != Kind::kSucceeds, may_succeed = kind.end != Kind::kFails;
    const bool is_right = outcome.status == 0 ? may_succeed && outcome.err.empty()
                                              : may_fail && outcome.status == 1 &&
                                                    is_one_message(outcome.err, kind.fault.call);
    EXPECT_TRUE(is_right) << what << ", status " << outcome.status << '\n' << outcome.err;
  }

  void restore(const Folder& folder) {
    const Folder now = contents(scratch);
    if (now == folder) return;
    for (const auto& [name, content] : now) std::filesystem::remove_all(scratch.path(name));
    for (const auto& [name, content] : folder) {
      std::filesystem::permissions(scratch.write(name, content.first), content.second);
    }
  }
};

void start_library() {
  test::start_library();
  ka_mem_error_handler([] { ka_fatal(kNoMemory); });
  ka_set_verbosity(KA_FATAL | KA_ERROR);
}

test::Image make_noise(int type, int width, int height) {
  test::Image image = test::make_image(type, width, height);
  const std::size_t bytes = (std::size_t(width) * std::size_t(image->bits) + 7) / 8;
  unsigned noise = 1;
  for (int y = 0; y < height; ++y) {
    for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
      std::uint8_t* const plane = test::plane(image.get(), y, slot);
      for (std::size_t i = 0; plane && i < bytes; ++i) {
        plane[i] = std::uint8_t((noise = noise * 1103515245 + 12345) >> 16 & 63);
      }
    }
  }
  return image;
}

struct Written {
  std::string name;
  int format, type;

  friend void PrintTo(const Written& row, std::ostream* out) { *out << row.name; }
};

std::vector<Written> all_formats() {
  std::vector<Written> rows;
  for (int format = 0; format < IMG_FORMAT_CUSTOM; ++format) {
    if (format == IMG_FORMAT_LWI || format == IMG_FORMAT_NULL) continue;
    std::string name = ka_img_format_name(format);
    for (char& c : name) c = c == '-' ? '_' : c;
    rows.push_back({name, format, ka_img_best_type(format)});
  }
  rows.push_back({"p3", IMG_FORMAT_PPM, IMG_TYPE_RGB_16});
  rows.push_back({"pf", IMG_FORMAT_PPM, IMG_TYPE_RGB_FP});
  return rows;
}

// Creates a file, writes its lines and closes it. The first failure is reported.
int write_picture(const Written& what, const std::string& path, const Fault& fault) {
  start_library();
  const test::Image image = make_noise(what.type, 160, 110);
  test::inject(fault);
  test::Handle file;
  file->file_type = std::uint8_t(what.type);
  if (ka_img_create(file, path.c_str(), what.type, what.format, image->width, image->height) &&
      ka_img_image_write(file, image.get()) && ka_img_close(file)) {
    return 0;
  }
  ka_img_err_msg(file);
  return 1;
}

int read_picture(const std::string& path, const Fault& fault) {
  start_library();
  test::inject(fault);
  test::Handle file;
  test::Image image;
  if (ka_img_open(file, path.c_str(), IMG_TYPE_FILE)) image.reset(ka_img_image_alloc(file));
  if (image && ka_img_image_read(file, image.get()) && ka_img_close(file)) return 0;
  ka_img_err_msg(file);
  return 1;
}

class OfEveryFormat : public Injection, public testing::WithParamInterface<Written> {
 protected:
  [[nodiscard]] Work writing(const std::string& path) const {
    return
        [what = GetParam(), path](const Fault& fault) { return write_picture(what, path, fault); };
  }
};

TEST_P(OfEveryFormat, IsWrittenWholeOrUnchanged) {
  expect_whole_or_unchanged(writing(precious("picture")));
}

TEST_P(OfEveryFormat, IsReadWholeOrRefused) {
  if (GetParam().format == IMG_FORMAT_ZPIC) return;  // only written
  const std::string path = scratch.path("picture");
  ASSERT_EQ(run({}, writing(path)).status, 0);
  expect_whole_or_unchanged([&](const Fault& fault) { return read_picture(path, fault); });
}

class WithoutUnnamedFiles : public OfEveryFormat {};

TEST_P(WithoutUnnamedFiles, IsWrittenWholeOrUnchangedOrNotAtAll) {
  const std::string path = precious("picture");
  expect_whole_or_unchanged(writing(path), false);
  for (const bool has_unnamed_files : {false, true}) {
    std::filesystem::remove(path);
    expect_whole_or_unchanged(writing(path), has_unnamed_files);
  }
}

// One that goes back to its header, a mapping, text, a codec.
INSTANTIATE_TEST_SUITE_P(Picture, WithoutUnnamedFiles,
                         testing::Values(Written{"tif", IMG_FORMAT_TIF, IMG_TYPE_RGB},
                                         Written{"map", IMG_FORMAT_MAP, IMG_TYPE_RGBA},
                                         Written{"ps", IMG_FORMAT_PS, IMG_TYPE_RGB},
                                         Written{"jpg", IMG_FORMAT_JPG, IMG_TYPE_RGB}),
                         test::row_name<Written>);

INSTANTIATE_TEST_SUITE_P(Picture, OfEveryFormat, testing::ValuesIn(all_formats()),
                         test::row_name<Written>);

class OfTheTool : public Injection, public testing::WithParamInterface<const char*> {};

// The pictures differ by less than a percent, which is status 0.
TEST_P(OfTheTool, IsWholeOrUnchanged) {
  const std::string head = "P6\n40 30\n255\n", pixels(std::size_t{3} * 40 * 30 - 1, 'a');
  std::string arguments[] = {"vel_diff", scratch.write("first", head + 'a' + pixels),
                             scratch.write("second", head + 'f' + pixels),
                             precious(std::string("difference.") + GetParam())};
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  expect_whole_or_unchanged([&](const Fault& fault) {
    test::inject(fault);
    return vel_diff_main(int(pointers.size()) - 1, pointers.data());
  });
}

INSTANTIATE_TEST_SUITE_P(DifferenceImage, OfTheTool, testing::Values("ppm", "tif", "map", "iff"),
                         [](const auto& row) { return row.param; });

}  // namespace

// The library is started in the child of each run.
int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  test::inject({});
  return RUN_ALL_TESTS();
}
