// Texture cache: files and their levels, from the map file to the records and back.
#include <errno.h>
#include <sys/stat.h>

#include <cstring>

#include <ka/db.h>
#include <ka/mem.h>
#include <ka/message.h>

#include "cacherecord.h"
#include "imgcall.h"
#include "mapfile.h"
#include "stream.h"
#include "texturecache.h"

namespace {

constinit ka::Mutex image_tree_lock;
// Every cached level by its header's address, until its image is removed.
ka::AddressMap<ka::CacheRecord> image_tree KA_GUARDED_BY(image_tree_lock);

// A map file's levels as the cache keeps them in memory: header and line table one after the other.
struct Headers {
  ka::MapHead head;
  ka::MapLevels levels;
  std::array<std::uint32_t, ka::kMapLevels> offsets;  // of each level in the buffer
  ka::Buffer bytes;

  [[nodiscard]] img_image* level(std::size_t k) const {
    return reinterpret_cast<img_image*>(bytes.data() + offsets[k]);
  }
};

std::size_t place_levels(Headers& headers) {
  std::uint64_t end = 0;
  for (std::size_t k = 0; k < headers.levels.count; ++k) {
    headers.offsets[k] = std::uint32_t(end);
    end += headers.levels.level[k].planes;
  }
  return std::size_t(end);
}

// The header says what the operations on images go by: the file's type, cached planes, and levels
// that follow it in the buffer.
void finish_header(const Headers& headers, std::size_t k) {
  img_image* const image = headers.level(k);
  image->type = headers.head.type;
  ka::set_cached(image);
  std::ranges::fill(image->words, 0U);
  std::ranges::fill(image->level_offset, 0U);
  for (std::size_t j = k; j < headers.levels.count; ++j) {
    image->level_offset[j - k] = headers.offsets[j] - headers.offsets[k];
  }
}

// Reads and checks all levels. Returns the error, IMG_ERR_NONE for none.
int read_headers(img_file* handle, Headers& headers) {
  ka::FileReader in;
  in.start(handle, 0);
  std::array<std::uint8_t, sizeof(ka::MapFileHeader)> first{};
  if (!in.read(first)) return IMG_ERR_READ;
  if (!ka::is_map_file(first)) return IMG_ERR_CORRUPT;
  const int failure = ka::parse_map_head(first, handle->file_size, headers.head);
  if (failure != IMG_ERR_NONE) return IMG_ERR_CORRUPT;
  const auto levels = ka::map_levels(headers.head, handle->file_size);
  if (!levels) return IMG_ERR_CORRUPT;
  headers.levels = *levels;
  headers.bytes = ka::Buffer(place_levels(headers));
  for (std::size_t k = 0; k < levels->count; ++k) {
    const auto bytes =
        std::span(headers.bytes.data(), headers.bytes.size()).subspan(headers.offsets[k]);
    const int level_failure = ka::read_map_level(in, headers.head, *levels, k, bytes);
    if (level_failure != IMG_ERR_NONE) return level_failure;
    if (!ka::has_aligned_planes(headers.level(k), levels->level[k], headers.head.type)) {
      return IMG_ERR_CORRUPT;
    }
  }
  for (std::size_t k = 0; k < levels->count; ++k) finish_header(headers, k);
  return IMG_ERR_NONE;
}

// What the open file is, so that it is known again by its path. False with errno.
bool identify(const img_file* handle, ka::CacheFile& file) {
  struct stat status;
  if (fstat(fileno(handle->stream), &status) != 0) return false;
  file.identity = {.device = status.st_dev, .inode = status.st_ino, .size = status.st_size};
  file.path = handle->path;
  return true;
}

std::uint32_t page_bytes(std::uint32_t line_bytes) {
  if (line_bytes == 0 || line_bytes > ka::kPageBase) return std::max(line_bytes, 1U);
  return std::uint32_t{ka::kPageBase} / line_bytes * line_bytes;
}

// A record and its slots, all empty.
ka::CacheRecord* make_record(const Headers& headers, std::size_t k, ka::CacheFile* file,
                             std::uint8_t* element) {
  const ka::MapLevel& level = headers.levels.level[k];
  auto record = ka::make_owned<ka::CacheRecord>();
  record->begin = level.offset;
  record->end = level.end();
  record->file = file;
  record->image = reinterpret_cast<img_image*>(element + headers.offsets[k]);
  record->swapped_bits = headers.head.swapped ? ka_img_nbits[headers.head.type] : 0;
  record->pixel_offset = std::uint32_t(level.planes);
  record->line_bytes = std::uint32_t(ka::plane_bytes(headers.head.type, level.width));
  record->pixel_bytes = record->line_bytes * std::uint32_t(level.height) *
                        std::uint32_t(ka_img_ncomp[headers.head.type]);
  record->page_bytes = page_bytes(record->line_bytes);
  record->pages = std::uint32_t((std::uint64_t{record->pixel_bytes} + record->page_bytes - 1) /
                                record->page_bytes);
  record->slots = ka::vector<ka::PageSlot>(record->pages);
  return record.release();
}

void take_out(const ka::CacheFile& file) KA_REQUIRES(image_tree_lock) {
  for (const ka::CacheRecord* const level : file.levels) image_tree.erase(level->image);
}

// Takes a file out of the tree whose headers were where those of the new one are: their owner has
// released them without a word to the cache. Null when there is none.
ka::CacheFile* take_displaced(const ka::CacheFile& by) {
  const ka::MutexScope locked(image_tree_lock);
  for (const ka::CacheRecord* const level : by.levels) {
    const ka::CacheRecord* const old = image_tree.find(level->image);
    if (!old) continue;
    take_out(*old->file);
    return old->file;
  }
  return nullptr;
}

// Room is made without the lock: making it may run a purge.
void insert_levels(const ka::CacheFile& file) {
  ka::AddressMap<ka::CacheRecord>::Places places;  // also released without the lock
  for (std::size_t wanted = 0;;) {
    if (wanted > 0) places = ka::AddressMap<ka::CacheRecord>::places_for(wanted);
    const ka::MutexScope locked(image_tree_lock);
    wanted = image_tree.size() + file.levels.size();
    if (!image_tree.holds(wanted) && !image_tree.grow(places, wanted)) continue;
    for (ka::CacheRecord* const record : file.levels) image_tree.insert(record->image, record);
    return;
  }
}

// Takes the levels of an image out of the tree. Null when it is not a cached image.
ka::CacheFile* take_levels(const img_image* image) {
  const ka::MutexScope locked(image_tree_lock);
  const ka::CacheRecord* const record = image_tree.find(image);
  if (!record || record->file->headers != image) return nullptr;
  ka::CacheFile* const file = record->file;
  take_out(*file);
  return file;
}

// Any image that is still there, or null.
ka::CacheFile* any_file() {
  const ka::MutexScope locked(image_tree_lock);
  const ka::CacheRecord* const any =
      image_tree.find_if([](const ka::CacheRecord&) { return true; });
  return any ? any->file : nullptr;
}

// Ends the registration of a file that has been taken out of the tree.
void end_registration(ka::CacheThread* thread, ka::CacheFile* file) {
  for (ka::CacheRecord* const level : file->levels) ka::cache_invalidate(thread, *level);
  ka::cache_alarms.fetch_add(1, std::memory_order_release);
  ka::cache_reserve_clear(false);
  ka::cache_file_drop(file);
}

// The calling thread's state, unless it is in use further up on the stack.
ka::CacheThread* idle_thread() {
  ka::CacheThread* const thread = ka::recent_page.thread;
  return thread && !thread->busy ? thread : nullptr;
}

void register_file(const Headers& headers, ka::Owned<ka::CacheFile> file, void* element) {
  std::memcpy(element, headers.bytes.data(), headers.bytes.size());
  file->headers = static_cast<img_image*>(element);
  for (std::size_t k = 0; k < headers.levels.count; ++k) {
    file->levels.push_back(
        make_record(headers, k, file.get(), static_cast<std::uint8_t*>(element)));
  }
  while (ka::CacheFile* const displaced = take_displaced(*file)) {
    end_registration(idle_thread(), displaced);
  }
  insert_levels(*file.release());
}

}  // namespace

