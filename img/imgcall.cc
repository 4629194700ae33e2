// Handles: opens, creates and closes one image file through its format's driver.
#include "imgcall.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>

#include <ka/detail/scope.h>
#include <ka/detail/versions.h>
#include <ka/mem.h>
#include <ka/message.h>

#include "imageelements.h"
#include "imageplanes.h"
#include "imgcontext.h"
#include "imgoutput.h"
#include "imgpath.h"
#include "stream.h"
#include "texturecache.h"

namespace {

constexpr int kDefaultTypeNumber = 2;  // of the warning about a type that the format cannot write

std::atomic<std::uint32_t> img_subverb{KA_SUBVERB_DEFAULT};

void read_subverbosity() {
  const std::uint32_t forced = ka::img_debug_level() != 0 ? std::uint32_t{KA_SUBVERB_FILES} : 0;
  img_subverb = ka_get_subverbosity(KA_IMG) | forced;
}

const char* name_or_unknown(const char* name) { return name ? name : "unknown"; }

bool has_driver_state(const img_file* handle) { return handle->stream || handle->data.p; }

// A handle that is opened again while it is open: its driver and its stream would be lost, so they
// end here.
void close_stale(img_file* handle) {
  if (!ka::img_is_open(handle)) return;
  ka::img_error(handle, IMG_ERR_NOT_CLOSED, 0);
  ka::img_act_on_error(handle);
  ka_img_close(handle);
}

void set_display_name(img_file* handle, const char* name) {
  constexpr std::size_t kept = 60;  // last characters of a name that is too long
  const std::size_t length = std::strlen(name);
  if (length < sizeof handle->display_name) {
    std::memcpy(handle->display_name, name, length + 1);
  } else {
    std::snprintf(handle->display_name, sizeof handle->display_name, "...%s", name + length - kept);
  }
}

void set_file_type(img_file* handle, int type) {
  handle->file_type = std::uint8_t(type);
  handle->bits = ka_img_nbits[type];
  handle->components = ka_img_ncomp[type];
}

// A damaged header may claim any width: a line that long waits until somebody reads it.
void prepare_conversion(img_file* handle, int from, int to) {
  const ka::LinePath path = ka::img_line_path(handle);
  if (path == ka::LinePath::kDirect) return;
  if (ka::img_reports_files()) {
    ka_info("converting %s to %s", name_or_unknown(ka_img_type_name(from)),
            name_or_unknown(ka_img_type_name(to)));
  }
  if (path == ka::LinePath::kConverted && handle->width <= ka::kTypicalWidth) {
    ka::img_allocate_conversion(handle);
  }
}

// Opens the stream, takes the file's size and its first bytes. Returns 1, or 0 with the handle's
// error.
int read_head(img_file* handle, const ka::ImagePath& path,
              std::array<std::uint8_t, IMG_HEAD_SIZE>& head) {
  handle->stream = ka::open_for_reading(path);
  if (!handle->stream) return ka::img_error(handle, IMG_ERR_OPEN, errno);
  const int file = fileno(handle->stream);
  handle->file_size = lseek(file, 0, SEEK_END);
  if (handle->file_size < 0) return ka::img_error(handle, IMG_ERR_OPEN, errno);
  if (handle->file_size == 0) {
    return ka::img_refuse(handle, IMG_ERR_FORMAT, 0, "the file is empty");
  }
  const auto wanted = std::size_t(std::min<std::int64_t>(handle->file_size, IMG_HEAD_SIZE));
  if (!ka::img_fseek(handle->stream, 0, SEEK_SET) ||
      !ka::img_fread(head.data(), wanted, handle->stream)) {
    return ka::img_error(handle, IMG_ERR_OPEN, errno);
  }
  return 1;
}

// Errors of drivers that declined a file are none of the handle's.
void drop_refusals(img_file* handle) {
  handle->error = IMG_ERR_NONE;
  handle->os_error = handle->has_new_error = 0;
  handle->reason[0] = '\0';
  handle->data.p = nullptr;
}

void drop_stream(img_file* handle) {
  if (handle->stream) std::fclose(handle->stream);
  handle->stream = nullptr;
}

// The driver has read the header: settles the file's type and the way its lines take. Returns 1, or
// 0 with the handle's error.
int finish_opening(img_file* handle) {
  const bool stated = handle->file_type >= IMG_TYPE_COUNT;
  const int type =
      stated ? handle->file_type - IMG_TYPE_COUNT : ka::img_format_at(handle->format).best_type;
  if (type >= IMG_TYPE_COUNT) {
    return ka::img_refuse(handle, IMG_ERR_SUBTYPE, 0, "the driver states pixel type %d", type);
  }
  set_file_type(handle, type);
  handle->has_header = 1;
  if (handle->type == IMG_TYPE_FILE) handle->type = handle->file_type;
  prepare_conversion(handle, handle->file_type, handle->type);
  if (ka::img_reports_files()) {
    ka_info("type \"%s\", format \"%s\", %d bits, %d components, %d x %d",
            name_or_unknown(ka_img_type_name(handle->file_type)),
            name_or_unknown(ka::img_format_at(handle->format).name), handle->bits,
            handle->components, handle->width, handle->height);
  }
  return 1;
}

// Reads the header with the driver of a format that has accepted the file. Returns 1, or 0 with the
// handle's error.
int open_driver(img_file* handle, int format, const std::uint8_t* head) {
  handle->format = format;
  handle->topdown = ka::img_format_at(format).topdown;
  std::rewind(handle->stream);
  const auto open = ka::img_format_at(format).driver.open;
  if (open && open(handle, head)) return finish_opening(handle);
  ka::img_set_default_error(handle, open, IMG_ERR_SUBTYPE);
  return 0;
}

// Asks the format that stands in for the one whose driver has refused the file; `unread` is the
// handle as it was before. Returns 1, or 0 with the error of the refusal. The reason is then that of
// the driver that can read more.
int open_stand_in(img_file* handle, int refusing, const img_file& unread,
                  const std::uint8_t* head) {
  if (handle->error != IMG_ERR_SUBTYPE) return 0;
  img_file refused = *handle;
  *handle = unread;
  const int format = ka::img_identify_stand_in(handle, head, refusing);
  if (format >= 0) {
    drop_refusals(handle);
    if (open_driver(handle, format, head)) return 1;
    const auto close = ka::img_format_at(format).driver.close;
    if (handle->data.p && close) close(handle);
    if (handle->reason[0]) std::ranges::copy(handle->reason, refused.reason);
  }
  *handle = refused;
  return 0;
}

// Called in a purge, with the areas of one thread after the other.
int memory_limit(std::int64_t wanted) {
  static ka::ImageContext nobody{};
  void** const areas = ka::context().context_areas;
  void* const area = areas ? areas[KA_IMG] : nullptr;
  return ka::img_cache_memory_limit(area ? *static_cast<ka::ImageContext*>(area) : nobody, wanted);
}

}  // namespace

