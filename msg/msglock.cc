// Mutual exclusion locks. A failing operation means that the lock's memory is corrupt, so it ends
// the process.
#include <errno.h>
#include <pthread.h>

#include <ka/detail/scope.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>

namespace {
pthread_mutex_t* mutex_of(ka_mutex lock) { return static_cast<pthread_mutex_t*>(lock.handle); }
}  // namespace

int ka_init_lock(ka_mutex* lock) {
  const ka::ModuleScope scope(KA_MSG);
  lock->handle = ka_mem_allocate_raw(sizeof(pthread_mutex_t));
  if (pthread_mutex_init(mutex_of(*lock), nullptr) != 0)
    ka_nfatal(422, "failed to initialize lock");
  return 1;
}

void ka_delete_lock(ka_mutex* lock) {
  const ka::ModuleScope scope(KA_MSG);
  if (!lock->handle) return;
  pthread_mutex_destroy(mutex_of(*lock));
  ka_mem_release_raw(lock->handle);
  lock->handle = nullptr;
}

void ka_lock(ka_mutex lock) {
  const ka::ModuleScope scope(KA_MSG);
  const int failure = lock.handle ? pthread_mutex_lock(mutex_of(lock)) : EINVAL;
  if (failure != 0) ka_nfatal(424, "pthread_mutex_lock failed, %s", ka_nstrerror(failure));
}

void ka_unlock(ka_mutex lock) {
  const ka::ModuleScope scope(KA_MSG);
  const int failure = lock.handle ? pthread_mutex_unlock(mutex_of(lock)) : EINVAL;
  if (failure != 0) ka_nfatal(426, "pthread_mutex_unlock failed");
}

int ka_trylock(ka_mutex lock) {
  const ka::ModuleScope scope(KA_MSG);
  const int failure = lock.handle ? pthread_mutex_trylock(mutex_of(lock)) : EINVAL;
  if (failure == EBUSY) return 0;
  if (failure != 0) ka_nfatal(427, "pthread_mutex_trylock failed, %s", ka_nstrerror(failure));
  return 1;
}
