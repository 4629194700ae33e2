// Swapping of job elements to files, one file for each element.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include <ka/detail/owned.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/registry.h>
#include <ka/subst.h>

#include "store.h"
#include "swapfile.h"

// The file of an element on disk. It stays that of its folder when the settings change.
struct ka_swap_file {
  std::array<char, ka::kSwapPathSize> path;
  ka::SwapFileIdentity identity;
  std::int64_t kilobytes;
  ka_swap_file* next;  // of this process
};

namespace {

constexpr std::int64_t kKilobyte = 1024;

using Folder = std::array<char, ka::kSwapFolderSize>;

struct SwapState {
  Folder folder{};
  std::int64_t limit = 0;  // KB, 0: no swapping
  bool is_configured = false;
  std::int64_t on_disk = 0, max_on_disk = 0;     // KB
  std::int64_t out = 0, in = 0, failed_out = 0;  // KB
  ka_swap_file* files = nullptr;                 // all that exist or are being written
};
ka_mutex swap_lock;  // whoever has it calls nothing that may wait or ask for memory
SwapState swap KA_GUARDED_BY(swap_lock);

std::int64_t kilobytes(std::size_t size) {
  return (std::int64_t(size) + kKilobyte - 1) / kKilobyte;
}

// A setting of the environment or else of the registry; empty: there is none.
ka::string setting(const char* variable, const char* reference) {
  if (const char* const value = std::getenv(variable)) return value;
  char* const value = ka_lib_registry_lookup(reference, 0);
  ka::string text = value && std::strcmp(value, reference) != 0 ? value : "";
  ka_mem_release(value);
  return text;
}

Folder substituted(const char* folder) {
  Folder result{};
  ka_string_substitute(result.data(), folder, result.size());
  return result;
}

bool is_configured() {
  const ka::LockScope locked(swap_lock);
  return swap.is_configured;
}

// Threads that come at the same time find the same settings.
void read_settings() {
  if (is_configured()) return;
  const ka::string folder = setting("KA_LUM_SWAPDIR", "{_KA_REG_SWAPDIR}");
  const ka::string limit = setting("KA_LUM_SWAPLIMIT", "{_KA_REG_SWAPLIMIT}");
  const Folder path = substituted(folder.empty() ? "/tmp" : folder.c_str());
  std::int32_t megabytes = 0;
  std::from_chars(limit.data(), limit.data() + limit.size(), megabytes);
  const ka::LockScope locked(swap_lock);
  if (std::exchange(swap.is_configured, true)) return;
  swap.folder = path;
  swap.limit = std::max<std::int64_t>(megabytes, 0) * kKilobyte;
}

// Whether an element has room on disk; the amount counts as failed where not. A file that is there
// for it is counted.
bool take_room(std::uint32_t tag, std::int64_t size, ka_swap_file* file, Folder* folder) {
  {
    const ka::LockScope locked(swap_lock);
    if (swap.on_disk + size < swap.limit) {
      if (!file) return true;
      *folder = swap.folder;
      file->kilobytes = size;
      file->next = swap.files;
      swap.files = file;
      swap.on_disk += size;
      return true;
    }
    swap.failed_out += size;
  }
  ka_debug("swap: cannot page out #%x, swap is full", tag);
  return false;
}

void count_written(const ka_swap_file& file) {
  const ka::LockScope locked(swap_lock);
  swap.out += file.kilobytes;
  swap.max_on_disk = std::max(swap.max_on_disk, swap.on_disk);
}

// Takes a file out of the counts and releases its record; `counter` gets its amount.
void remove_file(ka_swap_file* file, std::int64_t SwapState::*counter) {
  const ka::Owned<ka_swap_file> owner(file);
  const ka::LockScope locked(swap_lock);
  ka_swap_file** link = &swap.files;
  while (*link != file) link = &(*link)->next;
  *link = file->next;
  swap.on_disk -= file->kilobytes;
  if (counter) swap.*counter += file->kilobytes;
}

// Writes the file of an element. False after a message; there is no file then.
bool write_file(ka_swap_file& file, const void* data, std::size_t size) {
  const char* const path = file.path.data();
  ka_debug("swap: paging out %s", path);
  ka::SwapWriter writer(path);
  if (!writer) {
    ka_nerror(3, "failed to create swap file %s, %s", path, ka_strerror());
    return false;
  }
  if (!writer.write(data, size) || !writer.finish(file.identity)) {
    ka_nerror(4, "failed to write swap file %s, %s", path, ka_strerror());
    return false;
  }
  return true;
}

// Deletes the file of an element. `counter` gets its amount.
void delete_file(ka_db_entry& entry, std::int64_t SwapState::*counter) KA_REQUIRES(entry.lock) {
  ka_swap_file* const file = std::exchange(entry.file, nullptr);
  if (unlink(file->path.data()) != 0 && errno != ENOENT) {
    ka_nerror(0, "failed to delete swap file %s, %s", file->path.data(), ka_strerror());
  }
  remove_file(file, counter);
}

// Fresh memory with an element's data, or what went wrong.
enum class Reading { kDone, kNotOpened, kNoHeader, kOtherVersion, kNoData };
Reading read_file(const ka_swap_file& file, ka::Owned<std::uint8_t>& data, std::size_t& size) {
  ka::SwapReader reader(file.path.data(), file.identity);
  if (!reader) return Reading::kNotOpened;
  std::uint32_t version = 0;
  if (!reader.read_header(version)) return Reading::kNoHeader;
  if (version != ka::kSwapVersion) return Reading::kOtherVersion;
  size = reader.data_size();
  data.reset(static_cast<std::uint8_t*>(ka_mem_allocate(std::max<std::size_t>(size, 1))));
  return reader.read(data.get(), size) ? Reading::kDone : Reading::kNoData;
}

void report_reading(Reading result, const char* path) {
  switch (result) {
    case Reading::kNotOpened:
      return ka_nerror(5, "failed to open swap file %s, %s", path, ka_strerror());
    case Reading::kNoHeader:
      return ka_nerror(6, "failed to read swap file %s, %s", path, ka_strerror());
    case Reading::kOtherVersion:
      return ka_nerror(7, "wrong version of swap file %s", path);
    case Reading::kNoData:
      return ka_nerror(8, "failed to read swap file %s, %s", path, ka_strerror());
    case Reading::kDone:
      return;
  }
}

bool is_own_file(std::string_view name) {
  const ka::LockScope locked(swap_lock);
  for (const ka_swap_file* file = swap.files; file; file = file->next) {
    if (std::string_view(file->path.data()).ends_with(name)) return true;
  }
  return false;
}

// Whether a file is that of a process that has died, or of one that had this process's number.
bool is_dead(std::string_view name) {
  if (!name.ends_with(".kaswap")) return false;
  if (name.front() < '0' || name.front() > '9') return false;
  pid_t process = 0;
  const auto [end, failure] = std::from_chars(name.data(), name.data() + name.size(), process);
  if (failure == std::errc::result_out_of_range) return true;  // no process has such a number
  if (failure != std::errc{} || process <= 0) return false;
  if (process == getpid()) return !is_own_file(name);
  return kill(process, 0) != 0 && errno == ESRCH;
}

void clean_up(const char* folder) {
  int deleted = 0;
  const bool is_there = ka::for_each_file(folder, [&](int directory, const char* name) {
    if (!is_dead(name)) return;
    if (unlinkat(directory, name, 0) == 0) {
      ka_debug("swap: deleting dead file %s", name);
      ++deleted;
    } else {
      ka_debug("failed to delete %s", name);
    }
  });
  if (!is_there) ka_debug("swap dir %s does not exist, skipping cleanup", folder);
  if (deleted > 0) ka_info("swap cleanup: deleted %d obsolete files in \"%s\"", deleted, folder);
}

void configure_if_needed() {
  if (!is_configured()) ka::configure_swap(nullptr, -1);
}

}  // namespace