bool ka::img_reports_files() { return (img_subverb & KA_SUBVERB_FILES) != 0; }

void ka_img_init() {
  const ka::ModuleScope scope(KA_IMG);
  ka::img_context_init_gamma_init();
  ka::img_context_register();
  ka_job_register(KA_IMG, ka_img_job_callback);
  ka::img_init_formats();
  ka::img_cache_init();
  ka::img_lightmap_init();
  ka_mem_limit_handler(KA_IMG, memory_limit);
}

void ka_img_exit() {
  const ka::ModuleScope scope(KA_IMG);
  ka_mem_limit_handler(KA_IMG, nullptr);
  ka_job_register(KA_IMG, nullptr);
  ka::img_cache_exit();
  ka::img_exit_formats();
  ka::img_context_init_gamma_exit();
  ka::img_lightmap_exit();
}

const char* ka_img_version() { return ka::module_version(ka::kImgVersion); }

int ka::img_open(img_file* handle, const ImagePath& path, int type) {
  const ErrorScope errors(handle);
  read_subverbosity();
  if (img_reports_files()) ka_info("opening \"%s\" for reading", path.path);
  close_stale(handle);
  const img_file kept = *handle;
  *handle = {};
  std::ranges::copy(kept.layer, handle->layer);
  handle->layer[IMG_LAYER_SIZE - 1] = '\0';
  handle->gamma = handle->aspect = 1.0F;
  handle->type = type;
  set_display_name(handle, path.name);
  handle->name = ka_mem_strdup(path.name);
  handle->path = ka_mem_strdup(path.path);
  if (!ka::is_pixel_type(type) && type != IMG_TYPE_FILE) {
    return ka::img_error(handle, IMG_ERR_ARGUMENT, 0);
  }

  std::array<std::uint8_t, IMG_HEAD_SIZE> head{};
  if (!read_head(handle, path, head)) {
    drop_stream(handle);
    return 0;
  }
  const int format = ka::img_identify(handle, head.data());
  drop_refusals(handle);
  if (format < 0) {
    drop_stream(handle);
    return ka::img_error(handle, IMG_ERR_FORMAT, 0);
  }
  handle->magic =
      IMG_MAGIC;  // from here on the stream ends with ka_img_close, whatever the driver finds
  const img_file unread = *handle;
  if (open_driver(handle, format, head.data())) return 1;
  if (open_stand_in(handle, format, unread, head.data())) return 1;
  img_release_names(handle);
  return 0;
}

