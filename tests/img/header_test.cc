// What headers say beside size and type: entries of each family, their limits, and that listing them
// changes nothing.
#include <gtest/gtest.h>
#include <ka/imgheader.h>

#include <cstring>
#include <filesystem>

#include "pictures.h"

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

Entries entries_of(img_file* handle) {
  Entries entries;
  const auto take = [](void* context, const char* name, const char* value) {
    static_cast<Entries*>(context)->emplace_back(name, value);
  };
  EXPECT_EQ(ka_img_header(handle, take, &entries), 1);
  return entries;
}

std::string text_of(const Entries& entries) {
  std::string text;
  for (const auto& [name, value] : entries) text += name + "=" + value + ";";
  return text;
}

struct HeaderRow {
  const char* name;
  std::string file, entries;
};

// A field of text, filled with zeros.
std::string field(std::string text, std::size_t count) {
  text.resize(count);
  return text;
}

std::string rla() {
  std::string file = test::be(2, 0) + test::be(2, 1) + test::be(2, 0) + test::be(2, 1);
  file += file + test::be(2, 7) + test::be(2, 0) + test::be(2, 3) + test::be(4, 0) + test::be(2, 9);
  file += field(" 2.200000", 16) + field("0.67 0.33", 24) + field("", 72) + test::be(4, 5);
  file += field("name", 128) + field("text", 128) + field("program", 64) + field("", 64);
  file += field("today", 20) + field("wide", 24) + field("1.5", 8) + field("rgb", 32);
  file += field("", 14) + field("box", 32) + test::be(2, 8) + test::be(2, 0) + test::be(2, 8);
  file = field(file, 740) + test::be(4, 748) + test::be(4, 748);
  return file + "packets";
}

// One directory with a text, a resolution and a second directory without a picture.
std::string tiff() {
  const auto entry = [](int tag, int type, int count, std::int64_t value) {
    return test::le(2, tag) + test::le(2, type) + test::le(4, count) + test::le(4, value);
  };
  const std::string entries = entry(256, 3, 1, 1) + entry(257, 3, 1, 1) + entry(258, 3, 1, 8) +
                              entry(259, 3, 1, 1) + entry(262, 3, 1, 1) + entry(270, 2, 8, 200) +
                              entry(273, 4, 1, 220) + entry(277, 3, 1, 1) + entry(279, 4, 1, 1) +
                              entry(282, 5, 1, 208) + entry(305, 2, 3, 'a' + 256 * 'b');
  std::string file = "II" + test::le(2, 42) + test::le(4, 8) + test::le(2, 11) + entries;
  file += test::le(4, 180);
  file = field(file, 180) + test::le(2, 1) + entry(254, 4, 1, 1) + test::le(4, 0);
  return field(file, 200) + "a b c  \n" + test::le(4, 145) + test::le(4, 2) + field("", 4) + "abc";
}

std::string targa() {
  std::string file = test::bytes({4, 0, 10}) + field("", 5) + test::le(2, 4) + test::le(2, 5);
  file += test::le(2, 1) + test::le(2, 1) + test::bytes({24, 0}) + "id \x80" + "abc";
  const auto extension = std::int64_t(file.size());
  file += test::le(2, 495) + field("author", 41) + field("one", 81) + field("two", 243);
  file += test::le(2, 12) + test::le(2, 31) + test::le(2, 1999) + field("", 6) + field("", 47);
  file += field("program", 41) + field("", 7) + test::le(2, 3) + test::le(2, 2) + test::le(4, 0);
  file = field(file, std::size_t(extension) + 495) + test::le(4, extension) + test::le(4, 0);
  return file + std::string("TRUEVISION-XFILE.\0", 18);
}

std::string bmp() {
  std::string file = field("BM", 14) + test::le(4, 40) + test::le(4, 1) + test::le(4, 1);
  file += test::le(2, 1) + test::le(2, 24) + test::le(8, 0) + test::le(4, 2835) + test::le(4, 10);
  return field(file, 58);
}

class Header : public testing::TestWithParam<HeaderRow> {};

