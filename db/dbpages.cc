// Tags, pages and entries: an entry is found by two look-ups in arrays that never move.
#include <ka/mem.h>
#include <ka/message.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include <ka/detail/context.h>
#include <ka/detail/store.h>

#include "store.h"

namespace {

using PageTable = std::array<std::atomic<ka::ElementPage*>, ka::kPageCount>;

std::atomic<PageTable*> table{nullptr};  // of the own host, made for the first element

ka_mutex database_lock;    // guards creation and removal, the counts, the scaling of stamps
ka_mutex page_table_lock;  // guards the making of the table, of pages and of entry locks

// Of data and job elements: no page before this one has a free slot.
std::array<std::size_t, 2> first_free KA_GUARDED_BY(database_lock) = {ka::kFirstDataPage,
                                                                      ka::kFirstJobPage};
constexpr std::array kEndOfPages = {ka::kFirstJobPage, ka::kPageCount};

constexpr std::uint32_t kFirstStamp = 1;
constexpr std::uint32_t kStampAfterWarp = 0x10000000;
std::atomic<std::uint32_t> lru_clock{kFirstStamp};
std::uint64_t last_serial KA_GUARDED_BY(database_lock) = 0;
std::uint16_t next_pin_slot KA_GUARDED_BY(database_lock) = 0;
ka_db_counts counts KA_GUARDED_BY(database_lock);

ka::ElementPage* page_at(std::size_t page) {
  const PageTable* const pages = table.load(std::memory_order_acquire);
  return pages ? (*pages)[page].load(std::memory_order_acquire) : nullptr;
}

// The page, made where it is not there.
ka::ElementPage& make_page(std::size_t page) {
  if (ka::ElementPage* const existing = page_at(page)) return *existing;
  const ka::LockScope locked(page_table_lock);
  if (!table.load()) {
    table.store(static_cast<PageTable*>(ka_mem_allocate(sizeof(PageTable))),
                std::memory_order_release);
  }
  auto* const fresh = static_cast<ka::ElementPage*>(ka_mem_allocate(sizeof(ka::ElementPage)));
  fresh->free = ka::kSlots;
  (*table.load())[page].store(fresh, std::memory_order_release);
  return *fresh;
}

// The first page with a free slot.
std::size_t page_with_room(bool is_job) KA_REQUIRES(database_lock) {
  std::size_t& page = first_free[is_job];
  while (page < kEndOfPages[is_job]) {
    const ka::ElementPage* const existing = page_at(page);
    if (!existing || existing->free > 0) return page;
    ++page;
  }
  ka_nfatal(16, "all tags in use, database is full");
}

// A free slot of a page that has one.
std::size_t free_slot(ka::ElementPage& page) {
  std::size_t slot = page.hint;
  while (ka::is_used(page.entries[slot])) slot = (slot + 1) % ka::kSlots;
  return slot;
}

// Locks of entries stay until the store ends: threads may wait for one whose element goes.
void make_lock(ka_db_entry& entry) {
  if (entry.lock.handle) return;
  const ka::LockScope locked(page_table_lock);
  ka_init_lock(&entry.lock);
}

int calling_module() { return ka::module_at(ka::context(), 1); }

void scale_stamps() {
  const ka::LockScope locked(database_lock);
  const auto scale = [](std::uint32_t, ka_db_entry& entry) {
    for (std::uint32_t* const field : {&entry.time, &entry.creation}) {
      const auto time = ka::shared(*field);
      time.store(time.load() / ka::kWarpDivisor);
    }
  };
  ka::for_each_entry(ka::kFirstDataPage, ka::kFirstJobPage, scale);
  ka::for_each_entry(ka::kFirstJobPage, ka::kPageCount, scale);
  lru_clock = kStampAfterWarp;
}

}  // namespace

ka_db_entry* ka::entry_at(std::uint32_t tag) {
  if (tag >> kHostShift != kOwnHost) return nullptr;
  ElementPage* const page = page_at(page_of(tag));
  return page ? &page->entries[slot_of(tag)] : nullptr;
}

ka_db_entry& ka::find_entry(std::uint32_t tag) {
  if (tag == 0) ka_nfatal(8, "attempt to access null DB tag");
  if (tag >> kHostShift != kOwnHost) ka_nfatal(51, "database network access failed");
  ka_db_entry* const entry = entry_at(tag);
  if (!entry || !is_used(*entry)) ka_nfatal(52, "accessing unknown tag %#x", tag);
  return *entry;
}