int ka::img_create(img_file* handle, const ImagePath& path, int type, int format, int width,
                   int height) {
  const ErrorScope errors(handle);
  read_subverbosity();
  if (format < 0 || format >= IMG_FORMAT_COUNT || !ka::is_pixel_type(type) || width < 0 ||
      height < 0) {
    return ka::img_error(handle, IMG_ERR_ARGUMENT, 0);
  }
  const ka::img_format_row& row = ka::img_format_at(format);
  int file_type = handle->file_type;
  if (file_type >= IMG_TYPE_COUNT || !(row.type_map >> file_type & 1)) {
    ka_nwarning(kDefaultTypeNumber, "type %s not supported by %s format, using default type %s",
                name_or_unknown(ka_img_type_name(file_type)), name_or_unknown(row.name),
                ka_img_type_name(row.best_type));
    file_type = row.best_type;
  }
  if (ka::img_reports_files()) {
    ka_info("creating \"%s\"", path.path);
    ka_info("format \"%s\", type \"%s\", %d bits, %d comps, size %d x %d",
            name_or_unknown(row.name), ka_img_type_name(file_type), ka_img_nbits[file_type],
            ka_img_ncomp[file_type], width, height);
  }
  close_stale(handle);
  const img_file kept = *handle;
  *handle = {};
  handle->pyramid = kept.pyramid;
  handle->parameters[2] = kept.parameters[2];
  handle->format = format;
  handle->type = type;
  handle->width = width;
  handle->height = height;
  handle->topdown = row.topdown;
  handle->gamma = handle->aspect = 1.0F;
  handle->writing = 1;
  set_file_type(handle, file_type);
  set_display_name(handle, path.name);
  handle->name = ka_mem_strdup(path.name);

  const int failure = open_output(handle, path);
  if (failure != 0) return img_error(handle, IMG_ERR_CREATE, failure);
  handle->magic = IMG_MAGIC;
  prepare_conversion(handle, handle->type, file_type);
  if (row.header_at_once) {
    if (!ka::img_write_header(handle)) return 0;
    handle->line_count = -1;
  }
  return 1;
}

int ka_img_open(img_file* handle, const char* name, int type) {
  const ka::ModuleScope scope(KA_IMG);
  return ka::img_open(handle, ka::ImagePath(name), type);
}

int ka_img_create(img_file* handle, const char* name, int type, int format, int width, int height) {
  const ka::ModuleScope scope(KA_IMG);
  return ka::img_create(handle, ka::ImagePath(name), type, format, width, height);
}

int ka_img_create_in(img_file* handle, int descriptor, const char* name, int type, int format,
                     int width, int height) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::ImagePath path(name, descriptor);
  return ka::img_create(handle, path, type, format, width, height);
}

int ka_img_close(img_file* handle) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::ErrorScope errors(handle);
  if (!handle || !ka::img_is_open(handle)) return 1;
  int result = 1;
  if (has_driver_state(handle)) {
    const auto close = ka::img_format_at(handle->format).driver.close;
    if (close) result = ka::img_settle(handle, true, close(handle), IMG_ERR_CLOSE);
  }
  if (!ka::img_close_stream(handle)) result = 0;
  ka::img_discard(handle);
  handle->data.p = nullptr;
  ka_mem_release(handle->conversion);
  handle->conversion = nullptr;
  handle->magic = 0;
  return result;
}
