#include "runtime/RecursiveLock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "TestUtil.h"

namespace {

TEST(RecursiveLockTest, OwnerReentersAndOthersWaitForTheLastRelease) {
  CRecursiveLock lock;
  ASSERT_TRUE(lock.IsValid());
  lock.Acquire();
  lock.Acquire();
  EXPECT_EQ(lock.Count(), 2u);

  std::atomic<bool> got{false};
  std::thread other([&] {
    lock.Release();  // not the owner: ignored
    CRecursiveLockGuard guard(lock);
    got = true;
  });
  lock.Release();
  EXPECT_TRUE(lock.IsOwnedByCaller());  // still held once
  EXPECT_FALSE(got);
  lock.Release();
  other.join();
  EXPECT_TRUE(got);
  EXPECT_FALSE(lock.IsOwnedByCaller());
}

TEST(RecursiveLockTest, DestroyedWhileHeldByItsOwner) {
  auto* lock = new CRecursiveLock;
  lock->Acquire();
  lock->Acquire();
  delete lock;  // opens the mutex before destroying it
  SUCCEED();
}

}  // namespace