std::uint32_t ka::stamp() {
  const std::uint32_t now = lru_clock.fetch_add(1, std::memory_order_relaxed);
  if (now != std::numeric_limits<std::uint32_t>::max()) [[likely]]
    return now;
  ka_info("LRU timestamps overflowed, running timewarp to make room");
  trans_warp(scale_stamps);
  return now / kWarpDivisor;
}

void ka::set_clock(std::uint32_t time) { lru_clock = time; }

ka::Owner ka::current_owner() {
  const ka_context& here = context();
  return {here.transaction, here.transaction == 0 ? 0 : trans_serial()};
}

std::uint32_t ka::add_entry(int type, const Owner& owner, const Content& content,
                            std::uint32_t now) {
  const bool is_job = content.kind == Content::kJob;
  const LockScope locked(database_lock);
  ++counts.creations;
  ++counts.tags;
  const std::size_t page_index = page_with_room(is_job);
  ElementPage& page = make_page(page_index);
  const std::size_t slot = free_slot(page);
  ka_db_entry& entry = page.entries[slot];
  if (is_job) make_lock(entry);
  --page.free;
  page.hint = std::uint32_t(slot);
  shared(entry.size).store(content.size, std::memory_order_relaxed);
  shared(entry.time).store(now, std::memory_order_relaxed);
  shared(entry.creation).store(now, std::memory_order_relaxed);
  shared(entry.owner).store(owner.tag, std::memory_order_relaxed);
  shared(entry.owner_serial).store(owner.serial, std::memory_order_relaxed);
  shared(entry.module).store(std::uint8_t(calling_module()), std::memory_order_relaxed);
  shared(entry.type).store(std::uint8_t(type), std::memory_order_relaxed);
  if (is_job) {
    shared(entry.pin_slot).store(next_pin_slot, std::memory_order_relaxed);
    next_pin_slot = std::uint16_t((next_pin_slot + 1) % ka_context::kPinSlots);
    entry.job = content.job;
    shared(entry.is_fixed).store(0, std::memory_order_relaxed);
  }
  shared(entry.data).store(content.data, std::memory_order_relaxed);
  shared(entry.serial).store(++last_serial, std::memory_order_release);
  shared(entry.state).store(std::uint8_t{KA_DB_IN_MEMORY}, std::memory_order_release);
  return make_tag(page_index, slot);
}

bool ka::remove_entry(std::uint32_t tag, std::uint64_t serial) {
  const LockScope locked(database_lock);
  ElementPage* const page = page_at(page_of(tag));
  ka_db_entry& entry = page->entries[slot_of(tag)];
  if (!is_used(entry) || entry.serial != serial) return false;
  ++counts.deletions;
  --counts.tags;
  ++page->free;
  page->hint = std::uint32_t(slot_of(tag));
  std::size_t& first = first_free[is_job_tag(tag)];
  first = std::min(first, page_of(tag));
  shared(entry.state).store(std::uint8_t{KA_DB_UNUSED}, std::memory_order_release);
  shared(entry.serial).store(0, std::memory_order_release);
  shared(entry.data).store(nullptr, std::memory_order_release);
  entry.list_place = 0;
  return true;
}

bool ka::read_entry(ka_db_entry& entry, StoredElement& element) {
  const LockScope locked(database_lock);
  if (!is_used(entry)) return false;
  element = {.type = entry.type, .serial = entry.serial, .words = {}};
  std::memcpy(element.words.data(), entry.data, std::min(entry.size, sizeof element.words));
  return true;
}

void ka::count_reallocation() {
  const LockScope locked(database_lock);
  ++counts.reallocations;
}

void ka_db_get_counts(ka_db_counts* result) {
  const ka::ModuleScope scope(KA_DB);
  {
    const ka::LockScope locked(database_lock);
    *result = counts;
  }
  result->flushes = ka::flush_count();
  ka::add_swap_counts(*result);
}

void ka::pages_start() {
  ka_init_lock(&database_lock);
  ka_init_lock(&page_table_lock);
  counts = {};
  reset_flush_count();
  lru_clock = kFirstStamp;
}

void ka::pages_end() {
  PageTable* const pages = table.exchange(nullptr);
  for (std::size_t i = 0; pages && i < pages->size(); ++i) {
    ElementPage* const page = (*pages)[i].load();
    if (!page) continue;
    for (ka_db_entry& entry : page->entries) ka_delete_lock(&entry.lock);
    ka_mem_release(page);
  }
  ka_mem_release(pages);
  first_free = {kFirstDataPage, kFirstJobPage};
  ka_delete_lock(&page_table_lock);
  ka_delete_lock(&database_lock);
}
