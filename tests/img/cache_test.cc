// Texture cache: pages against what the files hold, its budget, images that are removed, and
// files that are replaced.
#include <gtest/gtest.h>
#include <ka/db.h>
#include <ka/imgaccess.h>
#include <ka/message.h>
#include <unistd.h>

#include <latch>
#include <numeric>

#include "cached.h"
#include "cacherecord.h"
#include "lib/messages.h"
#include "pictures.h"

namespace {

using test::counts, test::Texture;

using Cache = test::CacheTest;

// Bytes of a page: as many lines as 16384 bytes hold, or one.
TEST_F(Cache, PagesHoldWholeLines) {
  struct Row {
    int type, width, height;
    std::uint32_t page;
  };
  for (const auto& [type, width, height, page] : {Row{IMG_TYPE_S, 20000, 2, 20000},
                                                  {IMG_TYPE_S, 3000, 12, 15000},
                                                  {IMG_TYPE_S_16, 8192, 2, 16384},
                                                  {IMG_TYPE_RGB_FP, 4097, 1, 16388}}) {
    const Texture texture(scratch_, "a", type, width, height);
    const int before = counts().allocated;
    EXPECT_EQ(texture.get(page - 1) - texture.get(0), std::ptrdiff_t(page - 1));
    EXPECT_EQ(counts().allocated, before + 1);
    EXPECT_EQ(*texture.get(page), texture.byte(page));
    EXPECT_EQ(counts().allocated, before + 2);
    EXPECT_EQ(*texture.get(texture.bytes() - 1), texture.byte(texture.bytes() - 1));
    EXPECT_EQ(texture.get(texture.bytes()), nullptr);
    EXPECT_EQ(texture.get(std::uint32_t(-1)), nullptr);
    EXPECT_EQ(ka_img_cache_get(texture.copy(), 0), nullptr);
    EXPECT_EQ(ka_img_cache_get(nullptr, 0), nullptr);
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

// The file of a texture as a host of the other byte order writes it.
std::string from_other_host(const Texture& texture) {
  std::string file = test::read_file(texture.path());
  const std::size_t sample = std::size_t(texture.image()->bits + 7) / 8;
  test::swap_words(file, 0, 64);
  for (int k = texture.image()->levels - 1; k >= 0; --k) {
    const std::size_t at = 64 + texture.copy()->level_offset[k];
    const std::size_t planes = at + 120 + 16 * std::size_t(texture.copy(k)->height);
    test::swap_words(file, at, at + 104);
    test::swap_words(file, at + 108, planes);
    test::swap_words(file, planes, planes + texture.bytes(k), sample);
  }
  return file;
}

class EveryCachedType : public Cache, public testing::WithParamInterface<int> {};

TEST_P(EveryCachedType, IsTheImageOfTheFile) {
  const Texture texture(scratch_, "a", GetParam(), 13, 7);
  scratch_.write("b", from_other_host(texture));
  img_image* const other = test::cache(scratch_.path("b"));
  for (int k = 0; k < texture.copy()->levels; ++k) {
    const img_image* const copy = texture.copy(k);
    img_image* other_level = nullptr;
    ka_img_pyramid_set_level(&other_level, other, k);
    for (int i = 0; i < (copy->width + 2) * (copy->height + 2); ++i) {
      const int x = i % (copy->width + 2) - 1, y = i / (copy->width + 2) - 1;
      const auto values = values_at(copy, x, y);
      ASSERT_EQ(values_at(texture.image(k), x, y), values) << k << ": " << x << ", " << y;
      ASSERT_EQ(values_at(other_level, x, y), values) << k << ": " << x << ", " << y;
    }
  }
  EXPECT_TRUE(ka::img_cache_image_remove(other));
}

TEST_P(EveryCachedType, IsWrittenAndConverted) {
  const Texture texture(scratch_, "a", GetParam(), 13, 7);
  ASSERT_EQ(test::write_image(scratch_.path("b"), IMG_FORMAT_MAP, texture.image()), IMG_ERR_NONE);
  const int type = GetParam() == IMG_TYPE_RGBA ? IMG_TYPE_RGBA_FP : IMG_TYPE_RGBA;
  for (const int to : {type, GetParam()}) {
    const test::Image lines = test::make_image(to, 13, 2),
                      again = test::read_image(scratch_.path("b"), to);
    for (const img_image* from : {texture.copy(), texture.image()}) {
      img_line line;
      int components = 0, bits = 0;
      ka::set_line(&line, lines.get(), from == texture.image());
      EXPECT_EQ(ka_img_convert(&line, &components, &bits, from, 3, to), 1);
    }
    EXPECT_EQ(test::planes_of(lines.get(), 0), test::planes_of(lines.get(), 1));
    EXPECT_EQ(test::planes_of(lines.get(), 0), test::planes_of(again.get(), 3));
  }
}

INSTANTIATE_TEST_SUITE_P(Types, EveryCachedType, testing::Range(0, int(IMG_TYPE_COUNT)));

// 600 pages, of which the thread keeps between 256 and 289 + 255.
TEST_F(Cache, RandomAccessStaysWithinTheBudget) {
  const Texture texture(scratch_, "a", IMG_TYPE_RGBA, 2048, 1200);
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

TEST_F(Cache, ThreadsWithManyPagesKeepTheBudget) {
  const Texture texture(scratch_, "a", IMG_TYPE_S, 16384, 400);
  set_budget(0);
  std::thread([&] {  // a thread whose calls are counted from its first one
    ASSERT_GT(ka_msg_register_thread(), 0);
    touch(texture, 0, 250);
    for (int i = 0; i < 1000; ++i) touch(texture, 0, 1);
    EXPECT_EQ(counts().allocated, 250);
    while (ka::recent_page.calls % 256 != 10) touch(texture, 0, 1);
    touch(texture, 250, 50);
    EXPECT_EQ(counts().allocated, 300);
    while (ka::recent_page.calls % 256 != 255) touch(texture, 299, 1);
    EXPECT_EQ(counts().allocated, 300);
    EXPECT_EQ(messages_of([&] { touch(texture, 299, 1); }),
              Texts{"flushed 44 texure pages (tried 44)"});  // min(0 / 4 + 300, 300 - 256)
    EXPECT_EQ(counts().allocated, 256);
    touch(texture, 250, 50);
    EXPECT_EQ(counts().allocated, 256);  // those stayed that were used last
    ka_msg_unregister_thread();
  })
      .join();
}

// A purge asks a thread that is elsewhere: its next call answers.
TEST_F(Cache, ThreadsDropPagesWhenMemoryIsLow) {
  const Texture texture(scratch_, "a", IMG_TYPE_S, 16384, 300);
  touch(texture, 0, 300);
  EXPECT_EQ(ka::img_cache_memory_limit(ka::img_context(), 1 << 20), 0);
  EXPECT_EQ(counts().allocated, 300);
  touch(texture, 299, 1);
  EXPECT_EQ(counts().allocated, 256);
  EXPECT_EQ(counts().flushes, 44);
  EXPECT_EQ(ka::img_cache_memory_limit(ka::img_context(), 1 << 20), 0);
  touch(texture, 299, 1);
  EXPECT_EQ(counts().allocated, 256);
}

TEST_F(Cache, PagesOfEndedThreadsAreUsedAgainOrGivenBack) {
  const Texture texture(scratch_, "a", IMG_TYPE_S, 16384, 40);
  set_budget(20);
  const int files = test::open_descriptors();
  test::registered([&] {
    touch(texture, 0, 30);
    EXPECT_EQ(test::open_descriptors(), files + 1);
  }).join();
  EXPECT_EQ(test::open_descriptors(), files);
  EXPECT_EQ(counts().allocated, 20);  // unused ones, as many as the budget: 10 to 29
  truncate(texture.path().c_str(), 200);
  touch(texture, 25, 5);  // they are not read again
  EXPECT_EQ(counts().allocated, 20);
  EXPECT_EQ(ka::img_cache_memory_limit(ka::img_context(), 2 * 16384), 0);
  EXPECT_EQ(counts().allocated, 17);
  EXPECT_FALSE(ka::img_context().memory_low);
  ka::img_cache_memory_limit(ka::img_context(), 40 * 16384);
  EXPECT_EQ(counts().allocated, 5);
  EXPECT_TRUE(ka::img_context().memory_low);
}

TEST_F(Cache, RemovedImagesAreGoneForEveryThread) {
  auto texture = std::make_unique<Texture>(scratch_, "a", IMG_TYPE_RGBA, 4096, 64);
  const img_image* const image = texture->image(1);
  EXPECT_EQ(ka::img_cache_filesize_get(image),
            std::int64_t(test::read_file(texture->path()).size()));
  std::latch read(1), removed(1);
  const auto other = test::registered([&] {
    const auto* const byte = texture->get(20000, 1);
    read.count_down();
    removed.wait();
    EXPECT_EQ(*byte, texture->byte(20000, 1));  // until this thread's next call
    float square[4][4];
    ka_img_get_color_square(image, square, 5, 5);  // looks at the header four times
    EXPECT_EQ(std::accumulate(square[0], square[0] + 16, 0.0F), 0.0F);
    EXPECT_EQ(counts().allocated, 0);
  });
  read.wait();
  EXPECT_NE(texture->get(0), nullptr);
  EXPECT_EQ(counts().allocated, 2);
  EXPECT_EQ(ka::img_cache_image_remove(texture->image(1)), 0);  // not the base
  EXPECT_EQ(ka::img_cache_image_remove(texture->image()), 1);
  EXPECT_EQ(ka::img_cache_image_remove(texture->image()), 0);
  EXPECT_EQ(counts().allocated, 1);
  EXPECT_EQ(ka_img_cache_get(image, 20000), nullptr);
  EXPECT_EQ(ka::img_cache_filesize_get(image), 0);
  removed.count_down();
}

std::vector<img_image*> to_remove;
int remove_images(std::int64_t /*wanted*/) {
  for (img_image* const image : std::exchange(to_remove, {})) ka::img_cache_image_remove(image);
  return 0;
}

// The purge runs inside the call that loads a page of the first one.
TEST_F(Cache, PurgesMayRemoveImagesThatAreRead) {
  const Texture first(scratch_, "a", IMG_TYPE_S, 16384, 8),
      second(scratch_, "b", IMG_TYPE_S, 16384, 8);
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

TEST_F(Cache, LinesOfRemovedImagesAreErrors) {
  const Texture texture(scratch_, "a", IMG_TYPE_RGBA, 5, 5);
  EXPECT_NE(texture.get(0), nullptr);
  std::latch read(1), removed(1);
  const auto other = test::registered([&] {
    EXPECT_NE(texture.get(0), nullptr);
    read.count_down();
    removed.wait();
    EXPECT_EQ(test::write_image(scratch_.path("b"), IMG_FORMAT_CT, texture.image()), IMG_ERR_READ);
    EXPECT_FALSE(test::exists(scratch_.path("b")));
  });
  read.wait();
  ka::img_cache_image_remove(texture.image());
  removed.count_down();
}

TEST_F(Cache, ReplacedFilesGiveNothing) {
  const Texture texture(scratch_, "a", IMG_TYPE_S, 16384, 8);
  const std::string file = test::read_file(texture.path());
  touch(texture, 0, 1);
  scratch_.write("b", file);
  std::filesystem::rename(scratch_.path("b"), texture.path());
  touch(texture, 1, 1);  // from the file that is open
  test::registered([&] {
    const Texts told = messages_of([&] {
      touch(texture, 0, 2);  // in memory
      EXPECT_EQ(texture.get(3 * 16384), nullptr);
      EXPECT_EQ(texture.get(4 * 16384), nullptr);
      float color[4];
      ka_img_get_color(texture.image(), color, 0, 4);
      EXPECT_EQ(color[3], 0.0F);
    });
    EXPECT_EQ(told, Texts{"101027 texture file " + texture.path() + " has been replaced"});
  }).join();
}

TEST_F(Cache, BytesAfterAnEarlyEndAreZero) {
  const Texture texture(scratch_, "a", IMG_TYPE_S, 16384, 8);
  touch(texture, 0, 1);
  const std::uint32_t end = 3 * 16384 + 100;
  truncate(texture.path().c_str(), 184 + 16 * 8 + end);
  EXPECT_EQ(*texture.get(end - 1), texture.byte(end - 1));
  EXPECT_EQ(*texture.get(end), 0);
  EXPECT_EQ(*texture.get(texture.bytes() - 1), 0);
}

// The headers of an element that goes without a word to the cache make room for the next ones.
TEST_F(Cache, HeadersAreDataOfAnElement) {
  const Texture texture(scratch_, "a", IMG_TYPE_S, 50, 20);
  for (int i = 0; i < 3; ++i) {
    test::Handle file;
    ASSERT_TRUE(ka_img_open(file, texture.path().c_str(), IMG_TYPE_FILE));
    const std::uint32_t tag = ka::img_cache_image_add(file, 0);
    ASSERT_NE(tag, 0U);
    EXPECT_EQ(file->magic, 0U);
    EXPECT_EQ(ka_db_type(tag), KA_DB_IMAGE);
    const auto* const image = static_cast<const img_image*>(ka_db_access(tag));
    EXPECT_EQ(values_at(image, 30, 7), values_at(texture.copy(), 30, 7));
    EXPECT_EQ(ka_db_delete(tag), 1);
  }
}

// One offset of the line table is changed by a byte: the plane is still inside the level.
TEST_F(Cache, PlanesMustNotStraddlePages) {
  const test::Image image = test::random_image(IMG_TYPE_S, 7, 3, 1);
  test::write_texture(scratch_.path("a"), image.get());
  std::string file = test::read_file(scratch_.path("a"));
  file[184 + 12] = char(file[184 + 12] + 1);
  scratch_.write("b", file);
  int error = 0;
  EXPECT_EQ(test::cache(scratch_.path("b"), &error), nullptr);
  EXPECT_EQ(error, IMG_ERR_CORRUPT);
  std::filesystem::resize_file(scratch_.path("a"), file.size() - 4);
  EXPECT_EQ(test::cache(scratch_.path("a"), &error), nullptr);
  EXPECT_EQ(error, IMG_ERR_CORRUPT);
}

}  // namespace
