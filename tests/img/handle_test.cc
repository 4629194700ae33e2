// Handles: what each operation asks of their state, errors and how they are reported, what becomes of
// files that could not be written.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ka/message.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support.h"

namespace {

constexpr char kPicture[] = "P6\n2 1\n255\nabcdef";

class HandleTest : public testing::Test {
 protected:
  ~HandleTest() override { ka_img_debug(0); }

  int create(const std::string& path, int type = IMG_TYPE_RGB, int width = 2, int height = 2) {
    file->file_type = std::uint8_t(type);
    return ka_img_create(file, path.c_str(), type, IMG_FORMAT_PPM, width, height);
  }

  test::Scratch scratch;
  const std::string picture = scratch.write("picture.ppm", kPicture);
  test::Handle file;
};

TEST_F(HandleTest, NamesForMessagesAreCut) {
  for (const int length : {1, 63, 64, 65, 200}) {
    const std::string name(std::size_t(length), 'x');
    ka_img_open(file, name.c_str(), IMG_TYPE_RGBA);
    EXPECT_EQ(file->display_name, length <= 63 ? name : "..." + std::string(60, 'x'));
  }
}

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
              {scratch.write("one", "P"), IMG_ERR_FORMAT, 0},
              {scratch.write("text.ppm", std::string(300, 'x')), IMG_ERR_FORMAT, 0}};
  const int before = test::open_descriptors();
  for (const auto& [path, error, os_error] : rows) {
    EXPECT_FALSE(ka_img_open(file, path.c_str(), IMG_TYPE_RGBA));
    EXPECT_EQ(file->error, error) << path;
    EXPECT_EQ(file->os_error, os_error) << path;
    EXPECT_EQ(file->name, nullptr);
    EXPECT_TRUE(ka_img_close(file));
  }
  EXPECT_EQ(test::open_descriptors(), before);
}

// The file that the first 1023 characters of a longer name lead to is another one.
TEST_F(HandleTest, NamesThatAreTooLongAreRefused) {
  const test::MessageLog log;
  std::string folder = scratch.path(std::string(200, 'd'));
  while (folder.size() < 900) folder += "/" + std::string(100, 'd');
  std::filesystem::create_directories(folder);
  const std::string name = folder + "/" + std::string(1022 - folder.size(), 'x');
  ASSERT_TRUE(create(name));  // of 1023 characters
  ASSERT_TRUE(ka_img_close(file));
  EXPECT_FALSE(create(name + "y"));
  EXPECT_EQ(file->error, IMG_ERR_CREATE);
  EXPECT_EQ(file->os_error, ENAMETOOLONG);
  EXPECT_TRUE(test::exists(name));
  EXPECT_FALSE(ka_img_open(file, (name + "y").c_str(), IMG_TYPE_FILE));
  EXPECT_EQ(file->error, IMG_ERR_OPEN);
  EXPECT_EQ(file->os_error, ENAMETOOLONG);
}

// The rest of such a name may be that of another file.
TEST_F(HandleTest, NamesThatLeadNowhereAreRefused) {
  const test::MessageLog log;
  const std::pair<std::string, int> rows[] = {{picture + "$LUMORA_UNSET", ENOENT},
                                              {picture + "${HOME", ENOENT},
                                              {"$LUMORA_LONG" + picture, ENAMETOOLONG}};
  setenv("LUMORA_LONG", std::string(4090, '/').c_str(), 1);
  for (const auto& [name, os_error] : rows) {
    EXPECT_FALSE(ka_img_open(file, name.c_str(), IMG_TYPE_RGB));
    EXPECT_EQ(file->error, IMG_ERR_OPEN);
    EXPECT_EQ(file->os_error, os_error);
    EXPECT_FALSE(create(name));
    EXPECT_EQ(file->error, IMG_ERR_CREATE);
    EXPECT_EQ(file->os_error, os_error);
  }
  unsetenv("LUMORA_LONG");
  EXPECT_EQ(test::read_file(picture), kPicture);
}

