// CRecursiveLock: a POSIX mutex that its owner thread may take again. It counts the
// owner's acquisitions and opens the mutex when the count drops back to 0.
//
// Scopes hold it with
//     CRecursiveLockGuard guard(lock);
// like std::lock_guard. It is a capability of the thread-safety analysis, which does not
// know re-entry: a function that takes the lock while its caller may already hold it says
// so in a comment, and the analysis sees it taken once (nested guards of the same lock in
// one function would be reported as a double acquisition, so there are none).
//
// If the mutex failed to initialise, the lock is "invalid" and Acquire/Release do
// nothing at all: callers run unprotected rather than fail.
//
// Thread safety: any thread may call Acquire/Release. Release by a thread that is not the
// owner does nothing.
#ifndef EM_RUNTIME_RECURSIVELOCK_H
#define EM_RUNTIME_RECURSIVELOCK_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "base/Mutex.h"
#include "base/ThreadAnnotations.h"

namespace em_oidmap {

class CAPABILITY("mutex") CRecursiveLock {
 public:
  CRecursiveLock();
  // If the destroying thread still owns the lock, it is opened before the mutex goes.
  ~CRecursiveLock();
  CRecursiveLock(const CRecursiveLock&) = delete;
  CRecursiveLock& operator=(const CRecursiveLock&) = delete;

  void Acquire() ACQUIRE();
  void Release() RELEASE();
  // The same, as CLockGuard spells them.
  void Lock() ACQUIRE() { Acquire(); }
  void Unlock() RELEASE() { Release(); }

  // True when the mutex initialised without error.
  bool IsValid() const { return valid_; }
  // True when the calling thread holds the lock.
  bool IsOwnedByCaller() const;
  // The owner's acquisition count (meaningful to the owner only).
  uint32_t Count() const { return count_; }

 private:
  pthread_mutex_t mutex_{};
  // Read by non-owners without the mutex to decide whether to lock it.
  std::atomic<pthread_t> owner_{0};
  uint32_t count_ = 0;  // changed by the owner only
  bool valid_ = false;
};

// Holds a CRecursiveLock for a scope.
using CRecursiveLockGuard = CLockGuard<CRecursiveLock>;

// The process-wide lock over event reference counts and the creation of named events.
// Taken before NameTableLock() when both are needed. Never destroyed.
CRecursiveLock& EventLock();
// The process-wide lock over the named-event table. Never destroyed.
CRecursiveLock& NameTableLock();

}  // namespace em_oidmap

#endif  // EM_RUNTIME_RECURSIVELOCK_H
