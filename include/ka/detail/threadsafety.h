// What clang checks about locks (-Wthread-safety): which lock guards a variable, which ones a function
// needs, takes or gives. Other compilers see nothing of it.
#pragma once

#ifdef __clang__
#define KA_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define KA_THREAD_ATTRIBUTE(attribute)
#endif

// A class whose objects are locks, and one whose objects hold a lock while they live.
#define KA_CAPABILITY(name) KA_THREAD_ATTRIBUTE(capability(name))
#define KA_SCOPED_CAPABILITY KA_THREAD_ATTRIBUTE(scoped_lockable)

// A variable, or what a pointer leads to, that is read and written with the lock only.
#define KA_GUARDED_BY(lock) KA_THREAD_ATTRIBUTE(guarded_by(lock))
#define KA_PT_GUARDED_BY(lock) KA_THREAD_ATTRIBUTE(pt_guarded_by(lock))

// A function whose caller holds the locks, and one whose caller does not.
#define KA_REQUIRES(...) KA_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define KA_EXCLUDES(...) KA_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))

// A function that takes the locks, gives them back, or takes them when it returns `success`. Without a
// lock: the object itself, or what the object holds.
#define KA_ACQUIRE(...) KA_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define KA_RELEASE(...) KA_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define KA_TRY_ACQUIRE(success, ...) \
  KA_THREAD_ATTRIBUTE(try_acquire_capability(success, ##__VA_ARGS__))

// A function that is not checked; its comment says why it is right.
#define KA_NO_THREAD_SAFETY_ANALYSIS KA_THREAD_ATTRIBUTE(no_thread_safety_analysis)
