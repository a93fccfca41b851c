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
using runtime_test::TracedTest;
using runtime_test::WaitForTrace;
using runtime_test::WaitUntil;

std::string Hex(const char* format, pthread_t id) {
  char buf[256];
  snprintf(buf, sizeof buf, format, static_cast<unsigned>(id));
  return buf;
}

// A thread body that waits (bounded) for its gate and then records that it ended.
struct Gate {
  CEvent open;
  std::atomic<bool> ended{false};
  Gate() { open.Create(false, true, nullptr); }
  ~Gate() { open.Release(); }
  static void* Run(void* arg) {
    auto* gate = static_cast<Gate*>(arg);
    gate->open.Wait(10000, true);
    gate->ended = true;
    return nullptr;
  }
  // Waits on the gate for good: only cancellation ends it.
  static void* RunForever(void* arg) {
    static_cast<Gate*>(arg)->open.Wait(EVENT_WAIT_FOREVER, true);
    return nullptr;
  }
};

class ThreadTest : public TracedTest {};

TEST_F(ThreadTest, IdleObject_WaitSucceedsKillFails) {
  CThread thread;
  EXPECT_TRUE(thread.WaitForTermination(2000));
  EXPECT_TRUE(Sink().HasLine(
      "\nCThread::WaitForTermination: Thread = 0x000000000 doesn't exist !"));
  EXPECT_FALSE(thread.Kill());
  EXPECT_TRUE(Sink().HasLine("\nCThread::Kill: Thread = 0x000000000 doesn't exist !"));
}

TEST_F(ThreadTest, WaitForTermination_WithTimeout_WarnsThenBlocksUntilThreadEnds) {
  Gate gate;
  CThread thread;
  ASSERT_TRUE(thread.Start(&Gate::Run, &gate, 0, 0, 0, 0, 1));
  pthread_t id = thread.ThreadId();
  // The opener lets the thread go only once the join has announced itself.
  std::thread opener([&] {
    WaitForTrace("WARNING: can't wait for Thread");
    gate.open.Set();
  });
  EXPECT_TRUE(thread.WaitForTermination(2000));
  opener.join();
  EXPECT_TRUE(gate.ended);
  EXPECT_FALSE(thread.HoldsThread());
  EXPECT_TRUE(Sink().HasLine(Hex(
      "\nCThread::WaitForTermination: WARNING: can't wait for Thread = 0x%08X termination "
      "with timeout",
      id)));
  EXPECT_TRUE(Sink().Contains(
      Hex("\nCThread::WaitForTermination: a joinable Thread = 0x%08X has terminated", id)));
  EXPECT_FALSE(thread.Kill());  // nothing left to kill
}

TEST_F(ThreadTest, Detached_CannotBeWaitedForAndKillCancelsIt) {
  Gate gate;
  CThread thread;
  ASSERT_TRUE(thread.Start(&Gate::RunForever, &gate, 0, 0, 0, 0, 0));
  pthread_t id = thread.ThreadId();
  ASSERT_TRUE(WaitForTrace("waiting forever on event"));
  // The waiter is inside the condition wait once ChangeAttributes is refused.
  ASSERT_TRUE(WaitUntil([&] { return !gate.open.ChangeAttributes(false, true); }));

  EXPECT_FALSE(thread.WaitForTermination(EVENT_WAIT_FOREVER));
  EXPECT_TRUE(Sink().HasLine(
      Hex("\nCThread::WaitForTermination: WARNING: Can't wait for detached thread 0x%08X", id)));
  EXPECT_TRUE(thread.HoldsThread());

  EXPECT_TRUE(thread.Kill());
  EXPECT_FALSE(thread.HoldsThread());
  EXPECT_TRUE(Sink().HasLine(
      Hex("\nCThread::Kill: a non-joinable thread 0x%08X cancel invoked", id)));
  // The cancelled wait gave up its waiter count and the event's mutex on the way out.
  EXPECT_TRUE(WaitUntil([&] { return gate.open.ChangeAttributes(true, true); }));
  EXPECT_EQ(gate.open.Wait(0, false), EVENT_WAIT_SIGNAL);
}

