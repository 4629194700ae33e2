// Formats registered at run time: what a driver is asked, in which order, and what it may answer.
#include <errno.h>
#include <gtest/gtest.h>
#include <ka/message.h>

#include <fstream>

#include "support.h"

namespace {

// A driver for 8-bit types: "T", the pixel type (others: not stated), width and height in one byte
// each, then line after line the planes of that type.
struct Driver {
  std::string calls;  // a letter for each operation, capitals for those that move lines
  char magic = 'T';
  bool opens = true;

  static Driver& instance() {
    static Driver driver;
    return driver;
  }
};

int test_t(img_file* handle, const std::uint8_t* head) {
  Driver::instance().calls += 't';
  EXPECT_EQ(head[IMG_HEAD_SIZE - 1], 0);  // after the end of a short file
  std::fgetc(handle->stream);             // a test may leave the stream anywhere
  return head[0] == std::uint8_t(Driver::instance().magic);
}

int open_t(img_file* handle, const std::uint8_t* head) {
  Driver::instance().calls += 'o';
  EXPECT_EQ(handle->data.p, nullptr);
  char header[4];
  EXPECT_EQ(std::fread(header, 1, 4, handle->stream), 4u);  // the stream is at its beginning
  if (!Driver::instance().opens) return ka_img_custom_format_error(handle, IMG_ERR_SUBTYPE, 0);
  if (head[1] < IMG_TYPE_COUNT) handle->file_type = std::uint8_t(IMG_TYPE_COUNT + head[1]);
  handle->width = head[2];
  handle->height = head[3];
  handle->data.p = &Driver::instance();
  return 1;
}

int create_t(img_file* handle) {
  Driver::instance().calls += 'c';
  std::fprintf(handle->stream, "T%c%c%c", handle->file_type, handle->width, handle->height);
  return 1;
}

int close_t(img_file* handle) {
  Driver::instance().calls += 'e';
  handle->data.p = nullptr;
  return 1;
}

int read_t(img_file* handle, img_line* line) {
  Driver::instance().calls += 'R';
  for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
    std::uint8_t* const plane = test::plane(line, slot);
    if (plane && !std::fread(plane, std::size_t(handle->width), 1, handle->stream)) {
      return ka_img_custom_format_error(handle, IMG_ERR_READ, 0);
    }
  }
  return 1;
}

int write_t(img_file* handle, img_line* line) {
  Driver::instance().calls += 'W';
  for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
    const std::uint8_t* const plane = test::plane(line, slot);
    if (plane) std::fwrite(plane, std::size_t(handle->width), 1, handle->stream);
  }
  return 1;
}

class Custom : public testing::Test {
 protected:
  ~Custom() override {
    ka_img_exit();  // empties the slots
    ka_img_init();
    Driver::instance() = {};
  }

  static int add(int slot, const char* name, int best_type, int topdown = 0,
                 std::uint32_t extra_types = 0) {
    return ka_img_custom_format(slot, test_t, create_t, open_t, close_t, read_t, write_t, topdown,
                                name, extra_types, best_type);
  }

  // Opens a file with this content.
  void open(const std::string& content, int type) {
    ASSERT_TRUE(ka_img_open(file, scratch.write("a", content).c_str(), type));
  }

  std::string& calls = Driver::instance().calls;
  test::Scratch scratch;
  test::Handle file;
};

constexpr int kFirst = IMG_FORMAT_CUSTOM, kLast = IMG_FORMAT_COUNT - 1;

TEST_F(Custom, SlotsTakeNamesAndTypes) {
  const test::MessageLog log(KA_FATAL | KA_DEBUG);
  EXPECT_TRUE(add(kFirst, "tst", IMG_TYPE_S));
  EXPECT_TRUE(add(kLast, "last", IMG_TYPE_RGB));
  EXPECT_EQ(log.lines().at(1),
            "IMG   .0  debug: registered new custom image format 15: \"last\", type rgb");
  EXPECT_EQ(ka_img_format_identify("tst"), kFirst);
  EXPECT_TRUE(add(kFirst, "other", IMG_TYPE_RGBA));  // the later one stays
  EXPECT_EQ(ka_img_format_identify("tst"), -1);
  EXPECT_EQ(ka_img_format_identify("other"), kFirst);
  for (const int slot : {-1, kFirst - 1, kLast + 1}) EXPECT_FALSE(add(slot, "no", IMG_TYPE_S));
  for (const int type : {-1, int(IMG_TYPE_COUNT)}) EXPECT_FALSE(add(kFirst, "no", type));
  EXPECT_FALSE(add(kFirst, nullptr, IMG_TYPE_S));
  EXPECT_STREQ(ka_img_format_name(kFirst), "other");
}

