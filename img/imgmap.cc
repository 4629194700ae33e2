#include "imgmap.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include <ka/detail/owned.h>
#include <ka/detail/scope.h>
#include <ka/message.h>
#include <ka/rbtree.h>

#include "driver.h"
#include "imgcall.h"
#include "imgcontext.h"
#include "texturecache.h"

namespace {

// Numbers of messages.
constexpr int kWrongOrder = 3, kWrongType = 4, kNotFiltered = 5, kNotMapped = 5;
constexpr int kWrongTypeToCache = 7, kNotFilteredToCache = 8;

// Images in mappings by their address, with the bytes that are mapped.
struct Registry {
  ka_rbtree* images;
  ka_mutex lock;
};
constinit Registry registry{};

std::uintptr_t key_of(const img_image* image) { return reinterpret_cast<std::uintptr_t>(image); }

void enter(const img_image* image, std::size_t bytes) {
  const ka::LockScope lock(registry.lock);
  ka_rbtree_insert(registry.images, key_of(image), bytes);
}

// The bytes that are mapped for an image that was in the registry, else 0.
std::size_t remove_from_registry(const img_image* image) {
  if (!registry.images) return 0;
  const ka::LockScope lock(registry.lock);
  std::uintptr_t bytes = 0;
  if (ka_rbtree_search(registry.images, key_of(image), &bytes)) {
    ka_rbtree_remove(registry.images, key_of(image));
  }
  return bytes;
}

// Gives a file its final size and blocks on the disk: a mapping has no other way to say that the
// disk is full than a signal. Returns 0, or the system's error number.
int reserve(int file, std::int64_t bytes) {
  if (lseek(file, 0, SEEK_CUR) > 0) return ESPIPE;  // others have written to it before
  if (ftruncate(file, bytes) != 0) return errno;
  int failure = 0;
  do {
    failure = posix_fallocate(file, 0, bytes);
  } while (failure == EINTR);
  return failure;
}

// True as long as the file has the bytes that it had when it was opened.
bool is_complete(int file, std::int64_t bytes) {
  struct stat status;
  return fstat(file, &status) == 0 && status.st_size >= bytes;
}

bool is_map(const img_file* handle) { return ka::img_format_at(handle->format).is_mapped; }

bool is_type_wanted(const img_file* handle, int type) {
  return handle->type == type || handle->type == IMG_TYPE_FILE;
}

bool lacks_levels(const img_file* handle, const ka::MapHead& head) {
  return handle->pyramid != 0 && head.image.levels == 0;
}

// What forbids the use of a file in its mapping; reports the reason.
bool is_refused(const img_file* handle, const ka::MapHead& head) {
  if (head.swapped) {
    ka_nwarning(kWrongOrder, "image file %s cannot be mapped, wrong byte order",
                handle->display_name);
  } else if (!is_type_wanted(handle, head.type)) {
    ka_nwarning(kWrongType, "image file %s cannot be mapped, contains %s, need %s",
                handle->display_name, ka_img_type_name(head.type), ka_img_type_name(handle->type));
  } else if (lacks_levels(handle, head)) {
    ka_nwarning(kNotFiltered, "image file %s cannot be mapped, it isn't prefiltered",
                handle->display_name);
  } else {
    return false;
  }
  return true;
}

img_image* not_mapped() {
  ka_nerror(kNotMapped, "attempting to access a not opened MAP file");
  return nullptr;
}

// Checks everything that operations on images follow: headers and line tables of all levels. They
// are read, so that a file that is shortened meanwhile is an error here, too.
int check_levels(img_file* handle, const ka::MapHead& head) {
  const auto levels = ka::map_levels(head, handle->file_size);
  if (!levels) return ka::img_error(handle, IMG_ERR_CORRUPT, 0);
  ka::FileReader in;
  in.start(handle, 0);
  const ka::Buffer table(std::size_t(levels->level[0].planes));  // that of the most lines
  for (std::size_t k = 0; k < levels->count; ++k) {
    const int error = ka::read_map_level(in, head, *levels, k, {table.data(), table.size()});
    if (error) return ka::img_error(handle, error, error == IMG_ERR_READ ? errno : 0);
  }
  return 1;
}

}  // namespace

