/*
 * The initialisation check every request call opens with, and a scoped lock
 * for the process-wide mutexes.
 *
 *   if (!kx::library_inited()) {
 *       KX_LOGE("please firstly to call KX_GLOBAL_INIT()!\n");
 *       return -1;
 *   }
 *
 * The flag is read under sGlobalInitMutex and the lock is dropped again at
 * once: a call does not hold it for the rest of its work, so nothing stops a
 * KX_GLOBAL_DEINIT from overlapping a running call (the caller orders them).
 * The caller logs the refusal itself, so the line carries its own name.
 */
#ifndef KX_INTERNAL_INIT_CHECK_H
#define KX_INTERNAL_INIT_CHECK_H

#include <pthread.h>

namespace kx {

/* True once KX_GLOBAL_INIT has succeeded and until KX_GLOBAL_DEINIT. */
bool library_inited();

/* Holds a pthread mutex for the lifetime of the object. */
class MutexLock {
public:
    explicit MutexLock(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~MutexLock() { pthread_mutex_unlock(&mutex_); }
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;

private:
    pthread_mutex_t &mutex_;
};

}  // namespace kx

#endif
