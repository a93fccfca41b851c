#include "runtime/Thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/support/TestSupport.h"
#include "runtime/Event.h"
#include "runtime/RecursiveLock.h"

namespace em_oidmap {

namespace {

using test_support::WaitForTrace;
using test_support::WaitUntil;

// A thread body that waits for its gate, then records that it ended.
struct Gate {
  CEvent open;
  std::atomic<bool> ended{false};
  Gate() { open.Create(false, true, nullptr); }
  ~Gate() { open.Release(); }
  static void* Run(void* arg) {
    auto* gate = static_cast<Gate*>(arg);
    gate->open.Wait(gate->timeoutMs, true);
    gate->ended = true;
    return nullptr;
  }
  uint32_t timeoutMs = 10000;
};

// Sets the gate once `trace` shows the owner thread blocked where the test expects.
std::thread OpenWhenTraced(Gate& gate, const char* trace) {
  return std::thread([&gate, trace] {
    WaitForTrace(trace);
    gate.open.Set();
  });
}

class ThreadTest : public test_support::TracedTest<> {};

TEST_F(ThreadTest, WaitForTermination_WarnsOnTimeoutAndBlocksUntilTheThreadEnds) {
  Gate gate;
  CThread thread;
  EXPECT_TRUE(thread.WaitForTermination(2000));  // idle object
  ASSERT_TRUE(thread.Start(&Gate::Run, &gate, 0, 0, 0, 0, 1));
  std::thread opener = OpenWhenTraced(gate, "WARNING: can't wait for Thread");
  EXPECT_TRUE(thread.WaitForTermination(2000));
  opener.join();
  EXPECT_TRUE(gate.ended);
  EXPECT_FALSE(thread.Kill());  // nothing left
}

TEST_F(ThreadTest, Detached_CannotBeWaitedFor_KillCancelsItsWait) {
  Gate gate;
  gate.timeoutMs = EVENT_WAIT_FOREVER;  // only cancellation ends it
  CThread thread;
  ASSERT_TRUE(thread.Start(&Gate::Run, &gate, 0, 0, 0, 0, 0));
  ASSERT_TRUE(WaitUntil([&] { return !gate.open.ChangeAttributes(false, true); }));  // waiting

  EXPECT_FALSE(thread.WaitForTermination(EVENT_WAIT_FOREVER));
  EXPECT_TRUE(thread.Kill());
  EXPECT_FALSE(thread.HoldsThread());
  // The cancelled wait gave back its waiter count and the event's mutex.
  EXPECT_TRUE(WaitUntil([&] { return gate.open.ChangeAttributes(true, true); }));
  EXPECT_FALSE(gate.ended);
}

TEST_F(ThreadTest, Start_WithKillAliveThread_JoinsTheHeldThreadFirst) {
  Gate first, second;
  CThread thread(true);
  ASSERT_TRUE(thread.Start(&Gate::Run, &first, 0, 0, 0, 0, 1));
  std::thread opener = OpenWhenTraced(first, "\nCThread::Kill: Try to join a joinable Thread");
  ASSERT_TRUE(thread.Start(&Gate::Run, &second, 0, 0, 0, 0, 1));
  opener.join();
  EXPECT_TRUE(first.ended);
  second.open.Set();
  EXPECT_TRUE(thread.Kill());
  EXPECT_TRUE(second.ended);
}

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
  ReleaseOnce(lock);  // still held once
  std::atomic<bool> trying{false}, released{false}, inAfterRelease{false};
  std::thread other([&] {
    ReleaseOnce(lock);  // not the owner: ignored
    trying = true;
    CRecursiveLockGuard guard(lock);
    inAfterRelease = released.load();
  });
  // `other` has released and is taking the lock: it must wait for the last release.
  ASSERT_TRUE(WaitUntil([&] { return trying.load(); }));
  EXPECT_TRUE(lock.IsOwnedByCaller());
  EXPECT_EQ(1u, lock.Count());
  released = true;
  ReleaseOnce(lock);
  other.join();
  EXPECT_TRUE(inAfterRelease);
}

}  // namespace

}  // namespace em_oidmap
