// Reasons of refusals: small files of the fuzz targets, one of them changed or cut, and what is said.
#include <errno.h>
#include <gtest/gtest.h>

#include "pictures.h"

namespace {

using namespace std::string_view_literals;

// A file with other bytes at an offset, or without those from there on.
struct Row {
  const char* file;
  std::size_t at;
  std::string_view bytes;  // empty: the file ends at the offset
  const char* reason;
};
constexpr std::size_t kWhole = std::string::npos;

constexpr Row kRows[] = {
    {"alias/packet_past_the_line.pix",
     kWhole,
     {},
     "a packet is empty or passes the end of the line"},
    {"bmp/run_length.bmp", kWhole, {}, "compression 1 is not read; 0 (none) is"},
    {"bmp/bits_16.bmp", kWhole, {}, "16 bits per pixel are not read; 1, 4, 8, 24 and 32 are"},
    {"bmp/top_first.bmp", kWhole, {}, "width 2, height -1; sides above 0 are read"},
    {"bmp/bits_24.bmp", 14, "\x6c"sv, "a header of 108 bytes is not read; those of 12 and 40 are"},
    {"bmp/bits_24.bmp", 53, {}, "the file ends in the header"},
    {"bmp/bits_8_few_colors.bmp", 56, {}, "the file ends in the palette of 3 colors"},
    {"catia/other_class", kWhole, {}, "class \"3\" is not read; \"2\" is"},
    {"catia/other_class", 114, "\n"sv, "class \"?\" is not read; \"2\" is"},
    {"catia/plain", 1132, "\1"sv, "10241 at byte 1132 of the header is not read; 10407 is"},
    {"hdr/numbers_past_an_int.hdr",
     kWhole,
     {},
     "width 0, height 0; widths of 1 to 65535 and heights above 0 are read"},
    {"hdr/other_width.hdr", kWhole, {}, "wrong line header length"},
    {"iff/raw_rgb.iff", 37, "\2"sv, "3 bytes per sample are not read; 1, 2 and 4 are"},
    {"iff/raw_rgb.iff", 43, "\2"sv, "compression 2 is not read; 0 (none) and 1 (run-length) are"},
    {"iff/raw_rgb.iff", 35, "\4"sv, "only depths are in the file, no colors"},
    {"iff/raw_rgb.iff", 69, "\5"sv, "a tile of columns 0 to 5, lines 0 to 1"},
    {"jpg/cmyk.jpg", kWhole, {}, "4 color components are not read; 1 and 3 are"},
    {"jpg/many_scans.jpg", kWhole, {}, "more than 100 scans"},
    {"jpg/no_such_code.jpg", kWhole, {}, "Corrupt JPEG data: premature end of data segment"},
    {"lwi/last_part_ends", kWhole, {}, "the file ends in the size record"},
    {"lwi/pixels_after_27", 17, "\x80"sv, "width 2147483651, height 2"},
    {"map/rgba.map", 8, "\2"sv, "version 2 is not read; 1 is"},
    {"map/rgba.map", 4, "\1"sv, "pixel type 1, 4 components of 8 bits, 3 x 2, 0 levels"},
    {"map/rgba.map", 239, {}, "239 bytes; a picture of this size has 240"},
    {"pic/mixed.pic", 105, "\x10"sv, "16 bits per sample are not read; 8 are"},
    {"pic/mixed.pic", 106, "\3"sv, "compression 3 is not read; 0, 1 and 2 are"},
    {"pic/mixed.pic", 107, "\x60"sv,
     "channels 0x70 are not read without red, green and blue (0xe0)"},
    {"ppm/p6_too_many_numbers.ppm", kWhole, {}, "the header is not 3 numbers and a line feed"},
    {"ppm/p6.ppm", 0, "P6 1 1 999\n"sv,
     "samples of two bytes (up to 999) are not read; one byte is"},
    {"ps/other_creator.ps", kWhole, {}, "only PostScript that this library wrote is read"},
    {"rgb/two_channels.rgb", kWhole, {}, "2 channels are not read; 1, 3 and more are"},
    {"rgb/verbatim.rgb", 3, "\4"sv, "4 bytes per sample are not read; 1 and 2 are"},
    {"rgb/row_overruns.rgb", kWhole, {}, "packets do not fill their row exactly"},
    {"rla/matte.rla", 659, "\x20"sv,
     "colors of 32 bits, mattes of 8 are not read; equal ones of up to 16 are"},
    {"rla/matte.rla", 741, "\1"sv, "a line begins outside the file or in its header"},
    {"rla/matte.rla", 744, {}, "the file ends in the table of 2 lines"},
    {"tga/mapped_24.tga", 16, "\x10"sv,
     "indexes of 16 bits to colors of 24 are not read; 8 bits to 24 or 32 are"},
    {"tga/map_ends.tga", kWhole, {}, "the file ends in the color map of 65535 colors"},
    {"tga/packet_overruns.tga", kWhole, {}, "a packet passes the end of the line"},
    {"tif/rgb_ii.tif", 54, "\5"sv,
     "compression 5 (LZW) is not read; 1 (none) and 32773 (PackBits) are"},
    {"tif/rgb_ii.tif", 66, "\6"sv, "photometric interpretation 6 is not read; 0 to 3 are"},
    {"tif/rgb_ii.tif", 122, "\2\0\2\0\2"sv,
     "2 bits per sample are not read; 8, 16 and 32 are in RGB"},
    {"tif/rgb_ii.tif", 124, "\5"sv, "samples of 8 and 5 bits in a pixel"},
    {"tif/rgb_ii.tif", 18, "\0"sv, "width 0, height 2; sides of 1 to 2147483647 are read"},
    {"tif/rgb_ii.tif", 18, "\0\0\0\x80"sv,
     "width 2147483648, height 2; sides of 1 to 2147483647 are read"},
    {"tif/palette_4.tif", 122, "\6"sv, "a color map of 6 values; 48 are needed"},
    {"tif/tiled.tif", kWhole, {}, "tiles are not read; strips are"},
    {"tif/packet_overruns.tif", kWhole, {}, "a packet passes the end of its row"},
    {"tif/rgb_ii.tif", 60, {}, "the file ends in the directory"},
    {"tif/rgb_ii.tif", 0, "P5"sv, ""}};

// The lines of a file that opens are read as well.
TEST(Reason, SaysWhatWasFoundAndWhatWouldBeRead) {
  for (const auto& [name, at, bytes, reason] : kRows) {
    SCOPED_TRACE(name + (" " + std::to_string(at)));
    std::string file = test::read_file(LUMORA_CORPUS "/" + std::string(name));
    if (at != kWhole && bytes.empty()) file.resize(at);
    if (at != kWhole) file.replace(at, bytes.size(), bytes);
    test::OpenFile in(file);
    for (int y = 0; in.is_open() && y < in->height && in->error == IMG_ERR_NONE; ++y)
      in.read_line();
    EXPECT_NE(in->error, IMG_ERR_NONE);
    EXPECT_STREQ(in->reason, reason);
  }
}

// Programs pass what they like: it stays a line, and goes with the error that it belongs to.
TEST(Reason, OfAProgramsOwnDriverIsCleaned) {
  img_file file{};
  ka_img_custom_format_refuse(&file, IMG_ERR_SUBTYPE, 0, "depth\n\x1b[2J%s \xc3\xa4");
  EXPECT_STREQ(file.reason, "depth??[2J%s ??");
  ka_img_custom_format_refuse(&file, IMG_ERR_SUBTYPE, 0, std::string(500, 'x').c_str());
  EXPECT_EQ(file.reason, std::string(IMG_REASON_SIZE - 1, 'x'));
  ka_img_custom_format_refuse(&file, IMG_ERR_SUBTYPE, 0, file.reason + IMG_REASON_SIZE - 4);
  EXPECT_STREQ(file.reason, "xxx");
  ka_img_custom_format_refuse(&file, IMG_ERR_READ, EIO, "the disk");
  EXPECT_STREQ(file.reason, "");
}

}  // namespace