namespace ka {

int Mapping::map(int file, std::size_t bytes, bool writing, void* hint) {
  const int access = writing ? PROT_READ | PROT_WRITE : PROT_READ;
  void* const start = mmap(hint, bytes, access, MAP_SHARED, file, 0);
  if (start == MAP_FAILED) return errno;
  start_ = static_cast<std::uint8_t*>(start);
  bytes_ = bytes;
  return 0;
}

int Mapping::unmap() {
  std::uint8_t* const start = std::exchange(start_, nullptr);
  return start && munmap(start, bytes_) != 0 ? errno : 0;
}

}  // namespace ka

void ka::img_init_map() {
  registry.images = ka_rbtree_create(nullptr, KA_RB_UNIQUE);
  ka_init_lock(&registry.lock);
}

void ka::img_fini_map() {
  ka_delete_lock(&registry.lock);
  if (registry.images) ka_rbtree_delete(std::exchange(registry.images, nullptr), 0);
}

int ka::img_mmap_map(img_file* handle, bool writing) {
  if (!handle->data.p) handle->data.p = ka::make_state<ka::MapState>(handle).release();
  const int file = fileno(handle->stream);
  if (writing) {
    const int failure = reserve(file, handle->file_size);
    if (failure) return ka::img_error(handle, IMG_ERR_WRITE, failure);
  } else if (!is_complete(file, handle->file_size)) {
    return ka::img_error(handle, IMG_ERR_READ, 0);
  }
  ka::Mapping& mapping = ka::state_of<ka::MapState>(handle).mapping;
  const int failure =
      mapping.map(file, std::size_t(handle->file_size), writing, ka::img_mapping_hint());
  if (failure) return ka::img_error(handle, IMG_ERR_OPEN, failure);
  ka::img_keep_mapping_hint(mapping.start());
  return 1;
}

img_image* ka::img_address_map(img_file* handle) {
  const ErrorScope errors(handle);
  if (!is_map(handle)) return nullptr;
  if (!ka::img_can_read(handle)) return not_mapped();
  auto& [head, mapping, tables, planes] = ka::state_of<ka::MapState>(handle);
  if (is_refused(handle, head) || !check_levels(handle, head)) return nullptr;
  if (!mapping.start() && !ka::img_mmap_map(handle, false)) return not_mapped();
  img_image* const image = mapping.image();
  if (ka::img_reports_progress()) {
    ka_progress("memory-mapping texture %s at %p", handle->display_name, static_cast<void*>(image));
  }
  enter(image, mapping.bytes());
  mapping.let_go();
  return image;
}

std::uint32_t ka::img_cache_map(img_file* handle, std::uint32_t* tag) {
  if (!is_map(handle) || !ka::img_can_read(handle) || !handle->name) return 0;
  const ka::MapHead& head = ka::state_of<ka::MapState>(handle).head;
  if (!is_type_wanted(handle, head.type)) {
    ka_nwarning(kWrongTypeToCache, "image file %s cannot be cached, contains %s, need %s",
                handle->display_name, ka_img_type_name(head.type), ka_img_type_name(handle->type));
    return 0;
  }
  if (lacks_levels(handle, head)) {
    ka_nwarning(kNotFilteredToCache, "image file %s cannot be cached, it isn't prefiltered",
                handle->display_name);
    return 0;
  }
  const std::uint32_t element = ka::img_cache_image_add(handle, *tag);
  if (element == 0) return 0;
  if (ka::img_reports_progress()) ka_progress("caching texture %s", handle->display_name);
  return *tag = element;
}

int ka::img_munmap_map(img_image* image) {
  const std::size_t bytes = remove_from_registry(image);
  if (bytes == 0) return 0;
  if (munmap(reinterpret_cast<std::uint8_t*>(image) - ka::kMapImageOffset, bytes) == 0) return 1;
  errno = 0;
  ka_debug("image image at %p couldn't be unmapped", static_cast<void*>(image));
  return 0;
}

bool ka::img_is_mapped(const img_image* image) {
  if (!registry.images) return false;
  const ka::LockScope lock(registry.lock);
  return ka_rbtree_search(registry.images, key_of(image), nullptr) != 0;
}

img_image* ka_img_mmap_address(img_file* handle) {
  const ka::ModuleScope scope(KA_IMG);
  return ka::img_address_map(handle);
}
