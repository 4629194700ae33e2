// The records of the texture cache, shared by its files.
//
// Locks: every lock is held for a few instructions or for reading one page, and nothing is allocated
// while one is held, because an allocation may run a purge, which calls back into the cache
// (img_cache_memory_limit, img_cache_image_remove). A page's stripe lock is taken before
// unused_pages_lock; image_tree_lock and the others are taken alone.
#pragma once

#include <ka/detail/mutex.h>
#include <ka/detail/owned.h>
#include <ka/img.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "addressmap.h"
#include "imgcontext.h"
#include "links.h"

struct ka_mem_pool;

namespace ka {

constexpr std::uint64_t kPageBase = 16384;  // bytes that a page is meant to have
constexpr std::size_t kStripes = 17;        // locks of a level's pages

struct PageSlot;

// A page in memory: this record and its bytes. Linked while no thread holds it.
struct alignas(std::max_align_t) Page : Link {
  Page(PageSlot* page_slot, bool usual) : slot(page_slot), is_usual(usual) {}
  [[nodiscard]] std::uint8_t* bytes() { return reinterpret_cast<std::uint8_t*>(this + 1); }

  PageSlot* slot;
  bool is_usual;  // its memory serves any page of the usual size
};

// One page of a level. While threads hold the page, the stripe lock guards both; while none does,
// `page` is in the unused list and changes only under unused_pages_lock as well.
struct PageSlot {
  std::atomic<Page*> page;  // null: not loaded
  std::uint32_t holders;    // threads that hold it
};

// What distinguishes a file from another one under its name.
struct FileIdentity {
  std::uint64_t device, inode;
  std::int64_t size;
  bool operator==(const FileIdentity&) const = default;
};

struct CacheRecord;

// A cached file with its levels. It goes, and the headers with it where the cache owns them, when
// the image has been removed and no thread has one of its levels in its records any more.
struct CacheFile {
  string path;  // as it is opened
  FileIdentity identity{};
  img_image* headers = nullptr;           // of all levels, the base first
  bool owns_headers = false;              // set before the cache's own reference is dropped
  vector<CacheRecord*> levels;            // owned
  std::atomic<int> references{1};         // the registration, and each (thread, level)
  std::atomic<bool> is_reported = false;  // that the file cannot be read
};

// One level of a cached file.
struct CacheRecord {
  std::uint64_t begin, end;  // of the level in the file, in bytes
  CacheFile* file;
  img_image* image;  // the level's header
  int swapped_bits;  // of samples of the other byte order, 0: of the host's
  std::atomic<bool> valid = true;
  std::uint32_t pixel_offset;  // bytes of header and line table
  std::uint32_t pixel_bytes;
  std::uint32_t line_bytes;  // of one plane
  std::uint32_t page_bytes;  // whole planes
  std::uint32_t pages;
  std::array<Mutex, kStripes> stripes;
  vector<PageSlot> slots;