void ka::configure_swap(const char* folder, int limit) {
  read_settings();
  const Folder given = folder ? substituted(folder) : Folder{};
  SwapState settings;
  {
    const LockScope locked(swap_lock);
    if (folder) swap.folder = given;
    if (limit >= 0) swap.limit = limit;
    settings = swap;
  }
  if (settings.folder[0] == '\0' || settings.limit == 0) return;
  ka_info("swap directory \"%s\", limit %d MB", settings.folder.data(),
          int(settings.limit / kKilobyte));
  clean_up(settings.folder.data());
}

bool ka::page_out(std::uint32_t tag, ka_db_entry& entry) {
  const ModuleScope scope(KA_DB);
  // A purge may have been called because there is no memory at all.
  auto* const file = static_cast<ka_swap_file*>(ka_mem_test_allocate(sizeof(ka_swap_file)));
  if (!file) return false;
  Folder folder;
  if (!take_room(tag, kilobytes(entry.size), file, &folder)) {
    ka_mem_release(file);
    return false;
  }
  std::snprintf(file->path.data(), file->path.size(), "%s/%u-%08x-%.32s.kaswap", folder.data(),
                unsigned(getpid()), tag, type_name(shared(entry.type).load()).text.data());
  HiddenData hidden(entry);
  if (!hidden || shared(entry.is_fixed).load() || !write_file(*file, hidden.data(), entry.size)) {
    remove_file(file, &SwapState::failed_out);
    return false;
  }
  count_written(*file);
  ka_mem_release(hidden.data());
  hidden.take();
  shared(entry.state).store(std::uint8_t{KA_DB_ON_DISK});
  entry.file = file;
  return true;
}

