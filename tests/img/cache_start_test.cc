// Texture cache: what its start finds in the environment and shares out, and what its end reports.
#include <gtest/gtest.h>
#include <ka/message.h>
#include <ka/msg.h>

#include <array>

#include "cached.h"
#include "cacherecord.h"
#include "lib/messages.h"

namespace {

using test::Texture;

class CacheStart : public test::CacheTest {};

TEST_F(CacheStart, ThreadsKeepToTheirDescriptors) {
  const int files = test::open_descriptors();
  const int shares = (2 * ka_msg_no_of_cpus() + 2) * 2;
  {
    const test::Limit limit(RLIMIT_NOFILE, rlim_t(2 * shares + 1));
    EXPECT_EQ(messages_of([] { restart(); }),
              Texts{"use " + std::to_string(shares) + " file descriptors for texture caching"});
  }
  std::array<std::unique_ptr<Texture>, 4> textures;
  for (int i = 0; i < 4; ++i) {
    textures[std::size_t(i)] =
        std::make_unique<Texture>(scratch_, std::to_string(i), IMG_TYPE_S, 16384, 8);
  }
  for (int i = 0; i < 32; ++i) touch(*textures[std::size_t(i * 3 % 4)], i / 4, 1);
  EXPECT_EQ(test::open_descriptors(), files + 2);
  textures[1].reset();  // the last one that was used
  EXPECT_EQ(test::open_descriptors(), files + 1);
  touch(*textures[0], 0, 1);
  restart();
  EXPECT_EQ(test::open_descriptors(), files);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(textures[0]->get(0), nullptr);
  for (const int i : {0, 2, 3})
    ka_mem_release(textures[std::size_t(i)]->image());  // not the cache's
}

TEST_F(CacheStart, StartTellsTooFewDescriptors) {
  const test::Limit limit(RLIMIT_NOFILE, rlim_t(4 * ka_msg_no_of_cpus() + 3));
  const std::string need = std::to_string(4 * ka_msg_no_of_cpus() + 4);
  EXPECT_EQ(messages_of([] { restart(); }, kReports),
            Texts{"101008 too few file descriptors available, need " + need});
  EXPECT_EQ(ka::fds_per_thread, 1);
}

TEST_F(CacheStart, TheEnvironmentSaysWhatIsLarge) {
  struct Row {
    const char* limit;
    std::int64_t bytes;
  };
  img_file handle{};
  handle.format = IMG_FORMAT_MAP;
  for (const auto& [limit, bytes] : {Row{"0", 16777216},
                                     {"-5", 16777216},
                                     {"many", 16777216},
                                     {"", 16777216},
                                     {"7", 7168},
                                     {"8388608", 8589934592}}) {
    setenv("KA_1TC_LIMIT", limit, 1);
    const Texts told = messages_of([] { restart(); }, kReports);
    unsetenv("KA_1TC_LIMIT");
    if (bytes == 16777216) {
      EXPECT_EQ(told, Texts{});
    } else {
      EXPECT_EQ(told, Texts{"cache map textures bigger than " + std::to_string(bytes)});
    }
    handle.file_size = bytes;
    EXPECT_FALSE(ka::img_cache_prefer(ka::img_context(), &handle)) << limit;
    ++handle.file_size;
    EXPECT_TRUE(ka::img_cache_prefer(ka::img_context(), &handle)) << limit;
  }
  handle.format = IMG_FORMAT_PPM;
  EXPECT_FALSE(ka::img_cache_prefer(ka::img_context(), &handle));
  handle.file_size = 0;
  for (const int request : {3, 2}) {
    ka_img_cache_request(request);
    EXPECT_EQ(ka::img_cache_prefer(ka::img_context(), &handle), request > 2);
  }
}

TEST_F(CacheStart, EndTellsHowLargeItWas) {
  {
    const Texture texture(scratch_, "a", IMG_TYPE_S, 16384, 8);
    touch(texture, 0, 5);
  }
  EXPECT_EQ(messages_of([] { ka::img_cache_exit(); }, kReports),
            Texts{"texture cache: maximum 5 pages, 5 flushes"});
  EXPECT_EQ(messages_of([] { ka::img_cache_exit(); }, kReports), Texts{});
}

}  // namespace
