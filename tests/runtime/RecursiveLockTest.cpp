#include "runtime/RecursiveLock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace em_oidmap {

TEST(RecursiveLockTest, OwnerReentersAndOthersWaitForItsLastRelease) {
  CRecursiveLock lock;
  lock.Acquire();
  lock.Acquire();
  std::atomic<bool> got{false};
  std::thread other([&] {
    lock.Release();  // not the owner: ignored
    CRecursiveLockGuard guard(lock);
    got = true;
  });
  lock.Release();
  EXPECT_TRUE(lock.IsOwnedByCaller());  // still held once, so `other` cannot have it
  EXPECT_FALSE(got);
  lock.Release();
  other.join();
  EXPECT_TRUE(got);
}

}  // namespace em_oidmap
