// Images as elements of the scene database: textures and how they are loaded, images from another
// host, lightmaps.
#include <ka/imgaccess.h>
#include <ka/imgcache.h>
#include <ka/imgelement.h>
#include <ka/trans.h>

#include <latch>

#include "cached.h"
#include "lib/messages.h"
#include "pictures.h"

namespace {

class Elements : public testing::Test {
 protected:
  // Nothing that a test makes is left, and the budget of the cache is as before.
  ~Elements() override {
    ka_img_cache_request(0);
    for (const std::uint32_t tag : tags_) EXPECT_TRUE(ka_db_delete(tag));
    ka_db_counts counts;
    ka_db_get_counts(&counts);
    EXPECT_EQ(counts.tags, 0U);
    EXPECT_EQ(test::counts().budget, 1024);
  }

  std::string picture(int format, int type, int width, int height, int pyramid = 0) {
    std::string path = scratch_.path("picture" + std::to_string(tags_.size()));
    test::write_texture(path, test::random_image(type, width, height).get(), pyramid, format);
    return path;
  }

  struct Declared {
    std::string path;
    int type = IMG_TYPE_FILE, pyramid = 0, writing = 0;
    std::uint32_t flags = 0;
    int width = 0, height = 0, bits = 8;
  };
  std::uint32_t declare(const Declared& texture) {
    img_file handle{};
    handle.name = const_cast<char*>(texture.path.c_str());
    handle.type = texture.type;
    handle.pyramid = texture.pyramid;
    handle.writing = texture.writing;
    handle.width = texture.width;
    handle.height = texture.height;
    handle.bits = texture.bits;
    std::uint32_t tag = 0;
    EXPECT_TRUE(ka_img_placeholder_dbcreate(&handle, &tag, texture.flags));
    tags_.push_back(tag);
    return tag;
  }
  static const img_image* access(std::uint32_t tag) {
    return static_cast<const img_image*>(ka_job_access(tag));
  }
  static std::string description(std::uint32_t tag) {
    char text[KA_JOB_TEXT_SIZE];
    EXPECT_TRUE(ka_job_describe(tag, text));
    return text;
  }
  // Whether the texture shows what reading the file shows.
  static bool shows(std::uint32_t tag, const std::string& path) {
    const test::Image plain = test::read_image(path, IMG_TYPE_RGBA_FP);
    const test::Image shown = test::make_image(IMG_TYPE_RGBA_FP, plain->width, plain->height);
    const img_image* const image = access(tag);
    for (int y = 0; image && y < plain->height; ++y) {
      img_line line{};
      int components, bits;
      test::point_at(line, shown.get(), y);
      EXPECT_TRUE(ka_img_convert(&line, &components, &bits, image, y, IMG_TYPE_RGBA_FP));
    }
    ka_db_unpin(tag);
    return test::lines_of(shown.get()) == test::lines_of(plain.get());
  }

