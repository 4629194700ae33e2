// vel_copy through its command line. Pictures go in and come out as map files, which hold every type.
#include <ka/imgload.h>

#include <random>

#include "support.h"

namespace {

class VelCopy : public testing::Test {
 protected:
  test::Outcome copy(std::vector<std::string> arguments) {
    return test::run(VEL_COPY, {.arguments = std::move(arguments)});
  }
  void expect_copied(const std::vector<std::string>& arguments, const std::string& err = "") {
    const test::Outcome outcome = copy(arguments);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err.empty() ? "" : outcome.err.substr(0, outcome.err.size() - 1), err);
  }

  // A map file with a picture of any samples; floats are from 0 to 1.
  test::Image make(const std::string& name, int type, int width, int height) {
    test::Image image = test::make_image(type, width, height);
    for (int y = 0; y < height; ++y) {
      for (int c = 0; c < ka_img_ncomp[type]; ++c) fill(image.get(), y, c);
    }
    EXPECT_EQ(test::write_image(path(name), IMG_FORMAT_MAP, image.get()), IMG_ERR_NONE);
    return image;
  }

  void fill(img_image* image, int y, int component) {
    auto* const bytes = static_cast<std::uint8_t*>(ka_img_plane(image, y, component));
    const int bits = ka_img_nbits[image->type];
    for (int i = 0; i < (image->width * bits + 7) / 8; ++i) bytes[i] = std::uint8_t(random_());
    for (int x = 0; bits == 32 && image->type != IMG_TYPE_TAG && x < image->width; ++x) {
      reinterpret_cast<float*>(bytes)[x] = float(random_() % 4096) / 4096.0F;
    }
    if (bits == 1) bytes[image->width / 8] &= std::uint8_t((1 << image->width % 8) - 1);
  }

  test::Image read(const std::string& name, int type = IMG_TYPE_FILE) {
    return test::read_image(path(name), type);
  }
  [[nodiscard]] std::string path(const std::string& name) const { return scratch_.path(name); }

  test::Scratch scratch_;
  std::minstd_rand random_{7};
};

double sample(const img_image* image, int x, int y, int component) {
  const void* const plane = ka_img_plane(image, y, component);
  switch (image->type == IMG_TYPE_VTA ? 0 : image->bits) {
    case 0:
      return static_cast<const std::int16_t*>(plane)[x];
    case 1:
      return static_cast<const std::uint8_t*>(plane)[x / 8] >> x % 8 & 1;
    case 8:
      return static_cast<const std::uint8_t*>(plane)[x];
    case 16:
      return static_cast<const std::uint16_t*>(plane)[x];
    default:
      return image->type == IMG_TYPE_TAG ? double(static_cast<const std::uint32_t*>(plane)[x])
                                         : double(static_cast<const float*>(plane)[x]);
  }
}

// Compares a picture with a rule that gives its samples, lines counted from the top.
template <typename Rule>
void expect_samples(const img_image* image, int width, int height, double tolerance, Rule rule) {
  ASSERT_TRUE(image);
  ASSERT_EQ(image->width, width);
  ASSERT_EQ(image->height, height);
  for (int c = 0; c < image->components; ++c) {
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        ASSERT_NEAR(sample(image, x, height - 1 - y, c), rule(x, y, c), tolerance)
            << x << "," << y << " of plane " << c;
      }
    }
  }
}

void expect_equal(const img_image* image, const img_image* expected) {
  const int height = expected->height;
  expect_samples(image, expected->width, height, 0,
                 [=](int x, int y, int c) { return sample(expected, x, height - 1 - y, c); });
}

TEST_F(VelCopy, WritesWhatTheLibraryWritesInEveryFormatAndType) {
  for (int format = 0; format < IMG_FORMAT_CUSTOM; ++format) {
    if (format == IMG_FORMAT_NULL || format == IMG_FORMAT_LWI) continue;
    for (int type = 0; type < IMG_TYPE_COUNT; ++type) {
      if (!ka_img_format_takes(format, type)) continue;
      const std::string name = ka_img_format_name(format), in = path("in.map"), out = path(name);
      const test::Image image = make("in.map", type, 21, 9);
      const std::string type_name = type == IMG_TYPE_A_FP ? "a_fp" : ka_img_type_name(type);
      EXPECT_EQ(copy({"-f", name, "-t", type_name, in, out}).status, 0) << name << type_name;
      test::write_image(path("x" + name), format, image.get());
      EXPECT_EQ(std::filesystem::file_size(out), std::filesystem::file_size(path("x" + name)));
      if (format == IMG_FORMAT_ZPIC) continue;
      const test::Image expected = read("x" + name);
      if (expected) expect_equal(read(name).get(), expected.get());
    }
  }
}

