// Portable pixmaps: binary 8-bit RGB (P6), decimal RGB (P3), and decimal floating-point RGB (PF,
// this system's own), top line first. Layout: docs/formats.md, "PPM"; P3 and P6 are those of
// netpbm's ppm(5).
#include <errno.h>
#include <locale.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstdio>
#include <optional>

#include <ka/imgheader.h>

#include "driver.h"
#include "drivers.h"
#include "rows.h"
#include "textreader.h"

namespace ka {

namespace {

constexpr std::size_t kMaxToken = 255;  // characters of a floating-point number
constexpr char kComment[] = "# created by Brannock lumoralib\n";

struct PpmState {
  char letter;        // of the magic: '6', '3' or 'F'
  FileReader pixels;  // of a file that is read
  FileWriter out;     // of a file that is written
};

struct Header {
  int width, height;  // pixels, lines
  int range;          // the largest sample, of P3 and P6 files
};

bool is_blank(int c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// The numbers of the header: width, height, largest sample; PF files state their range with two.
// The reader stands after the line feed that ends the header. Empty for anything that is not a
// header.
class HeaderParser {
 public:
  explicit HeaderParser(FileReader& in) : in_(in) {}

  std::optional<Header> parse(std::size_t numbers) {
    int c = in_.get();
    for (;;) {
      if (c == '#') c = skip_line(in_) ? '\n' : FileReader::kEnd;
      if (c == '\n' && count_ == numbers) return Header{values_[0], values_[1], values_[2]};
      if (is_digit(c)) {
        if (count_ == numbers) return std::nullopt;
        c = read_number(c);
      } else if (is_blank(c)) {
        c = in_.get();
      } else {
        return std::nullopt;
      }
    }
  }

 private:
  // Returns the character after the number. The range of a PF file is written with fractions and
  // exponents.
  int read_number(int c) {
    const bool is_range = count_ >= 2;
    DecimalNumber number;
    while (number.add(c) || (is_range && (c == '.' || c == '-' || c == 'e' || c == 'E'))) {
      c = in_.get();
    }
    values_[count_++] = number.value();
    return c;
  }

  FileReader& in_;
  std::array<int, 4> values_{};
  std::size_t count_ = 0;
};

// Whether a P6 file has two bytes to a sample. Some writers state a larger range than their bytes
// have; then the bytes of the file decide.
bool has_wide_samples(const Header& header, std::uint64_t bytes) {
  const auto samples = checked_product(header.width, header.height, 3);
  return header.range > 255 && samples && *samples > 0 && bytes > *samples;
}

// Bytes that a line takes at least: a sample of text is a character and the blank after it, which
// the last one of a file may lack.
std::optional<std::uint64_t> least_line(const Header& header, char letter) {
  const auto samples = checked_product(header.width, 3);
  return letter == '6' ? samples : 2 * *samples - 1;
}

// The samples of one line of text. The character that ended a sample is read again for the
// next one, and forgotten at the end of the line.
class TextLine {
 public:
  explicit TextLine(FileReader& in) : in_(in) {}

  // A decimal sample, held between 0 and 255; empty where there is no digit.
  std::optional<std::uint8_t> read_int() {
    skip_blanks();
    const bool negative = last_ == '-';
    if (negative) last_ = in_.get();
    if (!is_digit(last_)) return std::nullopt;
    DecimalNumber number;
    while (number.add(last_)) last_ = in_.get();
    return negative ? std::uint8_t{0} : std::uint8_t(std::min(number.value(), 255));
  }

  // A floating-point sample, 0 for text that is not a number; empty at the end of the file.
  std::optional<float> read_float() {
    skip_blanks();
    if (last_ == FileReader::kEnd) return std::nullopt;
    std::array<char, kMaxToken + 1> token;
    std::size_t length = 0;
    for (; length < kMaxToken && !is_blank(last_) && last_ != FileReader::kEnd; last_ = in_.get()) {
      token[length++] = char(last_);
    }
    token[length] = '\0';
    static const locale_t c_locale =
        newlocale(LC_ALL_MASK, "C", nullptr);  // a program's own may want commas
    return float(strtod_l(token.data(), nullptr, c_locale));
  }

 private:
  void skip_blanks() {
    while (is_blank(last_)) last_ = in_.get();
  }

  FileReader& in_;
  int last_ = '\n';
};

int read_binary_line(img_file* handle, img_line* line) {
  auto& pixels = state_of<PpmState>(handle).pixels;
  const auto planes = plane_pointers<std::uint8_t, 3>(line);
  if (!read_row(pixels, planes, std::size_t(handle->width))) {
    return img_error(handle, IMG_ERR_READ, errno);
  }
  return 1;
}

int refuse_sample(img_file* handle) {
  return img_refuse(handle, IMG_ERR_CORRUPT, 0, "a sample is not a number");
}

int read_decimal_line(img_file* handle, img_line* line) {
  TextLine text(state_of<PpmState>(handle).pixels);
  const auto planes = line_planes<std::uint8_t, 3>(handle, line);
  bool sound = true;
  for (std::size_t x = 0; x < planes[0].size(); ++x) {
    for (const auto& plane : planes) {
      // What stops one sample stops all that follow on the line: they are 0.
      const auto sample = sound ? text.read_int() : std::nullopt;
      plane[x] = sample.value_or(0);
      sound = sample.has_value();
    }
  }
  return sound ? 1 : refuse_sample(handle);
}

int read_float_line(img_file* handle, img_line* line) {
  TextLine text(state_of<PpmState>(handle).pixels);
  const auto [red, green, blue, exponent] = line_planes<std::uint8_t, 4>(handle, line);
  for (std::size_t x = 0; x < red.size(); ++x) {
    std::array<float, 3> color;
    for (float& component : color) {
      const auto sample = text.read_float();
      if (!sample) return img_error(handle, IMG_ERR_READ, 0);
      component = *sample;
    }
    ka_img_rgb_to_hdr(&red[x], &green[x], &blue[x], &exponent[x], color[0], color[1], color[2]);
  }
  return 1;
}

// Numbers are written as printf would in the C locale, whatever locale the program has.
void write_number(FileWriter& out, float value) {
  std::array<char, 32> text;
  const auto end =
      std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::general, 6)
          .ptr;
  out.write({text.data(), end});
}

void write_number(FileWriter& out, std::uint16_t value) {
  std::array<char, 8> text;
  const auto end = std::to_chars(text.data(), text.data() + text.size(), value).ptr;
  out.write({text.data(), end});
}

template <typename Sample>
void write_text_pixel(FileWriter& out, const std::array<Sample, 3>& pixel, bool is_last) {
  for (std::size_t c = 0; c < 3; ++c) {
    if (c > 0) out.write({" ", 1});
    write_number(out, pixel[c]);
  }
  out.write({is_last ? "\n" : "\t", 1});
}

template <typename Sample>
void write_text_line(img_file* handle, img_line* line) {
  auto& out = state_of<PpmState>(handle).out;
  const auto [red, green, blue] = line_planes<Sample, 3>(handle, line);
  for (std::size_t x = 0; x < red.size(); ++x) {
    write_text_pixel(out, std::array{red[x], green[x], blue[x]}, x + 1 == red.size());
  }
}

void write_rgbe_line(img_file* handle, img_line* line) {
  auto& out = state_of<PpmState>(handle).out;
  const auto [red, green, blue, exponent] = line_planes<std::uint8_t, 4>(handle, line);
  for (std::size_t x = 0; x < red.size(); ++x) {
    std::array<float, 3> color;
    ka_img_hdr_to_rgb(&color[0], &color[1], &color[2], red[x], green[x], blue[x], exponent[x]);
    write_text_pixel(out, color, x + 1 == red.size());
  }
}

int write_binary_line(img_file* handle, img_line* line) {
  auto& out = state_of<PpmState>(handle).out;
  const auto planes = plane_pointers<std::uint8_t, 3>(line);
  if (!write_row(out, planes, std::size_t(handle->width))) {
    return img_error(handle, IMG_ERR_WRITE, out.error());
  }
  return 1;
}

char letter_of(const img_file* handle) {
  if (handle->bits == 16) return '3';
  return handle->bits == 32 || handle->file_type == IMG_TYPE_RGBE ? 'F' : '6';
}

}  // namespace

int img_test_ppm(img_file* /*handle*/, const std::uint8_t* head) {
  return head[0] == 'P' && (head[1] == '3' || head[1] == '6' || head[1] == 'F');
}

int img_open_ppm(img_file* handle, const std::uint8_t* head) {
  auto state = make_state<PpmState>(handle);
  state->letter = char(head[1]);
  const bool is_float = state->letter == 'F';
  state->pixels.start(handle, 2);  // after the magic
  const auto header = HeaderParser(state->pixels).parse(is_float ? 4 : 3);
  if (!header)
    return img_refuse(handle, IMG_ERR_CORRUPT, 0, "the header is not %d numbers and a line feed",
                      is_float ? 4 : 3);
  if (header->width == INT_MAX || header->height == INT_MAX)
    return img_refuse(handle, IMG_ERR_CORRUPT, 0, "width or height past %d", INT_MAX - 1);
  if (state->letter == '6' && has_wide_samples(*header, state->pixels.left()))
    return img_refuse(handle, IMG_ERR_SUBTYPE, 0,
                      "samples of two bytes (up to %d) are not read; one byte is", header->range);
  handle->width = header->width;
  handle->height = header->height;
  note_line_bytes(handle, least_line(*header, state->letter), state->pixels.left());
  state_file_type(handle, is_float ? IMG_TYPE_RGBE : IMG_TYPE_RGB);
  handle->data.p = state.release();
  return 1;
}

int img_create_ppm(img_file* handle) {
  auto state = make_state<PpmState>(handle);
  state->letter = letter_of(handle);
  state->out.start(handle);
  const char* const range = state->letter == '6'   ? "255\n"
                            : state->letter == '3' ? "65535\n"
                                                   : "0.0 1.0\n";
  std::array<char, 128> header;
  const int length = std::snprintf(header.data(), header.size(), "P%c\n%s%d %d  %s", state->letter,
                                   kComment, handle->width, handle->height, range);
  state->out.write({header.data(), std::size_t(length)});
  handle->data.p = state.release();
  return 1;
}

int img_read_ppm(img_file* handle, img_line* line) {
  const char letter = state_of<PpmState>(handle).letter;
  if (handle->lacks_lines) {
    return letter == '3' ? refuse_sample(handle) : img_error(handle, IMG_ERR_READ, 0);
  }
  switch (letter) {
    case '6':
      return read_binary_line(handle, line);
    case '3':
      return read_decimal_line(handle, line);
    default:
      return read_float_line(handle, line);
  }
}

int img_write_ppm(img_file* handle, img_line* line) {
  switch (handle->file_type) {
    case IMG_TYPE_RGB_16:
      write_text_line<std::uint16_t>(handle, line);
      return 1;  // closing the file says whether the text arrived
    case IMG_TYPE_RGB_FP:
      write_text_line<float>(handle, line);
      return 1;
    case IMG_TYPE_RGBE:
      write_rgbe_line(handle, line);
      return 1;
    default:
      return write_binary_line(handle, line);
  }
}

int img_close_ppm(img_file* handle) {
  const auto state = take_state<PpmState>(handle);
  return state ? finish_file(handle, state->out, IMG_ERR_CLOSE) : 1;
}

// Comments and numbers as the file mixes them. Width and height are known.
void img_header_ppm(img_file* handle, img_header* header) {
  const char letter = state_of<PpmState>(handle).letter;
  const bool is_float = letter == 'F';
  const std::array names = {"", "", is_float ? "least" : "maximum", "maximum"};
  const std::size_t numbers = is_float ? 4 : 3;
  constexpr std::size_t most = 4095;  // characters of a comment or a number
  FileReader in;
  in.start(handle, 2, most);
  HeaderEntries out(header);
  out.text("magic", {std::array{'P', letter}.data(), 2});
  for (std::size_t count = 0;;) {
    const std::string_view text = as_text(in.ahead(most)).substr(0, most);
    if (text.empty() || (text[0] == '\n' && count == numbers)) return;
    if (text[0] == '#') {
      out.text("comment", text.substr(1, text.find('\n') - 1));
      if (!skip_line(in) || count == numbers) return;
    } else if (is_blank(text[0])) {
      (void)in.get();
    } else {
      const std::string_view number = text.substr(0, text.find_first_of(" \t\r\n#"));
      if (count >= 2) out.text(names[count], number);
      ++count;
      (void)in.take(number.size());
    }
  }
}

}  // namespace ka
