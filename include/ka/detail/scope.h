// Owners of what a function takes on entry: its place on the module stack, a lock.
#pragma once

#include <ka/detail/context.h>
#include <ka/detail/threadsafety.h>
#include <ka/msg.h>

namespace ka {

// Charges messages and memory to a module until the end of the block. First line of every public
// operation.
class ModuleScope {
 public:
  explicit ModuleScope(int module) : context_(context()) { push_module(context_, module); }
  ~ModuleScope() { pop_module(context_); }
  ModuleScope(const ModuleScope&) = delete;
  ModuleScope& operator=(const ModuleScope&) = delete;

 private:
  ka_context& context_;
};

// The same for a call of a function that a program has handed in: what it leaves on the module
// stack goes with it.
class CallbackScope {
 public:
  explicit CallbackScope(int module) : context_(context()), depth_(context_.depth) {
    push_module(context_, module);
  }
  ~CallbackScope() { context_.depth = depth_; }
  CallbackScope(const CallbackScope&) = delete;
  CallbackScope& operator=(const CallbackScope&) = delete;

 private:
  ka_context& context_;
  std::int32_t depth_;
};

// Holds a lock until the end of the block.
class KA_SCOPED_CAPABILITY LockScope {
 public:
  explicit LockScope(const ka_mutex& lock) KA_ACQUIRE(lock) : lock_(lock) { ka_lock(lock_); }
  ~LockScope() KA_RELEASE() { ka_unlock(lock_); }
  LockScope(const LockScope&) = delete;
  LockScope& operator=(const LockScope&) = delete;

 private:
  ka_mutex lock_;
};

// The same without a scope, where a lock is only tried. ka_trylock and ka_unlock themselves get a copy
// of the lock, from which clang does not see which one it is.
[[nodiscard]] inline bool try_lock(const ka_mutex& lock)
    KA_TRY_ACQUIRE(true, lock) KA_NO_THREAD_SAFETY_ANALYSIS {
  return ka_trylock(lock) != 0;
}
inline void unlock(const ka_mutex& lock) KA_RELEASE(lock) KA_NO_THREAD_SAFETY_ANALYSIS {
  ka_unlock(lock);
}

}  // namespace ka
