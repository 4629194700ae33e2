// WebP pictures through libwebp: lossy and lossless, with alpha; of an animation the first frame. The
// container, which is that of the WebP project, is read here. Numbers are little-endian.
#include <errno.h>
#include <ka/imgbytes.h>
#include <ka/imgheader.h>
#include <webp/decode.h>
#include <webp/encode.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>

#include "drivers.h"

namespace {

using drivers::refuse;

constexpr std::size_t kFileHeader = 12;    // "RIFF", size, "WEBP"
constexpr std::size_t kChunkHeader = 8;    // name, size
constexpr std::size_t kFrameHeader = 16;   // of an ANMF chunk
constexpr std::uint8_t kAnimation = 0x02;  // flag of a VP8X chunk

using Bytes = std::span<const std::uint8_t>;

struct Release {
  void operator()(void* memory) const { std::free(memory); }
  void operator()(WebPIDecoder* decoder) const { WebPIDelete(decoder); }
};

// What the container says. The canvas has no sides where there is no VP8X chunk.
struct Container {
  std::uint32_t width = 0, height = 0;  // of the canvas
  bool is_animated = false;
  Bytes profile, frame;             // the chunks of one picture
  std::uint32_t left = 0, top = 0;  // of the frame on the canvas
};

struct WebpState {
  drivers::Reader in;  // holds all bytes of the file
  Container container;
  WebPBitstreamFeatures frame;
  std::unique_ptr<std::uint8_t, Release> pixels;  // of the frame, line after line
  int lines = 0;                                  // that could be decoded
  VP8StatusCode status = VP8_STATUS_NOT_ENOUGH_DATA;
  drivers::Writer out;
  WebPPicture picture;
  std::unique_ptr<std::uint8_t, Release> row;