bool ka::page_in(std::uint32_t tag, ka_db_entry& entry) {
  const ModuleScope scope(KA_DB);
  if (entry.data) return true;
  if (!entry.file) return false;
  const ka_swap_file& file = *entry.file;
  ka_debug("swap: paging in %s", file.path.data());
  const auto state = shared(entry.state);
  state.store(std::uint8_t{KA_DB_FETCHING});
  Owned<std::uint8_t> data;
  std::size_t size = 0;
  errno = 0;
  const Reading result = read_file(file, data, size);
  report_reading(result, file.path.data());
  if (result != Reading::kDone && result != Reading::kNoData) {
    state.store(std::uint8_t{KA_DB_ON_DISK});
    return false;
  }
  const bool is_read = result == Reading::kDone;
  delete_file(entry, is_read ? &SwapState::in : nullptr);
  state.store(std::uint8_t{KA_DB_IN_MEMORY});
  shared(entry.size).store(is_read ? size : 0);
  if (is_read) {
    shared(entry.data).store(static_cast<void*>(data.release()));
  } else {
    report_lost_data(tag, entry);
  }
  return is_read;
}

void ka::drop_swap_file(ka_db_entry& entry) {
  const ModuleScope scope(KA_DB);
  if (entry.file) delete_file(entry, nullptr);
  shared(entry.state).store(std::uint8_t{KA_DB_IN_MEMORY});
}

bool ka::is_swapping() {
  const LockScope locked(swap_lock);
  return swap.is_configured && swap.limit > 0;
}

void ka::add_swap_counts(ka_db_counts& counts) {
  const LockScope locked(swap_lock);
  counts.disk = std::uint64_t(swap.on_disk);
  counts.disk_max = std::uint64_t(swap.max_on_disk);
  counts.swapped_out = std::uint64_t(swap.out);
  counts.swapped_in = std::uint64_t(swap.in);
  counts.swap_failed = std::uint64_t(swap.failed_out);
}

void ka::swap_start() {
  swap = {};
  ka_init_lock(&swap_lock);
}

void ka::swap_end() { ka_delete_lock(&swap_lock); }

int ka_db_disk_pageout(std::uint32_t tag, ka_db_entry* entry, void* data, std::size_t size) {
  const ka::ModuleScope scope(KA_DB);
  configure_if_needed();
  if (!ka::is_job_tag(tag)) {  // data elements stay, but are told of a limit as well
    take_room(tag, kilobytes(size), nullptr, nullptr);
    return 0;
  }
  const ka::LockScope locked(entry->lock);
  if (entry->data != data || entry->size != size) return 0;
  return ka::page_out(tag, *entry);
}

int ka_db_disk_pagein(std::uint32_t tag) {
  const ka::ModuleScope scope(KA_DB);
  ka_db_entry& entry = ka::find_entry(tag);
  if (!ka::is_job_tag(tag)) return 1;
  const ka::LockScope locked(entry.lock);
  return ka::page_in(tag, entry);
}

void ka_db_disk_delete(std::uint32_t tag) {
  const ka::ModuleScope scope(KA_DB);
  if (!ka::is_job_tag(tag)) return;
  configure_if_needed();
  ka_db_entry& entry = ka::find_entry(tag);
  const ka::LockScope locked(entry.lock);
  if (entry.state == KA_DB_ON_DISK) ka::drop_disk_data(tag, entry);
}

void ka_db_disk_cleanup() {
  const ka::ModuleScope scope(KA_DB);
  configure_if_needed();
  Folder folder;
  {
    const ka::LockScope locked(swap_lock);
    folder = swap.folder;
  }
  clean_up(folder.data());
}
