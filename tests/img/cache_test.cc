// Texture cache: pages against what the files hold, its budget, images that are removed, files that
// are replaced, what its start finds in the environment and what its end reports.
#include <gtest/gtest.h>
#include <ka/db.h>
#include <ka/imgaccess.h>
#include <ka/message.h>
#include <unistd.h>

#include <array>

#include "cached.h"
#include "lib/messages.h"
#include "pictures.h"

namespace {

using test::counts, test::Texture;

constexpr std::uint32_t kPage = 16384;  // bytes

void restart() {
  const ka::ModuleScope scope(KA_IMG);
  ka::img_cache_exit();
  ka::img_cache_init();
}

// Starts every test with an empty cache of the usual size.
class Cache : public testing::Test {
 protected:
  Cache() { restart(); }
  ~Cache() override { restart(); }
  static void set_budget(int pages) {
    ka::img_cache_size_adjust((pages - counts().budget) * double{kPage});
  }
  // Uses one page after the other of a texture of pages with one line each.
  static void touch(const Texture& texture, std::uint32_t first, std::uint32_t pages) {
    for (std::uint32_t i = first; i < first + pages; ++i) {
      ASSERT_EQ(*texture.get(i * kPage), texture.byte(i * kPage));
    }
  }
};

// Bytes of a page: as many lines as 16384 bytes hold, or one.
TEST_F(Cache, PagesHoldWholeLines) {
  const struct {
    int type, width, height;
    std::uint32_t page;
  } rows[] = {{IMG_TYPE_S, 20000, 2, 20000},
              {IMG_TYPE_S, 3000, 12, 15000},
              {IMG_TYPE_S_16, 8192, 2, 16384},
              {IMG_TYPE_RGB_FP, 4097, 1, 16388}};
  for (const auto& [type, width, height, page] : rows) {
    const Texture texture(type, width, height);
    const int before = counts().allocated;
    EXPECT_EQ(texture.get(page - 1) - texture.get(0), std::ptrdiff_t(page - 1));
    EXPECT_EQ(counts().allocated, before + 1);
    EXPECT_EQ(*texture.get(page), texture.byte(page));
    EXPECT_EQ(counts().allocated, before + 2);
    for (const std::uint32_t place : {texture.bytes(), std::uint32_t(-1)}) {
      EXPECT_EQ(texture.get(place), nullptr);
    }
    EXPECT_EQ(ka_img_cache_get(texture.copy(), 0), nullptr);
  }
}

// Fetches all that a pixel can be, whatever the image holds.
std::vector<float> values_at(const img_image* image, int x, int y) {
  std::vector<float> values(36);
  float* const v = values.data();
  ka_img_get_color(image, v, x, y);
  ka_img_get_scalar(image, v + 4, x, y);
  ka_img_get_vector(image, v + 5, x, y);
  ka_img_get_normal(image, v + 8, x, y);
  ka_img_get_depth(image, v + 11, x, y);
  std::uint32_t label;
  ka_img_get_label(image, &label, x, y);
  v[12] = float(label);
  if (x >= 0 && x < image->width && y >= 0 && y < image->height) {
    ka_img_get_scalar_square(image, v + 13, x, y);
    ka_img_get_color_square(image, reinterpret_cast<float(*)[4]>(v + 17), x, y);
  }
  return values;
}

class EveryCachedType : public Cache, public testing::WithParamInterface<int> {};

TEST_P(EveryCachedType, IsTheImageOfTheFile) {
  const Texture texture(GetParam(), 13, 7);
  const test::Scratch scratch;
  img_image* const other =
      test::cache(scratch.write("b", test::from_other_host(test::read_file(texture.path()))));
  for (int k = 0; k < texture.copy()->levels; ++k) {
    const img_image* const copy = texture.copy(k);
    for (int i = 0; i < (copy->width + 2) * (copy->height + 2); ++i) {
      const int x = i % (copy->width + 2) - 1, y = i / (copy->width + 2) - 1;
      const auto values = values_at(copy, x, y);
      ASSERT_EQ(values_at(texture.image(k), x, y), values) << k << ": " << x << ", " << y;
      ASSERT_EQ(values_at(test::level(other, k), x, y), values) << k << ": " << x << ", " << y;
    }
  }
  EXPECT_TRUE(ka::img_cache_image_remove(other));
}

INSTANTIATE_TEST_SUITE_P(Types, EveryCachedType, testing::Range(0, int(IMG_TYPE_COUNT)));

// 600 pages, of which the thread keeps between 256 and 289 + 255.
TEST_F(Cache, RandomAccessStaysWithinTheBudget) {
  const Texture texture(IMG_TYPE_RGBA, 2048, 1200);
  set_budget(16);
  std::minstd_rand random;
  for (int i = 0; i < 50000; ++i) {
    const int k = int(random() % 3);
    const std::uint32_t place = std::uint32_t(random()) % texture.bytes(k);
    ASSERT_EQ(*texture.get(place, k), texture.byte(place, k));
  }
  EXPECT_GT(counts().flushes, 0);
  EXPECT_GE(counts().allocated, 256);
  EXPECT_LT(counts().max_allocated, 289 + 256);
}

TEST_F(Cache, PagesOfEndedThreadsAreUsedAgainOrGivenBack) {
  const Texture texture(IMG_TYPE_S, 16384, 40);
  set_budget(20);
  const int files = test::open_descriptors();
  test::registered([&] {
    touch(texture, 0, 30);
    EXPECT_EQ(test::open_descriptors(), files + 1);
  }).join();
  EXPECT_EQ(test::open_descriptors(), files);
  EXPECT_EQ(counts().allocated, 20);  // unused ones, as many as the budget: 10 to 29
  std::filesystem::resize_file(texture.path(), 200);
  touch(texture, 25, 5);  // they are not read again
  EXPECT_EQ(counts().allocated, 20);
  EXPECT_EQ(ka::img_cache_memory_limit(ka::img_context(), 2 * kPage), 0);
  EXPECT_EQ(counts().allocated, 17);
  EXPECT_FALSE(ka::img_context().memory_low);
  ka::img_cache_memory_limit(ka::img_context(), 40 * kPage);
  EXPECT_EQ(counts().allocated, 5);
  EXPECT_TRUE(ka::img_context().memory_low);
}

std::vector<img_image*> to_remove;
int remove_images(std::int64_t /*wanted*/) {
  for (img_image* const image : std::exchange(to_remove, {})) ka::img_cache_image_remove(image);
  return 0;
}

// The purge runs inside the call that loads a page of the first one.
TEST_F(Cache, PurgesMayRemoveImagesThatAreRead) {
  const Texture first(IMG_TYPE_S), second(IMG_TYPE_S);
  touch(first, 0, 2);
  touch(second, 0, 2);
  to_remove = {first.image(), second.image()};
  const img_image* const image = first.image();
  ka_mem_limit_handler(KA_JOB, remove_images);
  ka_mem_memory_limit(8);
  touch(first, 2, 1);
  ka_mem_memory_limit(0);
  ka_mem_limit_handler(KA_JOB, nullptr);
  EXPECT_TRUE(to_remove.empty());
  EXPECT_EQ(counts().allocated, 5);
  EXPECT_EQ(ka_img_cache_get(image, 120 + 16 * 8), nullptr);
  EXPECT_EQ(counts().allocated, 0);
}

TEST_F(Cache, ReplacedFilesGiveNothing) {
  const Texture texture(IMG_TYPE_S);
  touch(texture, 0, 1);
  const std::string copy = texture.path() + "2";
  std::filesystem::copy_file(texture.path(), copy);
  std::filesystem::rename(copy, texture.path());
  touch(texture, 1, 1);  // from the file that is open
  test::registered([&] {
    const Texts told = messages_of([&] {
      touch(texture, 0, 2);  // in memory
      EXPECT_EQ(texture.get(3 * kPage), nullptr);
      EXPECT_EQ(values_at(texture.image(), 0, 4)[3], 0.0F);
    });
    EXPECT_EQ(told, Texts{"101027 texture file " + texture.path() + " has been replaced"});
  }).join();
}

TEST_F(Cache, BytesAfterAnEarlyEndAreZero) {
  const Texture texture(IMG_TYPE_S);
  touch(texture, 0, 1);
  const std::uint32_t end = 3 * kPage + 100;
  std::filesystem::resize_file(texture.path(), 184 + 16 * 8 + end);
  EXPECT_EQ(*texture.get(end - 1), texture.byte(end - 1));
  EXPECT_EQ(*texture.get(end), 0);
  EXPECT_EQ(*texture.get(texture.bytes() - 1), 0);
}

// One offset of the line table is changed by a byte: the plane is still inside the level. And a
// file that is too short.
TEST_F(Cache, PlanesMustNotStraddlePages) {
  const Texture texture(IMG_TYPE_S, 7, 3);
  std::string file = test::read_file(texture.path());
  const std::string cut = file.substr(0, file.size() - 4);
  ++file[184 + 12];
  for (const std::string& damaged : {file, cut}) {
    const test::Scratch scratch;
    int error = 0;
    EXPECT_EQ(test::cache(scratch.write("b", damaged), &error), nullptr);
    EXPECT_EQ(error, IMG_ERR_CORRUPT);
  }
}

TEST_F(Cache, ThreadsKeepToTheirDescriptors) {
  const int files = test::open_descriptors(), cpus = ka_msg_no_of_cpus();
  const struct {
    int descriptors;
    std::string text;
  } rows[] = {{4 * cpus + 3,
               "101008 too few file descriptors available, need " + std::to_string(4 * cpus + 4)},
              {8 * cpus + 9,
               "use " + std::to_string(4 * cpus + 4) + " file descriptors for texture caching"}};
  for (const auto& [descriptors, text] : rows) {
    const test::Limit limit(RLIMIT_NOFILE, rlim_t(descriptors));
    EXPECT_EQ(messages_of([] { restart(); }), Texts{text});
  }
  std::array<std::unique_ptr<Texture>, 4> textures;
  for (auto& texture : textures) texture = std::make_unique<Texture>(IMG_TYPE_S);
  for (std::uint32_t i = 0; i < 32; ++i) touch(*textures[i * 3 % 4], i / 4, 1);
  EXPECT_EQ(test::open_descriptors(), files + 2);
  textures[1].reset();  // the last one that was used
  EXPECT_EQ(test::open_descriptors(), files + 1);
  touch(*textures[0], 0, 1);
  restart();
  EXPECT_EQ(test::open_descriptors(), files);
  EXPECT_EQ(textures[0]->get(0), nullptr);
  for (const std::size_t i : {0U, 2U, 3U}) ka_mem_release(textures[i]->image());  // not the cache's
}

}  // namespace