TEST_F(VelCopy, KeepsTheTypeOrTheClosestOneAndSaysWhatIsLost) {
  const struct {
    int from;
    const char *to, *err;
    int type;
  } rows[] = {
      {IMG_TYPE_RGBA_16, "tif", "", IMG_TYPE_RGBA_16},
      {IMG_TYPE_S, "tifu", "", IMG_TYPE_RGB},
      {IMG_TYPE_S_16, "tif", "", IMG_TYPE_RGB_16},
      {IMG_TYPE_BIT, "st", "", IMG_TYPE_S},
      {IMG_TYPE_RGBE, "tif3", "", IMG_TYPE_RGB_FP},
      {IMG_TYPE_RGBE, "hdr", "", IMG_TYPE_RGBE},
      {IMG_TYPE_VTS, "vt", "", IMG_TYPE_VTA},
      {IMG_TYPE_RGBA, "alias", "alpha is dropped", IMG_TYPE_RGB},
      {IMG_TYPE_RGB_16, "bmp", "16 bits per sample become 8 bits per sample", IMG_TYPE_RGBA},
      {IMG_TYPE_RGBA_16, "st",
       "alpha is dropped, colors become grey, 16 bits per sample become 8 bits per sample",
       IMG_TYPE_S},
      {IMG_TYPE_RGB_FP, "rgb", "floats are kept as 16 bits", IMG_TYPE_RGB_16},
      {IMG_TYPE_RGBE, "tga", "shared exponents become 8 bits per sample", IMG_TYPE_RGBA},
      {IMG_TYPE_Z, "bmp", "z is shown as rgb", IMG_TYPE_RGBA},
      {IMG_TYPE_RGBA, "cth", "alpha is dropped, 8 bits per sample become shared exponents",
       IMG_TYPE_RGBE}};
  for (const auto& [from, to, err, type] : rows) {
    const std::string out = path(std::string("out.") + to);
    make("in.map", from, 5, 3);
    expect_copied({path("in.map"), out},
                  *err ? "vel_copy: warning: " + out + ": " + err : std::string());
    const test::Image image = read(std::string("out.") + to);
    ASSERT_TRUE(image) << to;
    EXPECT_EQ(image->type, type) << to;
  }
}

TEST_F(VelCopy, CropsFromTheTopLeft) {
  const struct {
    int type;
    const char* format;
  } rows[] = {{IMG_TYPE_RGB, "tifu"},
              {IMG_TYPE_RGB, "map"},
              {IMG_TYPE_S_16, "st16"},
              {IMG_TYPE_BIT, "bit"},
              {IMG_TYPE_N, "nt"}};
  constexpr int width = 23, height = 14;
  for (const auto& [type, format] : rows) {
    const test::Image image = make("in.map", type, width, height);
    ASSERT_EQ(copy({"-f", format, path("in.map"), path("in")}).status, 0);
    for (int i = 0; i < 4; ++i) {
      const int x = int(random_() % width), y = int(random_() % height);
      const int w = 1 + int(random_()) % (width - x), h = 1 + int(random_()) % (height - y);
      const std::string part = std::to_string(x) + "," + std::to_string(y) + "," +
                               std::to_string(w) + "," + std::to_string(h);
      expect_copied({"-x" + part, path("in"), path("out.map")});
      expect_samples(read("out.map").get(), w, h, 0, [&](int px, int py, int c) {
        return sample(image.get(), x + px, height - 1 - y - py, c);
      });
    }
  }
}

// The mean over a picture in which each pixel is as many times as large as the new one is wide and
// high: of such pixels the new ones cover whole ones.
double mean(const img_image* image, int width, int height, int x, int y, int c) {
  double sum = 0;
  for (int j = 0; j < image->height; ++j) {
    for (int i = 0; i < image->width; ++i) {
      const int px = (x * image->width + i) / width, py = (y * image->height + j) / height;
      sum += sample(image, px, image->height - 1 - py, c);
    }
  }
  return sum / (image->width * image->height);
}