TEST_F(Custom, LinesAreAskedForInFileOrder) {
  for (const int topdown : {0, 1}) {
    add(kFirst, "tst", IMG_TYPE_S, topdown);
    const test::Image image = test::make_image(IMG_TYPE_S, 1, 3);
    for (int y = 0; y < 3; ++y) *test::plane(image.get(), y, test::kA) = std::uint8_t('0' + y);
    ASSERT_EQ(test::write_image(scratch.path("a"), kFirst, image.get()), IMG_ERR_NONE);
    EXPECT_EQ(test::read_file(scratch.path("a")).substr(4), topdown ? "210" : "012");
    const test::Image read = test::read_image(scratch.path("a"), IMG_TYPE_S);
    ASSERT_TRUE(read);
    for (int y = 0; y < 3; ++y) EXPECT_EQ(*test::plane(read.get(), y, test::kA), '0' + y);
  }
}

TEST_F(Custom, ADriverThatOpensTheFileByItsNameWritesItDirectly) {
  const auto create = [](img_file* handle) {
    std::ofstream(handle->name) << "by name";
    return 1;
  };
  const auto write = [](img_file* /*handle*/, img_line* /*line*/) { return 1; };
  ka_img_custom_format(kFirst, nullptr, create, nullptr, nullptr, nullptr, write, 0, "tst", 0,
                       IMG_TYPE_S);
  const test::Image image = test::make_image(IMG_TYPE_S, 1, 1);
  ASSERT_EQ(test::write_image(scratch.path("a"), kFirst, image.get()), IMG_ERR_NONE);
  EXPECT_EQ(test::read_file(scratch.path("a")), "by name");
}

TEST_F(Custom, TheFileStandsOpenFromTheDriversOpenToItsClose) {
  add(kFirst, "tst", IMG_TYPE_S);
  open(test::bytes({'T', IMG_TYPE_RGB, 1, 1, 'r', 'g', 'b'}), IMG_TYPE_FILE);
  EXPECT_EQ(file->type, IMG_TYPE_RGB);  // as the driver stated
  EXPECT_EQ(file->components, 3);
  const test::Line line(ka_img_line_alloc(file));
  EXPECT_TRUE(ka_img_line_read(file, line.get()));
  EXPECT_EQ(test::plane(line.get(), test::kG)[0], 'g');
  EXPECT_FALSE(ka_img_line_read(file, line.get()));
  EXPECT_EQ(file->error, IMG_ERR_READ);
  EXPECT_EQ(file->line_count, 2);  // failed lines count
  EXPECT_TRUE(ka_img_close(file));
  EXPECT_EQ(calls, "toRRe");
}

TEST_F(Custom, OnlyTypesOfOtherLayoutsNeedALineBetween) {
  add(kFirst, "tst", IMG_TYPE_S);
  const struct {
    int stated, wanted;
    bool converts;
  } rows[] = {{IMG_TYPE_S, IMG_TYPE_A, false},        {IMG_TYPE_VTA, IMG_TYPE_VTS, false},
              {IMG_TYPE_COVERAGE, IMG_TYPE_Z, false}, {IMG_TYPE_N, IMG_TYPE_M, false},
              {IMG_TYPE_RGB_16, IMG_TYPE_RGBA, true}, {IMG_TYPE_A_FP, IMG_TYPE_S_FP, true}};
  for (const auto& [stated, wanted, converts] : rows) {
    open(test::bytes({'T', stated, 1, 1, 'x', 0, 0, 0}), wanted);
    EXPECT_EQ(file->conversion != nullptr, converts) << stated << " as " << wanted;
    ka_img_close(file);
  }
}

TEST_F(Custom, DriversAreAskedByTheirSlotsAndBeforeTheBuiltInOnes) {
  add(kFirst + 1, "second", IMG_TYPE_S);
  add(kFirst, "first", IMG_TYPE_RGBE);
  open(test::bytes({'T', 255, 1, 1}), IMG_TYPE_FILE);
  EXPECT_EQ(file->format, kFirst);
  EXPECT_EQ(file->type, IMG_TYPE_RGBE);  // none is stated: the best
  EXPECT_EQ(calls, "to");
  Driver::instance().opens = false;
  EXPECT_FALSE(ka_img_open(file, scratch.write("a", "Tabc").c_str(), IMG_TYPE_S));
  EXPECT_EQ(file->error, IMG_ERR_SUBTYPE);
  EXPECT_TRUE(ka_img_close(file));
  EXPECT_EQ(calls, "toetoe");  // a handle that its driver refused ends with its close
  Driver::instance().opens = true;
  Driver::instance().magic = 'P';
  open("P6\n1 1\n255\nabc", IMG_TYPE_FILE);
  EXPECT_EQ(file->format, kFirst);
  Driver::instance().magic = 'Q';
  open("P6\n1 1\n255\nabc", IMG_TYPE_FILE);
  EXPECT_EQ(file->format, IMG_FORMAT_PPM);
}

