// Annotated mutexes: std::mutex and std::shared_mutex as capabilities that the thread-safety
// analysis knows (libstdc++'s own are not annotated), with their scoped guards.
//
//   CMutex mutex_;
//   std::vector<int> values_ GUARDED_BY(mutex_);
//   ...
//   CMutexLock lock(mutex_);            // std::lock_guard
//   if (!mutex_.TryLock()) return;      // a try-lock, then
//   CMutexLock lock(mutex_, std::adopt_lock);
//   CMutexUniqueLock lock(mutex_);      // with a std::condition_variable:
//   while (!ready_) lock.Wait(cv_);     //   waits release and retake the mutex
//
// A condition wait takes no predicate: the loop around it stays in the function that
// holds the lock, where the analysis sees the guarded members it reads.
//
// Thread safety: as the standard types they wrap.
#ifndef EM_BASE_MUTEX_H
#define EM_BASE_MUTEX_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#include "base/ThreadAnnotations.h"

namespace em_oidmap {

class CAPABILITY("mutex") CMutex {
 public:
  CMutex() = default;
  CMutex(const CMutex&) = delete;
  CMutex& operator=(const CMutex&) = delete;

  void Lock() ACQUIRE() { mutex_.lock(); }
  void Unlock() RELEASE() { mutex_.unlock(); }
  bool TryLock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }

 private:
  friend class CMutexUniqueLock;
  std::mutex mutex_;
};

// std::lock_guard over a CMutex.
class SCOPED_CAPABILITY CMutexLock {
 public:
  explicit CMutexLock(CMutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
  // Takes over a mutex the caller has locked (after a successful TryLock).
  CMutexLock(CMutex& mutex, std::adopt_lock_t) REQUIRES(mutex) : mutex_(mutex) {}
  ~CMutexLock() RELEASE() { mutex_.Unlock(); }
  CMutexLock(const CMutexLock&) = delete;
  CMutexLock& operator=(const CMutexLock&) = delete;

 private:
  CMutex& mutex_;
};

// Holds a CMutex for its scope, and lets a condition variable release and retake it.
class SCOPED_CAPABILITY CMutexUniqueLock {
 public:
  explicit CMutexUniqueLock(CMutex& mutex) ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  ~CMutexUniqueLock() RELEASE() {}
  CMutexUniqueLock(const CMutexUniqueLock&) = delete;
  CMutexUniqueLock& operator=(const CMutexUniqueLock&) = delete;

  // Waits for a notification (or a spurious wake-up); the mutex is held again on return.
  void Wait(std::condition_variable& cv) { cv.wait(lock_); }
  // As Wait, but at most until `deadline`. False when the deadline has passed.
  bool WaitUntil(std::condition_variable& cv, std::chrono::steady_clock::time_point deadline) {
    return cv.wait_until(lock_, deadline) == std::cv_status::no_timeout;
  }

 private:
  std::unique_lock<std::mutex> lock_;
};

// A reader-writer lock.
class CAPABILITY("shared mutex") CSharedMutex {
 public:
  CSharedMutex() = default;
  CSharedMutex(const CSharedMutex&) = delete;
  CSharedMutex& operator=(const CSharedMutex&) = delete;

  void Lock() ACQUIRE() { mutex_.lock(); }
  void Unlock() RELEASE() { mutex_.unlock(); }
  void LockShared() ACQUIRE_SHARED() { mutex_.lock_shared(); }
  void UnlockShared() RELEASE_SHARED() { mutex_.unlock_shared(); }

 private:
  std::shared_mutex mutex_;
};

// Shared (reader) hold of a CSharedMutex for a scope.
class SCOPED_CAPABILITY CReaderLock {
 public:
  explicit CReaderLock(CSharedMutex& mutex) ACQUIRE_SHARED(mutex) : mutex_(mutex) {
    mutex_.LockShared();
  }
  ~CReaderLock() RELEASE() { mutex_.UnlockShared(); }
  CReaderLock(const CReaderLock&) = delete;
  CReaderLock& operator=(const CReaderLock&) = delete;

 private:
  CSharedMutex& mutex_;
};

// Exclusive (writer) hold of a CSharedMutex for a scope.
class SCOPED_CAPABILITY CWriterLock {
 public:
  explicit CWriterLock(CSharedMutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~CWriterLock() RELEASE() { mutex_.Unlock(); }
  CWriterLock(const CWriterLock&) = delete;
  CWriterLock& operator=(const CWriterLock&) = delete;

 private:
  CSharedMutex& mutex_;
};

}  // namespace em_oidmap

#endif  // EM_BASE_MUTEX_H
