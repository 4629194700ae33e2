// PostScript pages and Encapsulated PostScript: a fixed prolog, then the pixels as hexadecimal text
// for an image procedure, top line first. Only files of this shape are read; nothing of PostScript
// is interpreted. Layout: docs/formats.md, "PostScript and EPS".
#include <errno.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>

#include <ka/detail/targets.h>
#include <ka/imgheader.h>

#include "driver.h"
#include "drivers.h"
#include "rows.h"
#include "textreader.h"

namespace ka {

namespace {

constexpr std::string_view kPsMagic = "%!PS-Adobe-3.0\n";
constexpr std::string_view kEpsMagic = "%!PS-Adobe-3.0 EPSF-3.0\n";
constexpr std::string_view kCreator = "%%Creator: Lumora\n";
constexpr std::string_view kDataComment = "% lu image data";
constexpr std::string_view kPsTrailer = "grestore\ngrestore\ngrestore\nshowpage\n%%Trailer\n";
constexpr std::string_view kEpsTrailer = "grestore\ngrestore\nshowpage\n%%Trailer\n";

constexpr std::string_view kBlanks = " \t\n\v\f\r";
constexpr std::size_t kLongestText = 255;  // characters that are read as one line of text
constexpr std::size_t kTextSamples = 39;   // of a full line of text: 13 pixels, or 39 grey ones
constexpr std::size_t kTextDigits = 2 * kTextSamples;

struct PsState {
  FileReader in;   // of a file that is read
  FileWriter out;  // of a file that is written
};

struct Picture {
  int width, height;  // pixels, lines
  int type;
};

// Takes a number from the front of the text, after blanks; it may have a sign.
bool take_number(std::string_view& text, int& number) {
  skip_blanks(text, kBlanks);
  const bool is_negative = text.starts_with('-');
  if (is_negative || text.starts_with('+')) text.remove_prefix(1);
  const auto found = take_decimal(text);
  if (!found || !found->fits()) return false;
  number = found->value();
  return !is_negative || number == 0;
}

// What follows the prefix of the comment before the pixels: width, height, and a word of which
// the first letter counts.
std::optional<Picture> parse_data_comment(std::string_view text) {
  Picture picture{};
  if (!take_number(text, picture.width) || !take_number(text, picture.height)) return std::nullopt;
  skip_blanks(text, kBlanks);
  const char letter = text.empty() ? '\0' : text[0];
  if (letter != 'c' && letter != 'g') return std::nullopt;
  picture.type = letter == 'c' ? IMG_TYPE_RGB : IMG_TYPE_S;
  return picture;
}

// Skips the lines before the one that names the creator, and the rest of the prolog.
int open_text(img_file* handle, int first_lines) {
  auto state = make_state<PsState>(handle);
  FileReader& in = state->in;
  in.start(handle, 0);
  for (int i = 0; i < first_lines; ++i) (void)read_text(in, kLongestText);
  if (read_text(in, kLongestText) != kCreator) {
    return img_refuse(handle, IMG_ERR_SUBTYPE, 0,
                      "only PostScript that this library wrote is read");
  }
  std::string_view text;
  do {
    text = read_text(in, kLongestText);
    if (text.empty()) {
      return img_refuse(handle, IMG_ERR_CORRUPT, errno, "the comment before the pixels is missing");
    }
  } while (!text.starts_with(kDataComment));
  const auto picture = parse_data_comment(text.substr(kDataComment.size()));
  if (!picture) {
    return img_refuse(handle, IMG_ERR_CORRUPT, 0,
                      "the comment before the pixels lacks width, height or kind");
  }
  if (read_text(in, kLongestText).empty()) {
    return img_refuse(handle, IMG_ERR_CORRUPT, errno, "the file ends before the pixels");
  }
  handle->width = picture->width;
  handle->height = picture->height;
  const int components = picture->type == IMG_TYPE_RGB ? 3 : 1;
  note_line_bytes(handle, checked_product(picture->width, components, 2), in.left());
  state_file_type(handle, picture->type);
  handle->data.p = state.release();
  return 1;
}

// Hexadecimal text is parsed in blocks, several lines of text at once.
constexpr std::size_t kBlockDigits = 64;
constexpr std::size_t kTexts = 16;
constexpr std::size_t kBlocks = (kTexts * kTextDigits + kBlockDigits - 1) / kBlockDigits;
using Digits = std::array<char, kBlocks * kBlockDigits>;
using Samples = std::array<std::uint8_t, kBlocks * kBlockDigits / 2>;

KA_KERNEL void parse_digits(const Digits& digits, std::size_t blocks, Samples& samples,
                            bool& sound) {
  const char* in = digits.data();
  std::uint8_t* out = samples.data();
  std::array<std::uint8_t, kBlockDigits> others{};
  for (; blocks > 0; --blocks, in += kBlockDigits, out += kBlockDigits / 2) {
    std::array<std::uint8_t, kBlockDigits> values;
    for (std::size_t i = 0; i < kBlockDigits; ++i) {
      const auto character = std::uint8_t(in[i]);
      const auto number = std::uint8_t(character - '0');
      const auto letter = std::uint8_t((character | 0x20) - 'a');
      others[i] |= std::uint8_t(number > 9 && letter > 5);
      values[i] = number > 9 ? std::uint8_t(letter + 10) : number;
    }
    for (std::size_t i = 0; i < kBlockDigits / 2; ++i) {
      out[i] = std::uint8_t(values[2 * i] << 4 | values[2 * i + 1]);
    }
  }
  sound = std::ranges::count(others, 0) == std::ptrdiff_t(kBlockDigits);
}
constexpr auto& digits_kernels = kernels_of<parse_digits>;

// The next line of text, of which `wanted` characters are checked. Most lines end after them: a
// line feed further in front is no digit and will be found as such.
std::string_view read_digits(FileReader& in, std::size_t wanted) {
  const auto ahead = in.ahead(kLongestText);
  if (ahead.size() <= wanted || ahead[wanted] != '\n') return read_text(in, kLongestText);
  return {reinterpret_cast<const char*>(in.take(wanted + 1).data()), wanted};
}

// Reads `count` samples, at most as many as kTexts lines of text hold.
bool read_samples(FileReader& in, Samples& samples, std::size_t count) {
  static const auto parse = best_kernel(digits_kernels);
  Digits digits;
  std::size_t length = 0;
  while (length < 2 * count) {
    const std::size_t wanted = std::min(2 * count - length, kTextDigits);
    const std::string_view text = read_digits(in, wanted);
    if (text.size() < wanted) return false;
    std::memcpy(&digits[length], text.data(), wanted);
    length += wanted;
  }
  const std::size_t blocks = (length + kBlockDigits - 1) / kBlockDigits;
  std::fill(&digits[length], digits.data() + blocks * kBlockDigits, '0');
  bool sound = false;
  parse(digits, blocks, samples, sound);
  return sound;
}

// An image line begins with a line of text, whatever remains of the one before.
template <std::size_t Components>
int read_line(img_file* handle, const std::array<std::uint8_t*, Components>& planes) {
  auto& in = state_of<PsState>(handle).in;
  errno = 0;
  const auto move = [&in](const auto& part, std::size_t pixels) {
    Samples samples;
    if (!read_samples(in, samples, Components * pixels)) return false;
    split<std::uint8_t, Components>(samples.data(), part, pixels);
    return true;
  };
  if (move_row<std::uint8_t>(planes, std::size_t(handle->width), kTexts * kTextSamples, move)) {
    return 1;
  }
  return img_error(handle, IMG_ERR_CORRUPT, errno);
}

[[gnu::format(printf, 2, 3)]] void print(FileWriter& out, const char* format, ...) {
  std::array<char, 2048> text;
  va_list values;
  va_start(values, format);
  const int length = std::vsnprintf(text.data(), text.size(), format, values);
  va_end(values);
  out.write({text.data(), std::size_t(length)});
}

// The page is turned by 90 degrees, and the picture fills as much of it as its shape allows. Both
// sides are divided as numbers with a decimal, whatever the locale of the program is.
void print_ps_head(FileWriter& out, unsigned width, unsigned height) {
  print(out,
        "%%!PS-Adobe-3.0\n"
        "%%%%Creator: Lumora\n"
        "%%%%Title: (No title)\n"
        "%%%%EndComments\n"
        "%%%%EndProlog\n"
        "%%%%Page: 1 1\n"
        "gsave\n"
        "clippath pathbbox\n"
        "3 index /LLx exch def\n"
        "2 index /LLy exch def\n"
        "1 index /URx exch def\n"
        "0 index /URy exch def\n"
        "pop pop pop pop\n"
        "\n"
        "%% scale image to fit the default pagesize\n"
        "LLy URy sub abs /y_dim exch def\n"
        "LLx URx sub abs /x_dim exch def\n"
        "x_dim y_dim ge\n"
        "{ /width x_dim 0 sub def /height y_dim 0 sub def }\n"
        "{ /width y_dim 0 sub def /height x_dim 0 sub def }\n"
        "ifelse\n"
        "/aspect_ratio height width div def\n"
        "%u.0 %u.0 div aspect_ratio ge\n"
        "{ /hsf height %u div def /wsf hsf def }\n"
        "{ /hsf width %u div def /wsf hsf def } ifelse\n"
        "90 rotate\n"
        "gsave\n"
        "LLy 0 add height LLx add 0 add neg translate\n"
        "wsf hsf scale\n"
        "newpath\n"
        "\n",
        height, width, height, width);
}

// The picture is drawn as it is, one unit for each pixel.
void print_eps_head(FileWriter& out, unsigned width, unsigned height) {
  print(out,
        "%%!PS-Adobe-3.0 EPSF-3.0\n"
        "%%%%BoundingBox: 0 0 %u %u\n"
        "%%%%Creator: Lumora\n"
        "%%%%Title: (No title)\n"
        "%%%%EndComments\n"
        "%%%%EndProlog\n"
        "%%%%Page: 1 1\n"
        "gsave\n",
        width, height);
}

// The image procedure, which takes a string of as many bytes as a line has pixels at a time, and
// its call.
void print_image(FileWriter& out, unsigned width, unsigned height, bool is_grey) {
  print(out,
        "/picstr %u string def\n"
        "/luimage {\n"
        "  %u %u 8\t\t%% dimensions\n"
        "  [ %u 0 0 -%u 0 %u]\t%% mapping matrix\n"
        "  { currentfile picstr readhexstring pop }\n"
        "  %s\n"
        "} def\n"
        "gsave\n"
        "%u %u scale\n"
        "%% lu image data %u %u %s\n"
        "luimage\n",
        width, width, height, width, height, height, is_grey ? "image" : "false 3 colorimage",
        width, height, width, height, is_grey ? "gray" : "color");
}

int create_text(img_file* handle, void (*print_head)(FileWriter&, unsigned, unsigned)) {
  auto state = make_state<PsState>(handle);
  const auto width = unsigned(handle->width);
  const auto height = unsigned(handle->height);
  state->out.start(handle);
  print_head(state->out, width, height);
  print_image(state->out, width, height, handle->file_type == IMG_TYPE_S);
  handle->data.p = state.release();
  return 1;
}

// A line feed ends every full line of text, and the image line.
template <std::size_t Components>
void write_line(FileWriter& out, std::size_t width,
                const std::array<const std::uint8_t*, Components>& planes) {
  constexpr std::size_t most = kTextSamples / Components;  // pixels
  constexpr std::string_view digits = "0123456789abcdef";
  for (std::size_t x = 0; x < width;) {
    const std::size_t end = std::min(x + most, width);
    auto* text = out.put(2 * Components * (end - x) + 1).data();
    for (; x < end; ++x) {
      for (const std::uint8_t* const plane : planes) {
        *text++ = std::uint8_t(digits[plane[x] >> 4]);
        *text++ = std::uint8_t(digits[plane[x] & 15]);
      }
    }
    *text = '\n';
  }
}

// Lines go out unchecked: whether the text arrived is known when the file is closed.
int close_text(img_file* handle, std::string_view trailer) {
  const auto state = take_state<PsState>(handle);
  if (!state || !handle->writing) return 1;
  state->out.write(trailer);
  return finish_file(handle, state->out, IMG_ERR_CLOSE);
}

bool starts_with(const std::uint8_t* head, std::string_view magic) {
  return std::memcmp(head, magic.data(), magic.size()) == 0;
}

}  // namespace

int img_test_ps(img_file* /*handle*/, const std::uint8_t* head) {
  return starts_with(head, kPsMagic);
}

int img_test_eps(img_file* /*handle*/, const std::uint8_t* head) {
  return starts_with(head, kEpsMagic);
}

int img_open_ps(img_file* handle, const std::uint8_t* /*head*/) { return open_text(handle, 1); }

// The bounding box comes before the creator.
int img_open_eps(img_file* handle, const std::uint8_t* /*head*/) { return open_text(handle, 2); }

int img_create_ps(img_file* handle) { return create_text(handle, print_ps_head); }

int img_create_eps(img_file* handle) { return create_text(handle, print_eps_head); }

int img_read_ps(img_file* handle, img_line* line) {
  if (handle->lacks_lines) return img_error(handle, IMG_ERR_CORRUPT, 0);
  if (handle->components == 3) {
    return read_line(handle, plane_pointers<std::uint8_t, 3>(line));
  }
  return read_line(handle, std::array{plane_of<std::uint8_t>(line, 3)});
}

int img_write_ps(img_file* handle, img_line* line) {
  auto& out = state_of<PsState>(handle).out;
  const auto width = std::size_t(handle->width);
  if (handle->components == 3) {
    write_line(out, width, plane_pointers<const std::uint8_t, 3>(line));
  } else {
    write_line(out, width, std::array{plane_of<const std::uint8_t>(line, 3)});
  }
  return 1;
}

int img_close_ps(img_file* handle) { return close_text(handle, kPsTrailer); }

int img_close_eps(img_file* handle) { return close_text(handle, kEpsTrailer); }

// The comments of the prolog, "%%Title: Sunset", up to the one before the pixels.
void img_header_ps(img_file* handle, img_header* header) {
  FileReader in;
  in.start(handle, 0, kLongestText + 1);
  HeaderEntries out(header);
  for (auto line = read_text(in, kLongestText); !line.empty() && !line.starts_with(kDataComment);
       line = read_text(in, kLongestText)) {
    const std::size_t end = line.find(": ");
    if (!line.starts_with("%%") || end == std::string_view::npos) continue;
    std::array<char, kLongestText> name{};
    std::ranges::copy(line.substr(2, end - 2), name.begin());
    out.text(name.data(), line.substr(end + 2, line.find('\n') - end - 2));
  }
}

}  // namespace ka