TEST_F(Custom, HeadersAreWrittenWithTheFirstLine) {
  add(kFirst, "tst", IMG_TYPE_S);
  file->file_type = IMG_TYPE_S;
  ASSERT_TRUE(ka_img_create(file, scratch.path("a").c_str(), IMG_TYPE_S, kFirst, 1, 2));
  EXPECT_EQ(calls, "");
  const test::Line line(ka_img_line_alloc(file));
  EXPECT_TRUE(ka_img_line_write(file, line.get()) && ka_img_line_write(file, line.get()));
  EXPECT_EQ(calls, "cWW");
  EXPECT_EQ(file->line_count, 2);
}

// What a driver lacks, and what it fails in without a reason, is an error all the same.
TEST_F(Custom, OperationsThatAreMissingOrFailSilentlyAreErrors) {
  const std::string content = test::bytes({'T', IMG_TYPE_S, 1, 1, 'x'});
  const std::string path = scratch.path("new");
  img_line line{};
  const auto add_with = [](img_open_function opens, img_read_function moves) {
    ka_img_custom_format(kFirst, test_t, create_t, opens, close_t, moves, moves, 0, "tst", 0,
                         IMG_TYPE_S);
  };
  for (const img_open_function opens :
       {img_open_function{}, +[](img_file*, const std::uint8_t*) { return 0; },
        +[](img_file*handle, const std::uint8_t*) {
          return int(handle->file_type = 2 * IMG_TYPE_COUNT);  // a type that does not exist
        }}) {
    add_with(opens, read_t);
    EXPECT_FALSE(ka_img_open(file, scratch.write("a", content).c_str(), IMG_TYPE_FILE));
    EXPECT_EQ(file->error, IMG_ERR_SUBTYPE);
  }
  for (const img_read_function moves :
       {img_read_function{}, +[](img_file*, img_line*) { return 0; }}) {
    add_with(open_t, moves);
    open(content, IMG_TYPE_S);
    EXPECT_FALSE(ka_img_line_read(file, &line));
    EXPECT_EQ(file->error, IMG_ERR_READ);
    ka_img_close(file);
    ASSERT_TRUE(ka_img_create(file, path.c_str(), IMG_TYPE_S, kFirst, 1, 1));
    EXPECT_FALSE(ka_img_line_write(file, &line));
    EXPECT_EQ(file->error, IMG_ERR_WRITE);
    ka_img_close(file);
    EXPECT_FALSE(test::exists(path));
  }
  ka_img_custom_format(
      kFirst, test_t, create_t, open_t, [](img_file*) { return 5; }, read_t, write_t, 0, "tst", 0,
      IMG_TYPE_S);
  open(content, IMG_TYPE_S);
  EXPECT_EQ(ka_img_close(file), 1);
}

TEST_F(Custom, ErrorsOfTestsThatDeclineAreForgotten) {
  const auto declines = [](img_file* handle, const std::uint8_t*) {
    return ka_img_custom_format_error(handle, IMG_ERR_READ, EIO);
  };
  ka_img_custom_format(kFirst, declines, nullptr, nullptr, nullptr, nullptr, nullptr, 0, "tst", 0,
                       IMG_TYPE_S);
  EXPECT_FALSE(ka_img_open(file, scratch.write("a", "xyz").c_str(), IMG_TYPE_FILE));
  EXPECT_EQ(file->error, IMG_ERR_FORMAT);
  EXPECT_EQ(file->os_error, 0);
  open("P6\n1 1\n255\nabc", IMG_TYPE_FILE);
  EXPECT_EQ(file->error, IMG_ERR_NONE);
}

TEST_F(Custom, DriversGetThePlanesOfTheirType) {
  add(kFirst, "tst", IMG_TYPE_S);
  open(test::bytes({'T', IMG_TYPE_RGB, 1, 2, 'r', 'g', 'b', 'R', 'G', 'B'}), IMG_TYPE_RGBA);
  const test::Line line(ka_img_line_alloc(file));
  EXPECT_TRUE(ka_img_line_read(file, line.get()));
  EXPECT_EQ(test::plane(line.get(), test::kA)[0], 255);
  line->offset[test::kA] = 0;  // a plane that the caller does not want
  EXPECT_TRUE(ka_img_line_read(file, line.get()));
  EXPECT_EQ(test::plane(line.get(), test::kB)[0], 'B');
}

TEST_F(Custom, ExtraTypesCanBeWrittenToo) {
  add(kFirst, "tst", IMG_TYPE_RGB, 0, 1U << IMG_TYPE_A);
  const test::MessageLog log;
  for (const auto& [wanted, given] :
       {std::pair{IMG_TYPE_A, IMG_TYPE_A}, {IMG_TYPE_S, IMG_TYPE_RGB}}) {
    file->file_type = std::uint8_t(wanted);
    EXPECT_TRUE(ka_img_create(file, scratch.path("a").c_str(), given, kFirst, 1, 1));
    EXPECT_EQ(file->file_type, given);
    ka_img_close(file);
  }
  // number 2 of the warnings of module 10
  EXPECT_EQ(log.lines(), (std::vector<std::string>{
                             "IMG   .0  warn   102002: type s not supported by tst format, "
                             "using default type rgb"}));
}

}  // namespace
