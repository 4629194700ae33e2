// Texture cache: what a thread holds, its pages, levels and open files.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ka/detail/scope.h>
#include <ka/mem.h>
#include <ka/message.h>

#include "cacherecord.h"
#include "texturecache.h"

namespace {

constexpr int kUnopened = 26, kReplaced = 27;  // numbers of the messages about a file

// All thread states, for the end of the cache.
constinit ka::Mutex thread_list_lock;
constinit ka::Link thread_list KA_GUARDED_BY(thread_list_lock);

// Lets go of a held page and forgets it. Returns the number of pages that were freed.
int drop_page(ka::CacheThread& thread, ka::HeldPage& held, bool release) {
  const int freed = ka::flush_one_page(*held.record, held.number, release);
  thread.pages.erase(held.slot());
  ka::unlink(held);
  ka_mem_blkfrelease(thread.page_pool, &held);
  --thread.held;
  return freed;
}

// Of one level, all but `kept`. Returns the number of pages that were freed.
int drop_pages_of(ka::CacheThread& thread, const ka::CacheRecord& record, const ka::Link* kept) {
  int freed = 0;
  for (ka::Link* link = thread.page_list.next; link != &thread.page_list;) {
    auto& held = static_cast<ka::HeldPage&>(*link);
    link = link->next;
    if (held.record == &record && &held != kept) freed += drop_page(thread, held, true);
  }
  return freed;
}

void forget_recent() { ka::recent_page.size = 0; }

void close_descriptor(ka::CacheThread& thread, ka::Descriptor& descriptor) {
  close(descriptor.fd);
  thread.descriptors.erase(descriptor.file);
  ka::unlink(descriptor);
  --thread.open_files;
  ka::Release()(&descriptor);
}

void close_oldest(ka::CacheThread& thread) {
  close_descriptor(thread, static_cast<ka::Descriptor&>(*thread.descriptor_list.previous));
}

// Opens a path without waiting for the other end of a pipe. -1 with errno.
int open_path(const char* path) { return open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); }

// One of the thread's own files makes room where the process has no descriptor left.
int open_file(ka::CacheThread& thread, const ka::CacheFile& file) {
  int fd = open_path(file.path.c_str());
  if (fd < 0 && (errno == EMFILE || errno == ENFILE) && thread.open_files > 0) {
    close_oldest(thread);
    fd = open_path(file.path.c_str());
  }
  return fd;
}

bool is_registered_file(int fd, const ka::CacheFile& file) {
  struct stat status;
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return false;
  return file.identity ==
         ka::FileIdentity{.device = status.st_dev, .inode = status.st_ino, .size = status.st_size};
}

// -1 after the file's one message.
int open_registered(ka::CacheThread& thread, ka::CacheFile& file) {
  const int fd = open_file(thread, file);
  if (fd >= 0 && is_registered_file(fd, file)) return fd;
  const int failure = errno;
  if (fd >= 0) close(fd);
  if (file.is_reported.exchange(true)) return -1;
  if (fd >= 0) {
    ka_nerror(kReplaced, "texture file %s has been replaced", file.path.c_str());
  } else {
    ka_nerror(kUnopened, "cannot open texture file %s, %s", file.path.c_str(),
              ka_nstrerror(failure));
  }
  return -1;
}

}  // namespace

constinit thread_local ka::RecentPage ka::recent_page{};

int ka::fd_get(ka::CacheThread& thread, ka::CacheRecord& record) {
  ka::CacheFile& file = *record.file;
  if (ka::Descriptor* const known = thread.descriptors.find(&file)) {
    ka::move_to_front(thread.descriptor_list, *known);
    return known->fd;
  }
  while (thread.open_files >= ka::cache_descriptors()) close_oldest(thread);
  thread.descriptors.make_room();
  auto descriptor = ka::make_owned<ka::Descriptor>();
  descriptor->file = &file;
  descriptor->fd = open_registered(thread, file);
  if (descriptor->fd < 0) return -1;
  thread.descriptors.insert(&file, descriptor.get());
  ka::link_after(thread.descriptor_list, *descriptor);
  ++thread.open_files;
  return descriptor.release()->fd;
}

void ka::n_pages_flush(ka::CacheThread& thread, int n) {
  int freed = 0;
  const int kept = std::max(thread.held - n, 0);
  while (thread.held > kept) {
    auto& oldest = static_cast<ka::HeldPage&>(*thread.page_list.previous);
    const ka::CacheRecord& record = *oldest.record;
    freed += drop_page(thread, oldest, true);
    // the caller may be about to return an address in the page that was used last
    if (!record.valid.load(std::memory_order_relaxed)) {
      freed += drop_pages_of(thread, record, thread.page_list.next);
    }
  }
  ka::count_flushed(freed);
  ka_debug("flushed %i texure pages (tried %i)", freed, n);
}

void ka::context_image_flush(ka::CacheThread& thread, ka::CacheRecord& record) {
  if (ka::recent_page.image == record.image) forget_recent();
  ka::count_flushed(drop_pages_of(thread, record, nullptr));
  if (ka::Descriptor* const open = thread.descriptors.find(record.file)) {
    close_descriptor(thread, *open);
  }
  thread.records.erase(record.image);
  ka::cache_file_drop(record.file);
}

void ka::cache_thread_clear(ka::CacheThread& thread, bool release) {
  int freed = 0;
  while (!thread.page_list.is_alone()) {
    auto& oldest = static_cast<ka::HeldPage&>(*thread.page_list.previous);
    freed += drop_page(thread, oldest, release);
  }
  ka::count_flushed(freed);
  while (!thread.descriptor_list.is_alone()) close_oldest(thread);
  while (ka::CacheRecord* const record =
             thread.records.find_if([](const ka::CacheRecord&) { return true; })) {
    thread.records.erase(record->image);
    ka::cache_file_drop(record->file);
  }
}

void ka::cache_threads_clear() {
  const ka::MutexScope locked(thread_list_lock);
  for (ka::Link* link = thread_list.next; link != &thread_list; link = link->next) {
    ka::cache_thread_clear(static_cast<ka::CacheThread&>(*link), true);
  }
  ka::cache_alarms.fetch_add(1, std::memory_order_release);  // their recent pages are gone
}

void ka::img_context_cache_init(ka::ImageContext& context) {
  const ka::ModuleScope scope(KA_IMG);
  ka::CacheThread*& own = ka::recent_page.thread;
  if (!own) {
    own = ka::make_owned<ka::CacheThread>().release();
    const ka::MutexScope locked(thread_list_lock);
    ka::link_after(thread_list, *own);
  }
  ++own->contexts;
  context.cache = own;
}

void ka::img_context_cache_exit(ka::ImageContext& context) {
  ka::CacheThread* const thread = context.cache;
  context.cache = nullptr;
  if (!thread || --thread->contexts > 0) return;
  {
    const ka::MutexScope locked(thread_list_lock);
    ka::unlink(*thread);
  }
  ka::cache_thread_clear(*thread, false);
  if (thread->page_pool) ka_mem_blkdelete(thread->page_pool);
  if (ka::recent_page.thread == thread) ka::recent_page = {};
  ka::Release()(thread);
}
