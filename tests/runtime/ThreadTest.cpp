#include "runtime/Thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <string>
#include <thread>

#include "TestUtil.h"
#include "runtime/Event.h"

namespace {

using hostsim::Sink;
using runtime_test::WaitForTrace;
using runtime_test::WaitUntil;

std::string Hex(const char* format, pthread_t id) {
  char buf[256];
  snprintf(buf, sizeof buf, format, static_cast<unsigned>(id));
  return buf;
}

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

class ThreadTest : public runtime_test::TracedTest {};

TEST_F(ThreadTest, WaitForTermination_WarnsOnTimeoutAndBlocksUntilTheThreadEnds) {
  Gate gate;
  CThread thread;
  EXPECT_TRUE(thread.WaitForTermination(2000));  // idle object
  ASSERT_TRUE(thread.Start(&Gate::Run, &gate, 0, 0, 0, 0, 1));
  pthread_t id = thread.ThreadId();
  std::thread opener = OpenWhenTraced(gate, "WARNING: can't wait for Thread");
  EXPECT_TRUE(thread.WaitForTermination(2000));
  opener.join();
  EXPECT_TRUE(gate.ended);
  EXPECT_TRUE(Sink().Contains(
      Hex("\nCThread::WaitForTermination: a joinable Thread = 0x%08X has terminated", id)));
  EXPECT_FALSE(thread.Kill());  // nothing left
  EXPECT_TRUE(Sink().HasLine("\nCThread::Kill: Thread = 0x000000000 doesn't exist !"));
}

TEST_F(ThreadTest, Detached_CannotBeWaitedFor_KillCancelsItsWait) {
  Gate gate;
  gate.timeoutMs = EVENT_WAIT_FOREVER;  // only cancellation ends it
  CThread thread;
  ASSERT_TRUE(thread.Start(&Gate::Run, &gate, 0, 0, 0, 0, 0));
  pthread_t id = thread.ThreadId();
  ASSERT_TRUE(WaitUntil([&] { return !gate.open.ChangeAttributes(false, true); }));  // waiting

  EXPECT_FALSE(thread.WaitForTermination(EVENT_WAIT_FOREVER));
  EXPECT_TRUE(Sink().HasLine(
      Hex("\nCThread::WaitForTermination: WARNING: Can't wait for detached thread 0x%08X", id)));
  EXPECT_TRUE(thread.Kill());
  EXPECT_TRUE(Sink().HasLine(Hex("\nCThread::Kill: a non-joinable thread 0x%08X cancel invoked", id)));
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

TEST_F(ThreadTest, Start_PriorityAsksForRoundRobin_CreationFailureIsReported) {
  int policy = -1, priority = -1;
  CThreadOps ops;
  ops.create = [&](pthread_t*, const pthread_attr_t* attr, void* (*)(void*), void*) {
    sched_param param{};
    pthread_attr_getschedpolicy(attr, &policy);
    pthread_attr_getschedparam(attr, &param);
    priority = param.sched_priority;
    return EPERM;
  };
  CThread thread(false, ops);
  EXPECT_FALSE(thread.Start(&Gate::Run, nullptr, 83, 0, 0, 0, 1));
  EXPECT_EQ(policy, SCHED_RR);
  EXPECT_EQ(priority, 83);
  EXPECT_TRUE(Sink().HasLine("\npthread_create failed: 1"));
  EXPECT_FALSE(thread.HoldsThread());
}

}  // namespace
