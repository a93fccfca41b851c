#include "oidmap/StartGate.h"

#include <chrono>

namespace em_oidmap {

void CStartGate::Close() {
  CMutexLock lock(mutex_);
  closed_ = true;
  starter_ = std::this_thread::get_id();
  closed_flag_.store(true, std::memory_order_release);
}

void CStartGate::Open() {
  CMutexLock lock(mutex_);
  closed_ = false;
  closed_flag_.store(false, std::memory_order_release);
  opened_.notify_all();
}

bool CStartGate::WaitUntilOpen(uint32_t timeoutMs) {
  if (!closed_flag_.load(std::memory_order_acquire)) {
    return true;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  CMutexUniqueLock lock(mutex_);
  if (starter_ == std::this_thread::get_id()) {
    return true;  // a host that offers requests on the starting thread itself
  }
  while (closed_) {
    if (!lock.WaitUntil(opened_, deadline)) return !closed_;
  }
  return true;
}

}  // namespace em_oidmap
