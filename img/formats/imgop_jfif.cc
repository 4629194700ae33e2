// JPEG files in the JFIF and Exif forms, by way of the libjpeg codec; written as baseline JFIF.
// Layout: docs/formats.md, "JFIF", which is that of "JPEG File Interchange Format", version 1.02.
//
// The codec leaves a failing call by a jump to whoever armed it. Between the two there is nothing
// that would have to be taken down.
#include <errno.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <cstdio>
#include <type_traits>

#include <jpeglib.h>

#include <jerror.h>

#include <ka/detail/memory.h>
#include <ka/detail/scope.h>
#include <ka/version.h>

#include "drivers.h"
#include "img_jfif.h"
#include "linekernels.h"
#include "stream.h"

namespace ka {

namespace {

constexpr std::size_t kComponents = 3;
constexpr std::size_t kWriteBuffer = std::size_t{16} << 10;
constexpr int kDefaultQuality = 75;
constexpr int kQualityNumber = 1;  // of the warning about a quality that is out of range

template <typename Codec>
j_common_ptr common(Codec* codec) {
  return reinterpret_cast<j_common_ptr>(codec);
}

// Runs calls into the codec. False when one of them failed.
template <typename Calls>
bool guarded(JfifState& state, Calls calls) {
  static_assert(std::is_trivially_destructible_v<Calls>);
  if (state.aborted) return false;
  if (setjmp(state.jump) != 0) {  // NOLINT(cert-err52-cpp): the codec is C
    state.aborted = true;
    return false;
  }
  calls();
  return true;
}

void report(j_common_ptr codec) {
  const ModuleScope scope(KA_JPG);
  char text[JMSG_LENGTH_MAX];
  codec->err->format_message(codec, text);
  ka_debug("%s", text);
}

[[noreturn]] void custom_jpg_error_handler(j_common_ptr codec) {
  if (codec->err->msg_code == JERR_OUT_OF_MEMORY) ka::memory_refused();
  report(codec);
  longjmp(codec_state(codec).jump, 1);  // NOLINT(cert-err52-cpp): as above
}

// Where the codec would go on with invented pixels it is stopped.
bool makes_up_pixels(int warning) {
  return warning == JWRN_HIT_MARKER || warning == JWRN_HUFF_BAD_CODE ||
         warning == JWRN_ARITH_BAD_CODE || warning == JWRN_MUST_RESYNC;
}

void emit_message(j_common_ptr codec, int level) {
  if (level >= 0) return;  // not a warning
  if (makes_up_pixels(codec->err->msg_code)) {
    codec_state(codec).damaged = true;
    custom_jpg_error_handler(codec);
  }
  report(codec);
}

template <typename Codec>
void set_hooks(JfifState& state, Codec& codec) {
  codec.err = jpeg_std_error(&state.errors);
  codec.client_data = &state;
  state.errors.error_exit = custom_jpg_error_handler;
  state.errors.emit_message = emit_message;
}

void give(JfifState& state, std::span<const std::uint8_t> bytes) {
  state.source.next_input_byte = bytes.data();
  state.source.bytes_in_buffer = bytes.size();
}

// What the file holds is handed over without a copy, one buffer of the reader after the other. The
// codec looks ahead: at the end of the file a marker lets it use what it has, and it complains once
// it needs more. Arithmetic decoding never complains.
boolean fill_input_buffer(j_decompress_ptr codec) {
  static constexpr std::uint8_t end_of_image[] = {0xff, JPEG_EOI};
  JfifState& state = codec_state(codec);
  const auto bytes = state.in.ahead(1);
  (void)state.in.take(bytes.size());
  if (bytes.empty()) {
    const bool is_first = !state.ended;
    state.failure = errno;
    state.ended = true;
    if (!is_first || state.failure != 0 || codec->arith_code) ERREXIT(codec, JERR_INPUT_EOF);
  }
  give(state, bytes.empty() ? std::span(end_of_image) : bytes);
  return TRUE;
}

void skip_input_data(j_decompress_ptr codec, long count) {
  JfifState& state = codec_state(codec);
  jpeg_source_mgr& source = state.source;
  const auto bytes = std::size_t(std::max(count, 0L));
  const std::size_t at_hand = std::min(bytes, source.bytes_in_buffer);
  source.next_input_byte += at_hand;
  source.bytes_in_buffer -= at_hand;
  if (bytes > at_hand) state.in.seek(state.file_size - state.in.left() + (bytes - at_hand));
}

void create_reader(JfifState& state) {
  jpeg_create_decompress(&state.reader);
  state.source.init_source = [](j_decompress_ptr) {};
  state.source.fill_input_buffer = fill_input_buffer;
  state.source.skip_input_data = skip_input_data;
  state.source.resync_to_restart = jpeg_resync_to_restart;
  state.source.term_source = [](j_decompress_ptr) {};
  state.reader.src = &state.source;
  state.progress.progress_monitor = img_jfif_count_scans;
  state.reader.progress = &state.progress;
}

// Whether scans may be missing. A file of one scan says when its lines are read.
bool ends_before_its_last_scan(JfifState& state) {
  return state.ended && jpeg_has_multiple_scans(&state.reader);
}

void read_header(JfifState& state) {
  jpeg_read_header(&state.reader, TRUE);
  state.reader.out_color_space = JCS_RGB;
  jpeg_calc_output_dimensions(&state.reader);
}

// The reason of a failure are the codec's words, except where they say less than is known.
int refuse(img_file* handle, JfifState& state, int code, int os_error) {
  const jpeg_decompress_struct& reader = state.reader;
  if (!state.aborted) {
    return img_refuse(handle, code, os_error, "the file ends before its last scan");
  }
  if (state.errors.msg_code == JERR_CONVERSION_NOTIMPL) {
    return img_refuse(handle, code, os_error, "%d color components are not read; 1 and 3 are",
                      reader.num_components);
  }
  if (state.errors.msg_code == JERR_NOTIMPL && reader.input_scan_number > kMostScans) {
    return img_refuse(handle, code, os_error, "more than %d scans", kMostScans);
  }
  if (state.errors.msg_code == JERR_NO_BACKING_STORE) {
    return img_refuse(handle, code, os_error, "%u x %u pixels in scans of so few bytes",
                      reader.image_width, reader.image_height);
  }
  char text[JMSG_LENGTH_MAX];
  state.errors.format_message(common(&state.reader), text);
  return img_refuse(handle, code, os_error, "%s", text);
}

int failed_reading(img_file* handle, JfifState& state, int otherwise) {
  if (state.ended) return refuse(handle, state, IMG_ERR_READ, state.failure);
  return refuse(handle, state, state.damaged ? IMG_ERR_CORRUPT : otherwise, 0);
}

void set_room(JfifState& state) {
  state.destination.next_output_byte = state.written.data();
  state.destination.free_in_buffer = state.written.size();
}

void hand_over(JfifState& state, std::size_t bytes) {
  state.out.write({reinterpret_cast<const char*>(state.written.data()), bytes});
}

boolean empty_output_buffer(j_compress_ptr codec) {
  JfifState& state = codec_state(codec);
  hand_over(state, state.written.size());
  if (state.out.error() != 0) ERREXIT(codec, JERR_FILE_WRITE);
  set_room(state);
  return TRUE;
}

void term_destination(j_compress_ptr codec) {
  JfifState& state = codec_state(codec);
  hand_over(state, state.written.size() - state.destination.free_in_buffer);
}

// The whole part of the quality that the caller has set, 0 for none. What no int holds is as far
// out of range.
int quality_of(const img_file* handle) {
  const auto quality = std::bit_cast<float>(handle->parameters[0]);
  if (!(quality > -0x1p31F)) return INT_MIN;
  return quality < 0x1p31F ? int(quality) : INT_MAX;
}

void start_writing(JfifState& state, const img_file* handle, int quality) {
  jpeg_create_compress(&state.writer);
  state.destination.init_destination = [](j_compress_ptr codec) { set_room(codec_state(codec)); };
  state.destination.empty_output_buffer = empty_output_buffer;
  state.destination.term_destination = term_destination;
  state.writer.dest = &state.destination;
  state.writer.image_width = static_cast<JDIMENSION>(handle->width);
  state.writer.image_height = static_cast<JDIMENSION>(handle->height);
  state.writer.input_components = handle->components;
  state.writer.in_color_space = JCS_RGB;
  jpeg_set_defaults(&state.writer);
  if (quality >= 1 && quality <= 100) jpeg_set_quality(&state.writer, quality, TRUE);
  jpeg_start_compress(&state.writer, TRUE);
}

// Lines come in their order only. The handle counts those that failed, too.
bool is_next_line(const img_file* handle, JDIMENSION next, JDIMENSION width, JDIMENSION height) {
  return next < height && static_cast<JDIMENSION>(handle->line_count) == next &&
         static_cast<JDIMENSION>(handle->width) == width;
}

// 0 when the codec is of another version than the one whose records are known here: it then refuses
// to be set up.
int codec_version() {
  const ModuleScope scope(KA_JPG);
  static const int version = [] {
    JfifState state;
    set_hooks(state, state.reader);
    return guarded(state, [&] { jpeg_create_decompress(&state.reader); }) ? JPEG_LIB_VERSION : 0;
  }();
  return version;
}

}  // namespace

int img_test_jfif(img_file* /*handle*/, const std::uint8_t* head) {
  const bool starts_with_app =
      head[0] == 0xff && head[1] == 0xd8 && head[2] == 0xff && head[3] >= 0xe0 && head[3] <= 0xef;
  return starts_with_app && codec_version() != 0;
}

int img_open_jfif(img_file* handle, const std::uint8_t* /*head*/) {
  if (codec_version() == 0) return 0;
  auto state = make_state<JfifState>(handle);
  jpeg_decompress_struct& reader = state->reader;
  state->file_size = std::uint64_t(handle->file_size);
  state->in.start(handle, 0);
  set_hooks(*state, reader);
  const auto set_up = [&state = *state] {
    create_reader(state);
    read_header(state);
  };
  if (!guarded(*state, set_up)) return refuse(handle, *state, IMG_ERR_SUBTYPE, state->failure);
  handle->width = int(reader.output_width);
  handle->height = int(reader.output_height);
  handle->topdown = 1;
  const auto start = [&reader] {
    img_jfif_prepare_blocks(&reader);
    jpeg_start_decompress(&reader);
  };
  if (!guarded(*state, start) || ends_before_its_last_scan(*state)) {
    return failed_reading(handle, *state, IMG_ERR_SUBTYPE);
  }
  state->row = Buffer(std::size_t{reader.output_width} * kComponents);
  handle->data.p = state.release();
  return 1;
}

int img_create_jfif(img_file* handle) {
  if (codec_version() == 0) return 0;
  const int quality = quality_of(handle);
  if (quality < 0 || quality > 100) {
    ka_nwarning(kQualityNumber, "JPEG: bad quality %d ignored, default quality %d used", quality,
                kDefaultQuality);
  }
  auto state = make_state<JfifState>(handle);
  state->row = Buffer(std::size_t(handle->width) * kComponents);
  state->written = Buffer(kWriteBuffer);
  state->out.start(handle);
  set_hooks(*state, state->writer);
  const auto start = [&state = *state, handle, quality] { start_writing(state, handle, quality); };
  if (!guarded(*state, start)) {
    const bool is_too_big = std::max(handle->width, handle->height) > JPEG_MAX_DIMENSION;
    return img_error(handle, IMG_ERR_CREATE, is_too_big ? EFBIG : 0);
  }
  handle->data.p = state.release();
  return 1;
}

int img_read_jfif(img_file* handle, img_line* line) {
  auto& state = state_of<JfifState>(handle);
  jpeg_decompress_struct& reader = state.reader;
  if (state.aborted ||
      !is_next_line(handle, reader.output_scanline, reader.output_width, reader.output_height)) {
    return 0;
  }
  JSAMPROW row = state.row.data();
  JDIMENSION rows = 0;
  if (!guarded(state, [&] { rows = jpeg_read_scanlines(&reader, &row, 1); })) {
    return failed_reading(handle, state, IMG_ERR_READ);
  }
  if (rows != 1) return 0;
  split<std::uint8_t, kComponents>(row, plane_pointers<std::uint8_t, kComponents>(line),
                                   reader.output_width);
  return 1;
}

int img_write_jfif(img_file* handle, img_line* line) {
  auto& state = state_of<JfifState>(handle);
  jpeg_compress_struct& writer = state.writer;
  if (state.aborted ||
      !is_next_line(handle, writer.next_scanline, writer.image_width, writer.image_height)) {
    return 0;
  }
  JSAMPROW row = state.row.data();
  pack<std::uint8_t, kComponents>(row, plane_pointers<std::uint8_t, kComponents>(line),
                                  writer.image_width);
  JDIMENSION rows = 0;
  if (!guarded(state, [&] { rows = jpeg_write_scanlines(&writer, &row, 1); })) {
    return img_error(handle, IMG_ERR_WRITE, state.out.error());
  }
  return rows == 1;
}

// A file that was read is given up wherever the codec has got to.
int img_close_jfif(img_file* handle) {
  if (codec_version() == 0) return 0;
  const auto state = take_state<JfifState>(handle);
  if (!state || !handle->writing || handle->error) return 1;
  if (!guarded(*state, [&writer = state->writer] { jpeg_finish_compress(&writer); })) {
    const int failure = state->out.error();
    return img_error(handle, failure != 0 ? IMG_ERR_WRITE : IMG_ERR_CLOSE, failure);
  }
  return finish_file(handle, state->out, IMG_ERR_WRITE);
}

}  // namespace ka

int ka_jpg_mod_version() { return ka::codec_version(); }
