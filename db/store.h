// Inside of the element store: how tags lead to entries, and what the files of this room need of
// each other.
#pragma once

#include <ka/db.h>
#include <ka/detail/scope.h>
#include <ka/detail/store.h>
#include <ka/job.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace ka {

// Tags.

// A tag holds, from the top: 7 bits of the host, 1 bit that marks job elements, 14 bits of the page,
// 10 bits of the slot. The job bit is the top one of the page's index.
constexpr unsigned kHostShift = 25, kPageShift = 10;
constexpr std::uint32_t kJobBit = 1U << 24;
constexpr std::size_t kPageCount = 32768;     // of a host
constexpr std::size_t kFirstDataPage = 1;     // so that no tag is 0
constexpr std::size_t kFirstJobPage = 16384;  // all pages from here on are those of jobs
constexpr std::size_t kSlots = 1024;          // of a page
constexpr std::uint32_t kOwnHost = 0;         // in the tags of a stand-alone process

constexpr bool is_job_tag(std::uint32_t tag) { return (tag & kJobBit) != 0; }
constexpr std::size_t page_of(std::uint32_t tag) { return tag >> kPageShift & (kPageCount - 1); }
constexpr std::size_t slot_of(std::uint32_t tag) { return tag & (kSlots - 1); }
constexpr std::uint32_t make_tag(std::size_t page, std::size_t slot) {
  return std::uint32_t(page << kPageShift | slot);
}

// Entries. Their fields are shared by threads: those that change while others read them are read
// and written through here.
template <typename T>
std::atomic_ref<T> shared(T& field) {
  return std::atomic_ref<T>(field);
}

struct ElementPage {
  std::uint32_t free;  // slots that are not in use
  std::uint32_t hint;  // the slot taken or freed last: the next search begins there
  std::array<ka_db_entry, kSlots> entries;
};

// The entry of a tag, in use or not; null when there is no page for it. Takes no lock.
ka_db_entry* entry_at(std::uint32_t tag);
// The entry of an element; ends the process with a fatal message when there is none.
ka_db_entry& find_entry(std::uint32_t tag);
inline bool is_used(ka_db_entry& entry) { return shared(entry.state).load() != KA_DB_UNUSED; }

// Who an element belongs to.
struct Owner {
  std::uint32_t tag;
  std::uint64_t serial;
};
Owner current_owner();
constexpr Owner kNobody = {0xffffffff, 0};  // an element whose maker deletes it

// What an element starts with.
struct Content {
  enum Kind { kData, kJob } kind;
  void* data;
  std::size_t size;
  ka_job* job;
};

// Takes a slot for an element, which has its content before others see it.
std::uint32_t add_entry(int type, const Owner& owner, const Content& content, std::uint32_t now);
// The same, owned by the current transaction and in its tag list.
std::uint32_t add_own_entry(int type, const Content& content);
// Frees the slot of an element whose data are gone, if it still has the serial. False: it has not.
bool remove_entry(std::uint32_t tag, std::uint64_t serial);

// Copies what transactions look for in an element, all of it from the same element. False: there is
// none.
bool read_entry(ka_db_entry& entry, StoredElement& element);

// Calls function(tag, entry) for every entry in use from page `first` to before page `end`.
template <typename Function>
void for_each_entry(std::size_t first, std::size_t end, Function function) {
  for (std::size_t page = first; page < end; ++page) {
    ka_db_entry* const entries = entry_at(make_tag(page, 0));
    if (!entries) break;  // pages are made in order
    for (std::size_t slot = 0; slot < kSlots; ++slot) {
      if (is_used(entries[slot])) function(make_tag(page, slot), entries[slot]);
    }
  }
}

// The stamp of now; the clock goes on. Not to be called with the transaction lock or below.
std::uint32_t stamp();
void set_clock(std::uint32_t time);  // for tests of what happens when it overflows

