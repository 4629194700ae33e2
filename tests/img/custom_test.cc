// Formats registered at run time: what a driver is asked, in which order, and what it may answer.
#include <errno.h>
#include <gtest/gtest.h>
#include <ka/message.h>

#include <fstream>

#include "pictures.h"

namespace {

// A driver for 8-bit types: "T", the pixel type (others: not stated), width and height in one byte
// each, then line after line the planes of that type.
struct Driver {
  std::string calls;  // a letter for each operation, capitals for those that move lines
  char magic = 'T';
  bool opens = true;
} driver;

int test_t(img_file* handle, const std::uint8_t* head) {
  driver.calls += 't';
  EXPECT_EQ(head[IMG_HEAD_SIZE - 1], 0);  // after the end of a short file
  std::fgetc(handle->stream);             // a test may leave the stream anywhere
  return head[0] == std::uint8_t(driver.magic);
}
int open_t(img_file* handle, const std::uint8_t* head) {
  driver.calls += 'o';
  EXPECT_EQ(handle->data.p, nullptr);
  char header[4];
  EXPECT_EQ(std::fread(header, 1, 4, handle->stream), 4u);  // the stream is at its beginning
  if (!driver.opens) return ka_img_custom_format_error(handle, IMG_ERR_SUBTYPE, 0);
  if (head[1] < IMG_TYPE_COUNT) handle->file_type = std::uint8_t(IMG_TYPE_COUNT + head[1]);
  handle->width = head[2];
  handle->height = head[3];
  return 1;
}
int create_t(img_file* handle) {
  driver.calls += 'c';
  std::fprintf(handle->stream, "T%c%c%c", handle->file_type, handle->width, handle->height);
  return 1;
}
int close_t(img_file* /*handle*/) {
  driver.calls += 'e';
  return 5;  // not yet 1
}
template <typename Move>
int move(char letter, Move move, img_file* handle, img_line* line) {
  driver.calls += letter;
  for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
    std::uint8_t* const plane = test::plane(line, slot);
    if (plane && move(plane, std::size_t(handle->width), 1, handle->stream) != 1) return 0;
  }
  return 1;
}
int read_t(img_file* handle, img_line* line) { return move('R', std::fread, handle, line); }
int write_t(img_file* handle, img_line* line) { return move('W', std::fwrite, handle, line); }

constexpr int kFirst = IMG_FORMAT_CUSTOM, kLast = IMG_FORMAT_COUNT - 1;

int add(int slot, const char* name, int best_type, int topdown = 0, std::uint32_t extra_types = 0) {
  return ka_img_custom_format(slot, test_t, create_t, open_t, close_t, read_t, write_t, topdown,
                              name, extra_types, best_type);
}

class Custom : public testing::Test {
 protected:
  ~Custom() override {
    ka_img_exit();  // empties the slots
    ka_img_init();
    driver = {};
  }

  bool opens(const std::string& content, int type) {
    return test::is_done(ka_img_open(file, scratch.write("a", content).c_str(), type));
  }

  test::Scratch scratch;
  const std::string new_path = scratch.path("new");
  test::Handle file;
};

TEST_F(Custom, SlotsTakeNamesAndTypes) {
  const test::MessageLog log(KA_FATAL | KA_DEBUG);
  EXPECT_TRUE(add(kFirst, "tst", IMG_TYPE_S) && add(kLast, "last", IMG_TYPE_RGB));
  EXPECT_EQ(log.lines().at(1),
            "IMG   .0  debug: registered new custom image format 15: \"last\", type rgb");
  EXPECT_TRUE(add(kFirst, "other", IMG_TYPE_RGBA));  // the later one stays
  for (const int slot : {kFirst - 1, kLast + 1}) EXPECT_FALSE(add(slot, "no", IMG_TYPE_S));
  for (const int type : {-1, int(IMG_TYPE_COUNT)}) EXPECT_FALSE(add(kFirst, "no", type));
  EXPECT_FALSE(add(kFirst, nullptr, IMG_TYPE_S));
  EXPECT_EQ(ka_img_format_identify("tst"), -1);
  EXPECT_EQ(ka_img_format_identify("other"), kFirst);
}

TEST_F(Custom, ADriverThatOpensTheFileByItsNameWritesItDirectly) {
  const auto create = [](img_file* handle) {
    return int((std::ofstream(handle->name) << "x").good());
  };
  const auto write = [](img_file* /*handle*/, img_line* /*line*/) { return 1; };
  ka_img_custom_format(kFirst, nullptr, create, nullptr, nullptr, nullptr, write, 0, "tst", 0,
                       IMG_TYPE_S);
  EXPECT_EQ(test::written(kFirst, IMG_TYPE_S, {{{0}}}), "x");
}