TEST_P(Header, IsListed) {
  const test::Scratch scratch;
  test::Handle file;
  ASSERT_EQ(ka_img_open(file, scratch.write("f", GetParam().file).c_str(), IMG_TYPE_FILE), 1);
  EXPECT_EQ(text_of(entries_of(file)), GetParam().entries);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Header,
    testing::Values(
        HeaderRow{"Ppm", "P6#a\n# b\t\n1 # c\r\n1\n255\nabc",
                  "magic=P6;comment=a;comment= b\t;comment= c\r;maximum=255;"},
        HeaderRow{"FloatPpm", "PF 1 1 0.5 2.5e3\n0 0 0", "magic=PF;least=0.5;maximum=2.5e3;"},
        HeaderRow{"Hdr",
                  "#?RADIANCE\n#x\nrpict -vp 1\nFORMAT=32-bit_rle_rgbe\nVIEW= -vtv\n\n-Y 1 +X 1\n",
                  "magic=#?RADIANCE;comment=x;command=rpict -vp 1;FORMAT=32-bit_rle_rgbe;"
                  "VIEW= -vtv;axes=-Y 1 +X 1;"},
        HeaderRow{"Pic",
                  test::be(4, 0x5380f634) + test::be(4, 0x40600000) + field("note", 80) + "PICT" +
                      test::be(2, 1) + test::be(2, 1) + test::be(4, 0x3f000000) +
                      test::be(4, 0x20000) + test::bytes({1, 8, 2, 0xe0, 0, 8, 0, 0x10}),
                  "version=3.5;comment=note;id=PICT;aspect=0.5;fields=even;channels=RGB;"
                  "compression=mixed run-length;channels=A;compression=none;"},
        HeaderRow{"Rla", rla(),
                  "window=0 1 0 1;active_window=0 1 0 1;frame=7;color_channels=3;matte_channels=0;"
                  "auxiliary_channels=0;revision=9;gamma= 2.200000;red=0.67 0.33;job=5;name=name;"
                  "description=text;program=program;date=today;aspect_name=wide;aspect=1.5;"
                  "channels=rgb;field=0;filter=box;channel_bits=8;"},
        HeaderRow{"Tiff", tiff(),
                  "byte_order=little;compression=none;photometric=black is zero;description=a b "
                  "c;samples=1;"
                  "x_resolution=72.5;software=ab;pages=2;"},
        HeaderRow{"Targa", targa(),
                  "id=id \x80;kind=true color;compression=run-length;pixel_bits=24;origin=4 5;"
                  "author=author;comment=one;comment=two;date=1999 12 31 0 0 0;software=program;"
                  "aspect=1.5;"},
        HeaderRow{"Bmp", bmp(),
                  "header_bytes=40;pixel_bits=24;compression=none;pixels_per_meter=2835 10;"},
        HeaderRow{"Sgi",
                  test::be(2, 474) + test::bytes({0, 1}) + test::be(2, 3) + test::be(2, 1) +
                      test::be(2, 1) + test::be(2, 3) + test::be(4, 16) + test::be(4, 235) +
                      test::be(4, 0) + field("a name", 488),
                  "compression=none;sample_bytes=1;dimensions=3;channels=3;least_sample=16;"
                  "greatest_sample=235;name=a name;color_map=normal;"},
        HeaderRow{"Alias",
                  test::be(2, 1) + test::be(2, 1) + test::be(2, 2) + test::be(2, 3) +
                      test::be(2, 24) + test::bytes({1, 0, 0, 0}),
                  "origin=2 3;pixel_bits=24;"},
        HeaderRow{"Texture", test::bytes({4, 0, 0, 1, 0, 1, 0, 0, 9}), "subtype=4;header_bytes=8;"},
        HeaderRow{"Lwi",
                  test::bytes({21, 0, 22, 0, 23, 0, 24, 0, 19, 30, 0, 0, 0, 0, 0, 0}) +
                      test::be(4, 1) + test::be(4, 1) + field("", 40),
                  ""}),
    test::row_name<HeaderRow>);

// Files of this library: what only it writes, and the levels of a map.
TEST(Headers, OfWrittenFilesAreListed) {
  const test::Scratch scratch;
  const test::Image image = test::make_image(IMG_TYPE_RGB, 5, 3);
  const std::pair<const char*, const char*> rows[] = {
      {"eps", "BoundingBox=0 0 5 3;Creator=Lumora;Title=(No title);Page=1 1;"},
      {"picture", "note=SMS     5 X    3;block_samples=262140;flag=0;"},
      {"iff", "flags=1;depths=no;sample_bytes=1;tiles=1;compression=run-length;"},
      {"jpg",
       "jfif_version=1 1;density_unit=none;density=1 1;coding=baseline;precision=8;"
       "component=1 2 2;component=2 1 1;component=3 1 1;"}};
  for (const auto& [format, entries] : rows) {
    const std::string path = scratch.path(format);
    ASSERT_EQ(test::write_image(path, ka_img_format_identify(format), image.get()), 0) << format;
    test::Handle file;
    ASSERT_EQ(ka_img_open(file, path.c_str(), IMG_TYPE_FILE), 1) << format;
    EXPECT_EQ(text_of(entries_of(file)), entries);
  }
  test::Handle map;
  map->pyramid = 2;
  const std::string path = scratch.path("map");
  ASSERT_EQ(ka_img_create(map, path.c_str(), IMG_TYPE_RGB, IMG_FORMAT_MAP, 5, 3), 1);
  ASSERT_EQ(ka_img_image_write(map, image.get()), 1);
  ASSERT_EQ(ka_img_close(map), 1);
  ASSERT_EQ(ka_img_open(map, path.c_str(), IMG_TYPE_FILE), 1);
  EXPECT_EQ(text_of(entries_of(map)),
            "version=1;byte_order=little;filter=2;levels=2;level=5 3;level=2 1;");
}