// While only one thread runs: they take no lock.
void pages_start() KA_NO_THREAD_SAFETY_ANALYSIS;
void pages_end() KA_NO_THREAD_SAFETY_ANALYSIS;  // before: no element has data

void count_reallocation();
void count_flush();
std::uint64_t flush_count();
void reset_flush_count();

// Jobs.

// Pins a job element for the calling thread and gives it a new stamp. Its data stay until the pin is
// taken back; null: they have to be produced.
struct Pinned {
  void* data;
  std::uint16_t slot;  // the counter that was raised
};
Pinned pin(ka_db_entry& entry);
void unpin(std::uint16_t slot);

// Makes the data of an in-memory job element invisible, so that a thread which pins it from now on
// waits for the entry's lock, which the caller holds. Unless a thread had pinned it before: then
// the data stay.
class HiddenData {
 public:
  explicit HiddenData(ka_db_entry& entry);
  ~HiddenData();  // shows the data again unless they were taken
  HiddenData(const HiddenData&) = delete;
  HiddenData& operator=(const HiddenData&) = delete;

  explicit operator bool() const { return data_ != nullptr; }
  [[nodiscard]] void* data() const { return data_; }
  void take() { data_ = nullptr; }

 private:
  ka_db_entry& entry_;
  void* data_;  // null: there are none, or they are pinned
};

// Whether a thread has pinned an element, or elements that share its counter.
bool is_pinned(ka_db_entry& entry);

// Data of a job element, null when they cannot be had. Before: the calling thread has pinned it by
// this counter.
enum class Production { kDone, kGone, kUnread, kFailed, kNothing };
struct Produced {
  void* data;
  Production result;
};
Produced produce(std::uint32_t tag, ka_db_entry& entry, std::uint16_t pin_slot);

// Gives the data of an unpinned element back to its job or to the memory manager. False: there are
// none, or they are pinned.
bool flush_locked(std::uint32_t tag, ka_db_entry& entry) KA_REQUIRES(entry.lock);
// Removes the data of an element on disk and reports it to the job.
void drop_disk_data(std::uint32_t tag, ka_db_entry& entry) KA_REQUIRES(entry.lock);
// The same without a file.
void report_lost_data(std::uint32_t tag, ka_db_entry& entry) KA_REQUIRES(entry.lock);
// Ends the job of an element that is about to go.
void end_job(std::uint32_t tag, ka_db_entry& entry) KA_REQUIRES(entry.lock);

// Resizes the data of a job element; in the thread that executes the job, those that it has so far.
void* realloc_job(ka_db_entry& entry, std::size_t size);

// Deletes a job element unless it is pinned.
bool delete_job(std::uint32_t tag, ka_db_entry& entry, std::uint64_t serial);
// The same when the store ends, whoever has pinned it.
void release_job(std::uint32_t tag, ka_db_entry& entry);

// The memory manager asks for memory: swaps job elements out, gives their data back.
void handle_limits();
void ignore_limits();

// Swapping.

// Reads the settings where that has not been done, replaces those given, cleans the folder up.
void configure_swap(const char* folder, int limit);

// Moves the data of an element to disk, if they are its own and not pinned. False, maybe after a
// message: the element is as it was.
bool page_out(std::uint32_t tag, ka_db_entry& entry) KA_REQUIRES(entry.lock);
// Brings them back. False after a message: the element is still on disk, or it has no data.
bool page_in(std::uint32_t tag, ka_db_entry& entry) KA_REQUIRES(entry.lock);
// Removes the swap file.
void drop_swap_file(ka_db_entry& entry) KA_REQUIRES(entry.lock);

bool is_swapping();  // the settings have been read and there is a limit
void add_swap_counts(ka_db_counts& counts);

// As pages_start and pages_end.
void swap_start() KA_NO_THREAD_SAFETY_ANALYSIS;
void swap_end();  // before: no element is on disk

// The name of an element type, as swap files and reports have it.
struct TypeName {
  std::array<char, 32> text;
};
TypeName type_name(int type);

}  // namespace ka
