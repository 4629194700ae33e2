// Handles: what each operation asks of their state, errors and how they are reported, what becomes of
// files that could not be written.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "lib/messages.h"
#include "pictures.h"

namespace {

constexpr char kPicture[] = "P6\n2 1\n255\nabcdef";

// The error of a handle and the system's.
using Errors = std::pair<int, int>;

class HandleTest : public testing::Test {
 protected:
  ~HandleTest() override { ka_img_debug(0); }

  int create(const std::string& name, int width = 2, int height = 2) {
    file->file_type = IMG_TYPE_RGB;
    return ka_img_create(file, name.c_str(), IMG_TYPE_RGB, IMG_FORMAT_PPM, width, height);
  }
  int open(const std::string& name, int type = IMG_TYPE_RGBA) {
    return ka_img_open(file, name.c_str(), type);
  }
  Errors errors() { return {file->error, file->os_error}; }

  test::Scratch scratch;
  const std::string picture = scratch.write("picture.ppm", kPicture), path = scratch.path("new");
  test::Handle file;
  img_line line{};
};

// Nor have they lines, where the handle stays open.
TEST_F(HandleTest, FilesThatCannotBeOpenedHaveTheirErrors) {
  const std::string folder = scratch.path("folder"), pipe = scratch.path("pipe");
  std::filesystem::create_directory(folder);
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const struct {
    std::string path;
    int error, os_error;
  } rows[] = {{scratch.path("missing"), IMG_ERR_OPEN, ENOENT},
              {folder, IMG_ERR_OPEN, EISDIR},
              {pipe, IMG_ERR_OPEN, ESPIPE},
              {scratch.write("empty", ""), IMG_ERR_FORMAT, 0},
              {scratch.write("text.ppm", std::string(300, 'x')), IMG_ERR_FORMAT, 0},
              {scratch.write("damaged", "P6\n2 x"), IMG_ERR_CORRUPT, 0}};
  const int before = test::open_descriptors();
  for (const auto& [name, error, os_error] : rows) {
    EXPECT_FALSE(open(name));
    EXPECT_EQ(errors(), Errors(error, os_error)) << name;
    EXPECT_FALSE(ka_img_line_read(file, &line));
    EXPECT_EQ(file->error, IMG_ERR_NOT_OPEN);
    EXPECT_TRUE(ka_img_close(file));
    EXPECT_EQ(file->name, nullptr);
  }
  EXPECT_EQ(test::open_descriptors(), before);
}

// What is left of such a name when its end or a variable is missing may be that of another file.
TEST_F(HandleTest, NamesThatAreTooLongOrLeadNowhereAreRefused) {
  const test::MessageLog log;
  std::string folder = scratch.path(std::string(200, 'd'));
  while (folder.size() < 900) folder += "/" + std::string(100, 'd');
  std::filesystem::create_directories(folder);
  const std::string longest = folder + "/" + std::string(1022 - folder.size(), 'x');
  ASSERT_TRUE(create(longest) && ka_img_close(file));  // of 1023 characters
  setenv("LUMORA_LONG", std::string(4090, '/').c_str(), 1);
  const std::pair<std::string, int> rows[] = {{longest + "y", ENAMETOOLONG},
                                              {picture + "$LUMORA_UNSET", ENOENT},
                                              {picture + "${HOME", ENOENT},
                                              {"$LUMORA_LONG" + picture, ENAMETOOLONG}};
  for (const auto& [name, os_error] : rows) {
    EXPECT_FALSE(open(name));
    EXPECT_EQ(errors(), Errors(IMG_ERR_OPEN, os_error));
    EXPECT_FALSE(create(name));
    EXPECT_EQ(errors(), Errors(IMG_ERR_CREATE, os_error));
  }
  unsetenv("LUMORA_LONG");
  EXPECT_EQ(test::read_file(picture), kPicture);
}

// Formats that go back to their header count from where the picture begins.
TEST_F(HandleTest, AnOpenFileIsWrittenFromItsPositionOn) {
  const test::Image image = test::make_image(IMG_TYPE_RGB, 2, 2);
  const struct {
    int format, flags, os_error;
  } rows[] = {{IMG_FORMAT_RGB, 0, 0},
              {IMG_FORMAT_TIF3, 0, 0},
              {IMG_FORMAT_PPM, O_APPEND, 0},
              {IMG_FORMAT_RGB, O_APPEND, ESPIPE},
              {IMG_FORMAT_MAP, 0, ESPIPE}};
  for (const auto& [format, flags, os_error] : rows) {
    scratch.write("new", "results\n");
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CLOEXEC | flags);
    lseek(descriptor, 0, SEEK_END);
    file->file_type = IMG_TYPE_RGB;
    const bool written =
        ka_img_create_in(file, descriptor, "a$b.rgb", IMG_TYPE_RGB, format, 2, 2) &&
        ka_img_image_write(file, image.get());
    EXPECT_EQ(file->os_error, os_error);
    EXPECT_EQ(ka_img_close(file) && written, os_error == 0);
    close(descriptor);
    const std::string bytes = test::read_file(path);
    EXPECT_TRUE(bytes.starts_with("results\n"));
    EXPECT_EQ(test::read_image(scratch.write("a", bytes.substr(8)), IMG_TYPE_RGB) != nullptr,
              os_error == 0);
  }
}