TEST_F(HandleTest, AFileKeepsThePathThatItsNameHadAtFirst) {
  const std::string written = scratch.path("written.ppm");
  setenv("LUMORA_FILE", written.c_str(), 1);
  ASSERT_TRUE(create("$LUMORA_FILE"));
  setenv("LUMORA_FILE", picture.c_str(), 1);
  EXPECT_EQ(file->path, written);
  ka_img_custom_format_error(file, IMG_ERR_WRITE, 0);
  EXPECT_FALSE(test::exists(written));
  EXPECT_TRUE(test::exists(picture));
  unsetenv("LUMORA_FILE");
}

TEST_F(HandleTest, APipeIsWrittenWhileItHasAReader) {
  const std::string pipe = scratch.path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_FALSE(create(pipe));
  EXPECT_EQ(file->os_error, ENXIO);
  const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  const auto before = signal(SIGPIPE, SIG_IGN);
  ASSERT_TRUE(create(pipe));
  close(reader);
  const test::Line line(ka_img_line_alloc(file));
  EXPECT_TRUE(ka_img_line_write(file, line.get()));  // it is buffered
  EXPECT_FALSE(ka_img_close(file));
  EXPECT_EQ(file->os_error, EPIPE);
  signal(SIGPIPE, before);
  EXPECT_TRUE(test::exists(pipe));
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
    const std::string path = scratch.write("open", "results\n");
    const int descriptor = open(path.c_str(), O_RDWR | O_CLOEXEC | flags);
    lseek(descriptor, 0, SEEK_END);
    file->file_type = IMG_TYPE_RGB;
    const bool written =
        ka_img_create_in(file, descriptor, "a$b.rgb", IMG_TYPE_RGB, format, 2, 2) &&
        ka_img_image_write(file, image.get());
    EXPECT_EQ(file->os_error, os_error);
    EXPECT_EQ(ka_img_close(file) && written, os_error == 0);
    close(descriptor);
    const std::string bytes = test::read_file(path);
    ASSERT_TRUE(bytes.starts_with("results\n"));
    EXPECT_EQ(test::read_image(scratch.write("picture", bytes.substr(8)), IMG_TYPE_RGB) != nullptr,
              os_error == 0);
  }
}

TEST_F(HandleTest, ArgumentsOutOfRangeAreRefused) {
  EXPECT_FALSE(ka_img_open(file, picture.c_str(), 21));
  EXPECT_EQ(file->error, IMG_ERR_ARGUMENT);
  const struct {
    int type, format, width, height;
  } rows[] = {{-1, 19, 1, 1},
              {21, 19, 1, 1},
              {99, 19, 1, 1},
              {2, -1, 1, 1},
              {2, 58, 1, 1},
              {0, IMG_FORMAT_TGA, -1, 1},
              {0, IMG_FORMAT_TGA, 1, -1}};
  for (const auto& [type, format, width, height] : rows) {
    file->error = 0;
    EXPECT_FALSE(ka_img_create(file, picture.c_str(), type, format, width, height))
        << type << " " << format;
    EXPECT_EQ(file->error, IMG_ERR_ARGUMENT);
  }
  EXPECT_EQ(test::read_file(picture), kPicture);
}

TEST_F(HandleTest, FilesThatCannotBeCreatedHaveTheirErrors) {
  img_line line{};  // a device cannot be mapped
  EXPECT_FALSE(ka_img_create(file, "/dev/null", 0, IMG_FORMAT_MAP, 1, 1));
  EXPECT_FALSE(ka_img_line_write(file, &line));
  EXPECT_EQ(file->error, IMG_ERR_WRITE);
  EXPECT_EQ(file->os_error, EINVAL);
  EXPECT_TRUE(ka_img_close(file));
  EXPECT_FALSE(create(scratch.path("missing/a")));
  EXPECT_EQ(file->error, IMG_ERR_CREATE);
  EXPECT_EQ(file->os_error, ENOENT);
  bool created;
  {
    const test::Limit limit(RLIMIT_NOFILE, 3);  // no more files than the standard streams
    created = create(picture);
  }
  EXPECT_FALSE(created);
  EXPECT_EQ(file->os_error, EMFILE);
  EXPECT_EQ(test::read_file(picture), kPicture);
}