// Every picture of the corpus is read as if the header had not been listed on the way.
TEST(Headers, CanBeListedAtAnyTime) {
  int pictures = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(LUMORA_CORPUS)) {
    const std::string path = entry.path();
    test::Handle plain, listed;
    if (entry.is_directory() || !ka_img_open(plain, path.c_str(), IMG_TYPE_FILE) ||
        !ka_img_open(listed, path.c_str(), IMG_TYPE_FILE) || plain->lacks_lines ||
        plain->height > 100) {
      continue;
    }
    const test::Line first(ka_img_line_alloc(plain)), second(ka_img_line_alloc(listed));
    const Entries entries = entries_of(listed);
    pictures += !entries.empty();
    for (int y = 0; y < plain->height; ++y) {
      ASSERT_EQ(ka_img_line_read(listed, second.get()), ka_img_line_read(plain, first.get()))
          << path;
      ASSERT_EQ(entries_of(listed), entries) << path;
      ASSERT_EQ(listed->error, plain->error) << path;
      for (int slot = 0; slot < IMG_SLOTS; ++slot) {
        const void *a = ka_img_line_plane(first.get(), slot),
                   *b = ka_img_line_plane(second.get(), slot);
        const auto bytes = std::size_t(plain->width) * std::size_t(plain->bits) / 8;
        ASSERT_TRUE(!a || std::memcmp(a, b, bytes) == 0) << path;
      }
    }
  }
  EXPECT_GT(pictures, 200);
}

// A driver with more to say than a file of its size justifies.
int entries_taken = 0;
void list_much(img_file* /*handle*/, img_header* header) {
  const std::string value(100000, 'v');
  EXPECT_EQ(ka_img_header_put(header, "cut", "ab\0c", 4), 1);
  EXPECT_EQ(ka_img_header_put(header, "long", value.data(), value.size()), 1);
  while (ka_img_header_put(header, "more", value.data(), 1000)) ++entries_taken;
  EXPECT_EQ(ka_img_header_put(header, "no", "", 0), 0);
}
int accept(img_file* /*handle*/, const std::uint8_t* head) { return head[0] == 'T'; }
int open_one(img_file* handle, const std::uint8_t* /*head*/) {
  return handle->width = handle->height = 1;
}

TEST(Headers, OfOtherDriversAreLimited) {
  const test::Scratch scratch;
  ASSERT_EQ(ka_img_custom_format(IMG_FORMAT_CUSTOM, accept, nullptr, open_one, nullptr, nullptr,
                                 nullptr, 0, "t", 0, IMG_TYPE_RGB),
            1);
  EXPECT_EQ(ka_img_custom_format_header(IMG_FORMAT_CUSTOM - 1, list_much), 0);
  EXPECT_EQ(ka_img_custom_format_header(IMG_FORMAT_COUNT, list_much), 0);
  EXPECT_EQ(ka_img_custom_format_header(IMG_FORMAT_CUSTOM, list_much), 1);
  test::Handle file;
  EXPECT_EQ(ka_img_header(file, nullptr, nullptr), 0);
  EXPECT_EQ(file->error, IMG_ERR_NOT_OPEN);
  ASSERT_EQ(ka_img_open(file, scratch.write("t", field("T", 20000)).c_str(), IMG_TYPE_FILE), 1);
  const Entries entries = entries_of(file);
  ASSERT_EQ(entries.size(), std::size_t(entries_taken) + 2);
  EXPECT_EQ(entries[0].second, "ab");
  EXPECT_EQ(entries[1].second.size(), 65535U);
  EXPECT_EQ(entries_taken, (65536 + 4 * 20000 - 65535 - 20 - 21) / 1020);
  ka_img_exit();  // empties the slots
  ka_img_init();
}

}  // namespace
