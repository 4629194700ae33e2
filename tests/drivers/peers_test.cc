// Files of independent programs: the same pixels as in the picture that they were made of.
#include <ka/drivers.h>

#include "pixels.h"

namespace {

struct Peer {
  const char* name;
  const char* program;
  const char*
      command;  // reads a.tif, or b.tif with 16 bits, c.tif with alpha; the file's name follows
  int format;
};

class FileOfAPeer : public testing::TestWithParam<Peer> {};

TEST_P(FileOfAPeer, HasThePixelsOfItsSource) {
  const auto& [name, program, command, format] = GetParam();
  if (test::find_program(program).empty()) GTEST_SKIP() << program << " is not installed";
  const test::Scratch scratch;
  const test::Image a = test::runs_picture(IMG_TYPE_RGB, 61, 37),
                    b = test::runs_picture(IMG_TYPE_RGB_16, 61, 37),
                    c = test::runs_picture(IMG_TYPE_RGBA, 61, 37);
  for (const auto& [file, image] :
       {std::pair{"a.tif", a.get()}, {"b.tif", b.get()}, {"c.tif", c.get()}}) {
    ASSERT_EQ(test::write_image(scratch.path(file), IMG_FORMAT_TIFU, image), IMG_ERR_NONE);
  }
  const std::string text = command;
  const test::Image& source = text.find("b.tif") != text.npos   ? b
                              : text.find("c.tif") != text.npos ? c
                                                                : a;
  test::expect_equal(test::made_by(text, scratch, "made"), source);
  EXPECT_EQ(test::decode(scratch.path("made")).format, format);
}

constexpr char kImageMagick[] = "convert-im6.q16";
constexpr int kTifz = KA_DRIVERS_TIFZ, kWebp = KA_DRIVERS_WEBP, kBmp5 = KA_DRIVERS_BMP5;

INSTANTIATE_TEST_SUITE_P(
    Peers, FileOfAPeer,
    testing::Values(
        Peer{"Lzw", "tiffcp", "tiffcp -c lzw:2 b.tif", kTifz},
        Peer{"DeflateTiles", "tiffcp", "tiffcp -t -w 32 -l 16 -c zip:2 c.tif", kTifz},
        Peer{"PlanesOfBigTiff", "tiffcp", "tiffcp -8 -B -p separate -c packbits -r 5 a.tif", kTifz},
        Peer{"Zstd", "tiffcp", "tiffcp -c zstd b.tif", kTifz},
        Peer{"OpenImageIo", "oiiotool",
             "oiiotool b.tif --tile 16 16 --compression zip -o x.tif && mv x.tif", kTifz},
        Peer{"ImageMagickTiff", kImageMagick,
             "convert-im6.q16 c.tif -compress zip x.tif && mv x.tif", kTifz},
        Peer{"Ffmpeg", "ffmpeg",
             "ffmpeg -v error -i a.tif -compression_algo deflate x.tif && mv x.tif", kTifz},
        Peer{"Lossless", "cwebp", "cwebp -quiet -lossless a.tif -o", kWebp},
        Peer{"FfmpegWebp", "ffmpeg",
             "ffmpeg -v error -i a.tif -lossless 1 -pix_fmt bgra x.webp && mv x.webp", kWebp},
        Peer{"ImageMagickBmp", kImageMagick, "convert-im6.q16 a.tif x.bmp && mv x.bmp", kBmp5},
        Peer{"ImageMagickBmpAlpha", kImageMagick, "convert-im6.q16 c.tif x.bmp && mv x.bmp",
             kBmp5}),
    test::row_name<Peer>);

struct Reader {
  const char* name;
  const char* program;
  const char* command;  // turns the file `made` into x.tif
  int format;
};

class FileForAPeer : public testing::TestWithParam<Reader> {};

TEST_P(FileForAPeer, IsReadWithTheSamePixels) {
  const auto& [name, program, command, format] = GetParam();
  if (test::find_program(program).empty()) GTEST_SKIP() << program << " is not installed";
  const test::Scratch scratch;
  const test::Image image = test::runs_picture(IMG_TYPE_RGBA, 61, 37);
  ASSERT_EQ(test::write_image(scratch.path("made"), format, image.get()), IMG_ERR_NONE);
  test::shell("cd " + scratch.path("") + " && " + command);
  test::expect_equal(test::read_image(scratch.path("x.tif"), IMG_TYPE_RGBA), image);
}

INSTANTIATE_TEST_SUITE_P(
    Peers, FileForAPeer,
    testing::Values(
        Reader{"TiffCp", "tiffcp", "tiffcp -c none made x.tif", kTifz},
        Reader{"OpenImageIo", "oiiotool",
               "mv made y.tif && oiiotool --no-autopremult y.tif --compression none -o x.tif",
               kTifz},
        Reader{
            "Png", kImageMagick,
            "convert-im6.q16 -regard-warnings png:made -type TrueColorAlpha -compress none x.tif",
            KA_DRIVERS_PNG},
        Reader{"Dwebp", "dwebp", "dwebp -quiet -tiff made -o x.tif", kWebp}),
    test::row_name<Reader>);

}  // namespace
