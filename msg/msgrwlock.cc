// Reader/writer locks.
#include <errno.h>
#include <pthread.h>

#include <ka/detail/scope.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>

namespace {
pthread_rwlock_t* system_lock(ka_rwlock lock) {
  return static_cast<pthread_rwlock_t*>(lock.handle);
}
}  // namespace

void ka_rwlock_init(ka_rwlock* lock) {
  const ka::ModuleScope scope(KA_MSG);
  lock->handle = ka_mem_allocate_raw(sizeof(pthread_rwlock_t));
  if (pthread_rwlock_init(system_lock(*lock), nullptr) != 0)
    ka_nfatal(432, "failed to initialize rwlock");
}

void ka_rwlock_delete(ka_rwlock* lock) {
  const ka::ModuleScope scope(KA_MSG);
  if (!lock->handle) return;
  // The system does not tell a lock in use from a free one when it destroys it: whether it can be
  // written does.
  if (pthread_rwlock_trywrlock(system_lock(*lock)) != 0) ka_nfatal(433, "failed to destroy rwlock");
  pthread_rwlock_unlock(system_lock(*lock));
  pthread_rwlock_destroy(system_lock(*lock));
  ka_mem_release_raw(lock->handle);
  lock->handle = nullptr;
}

void ka_rwlock_lock(ka_rwlock lock, int /*unused*/, int writer) {
  const ka::ModuleScope scope(KA_MSG);
  int failure = EINVAL;
  if (lock.handle) {
    failure = writer ? pthread_rwlock_wrlock(system_lock(lock))
                     : pthread_rwlock_rdlock(system_lock(lock));
  }
  if (failure == 0) return;
  if (writer) ka_nfatal(435, "ka_rwlock_lock failed for writer, %s", ka_nstrerror(failure));
  ka_nfatal(434, "ka_rwlock_lock failed for reader, %s", ka_nstrerror(failure));
}

int ka_rwlock_unlock(ka_rwlock lock) {
  return lock.handle ? pthread_rwlock_unlock(system_lock(lock)) : EINVAL;
}