TEST_F(ThreadTest, Start_WithKillAliveThread_JoinsTheHeldThreadFirst) {
  Gate first, second;
  CThread thread(true);
  ASSERT_TRUE(thread.Start(&Gate::Run, &first, 0, 0, 0, 0, 1));
  std::thread opener([&] {
    WaitForTrace("\nCThread::Kill: Try to join a joinable Thread");
    first.open.Set();
  });
  ASSERT_TRUE(thread.Start(&Gate::Run, &second, 0, 0, 0, 0, 1));
  opener.join();
  EXPECT_TRUE(first.ended);  // the first thread was joined before the second started
  second.open.Set();
  EXPECT_TRUE(thread.Kill());
  EXPECT_TRUE(second.ended);
}

// Fake POSIX calls: record what the attribute asked for, and refuse on request.
struct Recorded {
  int policy = -1;
  int priority = -1;
  int setPolicyCalls = 0;
  int createResult = 0;
  int joinResult = 0;
};

CThreadOps RecordingOps(Recorded* rec) {
  CThreadOps ops;
  ops.attrSetSchedPolicy = [rec](pthread_attr_t* attr, int policy) {
    ++rec->setPolicyCalls;
    return pthread_attr_setschedpolicy(attr, policy);
  };
  ops.create = [rec](pthread_t* id, const pthread_attr_t* attr, void* (*fn)(void*), void* arg) {
    sched_param param{};
    pthread_attr_getschedpolicy(attr, &rec->policy);
    pthread_attr_getschedparam(attr, &param);
    rec->priority = param.sched_priority;
    if (rec->createResult != 0) return rec->createResult;
    return pthread_create(id, attr, fn, arg);
  };
  ops.join = [rec](pthread_t id, void** status) {
    return rec->joinResult != 0 ? rec->joinResult : pthread_join(id, status);
  };
  return ops;
}

void* ReturnAtOnce(void*) { return nullptr; }

TEST_F(ThreadTest, Start_PriorityAsksForRoundRobinOnTheAttribute) {
  Recorded rec;
  rec.createResult = EPERM;  // only the attribute matters here
  CThread thread(false, RecordingOps(&rec));
  EXPECT_FALSE(thread.Start(&ReturnAtOnce, nullptr, 83, 0, 0, 0, 1));
  EXPECT_EQ(rec.policy, SCHED_RR);
  EXPECT_EQ(rec.priority, 83);
  EXPECT_TRUE(Sink().HasLine("\npthread_create failed: 1"));
  EXPECT_FALSE(thread.HoldsThread());

  rec = Recorded();
  EXPECT_TRUE(thread.Start(&ReturnAtOnce, nullptr, 0, 0, 0, 0, 1));
  EXPECT_EQ(rec.setPolicyCalls, 0);  // priority 0 leaves the policy alone
  EXPECT_EQ(rec.policy, SCHED_OTHER);
  EXPECT_TRUE(Sink().HasLine("\nThreadPrio=0"));
  EXPECT_TRUE(thread.WaitForTermination(EVENT_WAIT_FOREVER));
}

TEST_F(ThreadTest, FailedJoin_KeepsTheThread) {
  Recorded rec;
  CThread thread(false, RecordingOps(&rec));
  ASSERT_TRUE(thread.Start(&ReturnAtOnce, nullptr, 0, 0, 0, 0, 1));
  pthread_t id = thread.ThreadId();
  rec.joinResult = ESRCH;
  EXPECT_FALSE(thread.WaitForTermination(EVENT_WAIT_FOREVER));
  EXPECT_TRUE(Sink().HasLine(Hex(
      "\nCThread::WaitForTermination: ERROR ! ThreadJoin failed, Thread = 0x%08X, "
      "Err = 0x00000003",
      id)));
  EXPECT_FALSE(thread.Kill());
  EXPECT_EQ(thread.ThreadId(), id);
  rec.joinResult = 0;
  EXPECT_TRUE(thread.Kill());
  EXPECT_FALSE(thread.HoldsThread());
}

TEST_F(ThreadTest, SetThreadName_OnlyTraces) {
  CThread thread;
  thread.SetThreadName("", "_TaskHandler");
  EXPECT_TRUE(Sink().HasLine(
      "CThread::SetThreadName: ThreadId = 0x00000000, DebugName = , Qualifier = (_TaskHandler)\n"));
}

}  // namespace