TEST_F(VelCopy, ReducesToTheMeanOfWhatAPixelCovers) {
  constexpr int sizes[][2] = {{5, 3}, {1, 1}, {7, 4}, {13, 2}};
  for (const int type :
       {IMG_TYPE_RGBA, IMG_TYPE_RGB_16, IMG_TYPE_VTA, IMG_TYPE_S_FP, IMG_TYPE_BIT}) {
    const test::Image image = make("in.map", type, 13, 9);
    for (const auto& size : sizes) {
      const int width = size[0], height = size[1];
      expect_copied({"-r" + std::to_string(width) + "x" + std::to_string(height), path("in.map"),
                     path("out.map")});
      const double half = image->bits == 32 ? 1e-6 : 0.5 + 1e-9;
      expect_samples(read("out.map").get(), width, height, half, [&](int x, int y, int c) {
        return mean(image.get(), width, height, x, y, c);
      });
    }
  }
}

TEST_F(VelCopy, EnlargesByInterpolation) {
  const std::string in =
      scratch_.write("in.ppm", "P6\n2 1\n255\n" + test::bytes({0, 0, 9, 64, 200, 9}));
  expect_copied({"-r", "4x2", in, path("out.map")});
  const double rows[3][4] = {{0, 16, 48, 64}, {0, 50, 150, 200}, {9, 9, 9, 9}};
  expect_samples(read("out.map").get(), 4, 2, 0, [&](int x, int, int c) { return rows[c][x]; });
}

TEST_F(VelCopy, KeepsWhatHeadersHoldAndSetsWhatOptionsAskFor) {
  make("in.map", IMG_TYPE_RGBA, 8, 8);
  expect_copied({"-g", "1.5", "--aspect", "2", path("in.map"), path("a.rla")});
  expect_copied({path("a.rla"), path("b.rla")});
  const struct {
    const char *from, *to, *lost;
    float gamma, aspect;
  } rows[] = {{"a.rla", "b.rla", "", 1.5F, 2},
              {"a.rla", "b.pic", "the gamma is not kept", 1, 2},
              {"a.rla", "b.tga", "the pixel aspect is not kept, the gamma is not kept", 1, 1}};
  for (const auto& [from, to, lost, gamma, aspect] : rows) {
    expect_copied({path(from), path(to)},
                  *lost ? "vel_copy: warning: " + path(to) + ": " + lost : std::string());
    test::Handle file;
    ASSERT_TRUE(ka_img_open(file, path(to).c_str(), IMG_TYPE_FILE));
    EXPECT_EQ(file->gamma, gamma);
    EXPECT_EQ(file->aspect, aspect);
  }
  expect_copied({"--fields", "even", path("in.map"), path("b.pic")});
  EXPECT_EQ(test::read_file(path("b.pic"))[101], 2);
  expect_copied({"-q9", "-trgb", path("in.map"), path("low.jpg")},
                "vel_copy: warning: " + path("low.jpg") + ": alpha is dropped");
  copy({"-q99", path("in.map"), path("high.jpg")});
  EXPECT_LT(std::filesystem::file_size(path("low.jpg")),
            std::filesystem::file_size(path("high.jpg")));
  expect_copied({"-c", path("in.map"), path("levels.map")});
  expect_copied({path("levels.map"), path("again.map")});
  EXPECT_EQ(test::read_file(path("again.map")), test::read_file(path("levels.map")));
  EXPECT_GT(std::filesystem::file_size(path("again.map")),
            std::filesystem::file_size(path("in.map")));
}

TEST_F(VelCopy, GoesThroughPipesWhereTheFormatCan) {
  make("in.map", IMG_TYPE_RGB, 40, 30);
  const auto pipe = [&](const std::string& format) {
    const std::string line = "cat '" + path("in.map") + "' | '" VEL_COPY "' -f " + format +
                             " - - | cat > '" + path("piped") + "'";
    return test::run("/bin/sh", {.arguments = {"-c", line}}).err;
  };
  for (const char* const format : {"ppm", "tga", "jpg", "tifu", "bmp", "qntpal", "picture", "ps"}) {
    expect_copied({"-f", format, path("in.map"), path("out")});
    EXPECT_EQ(pipe(format), "");
    EXPECT_EQ(test::read_file(path("piped")), test::read_file(path("out"))) << format;
  }
  for (const char* const format : {"rla", "rlb", "rgb", "tif", "tif3", "map", "iff"}) {
    EXPECT_EQ(pipe(format), std::string("vel_copy: standard output is a pipe: ") + format +
                                " files cannot be written in sequence\n");
    EXPECT_EQ(test::read_file(path("piped")), "");
  }
}