  test::Scratch scratch_;
  std::vector<std::uint32_t> tags_;
};

TEST_F(Elements, MapFilesAreMapped) {
  const std::string path = picture(IMG_FORMAT_MAP, IMG_TYPE_RGBA, 20, 10);
  const std::uint32_t tag = declare({.path = path, .flags = IMG_TEXTURE_LOCAL});
  EXPECT_EQ(description(tag), ("read texture file " + path).substr(0, 78));
  const auto lines = messages_of([&] { EXPECT_TRUE(shows(tag, path)); });
  EXPECT_TRUE(std::ranges::count(lines, "opening local texture " + path + ", for reading"));
  EXPECT_TRUE(std::ranges::count(lines, "texture " + path + " was loaded (1 Kb)"));
  EXPECT_EQ(ka_job_size(tag), std::filesystem::file_size(path));
  EXPECT_EQ(ka_db_size(tag), std::filesystem::file_size(path) - 64);
  const auto end = messages_of([&] { EXPECT_TRUE(ka_job_flush(tag)); }, KA_PROGRESS);
  EXPECT_EQ(end, (Texts{"texture " + path + " was memory-unmapped"}));
  EXPECT_TRUE(shows(tag, path));
}

TEST_F(Elements, MapFilesAreCachedOnRequest) {
  ka_img_cache_request(3);
  const std::string path = picture(IMG_FORMAT_MAP, IMG_TYPE_RGB_16, 700, 400, 1);
  const std::uint32_t tag = declare({.path = path, .pyramid = 1});
  EXPECT_TRUE(shows(tag, path));
  const auto file_size = std::int64_t(std::filesystem::file_size(path));
  EXPECT_EQ(test::counts().budget, int((16777216.0 + 0.05 * double(file_size)) / 16384));
  EXPECT_EQ(std::int64_t(ka_job_size(tag)),
            std::int64_t(ka_db_size(tag)) + file_size / 16384 * 8 + file_size / 20);
}

TEST_F(Elements, OtherFilesAreReadWhole) {
  const std::string path = picture(IMG_FORMAT_TIF, IMG_TYPE_RGBA, 33, 21);
  const std::uint32_t tag = declare({.path = path, .type = IMG_TYPE_RGB_16, .pyramid = 1});
  const img_image* image = nullptr;
  EXPECT_EQ(messages_of([&] { image = access(tag); }, KA_ERROR | KA_WARNING), Texts{});
  EXPECT_EQ(image->type, IMG_TYPE_RGB_16);
  EXPECT_EQ(image->levels, 5);
  EXPECT_FALSE(ka_img_image_is_writable(image));
  EXPECT_STREQ(static_cast<const char*>(ka_db_access(ka_img_image_name(image))), path.c_str());
  EXPECT_EQ(ka_img_access(image, 3, 1), test::plane(image, 3, 1));
  EXPECT_EQ(ka_img_access(image, 21, 1), nullptr);
  ka_db_unpin(tag);
}

TEST_F(Elements, TellWhatCannotBeLoadedAndTryAgain) {
  const std::string path = scratch_.path("later.map");
  const std::uint32_t tag = declare({.path = path});
  const auto errors_of = [](std::uint32_t failing) {
    return messages_of([&] { EXPECT_EQ(access(failing), nullptr); }, KA_ERROR);
  };
  const Texts lines = errors_of(tag);
  EXPECT_EQ(lines.back(), "101001 cannot open texture " + path);
  EXPECT_EQ(lines.size(), 2U);
  std::filesystem::rename(picture(IMG_FORMAT_MAP, IMG_TYPE_RGBA, 5, 5), path);
  EXPECT_TRUE(shows(tag, path));

  const std::string map = picture(IMG_FORMAT_MAP, IMG_TYPE_RGBA, 6, 5);
  const std::uint32_t other = declare({.path = map, .type = IMG_TYPE_RGBA_FP});
  const auto warnings = messages_of([&] { EXPECT_TRUE(shows(other, map)); }, KA_WARNING);
  ASSERT_EQ(warnings.size(), 2U);
  EXPECT_EQ(warnings[0].substr(0, 6) + warnings[1].substr(0, 6), "102004102007");

  const std::string cut = scratch_.write("cut.ppm", "P6\n64 64\n255\nabc");
  EXPECT_EQ(errors_of(declare({.path = cut})).back(), "101002 cannot read texture " + cut);
}

TEST_F(Elements, ImagesAreMadeAndMadeAnew) {
  std::uint32_t tag = 0;
  img_file shape{};
  shape.width = 7;
  shape.height = 9;
  shape.writing = 1;
  for (const int type : {IMG_TYPE_RGBA_FP, IMG_TYPE_RGB}) {
    shape.type = type;
    const img_image* const image = ka_img_image_dbcreate(&shape, &tag);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->type, type);
    EXPECT_EQ(std::exchange(*test::plane(image, 8, 0), 255), 0);
    EXPECT_EQ(ka_img_image_name(image), 0U);
  }
  shape.name = const_cast<char*>("a name");
  const std::uint32_t name = ka_img_image_name(ka_img_image_dbcreate(&shape, &tag));
  EXPECT_STREQ(static_cast<const char*>(ka_db_access(name)), "a name");
  tags_ = {name, tag};
  EXPECT_DEATH(ka_img_image_dbcreate(&shape, &tags_[0]), "kaSCENE_IMAGE");
  shape.width = shape.height = 1 << 20;
  EXPECT_EQ(ka_img_image_dbcreate(&shape, &tag), nullptr);
}

TEST_F(Elements, ImagesOfTheOtherByteOrderAreTurned) {
  for (const int type : {IMG_TYPE_RGBA, IMG_TYPE_RGBA_16, IMG_TYPE_S_FP}) {
    const std::string path = picture(IMG_FORMAT_MAP, type, 12, 8, 1), plain = test::read_file(path);
    std::string turned = test::from_other_host(plain).substr(64);
    auto* const image = reinterpret_cast<img_image*>(turned.data());
    EXPECT_TRUE(ka_img_image_import(image, turned.size(), 1));
    EXPECT_EQ(turned, plain.substr(64));
    EXPECT_TRUE(ka_img_image_import(image, turned.size(), 0));
    EXPECT_FALSE(ka_img_image_import(image, turned.size() - 1, 0));
    image->level_offset[2] += 4;
    EXPECT_FALSE(ka_img_image_import(image, turned.size(), 0));
    std::filesystem::remove(path);
  }
}

