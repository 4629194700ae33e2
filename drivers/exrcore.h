// OpenEXR's core library, which is loaded when the first file of the format is opened.
#pragma once

#include <OpenEXR/openexr.h>

namespace drivers {

// The library's functions, under their names without the prefix exr_.
struct ExrCore {
  decltype(&exr_start_read) start_read;
  decltype(&exr_finish) finish;
  decltype(&exr_get_default_error_message) get_default_error_message;
  decltype(&exr_get_user_data) get_user_data;
  decltype(&exr_get_count) get_count;
  decltype(&exr_get_name) get_name;
  decltype(&exr_get_storage) get_storage;
  decltype(&exr_get_channels) get_channels;
  decltype(&exr_get_compression) get_compression;
  decltype(&exr_get_data_window) get_data_window;
  decltype(&exr_get_display_window) get_display_window;
  decltype(&exr_get_pixel_aspect_ratio) get_pixel_aspect_ratio;
  decltype(&exr_get_attribute_by_name) get_attribute_by_name;
  decltype(&exr_get_attribute_count) get_attribute_count;
  decltype(&exr_get_attribute_by_index) get_attribute_by_index;
  decltype(&exr_get_chunk_count) get_chunk_count;
  decltype(&exr_get_scanlines_per_chunk) get_scanlines_per_chunk;
  decltype(&exr_get_tile_sizes) get_tile_sizes;
  decltype(&exr_read_scanline_chunk_info) read_scanline_chunk_info;
  decltype(&exr_read_tile_chunk_info) read_tile_chunk_info;
  decltype(&exr_decoding_initialize) decoding_initialize;
  decltype(&exr_decoding_choose_default_routines) decoding_choose_default_routines;
  decltype(&exr_decoding_update) decoding_update;
  decltype(&exr_decoding_run) decoding_run;
  decltype(&exr_decoding_destroy) decoding_destroy;
};

// Loads the library once.
//   Returns  null, and says why in *reason, where it is missing or lacks a function.
//   Threads  any.
const ExrCore* exr_core(const char** reason);

}  // namespace drivers