TEST_F(Custom, DriversAreAskedByTheirSlotsAndBeforeTheBuiltInOnes) {
  add(kFirst + 1, "second", IMG_TYPE_S);
  add(kFirst, "first", IMG_TYPE_RGBE);
  ASSERT_TRUE(opens(test::bytes({'T', 255, 1, 1}), IMG_TYPE_FILE));
  EXPECT_EQ(file->format, kFirst);
  EXPECT_EQ(file->type, IMG_TYPE_RGBE);  // none is stated: the best
  driver.opens = false;
  EXPECT_FALSE(opens("Tabc", IMG_TYPE_S));
  EXPECT_EQ(file->error, IMG_ERR_SUBTYPE);
  EXPECT_TRUE(ka_img_close(file));
  EXPECT_EQ(driver.calls, "toetoe");  // a handle that its driver refused ends with its close
  driver.opens = true;
  const std::pair<char, int> formats[] = {{'P', kFirst}, {'Q', IMG_FORMAT_PPM}};
  for (const auto& [magic, format] : formats) {
    driver.magic = magic;
    ASSERT_TRUE(opens("P6\n1 1\n255\nabc", IMG_TYPE_FILE));
    EXPECT_EQ(file->format, format);
  }
}

// What a driver lacks, and what it fails in without a reason, is an error all the same.
TEST_F(Custom, OperationsThatAreMissingOrFailSilentlyAreErrors) {
  const std::string content = test::bytes({'T', IMG_TYPE_S, 1, 1, 'x'});
  img_line line{};
  const auto add_with = [](img_open_function first, img_read_function moves) {
    ka_img_custom_format(kFirst, test_t, create_t, first, close_t, moves, moves, 0, "tst", 0,
                         IMG_TYPE_S);
  };
  const img_open_function failing[] = {
      nullptr, [](img_file*, const std::uint8_t*) { return 0; },
      [](img_file* handle, const std::uint8_t*) { return int(handle->file_type = 255); }};
  for (const img_open_function function : failing) {
    add_with(function, read_t);
    EXPECT_FALSE(opens(content, IMG_TYPE_FILE));
    EXPECT_EQ(file->error, IMG_ERR_SUBTYPE);
  }
  for (const img_read_function moves :
       {img_read_function{}, +[](img_file*, img_line*) { return 0; }}) {
    add_with(open_t, moves);
    ASSERT_TRUE(opens(content, IMG_TYPE_S));
    EXPECT_FALSE(ka_img_line_read(file, &line));
    EXPECT_EQ(file->error, IMG_ERR_READ);
    test::NewFile out(kFirst, IMG_TYPE_S, 1, 1);
    EXPECT_FALSE(out.write_line());
    EXPECT_EQ(out->error, IMG_ERR_WRITE);
  }
}

TEST_F(Custom, StandInsAreAskedAfterARefusalAndForFilesOfNoOther) {
  const std::string refused = "BM" + std::string(12, '\0') + "x" + std::string(60, '\0');
  const auto error_of = [&](const std::string& content) {
    ka_img_open(file, scratch.write("a", content).c_str(), IMG_TYPE_FILE);
    const int error = file->error;
    ka_img_close(file);
    return error;
  };
  add(kFirst, "tst", IMG_TYPE_S);
  EXPECT_TRUE(ka_img_custom_format_stand_in(kFirst, IMG_FORMAT_BMP));
  EXPECT_EQ(error_of("P6\n1 1\n255\nabc"), IMG_ERR_NONE);
  EXPECT_EQ(driver.calls, "");
  EXPECT_EQ(error_of(refused), IMG_ERR_SUBTYPE);
  EXPECT_EQ(file->format, IMG_FORMAT_BMP);
  EXPECT_STREQ(file->reason, "a header of 120 bytes is not read; those of 12 and 40 are");
  EXPECT_EQ(driver.calls, "t");
  driver.magic = 'B';
  EXPECT_EQ(error_of(refused), IMG_ERR_NONE);
  EXPECT_EQ(file->format, kFirst);
  EXPECT_STREQ(file->reason, "");
  EXPECT_EQ(driver.calls, "ttoe");
  driver.magic = '\1';  // no built-in format begins so
  EXPECT_EQ(error_of(std::string("\1\0\0\0", 4)), IMG_ERR_NONE);
  EXPECT_EQ(error_of("\2"), IMG_ERR_FORMAT);
  for (const int slot : {kFirst - 1, kLast + 1}) {
    EXPECT_FALSE(ka_img_custom_format_stand_in(slot, IMG_FORMAT_BMP));
  }
  for (const int other : {-1, kFirst}) EXPECT_FALSE(ka_img_custom_format_stand_in(kFirst, other));
}

}  // namespace