// Its name stays with it, whoever gets tags meanwhile.
TEST_F(Elements, TexturesInUseOutliveTheirTransaction) {
  EXPECT_TRUE(ka_trans_begin(KA_TRANS_TRANSACTION));
  const std::uint32_t tag = declare({.path = picture(IMG_FORMAT_TIF, IMG_TYPE_RGBA, 4, 4)});
  EXPECT_NE(access(tag), nullptr);
  EXPECT_TRUE(ka_trans_end(KA_TRANS_TRANSACTION));
  std::uint32_t other = 0;
  std::memcpy(ka_db_create(&other, 77, 3), "xyz", 3);
  EXPECT_TRUE(ka_trans_begin(KA_TRANS_TRANSACTION));
  ka_db_unpin(tag);
  img_file handle{};
  handle.name = const_cast<char*>("elsewhere");
  std::uint32_t again = tag;
  EXPECT_TRUE(ka_img_placeholder_dbcreate(&handle, &again, 0));
  EXPECT_TRUE(ka_trans_end(KA_TRANS_TRANSACTION));
  EXPECT_EQ(description(tag), "read texture file elsewhere");
  tags_.push_back(other);
}

class Lightmaps : public Elements {
 protected:
  std::uint32_t lightmap(const std::string& name, int bits, int pyramid = 0) {
    return declare({.path = scratch_.path(name),
                    .pyramid = pyramid,
                    .writing = 1,
                    .width = 8,
                    .height = 8,
                    .bits = bits});
  }
};

TEST_F(Lightmaps, AreWrittenOnceByTheLastEditor) {
  const struct {
    const char* name;
    int bits, format, type;
  } rows[] = {{"a.tif", 8, IMG_FORMAT_TIF, IMG_TYPE_RGBA},
              {"b.unknown", 16, IMG_FORMAT_MAP, IMG_TYPE_RGBA_16},
              {"c", 32, IMG_FORMAT_MAP, IMG_TYPE_RGBA_FP}};
  for (const auto& row : rows) {
    const std::uint32_t tag = lightmap(row.name, row.bits, 1);
    const std::string path = scratch_.path(row.name);
    std::atomic<int> written{0};
    std::latch all_edit(4);
    const auto edit = [&] {
      ka_lightmap* entry = nullptr;
      img_image* const image = ka_lightmap_edit(&entry, tag);
      all_edit.arrive_and_wait();
      const int x = ++written;
      const float color[4] = {0.5F, 1.0F, 0.25F, 1.0F};
      ka_img_put_color(image, color, x, x);
      EXPECT_TRUE(ka_lightmap_edit_end(entry));
    };
    const auto lines = messages_of([&] { test::in_threads(4, edit); }, KA_PROGRESS);
    EXPECT_EQ(std::ranges::count(lines, "writing lightmap file " + path), 1);
    test::Handle file;
    EXPECT_TRUE(ka_img_open(file, path.c_str(), IMG_TYPE_FILE));
    EXPECT_EQ(std::pair(file->format, file->type), std::pair(row.format, row.type));
    EXPECT_TRUE(shows(tag, path));
  }
}

TEST_F(Lightmaps, TellWhatFails) {
  ka_lightmap* entry = nullptr;
  const auto edit = [&](std::uint32_t tag) {
    return messages_of([&] { EXPECT_EQ(ka_lightmap_edit(&entry, tag), nullptr); }, KA_ERROR);
  };
  const std::uint32_t mapped = declare({.path = picture(IMG_FORMAT_MAP, IMG_TYPE_RGBA, 4, 4)});
  EXPECT_EQ(edit(mapped), (Texts{"101021 attempting to edit a non-writable image"}));
  const std::uint32_t nowhere = lightmap("no/such.tif", 8);
  EXPECT_EQ(edit(nowhere).back(), "101022 cannot create file " + scratch_.path("no/such.tif"));
  EXPECT_EQ(edit(9999), Texts{});
  EXPECT_NE(ka_lightmap_edit(&entry, lightmap("full.tif", 8)), nullptr);
  const test::Limit files(RLIMIT_FSIZE, 100);
  const auto lines = messages_of([&] { EXPECT_FALSE(ka_lightmap_edit_end(entry)); }, KA_ERROR);
  EXPECT_EQ(lines.back(), "101024 cannot close file " + scratch_.path("full.tif"));
  EXPECT_FALSE(test::exists(scratch_.path("full.tif")));
}

}  // namespace
