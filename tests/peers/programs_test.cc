// Pictures that go through other programs where these are installed: what we write they read, and
// the other way round.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "support.h"

namespace {

// Runs of equal pixels and others, so that rows are packed in both ways.
test::Image runs_picture(int type, int width, int height) {
  test::Image image = test::make_image(type, width, height);
  const std::size_t size = std::size_t(ka_img_nbits[type]) / 8;
  std::mt19937 random(1);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width;) {
      const int end = std::min(width, x + 1 + int(random() % 3 == 0 ? random() % 200 : 0));
      const auto seed = random();
      for (; x < end; ++x) {
        for (std::size_t i = 0; i < IMG_SLOTS * size; ++i) {
          std::uint8_t* const samples = test::plane(image.get(), y, i / size);
          if (!samples) continue;
          samples[std::size_t(x) * size + i % size] =
              std::uint8_t(seed >> (3 * (i / size) + 8 * (i % size)));
        }
      }
    }
  }
  return image;
}

// The picture as rows of samples, the top line and the higher byte first.
std::string samples_of(const img_image* image, std::size_t components) {
  const std::size_t size = std::size_t(image->bits) / 8;
  std::string samples;
  for (int y = image->height - 1; y >= 0; --y) {
    for (std::size_t x = 0; x < std::size_t(image->width); ++x) {
      for (std::size_t i = 0; i < components * size; ++i) {
        samples += char(test::plane(image, y, i / size)[x * size + size - 1 - i % size]);
      }
    }
  }
  return samples;
}

// Whether two pictures have the same size and samples.
void expect_equal(const img_image* a, const img_image* b) {
  ASSERT_EQ(std::tuple(a->width, a->height, a->bits), std::tuple(b->width, b->height, b->bits));
  const auto components = std::size_t(std::min(a->components, b->components));
  EXPECT_TRUE(samples_of(a, components) == samples_of(b, components));
}

struct Trip {
  std::string name, ours;  // the file that we write
  int format, type;
  // Runs beside that file. Writes a file `theirs...` of the same pixels, or prints the pixels of the
  // last file, three or four samples each, perhaps after a header.
  std::string command;
  int width = 301, height = 47;

  friend void PrintTo(const Trip& trip, std::ostream* out) { *out << trip.command; }
};

class Programs : public testing::TestWithParam<Trip> {};

TEST_P(Programs, FindTheSamePixels) {
  const Trip& trip = GetParam();
  const test::Scratch scratch;
  std::string last = scratch.path(trip.ours);
  const test::Image image = runs_picture(trip.type, trip.width, trip.height);
  ASSERT_EQ(test::write_image(last, trip.format, image.get()), IMG_ERR_NONE);
  const std::string line = "cd " + scratch.path("") + " && " + trip.command;
  const test::Outcome outcome = test::run("/bin/sh", {.arguments = {"-c", line}});
  if (outcome.err.find(": not found\n") != outcome.err.npos) GTEST_SKIP() << outcome.err;
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  for (const auto& entry : std::filesystem::directory_iterator(scratch.path(""))) {
    if (entry.path().filename().string().starts_with("theirs")) last = entry.path();
  }
  const test::Image found =
      test::read_image(last, image->bits == 8 ? IMG_TYPE_RGBA : IMG_TYPE_FILE);
  ASSERT_TRUE(found);
  if (outcome.out.empty()) {
    expect_equal(image.get(), found.get());
  } else {
    const std::string whole = samples_of(found.get(), std::size_t(found->components));
    EXPECT_TRUE(outcome.out == whole || outcome.out.ends_with(samples_of(found.get(), 3)));
  }
}

constexpr int kRgb = IMG_TYPE_RGB, kRgba = IMG_TYPE_RGBA, kRgb16 = IMG_TYPE_RGB_16,
              kRgba16 = IMG_TYPE_RGBA_16;

// Its own name: other programs are called convert as well.
const std::string kMagick = "convert-im6.q16 ours ";
const std::string kFfmpeg = "ffmpeg -loglevel error -i ";
const std::string kDraw = "gs -q -dSAFER -dBATCH -dNOPAUSE -sDEVICE=ppmraw -sOutputFile=- ";
// RLA channels of 16 bits are marked there as another type of storage: in bytes 18 and 660.
const std::string kClear =
    " && for at in 18 660; do printf '\\0\\0' | dd of=theirs.rla bs=1 seek=$at "
    "conv=notrunc status=none; done";