TEST_F(HandleTest, FilesThatCannotBeCreatedHaveTheirErrors) {
  EXPECT_FALSE(ka_img_create(file, "/dev/null", 0, IMG_FORMAT_MAP, 1, 1));  // not to be mapped
  EXPECT_FALSE(ka_img_line_write(file, &line));
  EXPECT_EQ(errors(), Errors(IMG_ERR_WRITE, EINVAL));
  EXPECT_FALSE(create(scratch.path("missing/a")));
  EXPECT_EQ(errors(), Errors(IMG_ERR_CREATE, ENOENT));
  {
    const test::Limit limit(RLIMIT_NOFILE, 3);  // no more files than the standard streams
    create(picture);
  }
  EXPECT_EQ(errors(), Errors(IMG_ERR_CREATE, EMFILE));
  EXPECT_EQ(test::read_file(picture), kPicture);
}

TEST_F(HandleTest, LinesMoveOneWayWhileTheHandleIsOpen) {
  const test::Image image = test::make_image(IMG_TYPE_RGB, 2, 2);
  const auto refused = [&](auto operation, auto* argument) {
    file->error = 0;
    EXPECT_FALSE(operation(file, argument));
    EXPECT_EQ(file->error, IMG_ERR_NOT_OPEN);
  };
  ASSERT_TRUE(open(picture));
  refused(ka_img_line_write, &line);
  EXPECT_EQ(test::read_file(picture), kPicture);
  file->parameters[1] = file->parameters[2] = file->pyramid = 7;
  ASSERT_TRUE(create(path));  // it keeps two settings
  EXPECT_EQ(std::pair(file->parameters[1], file->parameters[2]), std::pair(0U, 7U));
  EXPECT_EQ(file->pyramid, 7);
  refused(ka_img_line_read, &line);
  EXPECT_FALSE(test::exists(path));
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(ka_img_close(file));  // once more does nothing
  refused(ka_img_line_write, &line);
  refused(ka_img_image_read, image.get());
  refused(ka_img_image_write, image.get());
}

TEST_F(HandleTest, OpenHandlesThatAreUsedAgainAreClosedFirst) {
  const int before = test::open_descriptors();
  ka_img_debug(1);
  const Texts told = messages_of(
      [&] {
        ASSERT_TRUE(open(picture) && create(path));
        EXPECT_EQ(file->error, IMG_ERR_NONE);
        ASSERT_TRUE(open(picture));
      },
      KA_ERROR);
  EXPECT_FALSE(test::exists(path));  // it was not finished
  EXPECT_EQ(test::open_descriptors(), before + 1);
  const std::string text = ": internal error (file not closed)";
  EXPECT_EQ(told, (Texts{"101003 " + picture + text, "101003 " + path + text}));
}

}  // namespace