TEST_F(VelCopy, ReplacesItsInput) {
  const test::Image image = make("in.map", IMG_TYPE_RGB, 40, 30);
  for (const char* const format : {"ppm", "bmp"}) {
    for (const bool has_two_names : {false, true}) {
      const std::string name = path(std::string("a.") + format);
      expect_copied({path("in.map"), name});
      std::filesystem::remove(path("b"));
      if (has_two_names) std::filesystem::create_hard_link(name, path("b"));
      expect_copied({name, name});
      expect_equal(read(std::string("a.") + format, IMG_TYPE_RGB).get(), image.get());
    }
  }
}

TEST_F(VelCopy, LeavesNothingAfterAFailure) {
  make("in.map", IMG_TYPE_RGB, 4, 3);
  const std::string pixel = test::bytes({1, 2, 3}), in = path("in.map"), out = path("out.ppm"),
                    cut = scratch_.write("cut.ppm", "P6\n1 3\n255\n" + pixel + pixel),
                    tall = scratch_.write("tall.ppm", "P6\n1 90000000\n255\n" + pixel);
  const struct {
    std::vector<std::string> arguments;
    int status;
    const char* err;
  } rows[] = {
      {{cut, out}, 1, "vel_copy: .*: can't read line 4 of 3, incomplete file\n"},
      {{"-f", "bmp", cut, out}, 1, "vel_copy: .*: can't read line 4 of 3, incomplete file\n"},
      {{"-f", "map", tall, out}, 1, "vel_copy: .*: can't read line 1 of 90000000, .*\n"},
      {{path("none"), out}, 1, "vel_copy: .*none: can't open file for reading .*\n"},
      {{in, path("none/out.ppm")}, 1, "vel_copy: .*: can't create file .*\n"},
      {{"-x3,0,2,1", in, out},
       1,
       "vel_copy: .*: the picture has 4x3 pixels, not all of 2x1 from 3,0 on\n"},
      {{"-f", "zt", in, out},
       1,
       "vel_copy: .*: pixels of type rgb cannot become z, which zt files hold\n"},
      {{"-f", "map", "-t", "n", in, out},
       1,
       "vel_copy: .* cannot become n, which --type asks for\n"},
      {{"--layer", "a", in, out}, 1, "vel_copy: .*: map files have no layers\n"},
      {{"-r4", in, out}, 2, "vel_copy: --resize: .*\n"},
      {{"-r4x0", in, out}, 2, "vel_copy: --resize: .*\n"},
      {{"-x1,1,1", in, out}, 2, "vel_copy: --crop: .*\n"},
      {{"-x-1,1,1,1", in, out}, 2, "vel_copy: --crop: .*\n"},
      {{"-q50", in, out},
       2,
       "vel_copy: --quality: ppm files have no such setting; it is for jpg.*\n"},
      {{"-q5x", "-fjpg", in, out}, 2, "vel_copy: .*\"5x\" is no number from 1 to 100 .*\n"},
      {{"-g2", "-fpic", in, out}, 2, "vel_copy: --gamma: pic files .* rla, rlb .*\n"},
      {{"-c", in, out}, 2, "vel_copy: --pyramid: ppm files .* map .*\n"},
      {{"-t", "s", in, out},
       2,
       "vel_copy: ppm files have no pixels of type s; they take rgb, .*\n"},
      {{"-f", "null", in, out}, 2, "vel_copy: --format: \"null\" is no format that is written.*\n"},
      {{in, path("a")}, 2, "vel_copy: .*: no extension; -f names the format .*\n"},
      {{in, "-"}, 2, "vel_copy: -: no extension; -f names the format .*\n"}};
  for (const auto& [arguments, status, err] : rows) {
    const test::Outcome outcome = copy(arguments);
    EXPECT_EQ(outcome.status, status) << err;
    EXPECT_TRUE(test::matches(outcome.err, err)) << outcome.err;
    EXPECT_EQ(outcome.out, "");
    EXPECT_FALSE(test::exists(out));
  }
  const test::Limit limit(RLIMIT_FSIZE, 20);
  EXPECT_EQ(copy({in, out}).status, 1);
  EXPECT_FALSE(test::exists(out));
}

TEST_F(VelCopy, ListsFormatsAndTypes) {
  EXPECT_TRUE(test::matches(copy({"-f", "help"}).out, "rla .*\njpg +JPEG +rgb\n.*"));
  EXPECT_TRUE(test::matches(copy({"-t", "help"}).out, "rgba +4 x 8 .*\na_fp +1 x 32 .*"));
}

}  // namespace
