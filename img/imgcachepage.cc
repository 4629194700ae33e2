// Texture cache: pages, loaded from their files, shared by threads, kept while unused.
#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <thread>
#include <utility>

#include <ka/detail/scope.h>
#include <ka/endian.h>
#include <ka/mem.h>
#include <ka/message.h>

#include "cacherecord.h"
#include "texturecache.h"

namespace {

constexpr int kUnreadable = 25;             // number of the message about a file
constexpr std::uint32_t kCheckMask = 0xff;  // pages are counted with every 256th call
constexpr int kKeptPages = 256;             // that a thread never loses
constexpr int kManyPages = 289;  // from here on a thread takes part in keeping the budget

// Memory of pages that were dropped, for the next ones: the system would take batches of them back
// and hand out fresh pages one fault at a time, which costs as much as reading them.
class Reserve {
 public:
  // Null when there is none.
  void* take() {
    const ka::MutexScope locked(lock_);
    return count_ > 0 ? blocks_[--count_] : nullptr;
  }
  // False when the cache has as much as its budget.
  bool keep(void* block) {
    const ka::MutexScope locked(lock_);
    if (count_ == blocks_.size() || ka::allocated + int(count_) >= ka::cache_maxpages) return false;
    blocks_[count_++] = block;
    return true;
  }
  // Releases all of it; without `wait` only when no other thread is here. Returns how many.
  int clear(bool wait) {
    std::array<void*, kBlocks> blocks;
    std::size_t count = 0;
    {
      if (wait) {
        lock_.lock();
      } else if (!lock_.try_lock()) {
        return 0;
      }
      const ka::MutexScope locked(lock_, std::adopt_lock);
      std::swap(count, count_);
      std::copy_n(blocks_.begin(), count, blocks.begin());
    }
    for (std::size_t i = 0; i < count; ++i) ka_mem_release(blocks[i]);
    return int(count);
  }

 private:
  static constexpr std::size_t kBlocks = 512;