img_image* ka::img_cache_image_make(img_file* handle, ka::img_element_function element,
                                    void* argument) {
  const ErrorScope errors(handle);
  if (!ka::img_is_open(handle) || !handle->stream || !handle->path) {
    ka::img_error(handle, IMG_ERR_NOT_OPEN, 0);
    return nullptr;
  }
  Headers headers{};
  auto file = ka::make_owned<ka::CacheFile>();
  const int failure = identify(handle, *file) ? read_headers(handle, headers) : IMG_ERR_READ;
  if (failure != IMG_ERR_NONE) {
    ka::img_error(handle, failure, failure == IMG_ERR_READ ? errno : 0);
    return nullptr;
  }
  void* const memory = element(argument, headers.bytes.size());
  register_file(headers, std::move(file), memory);
  ka_img_close(handle);
  return static_cast<img_image*>(memory);
}

std::uint32_t ka::img_cache_image_add(img_file* handle, std::uint32_t tag) {
  const auto element = [](void* tag_of_it, std::size_t bytes) {
    auto& its_tag = *static_cast<std::uint32_t*>(tag_of_it);
    return its_tag == 0 ? ka_db_create(&its_tag, KA_DB_IMAGE, bytes)
                        : ka_db_realloc(its_tag, bytes);
  };
  return ka::img_cache_image_make(handle, element, &tag) ? tag : 0;
}

int ka::img_cache_image_remove(img_image* image) {
  ka::CacheFile* const file = take_levels(image);
  if (!file) return 0;
  file->owns_headers = true;
  end_registration(idle_thread(), file);
  return 1;
}

std::int64_t ka::img_cache_filesize_get(const img_image* image) {
  const ka::MutexScope locked(image_tree_lock);
  const ka::CacheRecord* const record = image_tree.find(image);
  return record ? record->file->identity.size : 0;
}

ka::CacheRecord* ka::cache_record_attach(const img_image* image) {
  const ka::MutexScope locked(image_tree_lock);
  ka::CacheRecord* const record = image_tree.find(image);
  if (record) record->file->references.fetch_add(1, std::memory_order_relaxed);
  return record;
}

void ka::cache_file_drop(ka::CacheFile* file) {
  if (file->references.fetch_sub(1, std::memory_order_acq_rel) > 1) return;
  for (ka::CacheRecord* const level : file->levels) ka::Release()(level);
  if (file->owns_headers) ka_mem_release(file->headers);
  ka::Release()(file);
}

void ka::cache_invalidate(ka::CacheThread* thread, ka::CacheRecord& record) {
  record.valid.store(false, std::memory_order_relaxed);
  if (thread && thread->records.find(record.image) == &record)
    ka::context_image_flush(*thread, record);
  ka::cache_level_clear(record);
}

void ka::cache_files_clear() {
  while (ka::CacheFile* const file = any_file()) {
    {
      const ka::MutexScope locked(image_tree_lock);
      take_out(*file);
    }
    end_registration(nullptr, file);
  }
  const ka::MutexScope locked(image_tree_lock);
  image_tree = {};
}
