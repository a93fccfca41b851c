#include "runtime/RecursiveLock.h"
#include "runtime/NeverDestroyed.h"

namespace em_oidmap {

CRecursiveLock::CRecursiveLock() { valid_ = pthread_mutex_init(&mutex_, nullptr) == 0; }

CRecursiveLock::~CRecursiveLock() {
  if (valid_ && count_ >= 1 && IsOwnedByCaller()) {
    owner_.store(0, std::memory_order_relaxed);
    count_ = 0;
    pthread_mutex_unlock(&mutex_);
  }
  if (valid_) {
    pthread_mutex_destroy(&mutex_);
  }
}

bool CRecursiveLock::IsOwnedByCaller() const {
  pthread_t owner = owner_.load(std::memory_order_relaxed);
  return owner != 0 && pthread_equal(owner, pthread_self());
}

void CRecursiveLock::Acquire() {
  if (!valid_) return;
  if (!IsOwnedByCaller()) {
    pthread_mutex_lock(&mutex_);
    owner_.store(pthread_self(), std::memory_order_relaxed);
  }
  ++count_;
}

void CRecursiveLock::Release() {
  if (!valid_ || !IsOwnedByCaller()) return;
  if (--count_ == 0) {
    owner_.store(0, std::memory_order_relaxed);
    pthread_mutex_unlock(&mutex_);
  }
}

// Never destroyed: events may be released from other static destructors at exit, after
// a plain function-local static would already be gone.
CRecursiveLock& EventLock() {
  static NeverDestroyed<CRecursiveLock> lock;
  return lock.Get();
}

CRecursiveLock& NameTableLock() {
  static NeverDestroyed<CRecursiveLock> lock;
  return lock.Get();
}

}  // namespace em_oidmap
