// The open file: readers and writers with buffers of their own, beside a string that holds the
// same.
#include "stream.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

#include "support.h"

namespace {

// A handle as drivers see it, on a separate file.
class Stream : public testing::Test {
 protected:
  ~Stream() override {
    if (file_.stream) std::fclose(file_.stream);
  }

  void open(const std::string& contents, const char* mode) {
    scratch_.write("a", contents);
    file_.stream = std::fopen(path_.c_str(), mode);
    ASSERT_TRUE(file_.stream);
    file_.file_size = std::int64_t(contents.size());
  }

  test::Scratch scratch_;
  const std::string path_ = scratch_.path("a");
  img_file file_{};
};

std::string noise(std::size_t count) {
  std::mt19937 random(4);
  std::string text(count, '\0');
  for (char& byte : text) byte = char(random());
  return text;
}

std::string text_of(std::span<const std::uint8_t> bytes) { return {bytes.begin(), bytes.end()}; }

TEST_F(Stream, ReadersGiveWhatTheFileHoldsWhereverTheyStand) {
  const std::string contents = noise(1000);
  open(contents, "rb");
  std::mt19937 random(5);
  for (const std::size_t buffer : {1UL, 2UL, 7UL, 64UL, 999UL, 1000UL}) {
    SCOPED_TRACE(buffer);
    ka::FileReader reader;
    reader.start(&file_, 0, buffer);
    std::size_t at = 0;
    for (int i = 0; i < 3000; ++i) {
      const std::size_t count = random() % (buffer + 1), left = contents.size() - at;
      switch (random() % 5) {
        case 0:
          at = random() % (contents.size() + 1);
          random() % 2 ? reader.seek(at) : reader.seek_back(at, random() % (2 * buffer));
          break;
        case 1: {
          const auto bytes = reader.ahead(count);
          ASSERT_GE(bytes.size(), std::min(count, left));
          ASSERT_EQ(text_of(bytes), contents.substr(at, bytes.size()));
          break;
        }
        case 2: {
          std::string bytes(random() % (3 * buffer), '\0');
          const bool fits = bytes.size() <= left;
          ASSERT_EQ(reader.read({reinterpret_cast<std::uint8_t*>(bytes.data()), bytes.size()}),
                    fits);
          if (!fits) break;
          ASSERT_EQ(bytes, contents.substr(at, bytes.size()));
          at += bytes.size();
          break;
        }
        default:
          const auto bytes = reader.take(count);
          ASSERT_EQ(text_of(bytes), count <= left ? contents.substr(at, count) : "");
          at += bytes.size();
      }
      ASSERT_EQ(reader.left(), contents.size() - at);
      ASSERT_EQ(reader.position(), at);
    }
  }
}

TEST_F(Stream, WritersWriteWhatTheyAreGivenWhereverTheyStand) {
  open("", "w+b");
  constexpr std::size_t largest = ka::FileWriter::kBufferSize;
  const std::string text = noise(3 * largest);
  std::mt19937 random(6);
  std::string expected;
  std::size_t at = 0;
  ka::FileWriter writer;
  writer.start(&file_);
  for (int i = 0; i < 300; ++i) {
    const std::size_t count = random() % 8 == 0 ? largest - random() % 3 : random() % 200;
    const std::string bytes =
        text.substr(random() % largest, random() % 50 == 0 ? 2 * count : count);
    if (random() % 5 == 0) writer.seek(at = random() % (2 * largest));
    if (random() % 2 == 0 && bytes.size() <= largest) {
      std::ranges::copy(bytes, writer.put(bytes.size()).begin());
    } else {
      writer.write(bytes);
    }
    expected.resize(std::max(expected.size(), at + bytes.size()));
    expected.replace(at, bytes.size(), bytes);
    at += bytes.size();
    ASSERT_EQ(writer.position(), at);
  }
  EXPECT_EQ(writer.flush(), 0);
  EXPECT_EQ(test::read_file(path_), expected);
}

}  // namespace
