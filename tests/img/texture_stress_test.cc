// Eight threads look at textures by their tags while others are deleted, given back and declared
// anew, under a memory limit: what a texture shows is what its file holds.
#include <ka/imgaccess.h>
#include <ka/imgcache.h>
#include <ka/imgelement.h>
#include <ka/mem.h>

#include <array>
#include <atomic>

#include "cached.h"

namespace {

constexpr int kThreads = 8, kTextures = 6, kRounds = 500, kSide = 600;

// The red of a pixel of a texture; its other components follow.
float red(int texture, int x, int y) { return float((x * 7 + y * 13 + texture * 29) % 256) / 255; }

std::string write_texture(const test::Scratch& scratch, int texture) {
  const test::Image image = test::make_image(IMG_TYPE_RGBA, kSide, kSide);
  for (int i = 0; i < kSide * kSide; ++i) {
    const float color[4] = {red(texture, i % kSide, i / kSide), 0.2F, 0.4F, 1.0F};
    ka_img_put_color(image.get(), color, i % kSide, i / kSide);
  }
  const int format = texture % 3 == 0 ? IMG_FORMAT_TIF : IMG_FORMAT_MAP;  // is read whole, or not
  std::string path = scratch.path("texture" + std::to_string(texture));
  test::write_texture(path, image.get(), 0, format);
  return path;
}

std::uint32_t declare(const std::string& path) {
  img_file handle{};
  handle.name = const_cast<char*>(path.c_str());
  handle.type = IMG_TYPE_FILE;
  std::uint32_t tag = 0;
  EXPECT_TRUE(ka_img_placeholder_dbcreate(&handle, &tag, 0));
  return tag;
}

TEST(TextureStress, ShowsWhatTheFilesHold) {
  const test::Scratch scratch;
  std::array<std::string, kTextures> paths;
  std::array<std::atomic<std::uint32_t>, kTextures> tags;
  for (int i = 0; i < kTextures; ++i) {
    paths[std::size_t(i)] = write_texture(scratch, i);
    tags[std::size_t(i)] = declare(paths[std::size_t(i)]);
  }
  std::atomic<int> seen{0};
  test::in_threads(kThreads, [&] {
    std::minstd_rand random{unsigned(ka_msg_my_thread_id())};
    ka_img_cache_request(random() % 2 ? 3 : 0);
    for (int round = 0; round < kRounds; ++round) {
      const auto texture = std::size_t(random() % kTextures);
      const std::uint32_t tag = tags[texture];
      if (random() % 64 == 0) {
        std::uint32_t expected = tag;
        const std::uint32_t fresh = declare(paths[texture]);
        if (tags[texture].compare_exchange_strong(expected, fresh)) {
          while (!ka_db_delete(tag)) ka_msg_usleep(50);
        } else {
          EXPECT_TRUE(ka_db_delete(fresh));
        }
      } else if (random() % 64 == 0) {
        ka_job_flush(tag);
      } else if (random() % 64 == 0) {
        ka_mem_memory_limit(random() % 2 ? 4 << 20 : 0);
      } else if (const auto* const image = static_cast<const img_image*>(ka_job_access(tag))) {
        for (int i = 0; i < 20; ++i) {
          const int x = int(random() % kSide), y = int(random() % kSide);
          float color[4];
          ka_img_get_color(image, color, x, y);
          EXPECT_NEAR(color[0], red(int(texture), x, y), 1e-5F);
          EXPECT_NEAR(color[2], 0.4F, 1e-5F);
        }
        ka_db_unpin(tag);
        ++seen;
      }
    }
  });
  ka_mem_memory_limit(0);
  EXPECT_GT(seen, kThreads * kRounds / 2);
  for (const auto& tag : tags) EXPECT_TRUE(ka_db_delete(tag));
  ka_db_counts counts;
  ka_db_get_counts(&counts);
  EXPECT_EQ(counts.tags, 0U);
  EXPECT_EQ(test::counts().budget, 1024);
}

}  // namespace