  ka::Mutex lock_;
  std::array<void*, kBlocks> blocks_ KA_GUARDED_BY(lock_){};
  std::size_t count_ KA_GUARDED_BY(lock_) = 0;
};
constinit Reserve reserve;

// Pages of about the usual size have memory of the same size.
bool is_usual(std::uint32_t bytes) { return bytes <= ka::kPageBase && bytes > ka::kPageBase / 2; }

struct ReleasePage {
  void operator()(ka::Page* page) const {
    if (!page->is_usual || !reserve.keep(page)) ka_mem_release(page);
  }
};
using OwnedPage = std::unique_ptr<ka::Page, ReleasePage>;

OwnedPage make_page(ka::PageSlot& slot, std::uint32_t bytes) {
  const bool usual = is_usual(bytes);
  const std::size_t size = sizeof(ka::Page) + (usual ? std::size_t{ka::kPageBase} : bytes);
  void* memory = usual ? reserve.take() : nullptr;
  if (!memory) memory = ka_mem_doalloc(__FILE__, __LINE__, KA_IMG, size, 0);  // the file fills it
  if (!memory) memory = ka_mem_allocate(size);
  return OwnedPage(new (memory) ka::Page(&slot, usual));
}

// Reads the bytes of a page; a file that ends early gives zeros. False with errno.
bool read_page(std::uint8_t* bytes, std::uint32_t count, int fd, std::uint64_t offset) {
  std::uint32_t done = 0;
  while (done < count) {
    const ssize_t got = pread(fd, bytes + done, count - done, off_t(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) break;
    done += std::uint32_t(got);
  }
  std::memset(bytes + done, 0, count - done);
  return true;
}

void swap_samples(std::uint8_t* bytes, std::uint32_t count, int bits) {
  if (bits == 16) ka_swap_shorts(bytes, count / 2);
  if (bits == 32) ka_swap_ints(bytes, count / 4);
}

bool load(ka::Page& page, const ka::CacheRecord& record, std::uint32_t number, int fd) {
  const std::uint32_t bytes = record.bytes_of(number);
  const std::uint64_t offset =
      record.begin + record.pixel_offset + std::uint64_t{number} * record.page_bytes;
  if (!read_page(page.bytes(), bytes, fd, offset)) return false;
  swap_samples(page.bytes(), bytes, record.swapped_bits);
  return true;
}

void count_loaded() {
  const int now = ka::allocated.fetch_add(1, std::memory_order_relaxed) + 1;
  int most = ka::max_allocated.load(std::memory_order_relaxed);
  while (now > most &&
         !ka::max_allocated.compare_exchange_weak(most, now, std::memory_order_relaxed)) {
  }
}

// Takes a page out of the unused list.
void unlink_unused(ka::Page& page) KA_REQUIRES(ka::unused_pages_lock) {
  ka::unlink(page);
  --ka::n_unused_pages;
}

// The same, and out of its slot.
OwnedPage take_unused(ka::Page& page) KA_REQUIRES(ka::unused_pages_lock) {
  unlink_unused(page);
  page.slot->page.store(nullptr, std::memory_order_relaxed);
  return OwnedPage(&page);
}

ka::Page* oldest_unused() KA_REQUIRES(ka::unused_pages_lock) {
  return static_cast<ka::Page*>(ka::unused_pages.next);
}

// Holds a stripe. Another thread keeps one for as long as reading a page takes, which is shorter than
// being put to sleep and woken.
class KA_SCOPED_CAPABILITY StripeScope {
 public:
  explicit StripeScope(ka::Mutex& stripe) KA_ACQUIRE(stripe) : stripe_(stripe) {
    constexpr int tries = 30;
    for (int i = 0; i < tries; ++i) {
      if (stripe_.try_lock()) return;
      std::this_thread::yield();
    }
    stripe_.lock();
  }
  ~StripeScope() KA_RELEASE() { stripe_.unlock(); }
  StripeScope(const StripeScope&) = delete;
  StripeScope& operator=(const StripeScope&) = delete;

 private:
  ka::Mutex& stripe_;
};

// The slot's page with one holder more; null when it is not in memory. Before: its stripe is held.
ka::Page* hold_loaded(ka::PageSlot& slot) {
  ka::Page* page = slot.page.load(std::memory_order_relaxed);
  if (!page) return nullptr;
  if (slot.holders == 0) {
    const ka::MutexScope locked(ka::unused_pages_lock);
    page = slot.page.load(std::memory_order_relaxed);  // it may have been freed meanwhile
    if (!page) return nullptr;
    unlink_unused(*page);
  }
  ++slot.holders;
  return page;
}

// Puts a page without holders into the unused list, which holds as many as the budget.
//   Returns  the page that has to go for it, or none.
OwnedPage keep_unused(ka::Page& page) {
  const ka::MutexScope locked(ka::unused_pages_lock);
  OwnedPage oldest;
  if (ka::n_unused_pages > 0 && ka::n_unused_pages >= ka::cache_maxpages) {
    oldest = take_unused(*oldest_unused());
  }
  ka::link_after(*ka::unused_pages.previous, page);
  ++ka::n_unused_pages;
  return oldest;
}

void report_unreadable(ka::CacheFile& file, int failure) {
  if (file.is_reported.exchange(true)) return;
  ka_nerror(kUnreadable, "cannot read texture file %s, %s", file.path.c_str(),
            ka_nstrerror(failure));
}

}  // namespace

constinit ka::Mutex ka::unused_pages_lock;
constinit ka::Link ka::unused_pages;
constinit int ka::n_unused_pages = 0;

ka::Page* ka::cache_page_hold(ka::CacheThread& thread, ka::CacheRecord& record,
                              std::uint32_t number) {
  ka::PageSlot& slot = record.slots[number];
  {
    const StripeScope locked(record.stripe(number));
    if (ka::Page* const page = hold_loaded(slot)) return page;
  }
  const int fd = ka::fd_get(thread, record);
  if (fd < 0) return nullptr;
  OwnedPage fresh = make_page(slot, record.bytes_of(number));
  int failure = 0;
  {
    const StripeScope locked(record.stripe(number));
    if (ka::Page* const page = hold_loaded(slot)) return page;  // another thread was faster
    if (load(*fresh, record, number, fd)) {
      slot.page.store(fresh.get(), std::memory_order_relaxed);
      slot.holders = 1;
    } else {
      failure = errno;
    }
  }
  if (failure != 0) {
    report_unreadable(*record.file, failure);
    return nullptr;
  }
  count_loaded();
  return fresh.release();
}

int ka::flush_one_page(ka::CacheRecord& record, std::uint32_t number, bool release) {
  ka::PageSlot& slot = record.slots[number];
  OwnedPage gone;
  const StripeScope locked(record.stripe(number));
  if (--slot.holders > 0) return 0;
  ka::Page& page = *slot.page.load(std::memory_order_relaxed);
  if (release || !record.valid.load(std::memory_order_relaxed)) {
    slot.page.store(nullptr, std::memory_order_relaxed);
    gone.reset(&page);
  } else {
    gone = keep_unused(page);
  }
  return gone ? 1 : 0;
}

int ka::unused_page_flush(int n, bool wait) {
  if (wait) {
    ka::unused_pages_lock.lock();
  } else if (!ka::unused_pages_lock.try_lock()) {
    return 0;
  }
  const ka::MutexScope locked(ka::unused_pages_lock, std::adopt_lock);
  int freed = 0;
  for (; freed < n && ka::n_unused_pages > 0; ++freed) take_unused(*oldest_unused()).reset();
  ka::count_flushed(freed);
  return freed;
}

void ka::cache_level_clear(ka::CacheRecord& record) {
  int freed = 0;
  for (std::uint32_t number = 0; number < record.pages; ++number) {
    ka::PageSlot& slot = record.slots[number];
    const StripeScope locked(record.stripe(number));
    if (slot.holders > 0 || !slot.page.load(std::memory_order_relaxed)) continue;
    const ka::MutexScope locked_list(ka::unused_pages_lock);
    ka::Page* const page = slot.page.load(std::memory_order_relaxed);
    if (!page) continue;
    take_unused(*page).reset();
    ++freed;
  }
  ka::count_flushed(freed);
}

namespace {

// Marks the calling thread as busy in the cache.
class BusyScope {
 public:
  explicit BusyScope(ka::CacheThread& thread) : thread_(thread) { thread_.busy = true; }
  ~BusyScope() { thread_.busy = false; }
  BusyScope(const BusyScope&) = delete;
  BusyScope& operator=(const BusyScope&) = delete;

