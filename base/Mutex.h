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

// Holds a lock exclusively for a scope, as std::lock_guard: a CMutex, a CSharedMutex as
// its writer, or any capability with Lock and Unlock (runtime/RecursiveLock.h).
template <class Mutex>
class SCOPED_CAPABILITY CLockGuard {
 public:
  explicit CLockGuard(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
  // Takes over a lock the caller holds (after a successful TryLock).
  CLockGuard(Mutex& mutex, std::adopt_lock_t) REQUIRES(mutex) : mutex_(mutex) {}
  ~CLockGuard() RELEASE() { mutex_.Unlock(); }
  CLockGuard(const CLockGuard&) = delete;
  CLockGuard& operator=(const CLockGuard&) = delete;

 private:
  Mutex& mutex_;
};

using CMutexLock = CLockGuard<CMutex>;

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
using CWriterLock = CLockGuard<CSharedMutex>;

}  // namespace em_oidmap

#endif  // EM_BASE_MUTEX_H