TEST_F(HandleTest, LinesMoveOneWayWhileTheHandleIsOpen) {
  const test::Image image = test::make_image(IMG_TYPE_RGB, 2, 2);
  img_line line{};
  const auto refused = [&](auto operation, auto* argument) {
    file->error = 0;
    EXPECT_FALSE(operation(file, argument));
    EXPECT_EQ(file->error, IMG_ERR_NOT_OPEN);
  };
  ASSERT_TRUE(ka_img_open(file, picture.c_str(), IMG_TYPE_RGB));
  refused(ka_img_line_write, &line);
  EXPECT_EQ(test::read_file(picture), kPicture);
  const std::string path = scratch.path("new");
  file->parameters[1] = file->parameters[2] = file->pyramid = 7;
  ASSERT_TRUE(create(path));
  EXPECT_EQ(file->pyramid, 7);  // it keeps two settings
  EXPECT_EQ(file->parameters[1], 0);
  EXPECT_EQ(file->parameters[2], 7);
  refused(ka_img_line_read, &line);
  EXPECT_FALSE(test::exists(path));
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(ka_img_close(file));  // once more does nothing
  refused(ka_img_line_read, &line);
  refused(ka_img_line_write, &line);
  refused(ka_img_image_read, image.get());
  refused(ka_img_image_write, image.get());
}

// The handle of a file whose header is damaged is open, and gives no lines.
TEST_F(HandleTest, FilesThatFailedToOpenHaveNoLines) {
  img_line line{};
  for (const std::string& content : {std::string("P6\n2 x"), "II*" + std::string(20, '\0')}) {
    EXPECT_FALSE(ka_img_open(file, scratch.write("a", content).c_str(), IMG_TYPE_FILE));
    EXPECT_NE(file->error, IMG_ERR_FORMAT);
    EXPECT_FALSE(ka_img_line_read(file, &line));
    EXPECT_EQ(file->error, IMG_ERR_NOT_OPEN);
  }
}

TEST_F(HandleTest, OpenHandlesThatAreUsedAgainAreClosedFirst) {
  const int before = test::open_descriptors();
  const test::MessageLog log;
  ka_img_debug(1);
  const std::string path = scratch.path("new");
  ASSERT_TRUE(ka_img_open(file, picture.c_str(), IMG_TYPE_RGBA));
  ASSERT_TRUE(create(path));
  EXPECT_EQ(file->error, IMG_ERR_NONE);
  ASSERT_TRUE(ka_img_open(file, picture.c_str(), IMG_TYPE_RGBA));
  EXPECT_FALSE(test::exists(path));  // it was not finished
  EXPECT_EQ(test::open_descriptors(), before + 1);
  EXPECT_TRUE(ka_img_close(file));
  const auto told = [](const std::string& name) {
    return "IMG   .0  error  101003: " + name + ": internal error (file not closed)";
  };
  EXPECT_EQ(log.lines(), (std::vector{told(picture), told(path)}));
}

