#include "exrcore.h"

#include <dlfcn.h>

namespace drivers {

namespace {

constexpr const char* kLibrary = "libOpenEXRCore-3_1.so.30";
constexpr const char* kMissing =
    "libOpenEXRCore-3_1.so.30 cannot be loaded; Debian's package is libopenexr-3-1-30";
constexpr const char* kOther = "libOpenEXRCore-3_1.so.30 lacks a function that is needed";

struct Loaded {
  ExrCore core{};
  const char* reason = nullptr;  // null: loaded
};

template <typename Function>
bool find(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(dlsym(library, name));
  return function != nullptr;
}

// The library stays loaded: its functions are used until the program ends.
Loaded load() {
  Loaded loaded;
  void* const library = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    loaded.reason = kMissing;
    return loaded;
  }
  ExrCore& core = loaded.core;
  const bool has_all =
      find(library, "exr_start_read", core.start_read) &&
      find(library, "exr_finish", core.finish) &&
      find(library, "exr_get_default_error_message", core.get_default_error_message) &&
      find(library, "exr_get_user_data", core.get_user_data) &&
      find(library, "exr_get_count", core.get_count) &&
      find(library, "exr_get_name", core.get_name) &&
      find(library, "exr_get_storage", core.get_storage) &&
      find(library, "exr_get_channels", core.get_channels) &&
      find(library, "exr_get_compression", core.get_compression) &&
      find(library, "exr_get_data_window", core.get_data_window) &&
      find(library, "exr_get_display_window", core.get_display_window) &&
      find(library, "exr_get_pixel_aspect_ratio", core.get_pixel_aspect_ratio) &&
      find(library, "exr_get_attribute_by_name", core.get_attribute_by_name) &&
      find(library, "exr_get_attribute_count", core.get_attribute_count) &&
      find(library, "exr_get_attribute_by_index", core.get_attribute_by_index) &&
      find(library, "exr_get_chunk_count", core.get_chunk_count) &&
      find(library, "exr_get_scanlines_per_chunk", core.get_scanlines_per_chunk) &&
      find(library, "exr_get_tile_sizes", core.get_tile_sizes) &&
      find(library, "exr_read_scanline_chunk_info", core.read_scanline_chunk_info) &&
      find(library, "exr_read_tile_chunk_info", core.read_tile_chunk_info) &&
      find(library, "exr_decoding_initialize", core.decoding_initialize) &&
      find(library, "exr_decoding_choose_default_routines",
           core.decoding_choose_default_routines) &&
      find(library, "exr_decoding_update", core.decoding_update) &&
      find(library, "exr_decoding_run", core.decoding_run) &&
      find(library, "exr_decoding_destroy", core.decoding_destroy);
  if (!has_all) loaded.reason = kOther;
  return loaded;
}

}  // namespace

const ExrCore* exr_core(const char** reason) {
  static const Loaded loaded = load();
  *reason = loaded.reason;
  return loaded.reason ? nullptr : &loaded.core;
}

}  // namespace drivers
