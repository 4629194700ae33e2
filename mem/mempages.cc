// Pages: 8 KB of aligned memory each, carved from megapages that go back to the system when all
// their pages have come back.
#include <cstring>

#include <ka/detail/scope.h>
#include <ka/mem.h>
#include <ka/message.h>

#include "retry.h"
#include "startup.h"

struct ka_mem_megapage {
  ka_mem_megapage* previous;
  ka_mem_megapage* next;
  void* memory;            // accounted
  std::size_t size;        // bytes of `memory`
  ka_mem_page* first;      // the first aligned page
  std::uint8_t count;      // pages
  std::uint8_t available;  // pages not handed out
};

namespace {

constexpr std::size_t kMegapageBytes = 0x40000;
constexpr int kMegapageNumber = 29, kDescriptorNumber = 30;  // of the fatal message

ka_mutex page_lock;

struct {
  ka_mem_megapage* megapages;  // the newest first
  ka_mem_page_list free;       // pages that have come back
  ka_mem_page* unused;         // the next page of the newest megapage that was never handed out
  std::uint8_t unused_count;   // how many of them remain
} state KA_GUARDED_BY(page_lock);

// Accounted memory of this module. An error handler is asked to make room after every refusal;
// without one the first refusal ends the process.
void* allocate(std::size_t size, int fatal_number) {
  for (int i = 0; i < ka::kAttempts; ++i) {
    if (void* const memory = ka_mem_doalloc(__FILE__, __LINE__, KA_MEM, size, 1)) return memory;
    if (ka::call_error_handler()) continue;
    ka::report_failure();
    break;
  }
  ka_nfatal(fatal_number, "can't allocate %zu bytes.MEM exits.", size);
}

void release(ka_mem_megapage* megapage) {
  ka_mem_dorelease(__FILE__, __LINE__, KA_MEM, megapage->memory);
  ka_mem_dorelease(__FILE__, __LINE__, KA_MEM, megapage);
}

// A megapage that belongs to nobody yet. Getting it may run a purge, whose limit handlers may give
// pages back: it is called without the page lock.
ka_mem_megapage* make_megapage() {
  void* const memory = allocate(kMegapageBytes, kMegapageNumber);
  auto* const megapage =
      static_cast<ka_mem_megapage*>(allocate(sizeof(ka_mem_megapage), kDescriptorNumber));
  const auto start = reinterpret_cast<std::uintptr_t>(memory);
  const auto first = (start + KA_MEM_PAGE_SIZE - 1) / KA_MEM_PAGE_SIZE * KA_MEM_PAGE_SIZE;
  megapage->memory = memory;
  megapage->size = kMegapageBytes;
  megapage->first = reinterpret_cast<ka_mem_page*>(first);
  megapage->count = std::uint8_t((start + kMegapageBytes - first) / KA_MEM_PAGE_SIZE);
  megapage->available = megapage->count;
  return megapage;
}

void add_megapage(ka_mem_megapage* megapage) KA_REQUIRES(page_lock) {
  megapage->next = state.megapages;
  if (state.megapages) state.megapages->previous = megapage;
  state.megapages = megapage;
  state.unused = megapage->first;
  state.unused_count = megapage->count;
}

// Takes a megapage whose pages have all come back out of the lists.
void remove_megapage(ka_mem_megapage* megapage) KA_REQUIRES(page_lock) {
  for (int i = 0; i < megapage->count; ++i) {
    ka_mem_page* const page = megapage->first + i;
    if (state.unused_count > 0 && page == state.unused) {
      state.unused = nullptr;
      state.unused_count = 0;
      break;
    }
    ka_mem_pages_unlink(&state.free, page);
  }
  (megapage->previous ? megapage->previous->next : state.megapages) = megapage->next;
  if (megapage->next) megapage->next->previous = megapage->previous;
}

// A page with cleared links; null when a megapage is needed first.
ka_mem_page* take_page() KA_REQUIRES(page_lock) {
  ka_mem_page* page = ka_mem_pages_unlink_head(&state.free);
  if (page) {
    std::memset(page->payload, 0, sizeof page->payload);
  } else if (state.unused_count > 0) {
    page = state.unused++;
    --state.unused_count;
    page->owner = state.megapages;
  } else {
    return nullptr;
  }
  --page->owner->available;
  return page;
}

}  // namespace

static_assert(sizeof(ka_mem_page) == KA_MEM_PAGE_SIZE);

void ka_mem_pages_initialize() {
  const ka::ModuleScope scope(KA_MEM);
  if (!page_lock.handle) ka::start_lock(&page_lock);
}

void ka_mem_pages_finish() {
  const ka::ModuleScope scope(KA_MEM);
  if (!page_lock.handle) return;
  ka_mem_pages_flush();
  ka_delete_lock(&page_lock);
}

void ka_mem_pages_flush() {
  const ka::ModuleScope scope(KA_MEM);
  const ka::LockScope locked(page_lock);
  while (ka_mem_megapage* const megapage = state.megapages) {
    state.megapages = megapage->next;
    release(megapage);
  }
  state = {};
}

ka_mem_page* ka_mem_pages_get() {
  const ka::ModuleScope scope(KA_MEM);
  {
    const ka::LockScope locked(page_lock);
    if (ka_mem_page* const page = take_page()) return page;
  }
  ka_mem_megapage* const megapage = make_megapage();
  const ka::LockScope locked(page_lock);
  if (ka_mem_page* const page = take_page()) {  // another thread was faster
    release(megapage);
    return page;
  }
  add_megapage(megapage);
  return take_page();
}

void ka_mem_pages_put(ka_mem_page* page) {
  const ka::ModuleScope scope(KA_MEM);
  const ka::LockScope locked(page_lock);
  ka_mem_megapage* const megapage = page->owner;
  ka_mem_pages_link_head(&state.free, page);
  if (++megapage->available < megapage->count) return;
  remove_megapage(megapage);
  release(megapage);
}

void ka_mem_pages_link_head(ka_mem_page_list* list, ka_mem_page* page) {
  page->previous = nullptr;
  page->next = list->head;
  (list->head ? list->head->previous : list->tail) = page;
  list->head = page;
  ++list->count;
}

void ka_mem_pages_link_tail(ka_mem_page_list* list, ka_mem_page* page) {
  page->next = nullptr;
  page->previous = list->tail;
  (list->tail ? list->tail->next : list->head) = page;
  list->tail = page;
  ++list->count;
}

void ka_mem_pages_unlink(ka_mem_page_list* list, ka_mem_page* page) {
  (page->previous ? page->previous->next : list->head) = page->next;
  (page->next ? page->next->previous : list->tail) = page->previous;
  page->next = page->previous = nullptr;
  --list->count;
}

ka_mem_page* ka_mem_pages_unlink_head(ka_mem_page_list* list) {
  ka_mem_page* const page = list->head;
  if (page) ka_mem_pages_unlink(list, page);
  return page;
}

ka_mem_page* ka_mem_pages_unlink_tail(ka_mem_page_list* list) {
  ka_mem_page* const page = list->tail;
  if (page) ka_mem_pages_unlink(list, page);
  return page;
}