 private:
  ka::CacheThread& thread_;
};

// Lets go of images that have been removed, when any has been since the thread looked last.
void drop_removed(ka::CacheThread& thread) {
  const std::uint32_t alarms = ka::cache_alarms.load(std::memory_order_acquire);
  if (ka::recent_page.alarms == alarms) return;
  ka::recent_page.alarms = alarms;
  ka::recent_page.size = 0;
  const auto is_removed = [](const ka::CacheRecord& record) {
    return !record.valid.load(std::memory_order_relaxed);
  };
  while (ka::CacheRecord* const record = thread.records.find_if(is_removed)) {
    ka::context_image_flush(thread, *record);
  }
}

ka::CacheRecord* find_record(ka::CacheThread& thread, const img_image* image) {
  if (ka::CacheRecord* const record = thread.records.find(image)) return record;
  thread.records.make_room();
  ka::CacheRecord* const record = ka::cache_record_attach(image);
  if (record) thread.records.insert(image, record);
  return record;
}

ka::HeldPage* find_page(ka::CacheThread& thread, ka::CacheRecord& record, std::uint32_t number) {
  const ka::PageSlot* const slot = &record.slots[number];
  if (ka::HeldPage* const held = thread.pages.find(slot)) {
    ka::move_to_front(thread.page_list, *held);
    return held;
  }
  thread.pages.make_room();
  if (!thread.page_pool) thread.page_pool = ka_mem_blkcreate(sizeof(ka::HeldPage));
  void* const memory = ka_mem_blkfallocate(thread.page_pool);
  ka::Page* const page = ka::cache_page_hold(thread, record, number);
  if (!page) {
    ka_mem_blkfrelease(thread.page_pool, memory);
    return nullptr;
  }
  auto* const held = new (memory) ka::HeldPage;
  held->record = &record;
  held->number = number;
  held->page = page;
  ka::link_after(thread.page_list, *held);
  thread.pages.insert(slot, held);
  ++thread.held;
  return held;
}

// The page with a byte of an image becomes the recent one; null when there is none.
void* find_byte(ka::CacheThread& thread, const img_image* image, std::uint32_t offset) {
  ka::CacheRecord* const record = find_record(thread, image);
  if (!record || !record->valid.load(std::memory_order_relaxed)) return nullptr;
  if (offset < record->pixel_offset) return nullptr;
  const std::uint32_t place = offset - record->pixel_offset;
  if (place >= record->pixel_bytes) return nullptr;
  const std::uint32_t number = place / record->page_bytes;
  const ka::HeldPage* const held = find_page(thread, *record, number);
  if (!held) return nullptr;
  ka::RecentPage& recent = ka::recent_page;
  recent.image = image;
  recent.begin = record->pixel_offset + number * record->page_bytes;
  recent.size = record->bytes_of(number);
  recent.bytes = held->page->bytes();
  return recent.bytes + (offset - recent.begin);
}

void keep_budget(ka::CacheThread& thread) {
  int over = ka::allocated - ka::cache_maxpages;
  if (over < 1) return;
  over -= ka::unused_page_flush(over, true);
  if (over < 1) return;
  ka::n_pages_flush(thread, std::min(ka::cache_maxpages / 4 + over, thread.held - kKeptPages));
}

void check_memory(ka::CacheThread& thread) {
  std::atomic<bool>& memory_low = ka::img_context().memory_low;
  const std::uint32_t requests = ka::cache_memory_requests.load(std::memory_order_relaxed);
  if (memory_low.load(std::memory_order_relaxed) || thread.memory_requests != requests) {
    memory_low.store(false, std::memory_order_relaxed);
    thread.memory_requests = requests;
    if (thread.held > kKeptPages) ka::n_pages_flush(thread, thread.held - kKeptPages);
    ka::cache_reserve_clear(true);
  } else if ((ka::recent_page.calls & kCheckMask) == 0 && thread.held >= kManyPages) {
    keep_budget(thread);
  }
}

[[gnu::noinline]] void* get_elsewhere(const img_image* image, std::uint32_t offset) {
  const ka::ModuleScope scope(KA_IMG);
  ka::img_context();  // attaches a thread that is new here
  ka::CacheThread* const thread = ka::recent_page.thread;
  if (!thread || thread->busy) return nullptr;  // busy: a message handler that looks at images
  const BusyScope busy(*thread);
  if (ka::recent_page.operations == 0) drop_removed(*thread);
  void* const byte = find_byte(*thread, image, offset);
  check_memory(*thread);
  return byte;
}

}  // namespace

int ka::cache_reserve_clear(bool wait) { return reserve.clear(wait); }

void ka::begin_cache_operation() { ++recent_page.operations; }

void ka::end_cache_operation() {
  CacheThread* const thread = recent_page.thread;
  if (--recent_page.operations > 0 || !thread || thread->busy) return;
  const BusyScope busy(*thread);
  drop_removed(*thread);
}

// One plane after the other is read from the same page: that takes no lock, no division and no
// place on the module stack.
void* ka_img_cache_get(const img_image* image, std::uint32_t offset) {
  ka::RecentPage& recent = ka::recent_page;
  const std::uint32_t calls = ++recent.calls;
  const std::uint32_t place = offset - recent.begin;
  if (recent.image == image && place < recent.size && (calls & kCheckMask) != 0 &&
      recent.alarms == ka::cache_alarms.load(std::memory_order_acquire)) [[likely]] {
    return recent.bytes + place;
  }
  return get_elsewhere(image, offset);
}
