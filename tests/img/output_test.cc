// Files that are being written: what is under their name until they are complete, and after.
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>

#include "support.h"

namespace {

namespace fs = std::filesystem;

constexpr char kOld[] = "a precious file";
constexpr uid_t kNobody = 65534;

enum After { kOldStays, kNothing, kPart };  // a failure

// What is prepared before a path is written.
struct Row {
  const char* name;
  std::string (*prepare)(const test::Scratch& scratch);  // the path to be written
  After failure;
  bool is_replaced;
  bool needs_root = false;
};

std::string old_file(const test::Scratch& scratch, mode_t mode) {
  std::string path = scratch.write("old", kOld);
  EXPECT_EQ(chmod(path.c_str(), mode), 0);
  return path;
}

std::string link_to(const test::Scratch& scratch, const char* target) {
  fs::create_symlink(target, scratch.path("link"));
  return scratch.path("link");
}

constexpr Row kRows[] = {
    {"File", [](const test::Scratch& scratch) { return old_file(scratch, 0640); }, kOldStays, true},
    {"NewName", [](const test::Scratch& scratch) { return scratch.path("new"); }, kNothing, true},
    {"RelativeLink",
     [](const test::Scratch& scratch) {
       old_file(scratch, 0600);
       fs::create_directory(scratch.path("folder"));
       fs::create_symlink("../old", scratch.path("folder/second"));
       return link_to(scratch, "folder/second");
     },
     kOldStays, true},
    {"LinkThatLeadsNowhere", [](const test::Scratch& scratch) { return link_to(scratch, "new"); },
     kNothing, true},
    {"FileWithTwoNames",
     [](const test::Scratch& scratch) {
       fs::create_hard_link(old_file(scratch, 0600), scratch.path("second"));
       return scratch.path("second");
     },
     kNothing, false},
    {"LinkToAFileWithTwoNames",
     [](const test::Scratch& scratch) {
       fs::create_hard_link(old_file(scratch, 0600), scratch.path("second"));
       return link_to(scratch, "old");
     },
     kPart, false},
    {"FileOfAnotherOwner",
     [](const test::Scratch& scratch) {
       std::string path = old_file(scratch, 0600);
       EXPECT_EQ(chown(path.c_str(), kNobody, gid_t(-1)), 0);
       return path;
     },
     kNothing, false, true},
    {"FolderThatTakesNoNewFiles",
     [](const test::Scratch& scratch) {
       std::string path = old_file(scratch, 0600);
       EXPECT_EQ(chown(path.c_str(), kNobody, gid_t(-1)), 0);
       chmod(scratch.path("").c_str(), 0755);
       EXPECT_EQ(seteuid(kNobody), 0);
       return path;
     },
     kPart, false, true},
};

class Replacing : public testing::TestWithParam<Row> {
 protected:
  void SetUp() override {
    if (GetParam().needs_root && geteuid() != 0) GTEST_SKIP() << "needs other users";
  }
  ~Replacing() override { (void)!seteuid(getuid()); }

  // Names in the folder.
  std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(scratch.path(""))) {
      names.push_back(entry.path());
    }
    std::ranges::sort(names);
    return names;
  }

  // Creates a picture of two lines and writes some of them.
  void write(test::Handle& file, const std::string& path, int lines) {
    file->file_type = IMG_TYPE_RGB;
    ASSERT_TRUE(ka_img_create(file, path.c_str(), IMG_TYPE_RGB, IMG_FORMAT_PPM, 1, 2));
    const test::Line line(ka_img_line_alloc(file));
    for (std::size_t c = 0; c < 3; ++c) *test::plane(line.get(), c) = std::uint8_t('a' + c);
    for (int y = 0; y < lines; ++y) ASSERT_TRUE(ka_img_line_write(file, line.get()));
  }

  test::Scratch scratch;
};

TEST_P(Replacing, HappensWhenTheFileIsComplete) {
  const Row& row = GetParam();
  const std::string path = row.prepare(scratch);
  const bool was_there = fs::exists(path);
  std::vector<std::string> before = names();
  struct stat old {
  }, now{};
  stat(path.c_str(), &old);
  test::Handle file;
  write(file, path, 2);
  EXPECT_EQ(names(), before);
  EXPECT_EQ(was_there ? test::read_file(path) : kOld, !was_there || row.is_replaced ? kOld : "");
  EXPECT_TRUE(ka_img_close(file));
  EXPECT_TRUE(test::read_file(path).ends_with("\nabcabc"));
  ASSERT_EQ(stat(path.c_str(), &now), 0);
  if (was_there) {
    EXPECT_EQ(names(), before);
    EXPECT_EQ(now.st_ino != old.st_ino, row.is_replaced);
    EXPECT_EQ(now.st_mode, old.st_mode);
    EXPECT_EQ(now.st_uid, old.st_uid);
  } else {
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(now.st_mode & 0777, 0666 & ~mask);
    EXPECT_EQ(names().size(), before.size() + 1);
  }
}

TEST_P(Replacing, DoesNotHappenAfterAFailure) {
  const Row& row = GetParam();
  const std::string path = row.prepare(scratch);
  const std::vector<std::string> before = names();
  test::Handle file;
  write(file, path, 1);
  img_line line{};
  EXPECT_FALSE(ka_img_line_read(file, &line));
  file->error = IMG_ERR_NONE;  // does not make it good
  ka_img_close(file);
  EXPECT_EQ(fs::exists(path), row.failure != kNothing);
  if (row.failure == kOldStays) {
    EXPECT_EQ(test::read_file(path), kOld);
  }
  EXPECT_EQ(names().size(), before.size() - (row.failure == kNothing && !row.is_replaced));
}

INSTANTIATE_TEST_SUITE_P(Of, Replacing, testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(Output, NamesAreThoseOfTheFolderInWhichAFileWasCreated) {
  const test::Scratch scratch;
  const fs::path here = fs::current_path();
  fs::current_path(scratch.path(""));
  test::Handle file;
  EXPECT_TRUE(ka_img_create(file, "new", IMG_TYPE_RGB, IMG_FORMAT_PPM, 1, 2));
  fs::current_path(here);
  EXPECT_TRUE(ka_img_close(file));  // without lines
  EXPECT_EQ(test::read_file(scratch.path("new")), "");
  EXPECT_TRUE(test::exists(scratch.path("new")));
}

TEST(Output, FilesDoNotTakeThePlaceOfAClosedStream) {
  const test::Scratch scratch;
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    const std::string path = scratch.write("old", kOld);
    const int kept = dup(stream);
    close(stream);
    test::Handle file;
    const int created = ka_img_create(file, path.c_str(), IMG_TYPE_RGB, IMG_FORMAT_PPM, 1, 2);
    const int number = created ? fileno(file->stream) : -1;
    dup2(kept, stream);
    close(kept);
    EXPECT_GT(number, STDERR_FILENO);
    EXPECT_EQ(test::read_file(path), kOld);
    EXPECT_TRUE(ka_img_close(file));
    EXPECT_EQ(test::read_file(path), "");
  }
}

}  // namespace