  [[nodiscard]] Mutex& stripe(std::uint32_t page) { return stripes[page % kStripes]; }
  // Fewer in the last page.
  [[nodiscard]] std::uint32_t bytes_of(std::uint32_t page) const {
    return std::min(page_bytes, pixel_bytes - page * page_bytes);
  }
};

// A page that a thread holds.
struct HeldPage : Link {
  CacheRecord* record;
  std::uint32_t number;
  Page* page;
  [[nodiscard]] PageSlot* slot() const { return &record->slots[number]; }
};

// A file that a thread has open.
struct Descriptor : Link {
  CacheFile* file;
  int fd;
};

// What all contexts of one thread share; only that thread uses it.
struct CacheThread : Link {
  int contexts = 0;   // that refer to it
  bool busy = false;  // inside the cache: what a purge calls leaves the thread's records alone
  AddressMap<CacheRecord> records;  // that the thread has touched, by the header's address
  AddressMap<HeldPage> pages;       // by slot
  Link page_list;                   // HeldPage, the one used last first
  int held = 0;
  ka_mem_pool* page_pool = nullptr;    // of HeldPage
  AddressMap<Descriptor> descriptors;  // by file
  Link descriptor_list;                // Descriptor, the one used last first
  int open_files = 0;
  std::uint32_t memory_requests = 0;  // that the thread has taken notice of
};

// The page that a thread has used last, and what says that it may be used without another look.
struct RecentPage {
  const img_image* image;
  std::uint32_t begin, size;  // its bytes in the image; size 0: there is no such page
  std::uint8_t* bytes;
  std::uint32_t alarms;  // that the thread has taken notice of
  std::uint32_t calls;
  CacheThread* thread;  // the calling thread's, null before its first context
  int operations;       // of the thread that are at an image
};
[[gnu::tls_model("initial-exec")]] extern constinit thread_local RecentPage recent_page;

// Counts requests for memory that unused pages could not meet: each thread gives pages back.
extern std::atomic<std::uint32_t> cache_memory_requests;
// Counts removed images and requests for memory: each thread compares it with its own count.
extern constinit std::atomic<std::uint32_t> cache_alarms;

extern constinit std::atomic<int> allocated, max_allocated, n_flushes, cache_maxpages;
extern constinit std::atomic<int> fds_per_thread;  // 0: not counted yet

// Pages that no thread holds, the oldest first.
extern constinit Mutex unused_pages_lock;
extern constinit Link unused_pages KA_GUARDED_BY(unused_pages_lock);
extern constinit int n_unused_pages KA_GUARDED_BY(unused_pages_lock);

inline void count_flushed(int pages) {
  if (pages == 0) return;
  allocated.fetch_sub(pages, std::memory_order_relaxed);
  n_flushes.fetch_add(pages, std::memory_order_relaxed);
}

// Pages (imgcachepage.cc).

// Takes the page for the thread, loading it when it is not in memory; null when it cannot be read.
Page* cache_page_hold(CacheThread& thread, CacheRecord& record, std::uint32_t page);
// Lets go of a page that a thread holds. With `release` a page that no thread holds any more is
// freed, without it goes to the unused list; pages of removed images are always freed.
//   Returns  the number of pages that were freed.
int flush_one_page(CacheRecord& record, std::uint32_t page, bool release);
// Gives the memory that dropped pages have left back; without `wait` only when no other thread uses
// it. Returns how many pages.
int cache_reserve_clear(bool wait);
// Frees up to n unused pages, the oldest first. Without `wait`, none when another thread has the
// list.
//   Returns  their number; they are counted as flushed.
int unused_page_flush(int n, bool wait);
// Frees the unused pages of a removed level and counts them as flushed.
void cache_level_clear(CacheRecord& record);

// The thread's pages and records (imgcachethread.cc).

// Lets go of the n pages that were used least recently.
void n_pages_flush(CacheThread& thread, int n);
// Lets go of a level: its pages, its file's descriptor, its record.
void context_image_flush(CacheThread& thread, CacheRecord& record);
// The same for all levels. With `release` pages are freed, without it they become unused.
void cache_thread_clear(CacheThread& thread, bool release);
// Lets every thread state go of everything; no other thread uses images meanwhile.
void cache_threads_clear();
// A descriptor of the record's file, which stays the thread's; -1 after an error message, one for
// each file, when it cannot be opened or is another file by now.
int fd_get(CacheThread& thread, CacheRecord& record);

// How many files a thread may keep open, at least 1 (imgcache.cc).
int cache_descriptors();

// Files and levels (imgcachefile.cc).

// The level whose header is at an address, with a reference for the calling thread; null: none.
CacheRecord* cache_record_attach(const img_image* image);
// Drops a reference of a file; the last one deletes it.
void cache_file_drop(CacheFile* file);
// Marks a level as removed and frees what no other thread holds of it.
void cache_invalidate(CacheThread* thread, CacheRecord& record);
// Forgets every image; their headers remain their owners'.
void cache_files_clear();

}  // namespace ka