TEST_F(HandleTest, ErrorsAreTold) {
  const std::string texts[] = {"can't read line 8 of 9, incomplete file",
                               "can't write line 8 of 9, check disk space (file is incomplete)",
                               "can't uncompress pixels in line 8 of 9, file is corrupted",
                               "can't compress pixels in line 8 of 9",
                               "unrecognized file format, not an image file",
                               "file format subtype or version not supported",
                               "can't create file",
                               "can't open file for reading",
                               "can't close file, may be incomplete",
                               "internal error (bad argument)",
                               "internal error (file not open)",
                               "internal error (file not closed)",
                               "wrong file size"};
  const test::MessageLog log;
  std::vector<std::string> expected;
  for (int code = 0; code <= int(std::size(texts)); ++code) {
    img_file handle{};
    handle.line_count = 7;
    handle.height = 9;
    std::snprintf(handle.display_name, sizeof handle.display_name, "%%s.ppm");
    EXPECT_EQ(ka_img_custom_format_error(&handle, code, code % 2 ? ENOSPC : 0), 0);
    ka_img_err_msg(&handle);
    if (code == 0) continue;
    expected.push_back("IMG   .0  error  101003: %s.ppm: " + texts[code - 1] +
                       (code % 2 ? " (No space left on device)" : ""));
  }
  EXPECT_EQ(log.lines(), expected);
}

TEST_F(HandleTest, EveryToldErrorGoesToTheCallback) {
  const test::MessageLog log;
  static int called;
  called = 0;
  ka_img_err_handler([](img_file* handle) { called += handle->error == IMG_ERR_OPEN; });
  ka_img_err_msg(file);             // no error
  for (const int level : {0, 1}) {  // level 1 tells them at once
    ka_img_debug(level);
    ka_img_open(file, scratch.path("missing").c_str(), IMG_TYPE_RGBA);
    ka_img_close(file);
  }
  ka_img_debug(0);
  ka_img_err_msg(file);
  ka_img_err_handler(nullptr);
  ka_img_err_msg(file);
  EXPECT_EQ(called, 2);
  EXPECT_EQ(log.lines().size(), 3u);
}

TEST_F(HandleTest, InformationTellsWhichFilesAreOpened) {
  const test::MessageLog log(KA_FATAL | KA_INFO);
  const std::string path = scratch.path("new");
  const auto use_both = [&] {
    ASSERT_TRUE(ka_img_open(file, picture.c_str(), IMG_TYPE_RGBA));
    ASSERT_TRUE(ka_img_close(file));
    ASSERT_TRUE(create(path, IMG_TYPE_RGB, 4, 5));
    ASSERT_TRUE(ka_img_close(file));
  };
  const std::string info = "IMG   .0  info : ";
  const std::vector<std::string> expected = {
      info + "opening \"" + picture + "\" for reading", info + "converting rgb to rgba",
      info + "type \"rgb\", format \"ppm\", 8 bits, 3 components, 2 x 1",
      info + "creating \"" + path + "\"",
      info + "format \"ppm\", type \"rgb\", 8 bits, 3 comps, size 4 x 5"};
  const std::uint32_t mask = ka_get_subverbosity(KA_IMG);
  ka_set_subverbosity(KA_IMG, mask | KA_SUBVERB_FILES);
  use_both();
  EXPECT_EQ(log.lines(), expected);
  ka_set_subverbosity(KA_IMG, mask);
  use_both();
  EXPECT_EQ(log.lines(), expected);  // no more than before
  log.lines().clear();
  ka_img_debug(1);  // switches it on as well
  use_both();
  EXPECT_EQ(log.lines(), expected);
}

TEST_F(HandleTest, DevicesAndLinksAreNotRemoved) {
  const std::string link = scratch.path("link");
  const test::Image image = test::make_image(IMG_TYPE_RGB, 2, 2);
  std::filesystem::create_symlink("/dev/full", link);
  EXPECT_EQ(test::write_image(link, IMG_FORMAT_PPM, image.get()), IMG_ERR_CLOSE);
  EXPECT_TRUE(test::exists(link));

  std::filesystem::remove(link);
  std::filesystem::create_symlink(scratch.path("target"), link);
  ASSERT_TRUE(create(link));
  ka_img_custom_format_error(file, IMG_ERR_WRITE, 0);
  EXPECT_TRUE(test::exists(link));
}

}  // namespace
