// Files that are being written: what is under their name until they are complete, and after.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "support.h"

namespace {

namespace fs = std::filesystem;

constexpr char kOld[] = "a precious file";
constexpr uid_t kNobody = 65534;

enum After { kOldStays, kNothing, kPart };  // a failure

// What is done to the folder, in which the file `old` is, before a name in it is written.
struct Row {
  const char *preparation, *name;
  After failure;
  bool is_replaced;
  enum { kAny, kRoot, kWritesAsNobody } user = kAny;
};
constexpr Row kRows[] = {
    {"true", "old", kOldStays, true},
    {"rm old", "new", kNothing, true},
    {"mkdir f; ln -s ../old f/second; ln -s f/second link", "link", kOldStays, true},
    {"rm old; ln -s new link", "link", kNothing, true},
    {"ln old second", "second", kNothing, false},
    {"ln old second; ln -s old link", "link", kPart, false},
    {"chown 65534 old", "old", kNothing, false, Row::kRoot},
    {"chown 65534 old; chmod 755 .", "old", kPart, false, Row::kWritesAsNobody},
};

std::ptrdiff_t names_in(const test::Scratch& scratch) {
  return std::distance(fs::recursive_directory_iterator(scratch.path("")), {});
}

// Writes both lines of a picture, or one, and expects what then is in the folder.
void expect_replaced(const Row& row, bool completes) {
  const test::Scratch scratch;
  scratch.write("old", kOld);
  const std::string path = scratch.path(row.name);
  ASSERT_EQ(std::system(("cd " + scratch.path("") + "; chmod 640 old; " + row.preparation).c_str()),
            0);
  const bool was_there = fs::exists(path), is_new = !was_there;
  const std::ptrdiff_t before = names_in(scratch);
  const mode_t mask = umask(0);
  umask(mask);
  struct stat old {
  }, now{};
  stat(path.c_str(), &old);
  if (row.user == Row::kWritesAsNobody) {
    ASSERT_EQ(seteuid(kNobody), 0);
    if (stat(path.c_str(), &old) != 0) return;  // the scratch folder is in one of ours alone
  }
  test::Handle file;
  file->file_type = IMG_TYPE_RGB;
  ASSERT_TRUE(ka_img_create(file, path.c_str(), IMG_TYPE_RGB, IMG_FORMAT_PPM, 1, 2));
  const test::Line line(ka_img_line_alloc(file));
  for (std::size_t c = 0; c < 3; ++c) *test::plane(line.get(), c) = std::uint8_t('a' + c);
  for (int y = completes ? 0 : 1; y < 2; ++y) ASSERT_TRUE(ka_img_line_write(file, line.get()));
  EXPECT_EQ(names_in(scratch), before);
  EXPECT_EQ(was_there ? test::read_file(path) : kOld, is_new || row.is_replaced ? kOld : "");
  if (!completes) {
    EXPECT_FALSE(ka_img_line_read(file, line.get()));
    file->error = IMG_ERR_NONE;  // does not make it good
    ka_img_close(file);
    EXPECT_EQ(fs::exists(path), row.failure != kNothing);
    EXPECT_TRUE(row.failure != kOldStays || test::read_file(path) == kOld);
    EXPECT_EQ(names_in(scratch), before - (row.failure == kNothing && !row.is_replaced));
    return;
  }
  EXPECT_TRUE(ka_img_close(file));
  EXPECT_TRUE(test::read_file(path).ends_with("\nabcabc"));
  ASSERT_EQ(stat(path.c_str(), &now), 0);
  EXPECT_EQ(names_in(scratch), before + is_new);
  EXPECT_EQ(now.st_mode & 0777, was_there ? old.st_mode & 0777 : 0666 & ~mask);
  EXPECT_TRUE(is_new || (now.st_ino != old.st_ino) == row.is_replaced);
  EXPECT_TRUE(is_new || now.st_uid == old.st_uid);
}

TEST(Output, ReplacesAFileWhenItIsComplete) {
  for (const Row& row : kRows) {
    if (row.user != Row::kAny && geteuid() != 0) continue;
    for (const bool completes : {true, false}) {
      SCOPED_TRACE(row.preparation + std::string(completes ? "" : ", then a failure"));
      expect_replaced(row, completes);
      (void)!seteuid(getuid());
    }
  }
}

TEST(Output, FilesDoNotTakeThePlaceOfAClosedStream) {
  const test::Scratch scratch;
  const std::string path = scratch.path("new");
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    const int kept = dup(stream);
    close(stream);
    test::Handle file;
    const int created = ka_img_create(file, path.c_str(), IMG_TYPE_RGB, IMG_FORMAT_PPM, 1, 2);
    const int number = created ? fileno(file->stream) : -1;
    dup2(kept, stream);
    close(kept);
    EXPECT_GT(number, STDERR_FILENO);
  }
}

}  // namespace
