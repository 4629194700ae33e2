// The locks of the C++ library, with what clang checks about them. They serve where a lock is needed
// before the library is attached, or where ka_mutex and its module would cost too much.
#pragma once

#include <mutex>

#include <ka/detail/threadsafety.h>

namespace ka {

template <typename System>
class KA_CAPABILITY("mutex") BasicMutex {
 public:
  void lock() KA_ACQUIRE() { system_.lock(); }
  void unlock() KA_RELEASE() { system_.unlock(); }
  [[nodiscard]] bool try_lock() KA_TRY_ACQUIRE(true) { return system_.try_lock(); }

 private:
  System system_;
};
using Mutex = BasicMutex<std::mutex>;
using RecursiveMutex = BasicMutex<std::recursive_mutex>;

// Holds one of them until the end of the block.
template <typename Lock>
class KA_SCOPED_CAPABILITY MutexScope {
 public:
  explicit MutexScope(Lock& lock) KA_ACQUIRE(lock) : lock_(lock) { lock_.lock(); }
  // Of a lock that the caller has taken already.
  MutexScope(Lock& lock, std::adopt_lock_t /*taken*/) KA_REQUIRES(lock) : lock_(lock) {}
  ~MutexScope() KA_RELEASE() { lock_.unlock(); }
  MutexScope(const MutexScope&) = delete;
  MutexScope& operator=(const MutexScope&) = delete;

 private:
  Lock& lock_;
};

}  // namespace ka