std::vector<Trip> trips() {
  std::vector<Trip> trips = {
      {"tif", "ours", IMG_FORMAT_TIF, kRgb, "tifftopnm ours"},
      {"tif16_3", "ours", IMG_FORMAT_TIF16_3, kRgb16, "tifftopnm -byrow ours"},  // with all 16 bits
      {"tif_alpha", "ours", IMG_FORMAT_TIF, kRgba, kMagick + "-depth 8 rgba:-"},
      {"tif16", "ours", IMG_FORMAT_TIF16, kRgba16, kMagick + "-endian MSB -depth 16 rgba:-"},
      {"bmp", "ours", IMG_FORMAT_BMP, kRgb, "bmptopnm ours"},
      {"targa", "ours", IMG_FORMAT_TGA, kRgba, "tgatoppm ours"},
      {"sgi", "ours", IMG_FORMAT_RGB, kRgb, "sgitopnm ours"},
      {"alias", "ours.pix", IMG_FORMAT_ALIAS, kRgb,
       kFfmpeg + "ours.pix -f rawvideo -pix_fmt rgb24 -"},
      {"alias_read", "ours.ppm", IMG_FORMAT_PPM, kRgb,
       kFfmpeg + "ours.ppm -update 1 -pix_fmt bgr24 theirs.pix"},
      {"jpg", "ours", IMG_FORMAT_JPG, kRgb, "djpeg -rgb -ppm ours"},
      // A point is drawn as a pixel. Pages show pictures turned to the left and twice as large.
      {"eps", "ours", IMG_FORMAT_EPS, kRgb, kDraw + "-r72 -dEPSCrop ours", 61},
      {"ps", "ours", IMG_FORMAT_PS, kRgb,
       kDraw + "-r36 -dDEVICEWIDTHPOINTS=94 -dDEVICEHEIGHTPOINTS=122 ours | pamflip -cw", 61},
      {"pic", "ours.pic", IMG_FORMAT_PIC, kRgba, "oiiotool ours.pic -o theirs.sgi"},
      {"rla", "ours.rla", IMG_FORMAT_RLA, kRgba, "oiiotool ours.rla -o theirs.sgi"},
  };
  for (const int type : {kRgb, kRgba, kRgb16, kRgba16}) {  // several tiles both ways
    const std::string name = ka_img_type_name(type);
    trips.push_back({"iff_" + name, "ours.iff", IMG_FORMAT_IFF, type,
                     "oiiotool ours.iff -o theirs.sgi", 301, 130});
    for (const std::string packing : {"none", "rle"}) {
      const std::string write = "oiiotool ours.sgi --compression " + packing +
                                " --attrib oiio:ColorSpace GammaCorrected --attrib oiio:Gamma 2.2 ";
      trips.push_back({"rla_read_" + packing + "_" + name, "ours.sgi", IMG_FORMAT_RGB, type,
                       write + "-o theirs.rla" + kClear, 301, 130});
      // Raw samples of 16 bits are stored there with the higher byte first.
      if (type == kRgba16 || (type == kRgb16 && packing == "none")) continue;
      trips.push_back({"iff_read_" + packing + "_" + name, "ours.sgi", IMG_FORMAT_RGB, type,
                       write + "-o theirs.iff", 301, 130});
    }
  }
  // Strips, planes and byte orders as libtiff arranges them anew. It says what it does not expect as
  // a warning.
  int number = 0;
  for (const int type : {kRgb, kRgba, kRgb16, int(IMG_TYPE_RGBA_FP)}) {
    for (const std::string options :
         {"-c none -r 3", "-c packbits -r 2 -B", "-c none -r 5 -p separate",
          "-c none -r 1 -B -p separate", "-c packbits -r 2 -p separate"}) {
      if (options.ends_with("separate") && ka_img_nbits[type] != 8) continue;  // tiffcp cannot
      trips.push_back({"tiffcp_" + std::to_string(number++), "ours", IMG_FORMAT_TIF, type,
                       "! tiffinfo -D ours 2>&1 >/dev/null | grep . >&2 && tiffcp " + options +
                           " ours theirs"});
    }
  }
  for (const std::string kind :
       {"", "-arithmetic -progressive", "-grayscale", "-rgb", "-quality 100 -sample 1x1",
        "-sample 2x1", "-sample 4x1 -progressive", "-restart 1", "-restart 2B -progressive"}) {
    trips.push_back({"cjpeg_" + std::to_string(number++), "ours", IMG_FORMAT_PPM, kRgb,
                     "cjpeg " + kind + " ours > theirs && djpeg -rgb -ppm theirs"});
  }
  return trips;
}

INSTANTIATE_TEST_SUITE_P(Trips, Programs, testing::ValuesIn(trips()), test::row_name<Trip>);

}  // namespace