  ~WebpState() {
    if (out) WebPPictureFree(&picture);
  }
  [[nodiscard]] std::size_t components() const { return frame.has_alpha ? 4 : 3; }
};

std::uint32_t le24(ka::ByteCursor& in) {
  const std::uint32_t low = in.le16();
  return low | std::uint32_t{in.u8()} << 16;
}

struct Chunk {
  std::string_view name;
  Bytes content;  // as much as the file has
};

// The chunk at the front of the bytes, which are moved to the next one.
Chunk next_chunk(Bytes& bytes) {
  ka::ByteCursor in(bytes);
  const auto name = in.take(4);
  const std::uint64_t size = in.le32();
  const Bytes rest = bytes.subspan(kChunkHeader);
  const Bytes content = rest.first(std::min<std::uint64_t>(size, rest.size()));
  bytes = rest.subspan(std::min<std::uint64_t>(size + size % 2, rest.size()));
  return {{reinterpret_cast<const char*>(name.data()), name.size()}, content};
}

bool is_picture(std::string_view name) {
  return name == "ALPH" || name == "VP8 " || name == "VP8L";
}

// The first frame: its place, then its chunks.
void parse_frame(Bytes content, Container& container) {
  ka::ByteCursor in(content);
  container.left = 2 * le24(in);
  container.top = 2 * le24(in);
  container.frame = content.subspan(std::min(kFrameHeader, content.size()));
}

Container parse(Bytes bytes) {
  Container container;
  bytes = bytes.subspan(kFileHeader);
  while (bytes.size() >= kChunkHeader && container.frame.empty()) {
    const Bytes here = bytes;
    const Chunk chunk = next_chunk(bytes);
    if (chunk.name == "VP8X") {
      ka::ByteCursor in(chunk.content);
      container.is_animated = (in.u8() & kAnimation) != 0;
      in.skip(3);
      container.width = le24(in) + 1;
      container.height = le24(in) + 1;
    }
    if (chunk.name == "ICCP") container.profile = chunk.content;
    if (chunk.name == "ANMF" && container.is_animated) parse_frame(chunk.content, container);
    if (is_picture(chunk.name) && !container.is_animated) container.frame = here;
  }
  return container;
}

// The error of a decoder. Returns 0.
int refuse_status(img_file* handle, VP8StatusCode status) {
  switch (status) {
    case VP8_STATUS_SUSPENDED:
    case VP8_STATUS_NOT_ENOUGH_DATA:
      return refuse(handle, IMG_ERR_READ, "the file ends in the picture");
    case VP8_STATUS_OUT_OF_MEMORY:
      return refuse(handle, IMG_ERR_SUBTYPE, "not enough memory");
    case VP8_STATUS_UNSUPPORTED_FEATURE:
      return refuse(handle, IMG_ERR_SUBTYPE, "a feature that libwebp does not know");
    default:
      return refuse(handle, IMG_ERR_CORRUPT, "damaged pixels");
  }
}

// The frame's place on the canvas. Returns 1, or 0 with the handle's error.
int place_frame(img_file* handle, WebpState& state) {
  Container& container = state.container;
  const auto width = std::uint32_t(state.frame.width), height = std::uint32_t(state.frame.height);
  if (container.width == 0) {
    container.width = width;
    container.height = height;
  }
  const bool fits = container.is_animated
                        ? std::uint64_t{container.left} + width <= container.width &&
                              std::uint64_t{container.top} + height <= container.height
                        : container.width == width && container.height == height;
  if (!fits || std::uint64_t{container.width} * container.height > UINT32_MAX) {
    return refuse(handle, IMG_ERR_CORRUPT, "a picture of %u x %u at %u, %u on a canvas of %u x %u",
                  width, height, container.left, container.top, container.width, container.height);
  }
  handle->width = int(container.width);
  handle->height = int(container.height);
  return drivers::check_line_memory(handle, 4);
}

// All of the frame is decoded at once: its pixels, and in a lossless one those of the decoder.
int check_memory(img_file* handle, const WebpState& state) {
  constexpr int lossless = 2;
  const std::uint64_t decoders = state.frame.format == lossless ? 4 : 1;
  const auto bytes = std::uint64_t(state.frame.width) * std::uint64_t(state.frame.height) *
                     (state.components() + decoders);
  if (bytes <= drivers::memory_limit(handle)) return 1;
  return refuse(handle, IMG_ERR_SUBTYPE, "%d x %d pixels would take too much memory for its file",
                state.frame.width, state.frame.height);
}

bool covers_canvas(const WebpState& state) {
  return std::uint32_t(state.frame.width) == state.container.width &&
         std::uint32_t(state.frame.height) == state.container.height;
}

int test_webp(img_file* /*handle*/, const std::uint8_t* head) {
  return std::memcmp(head, "RIFF", 4) == 0 && std::memcmp(head + 8, "WEBP", 4) == 0;
}

int open_webp(img_file* handle, const std::uint8_t* /*head*/) {
  auto state = std::make_unique<WebpState>();
  const auto size = std::size_t(handle->file_size);
  state->in.reset(ka_img_reader_alloc(handle, 0, size));
  const std::uint8_t* const bytes = ka_img_reader_take(state->in.get(), size);
  if (!bytes || size < kFileHeader) return ka_img_custom_format_error(handle, IMG_ERR_READ, errno);
  Container& container = state->container = parse({bytes, size});
  if (container.frame.empty()) return refuse(handle, IMG_ERR_READ, "the file has no picture");
  const VP8StatusCode status =
      WebPGetFeatures(container.frame.data(), container.frame.size(), &state->frame);
  if (status != VP8_STATUS_OK) return refuse_status(handle, status);
  if (!place_frame(handle, *state) || !check_memory(handle, *state)) return 0;
  if (!container.profile.empty()) handle->profile = drivers::profile_of(container.profile);
  if (container.is_animated) drivers::note(handle, "the first frame of the animation is read");
  const bool has_alpha = state->frame.has_alpha || !covers_canvas(*state);
  drivers::state_file_type(handle, has_alpha ? IMG_TYPE_RGBA : IMG_TYPE_RGB);
  handle->data.p = state.release();
  return 1;
}

// The chunks are passed again, through a reader of their heads.
void header_webp(img_file* handle, img_header* header) {
  const WebPBitstreamFeatures& frame = drivers::state_of<WebpState>(handle).frame;
  ka::HeaderEntries out(header);
  out.choice("coding", std::size_t(frame.format), {"mixed", "lossy", "lossless"});
  out.text("alpha", frame.has_alpha ? "yes" : "no");
  const drivers::Reader reader(ka_img_reader_alloc(handle, kFileHeader, 4096));
  std::uint64_t frames = 0;
  while (const std::uint8_t* const head = ka_img_reader_take(reader.get(), kChunkHeader)) {
    const std::string_view name(reinterpret_cast<const char*>(head), 4);
    const std::uint32_t size = ka::ByteCursor({head + 4, 4}).le32();
    frames += name == "ANMF";
    if (name == "ICCP") out.numbers("icc_bytes", size);
    if (name == "EXIF") out.numbers("exif_bytes", size);
    if (name == "XMP ") out.numbers("xmp_bytes", size);
    ka_img_reader_seek(reader.get(),
                       ka_img_reader_position(reader.get()) + std::int64_t{size} + size % 2);
  }
  if (frames > 0) out.numbers("animation_frames", frames);
}

// Decodes as many lines as are sound.
void decode(WebpState& state) {
  const auto stride = std::size_t(state.frame.width) * state.components();
  const std::size_t size = stride * std::size_t(state.frame.height);
  state.pixels.reset(static_cast<std::uint8_t*>(std::malloc(size)));
  state.status = VP8_STATUS_OUT_OF_MEMORY;
  if (!state.pixels) return;
  const std::unique_ptr<WebPIDecoder, Release> decoder(WebPINewRGB(
      state.frame.has_alpha ? MODE_RGBA : MODE_RGB, state.pixels.get(), size, int(stride)));
  if (!decoder) return;
  state.status =
      WebPIUpdate(decoder.get(), state.container.frame.data(), state.container.frame.size());
  int lines = 0;
  if (state.status == VP8_STATUS_OK) {
    lines = state.frame.height;
  } else {
    WebPIDecGetRGB(decoder.get(), &lines, nullptr, nullptr, nullptr);
  }
  state.lines = lines;
}

// The planes of a line, from a pixel on.
std::array<std::uint8_t*, 4> planes_at(img_line* line, std::size_t at) {
  std::array<std::uint8_t*, 4> planes;
  for (int slot = 0; slot < IMG_SLOTS; ++slot) {
    auto* const plane = static_cast<std::uint8_t*>(ka_img_line_plane(line, slot));
    planes[std::size_t(slot)] = plane ? plane + at : nullptr;
  }
  return planes;
}

// A line of a frame that is on a canvas, transparent around it.
void unpack(const img_file* handle, const WebpState& state, int row, img_line* line) {
  const auto width = std::size_t(handle->width), frame_width = std::size_t(state.frame.width);
  for (std::uint8_t* const plane : planes_at(line, 0)) {
    if (plane) std::fill_n(plane, width, std::uint8_t{0});
  }
  if (row < 0 || row >= state.frame.height) return;
  const std::size_t components = state.components();
  const std::uint8_t* const pixels =
      state.pixels.get() + std::size_t(row) * frame_width * components;
  const auto planes = planes_at(line, state.container.left);
  for (std::size_t c = 0; c < 4; ++c) {
    if (!planes[c]) continue;
    for (std::size_t x = 0; x < frame_width; ++x) {
      planes[c][x] = c < components ? pixels[x * components + c] : std::uint8_t{255};
    }
  }
}

int read_webp(img_file* handle, img_line* line) {
  auto& state = drivers::state_of<WebpState>(handle);
  if (handle->line_count >= handle->height)
    return ka_img_custom_format_error(handle, IMG_ERR_READ, 0);
  if (!state.pixels) decode(state);
  const int row = handle->line_count - int(state.container.top);
  if (row >= state.lines && row < state.frame.height) return refuse_status(handle, state.status);
  if (covers_canvas(state)) {
    const auto stride = std::size_t(handle->width) * state.components();
    ka_img_line_unpack(line, handle->file_type, state.pixels.get() + std::size_t(row) * stride,
                       handle->width, IMG_ORDER_HOST);
  } else {
    unpack(handle, state, row, line);
  }
  return 1;
}

int put(const std::uint8_t* bytes, std::size_t count, const WebPPicture* picture) {
  auto* const out = static_cast<img_writer*>(picture->custom_ptr);
  ka_img_writer_put(out, bytes, count);
  return ka_img_writer_error(out) == 0;
}

int create_webp(img_file* handle) {
  if (handle->width < 1 || handle->height < 1 || handle->width > WEBP_MAX_DIMENSION ||
      handle->height > WEBP_MAX_DIMENSION) {
    return refuse(handle, IMG_ERR_SUBTYPE, "%d x %d; the format has sides of 1 to %d",
                  handle->width, handle->height, WEBP_MAX_DIMENSION);
  }
  auto state = std::make_unique<WebpState>();
  if (!WebPPictureInit(&state->picture)) return refuse(handle, IMG_ERR_SUBTYPE, "another libwebp");
  state->out.reset(ka_img_writer_alloc(handle));
  state->picture.use_argb = 1;
  state->picture.width = handle->width;
  state->picture.height = handle->height;
  state->picture.writer = put;
  state->picture.custom_ptr = state->out.get();
  state->row.reset(static_cast<std::uint8_t*>(std::malloc(4 * std::size_t(handle->width))));
  if (!state->row || !WebPPictureAlloc(&state->picture)) {
    return refuse(handle, IMG_ERR_SUBTYPE, "not enough memory");
  }
  std::fill_n(state->picture.argb,
              std::size_t(state->picture.argb_stride) * std::size_t(handle->height), 0U);
  handle->data.p = state.release();
  return 1;
}

int write_webp(img_file* handle, img_line* line) {
  auto& state = drivers::state_of<WebpState>(handle);
  if (handle->line_count >= handle->height)
    return ka_img_custom_format_error(handle, IMG_ERR_WRITE, 0);
  const auto components = std::size_t(handle->components);
  ka_img_line_pack(line, handle->file_type, state.row.get(), handle->width, IMG_ORDER_HOST);
  std::uint32_t* const pixels =
      state.picture.argb + std::size_t(handle->line_count) * std::size_t(state.picture.argb_stride);
  for (std::size_t x = 0; x < std::size_t(handle->width); ++x) {
    const std::uint8_t* const pixel = state.row.get() + x * components;
    const std::uint32_t alpha = components == 4 ? pixel[3] : 255;
    pixels[x] =
        alpha << 24 | std::uint32_t{pixel[0]} << 16 | std::uint32_t{pixel[1]} << 8 | pixel[2];
  }
  return 1;
}

// Lossless, or of the quality that the caller asks for.
bool configure(const img_file* handle, WebPConfig& config) {
  constexpr int fast = 1;  // of 0 to 9
  const auto quality = std::bit_cast<float>(handle->parameters[0]);
  if (std::isfinite(quality) && quality > 0) {
    return WebPConfigPreset(&config, WEBP_PRESET_DEFAULT, std::clamp(quality, 1.0F, 100.0F)) != 0;
  }
  if (!WebPConfigInit(&config) || !WebPConfigLosslessPreset(&config, fast)) return false;
  config.exact = 1;  // colors of transparent pixels, too
  return true;
}

int close_webp(img_file* handle) {
  const auto state = drivers::take_state<WebpState>(handle);
  if (!state || !state->out || handle->line_count <= 0) return 1;
  WebPConfig config;
  const bool is_encoded = configure(handle, config) && WebPEncode(&config, &state->picture);
  const int failure = ka_img_writer_flush(state->out.get());
  if (failure != 0) return ka_img_custom_format_error(handle, IMG_ERR_WRITE, failure);
  if (is_encoded) return 1;
  return refuse(handle, IMG_ERR_COMPRESS, "libwebp fails with error %d",
                int(state->picture.error_code));
}

}  // namespace

int drivers::register_webp(int format) {
  return ka_img_custom_format(format, test_webp, create_webp, open_webp, close_webp, read_webp,
                              write_webp, 1, "webp", 1U << IMG_TYPE_RGB, IMG_TYPE_RGBA) &&
         ka_img_custom_format_header(format, header_webp);
}
