#include "runtime/RecursiveLock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace em_oidmap {
namespace {

// Re-entry and a release by a thread that does not own the lock are what is tested here;
// the analysis, which knows neither, is off for these calls.
void AcquireTwice(CRecursiveLock& lock) NO_THREAD_SAFETY_ANALYSIS {
  lock.Acquire();
  lock.Acquire();
}
void ReleaseOnce(CRecursiveLock& lock) NO_THREAD_SAFETY_ANALYSIS { lock.Release(); }

TEST(RecursiveLockTest, OwnerReentersAndOthersWaitForItsLastRelease) {
  CRecursiveLock lock;
  AcquireTwice(lock);
  std::atomic<bool> got{false};
  std::thread other([&] {
    ReleaseOnce(lock);  // not the owner: ignored
    CRecursiveLockGuard guard(lock);
    got = true;
  });
  ReleaseOnce(lock);
  EXPECT_TRUE(lock.IsOwnedByCaller());  // still held once, so `other` cannot have it
  EXPECT_FALSE(got);
  ReleaseOnce(lock);
  other.join();
  EXPECT_TRUE(got);
}

}  // namespace
}  // namespace em_oidmap
