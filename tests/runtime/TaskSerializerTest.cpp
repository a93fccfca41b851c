#include "runtime/TaskSerializer.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "TestUtil.h"
#include "runtime/TaskQueue.h"
#include "sip/SipJson.h"

namespace {

using hostsim::Sink;
using runtime_test::TracedTest;
using runtime_test::WaitForTrace;

constexpr uint32_t kWaitMs = 10000;
constexpr uint32_t kQueueBytes = 160;

SipJson Task(uint32_t id) { return SipJson(id, 0, 0, 0); }

// A serializer that records what it runs; `hook` (set before the start) runs first.
class Recorder : public CTaskSerializer<SipJson> {
 public:
  explicit Recorder(uint32_t levels, CThreadOps ops = CThreadOps())
      : CTaskSerializer<SipJson>(levels, kQueueBytes, 1, std::move(ops)) {}
  ~Recorder() override { TerminateSerialization(); }

  void OnTaskExecution(SipJson& msg, int32_t level) override {
    if (hook) hook(msg, level);
    std::lock_guard<std::mutex> guard(mutex_);
    ran_.emplace_back(msg.GetOpcode(0), level);
  }
  void OnQueueFull(SipJson& msg, int32_t level) override {
    std::lock_guard<std::mutex> guard(mutex_);
    full_.emplace_back(msg.GetOpcode(0), level);
  }
  void OnQueueEmpty(int32_t level) override {
    std::lock_guard<std::mutex> guard(mutex_);
    empty_.push_back(level);
  }

  using Runs = std::vector<std::pair<uint32_t, int32_t>>;
  Runs Ran() {
    std::lock_guard<std::mutex> guard(mutex_);
    return ran_;
  }
  Runs Full() {
    std::lock_guard<std::mutex> guard(mutex_);
    return full_;
  }
  std::vector<int32_t> Empty() {
    std::lock_guard<std::mutex> guard(mutex_);
    return empty_;
  }

  std::function<void(SipJson&, int32_t)> hook;

 private:
  std::mutex mutex_;
  Runs ran_;
  Runs full_;
  std::vector<int32_t> empty_;
};

// An event owned by the test.
struct Event : CEvent {
  Event() { Create(false, true, nullptr); }
  ~Event() { Release(); }
};

// Starts the worker and keeps it busy in a task at level 0 until `gate` is set, so
// that tasks queue up behind it.
constexpr uint32_t kBlockerId = 100;
struct BlockedWorker {
  Event running, gate;
  explicit BlockedWorker(Recorder& serializer) {
    serializer.hook = [this](SipJson& msg, int32_t) {
      if (msg.GetOpcode(0) != kBlockerId) return;
      running.Set();
      gate.Wait(kWaitMs, false);
    };
    serializer.StartSerialization();
    EXPECT_TRUE(serializer.InsertTask(Task(kBlockerId), 0, nullptr));
    EXPECT_EQ(running.Wait(kWaitMs, false), EVENT_WAIT_SIGNAL);
  }
};

class TaskSerializerTest : public TracedTest {};

TEST(TaskQueueTest, HoldsNineteenReferencesInOneHundredSixtyBytes) {
  CTaskQueue queue(160);
  for (uint64_t i = 0; i < 19; ++i) EXPECT_TRUE(queue.Push(i)) << i;
  EXPECT_FALSE(queue.HasRoom());
  EXPECT_FALSE(queue.Push(19));
  uint64_t ref = 0;
  for (uint64_t i = 0; i < 19; ++i) {
    ASSERT_TRUE(queue.Pop(ref));
    EXPECT_EQ(ref, i);
  }
  EXPECT_FALSE(queue.Pop(ref));
}

TEST(TaskQueueTest, WrapsByteWiseAtAnyCapacity) {
  CTaskQueue queue(21);  // 2 references fit; positions drift across the wrap
  uint64_t next = 0x0102030405060708ull, expected = next, ref = 0;
  for (int round = 0; round < 25; ++round) {
    ASSERT_TRUE(queue.Push(next++));
    ASSERT_TRUE(queue.Push(next++));
    ASSERT_FALSE(queue.Push(next));
    for (int i = 0; i < 2; ++i) {
      ASSERT_TRUE(queue.Pop(ref));
      ASSERT_EQ(ref, expected++) << "round " << round;
    }
    EXPECT_FALSE(queue.HasTask());
  }
  queue.Push(1);
  queue.Clear();
  EXPECT_FALSE(queue.Pop(ref));
}

TEST_F(TaskSerializerTest, TwentiethTaskRefusedAsFull_QueuedOnesRunInOrder) {
  Recorder serializer(1);
  BlockedWorker blocked(serializer);
  Event done;
  for (uint32_t id = 1; id <= 18; ++id) EXPECT_TRUE(serializer.InsertTask(Task(id), 0, nullptr));
  EXPECT_TRUE(serializer.InsertTask(Task(19), 0, &done));
  EXPECT_FALSE(serializer.InsertTask(Task(20), 0, nullptr));
  EXPECT_TRUE(Sink().HasLine("\nCTaskSerializer     : ## ERROR! Task queue for priority 0 is full"));
  EXPECT_EQ(serializer.Full(), (Recorder::Runs{{20, 0}}));

  blocked.gate.Set();
  ASSERT_EQ(done.Wait(kWaitMs, false), EVENT_WAIT_SIGNAL);
  Recorder::Runs ran = serializer.Ran();
  ASSERT_EQ(ran.size(), 20u);
  EXPECT_EQ(ran[0].first, kBlockerId);
  for (uint32_t i = 1; i < 20; ++i) EXPECT_EQ(ran[i].first, i);
  EXPECT_TRUE(runtime_test::WaitUntil([&] { return !serializer.Empty().empty(); }));
  EXPECT_EQ(serializer.Empty(), std::vector<int32_t>{0});
}

TEST_F(TaskSerializerTest, HigherLevelRunsFirst_FifoWithinALevel) {
  Recorder serializer(2);
  BlockedWorker blocked(serializer);
  Event done;
  ASSERT_TRUE(serializer.InsertTask(Task(1), 0, nullptr));
  ASSERT_TRUE(serializer.InsertTask(Task(2), 0, &done));
  ASSERT_TRUE(serializer.InsertTask(Task(3), 1, nullptr));
  ASSERT_TRUE(serializer.InsertTask(Task(4), 1, nullptr));
  blocked.gate.Set();
  ASSERT_EQ(done.Wait(kWaitMs, false), EVENT_WAIT_SIGNAL);
  EXPECT_EQ(serializer.Ran(), (Recorder::Runs{{kBlockerId, 0}, {3, 1}, {4, 1}, {1, 0}, {2, 0}}));
}

TEST_F(TaskSerializerTest, LevelOutsideTheTable_IsIgnored) {
  Recorder serializer(1);
  EXPECT_FALSE(serializer.InsertTask(Task(1), 1, nullptr));
  EXPECT_FALSE(serializer.InsertTask(Task(1), -1, nullptr));
  EXPECT_TRUE(Sink().HasLine(
      "\nCTaskSerializer     : Manager locked for Tasks at level 1. Task ignored!"));
  EXPECT_TRUE(Sink().HasLine(
      "\nCTaskSerializer     : Manager locked for Tasks at level -1. Task ignored!"));
}

TEST_F(TaskSerializerTest, ThrowingTask_StillSetsItsEvent_AndWorkerGoesOn) {
  Recorder serializer(1);
  serializer.hook = [](SipJson& msg, int32_t) {
    if (msg.GetOpcode(0) == 1) throw std::runtime_error("task failed");
  };
  Event first, second;
  serializer.StartSerialization();
  ASSERT_TRUE(serializer.InsertTask(Task(1), 0, &first));
  ASSERT_TRUE(serializer.InsertTask(Task(2), 0, &second));
  EXPECT_EQ(first.Wait(kWaitMs, false), EVENT_WAIT_SIGNAL);
  EXPECT_EQ(second.Wait(kWaitMs, false), EVENT_WAIT_SIGNAL);
  EXPECT_EQ(Sink().Count("\n\nCTaskSerializer     : ## EXCEPTION in OnTaskExecution()! ##"), 1u);
  EXPECT_EQ(serializer.Ran(), (Recorder::Runs{{2, 0}}));
}

TEST_F(TaskSerializerTest, TaskMayQueueAnotherTask) {
  Recorder serializer(1);
  Event inner;
  bool accepted = false;
  serializer.hook = [&](SipJson& msg, int32_t) {
    if (msg.GetOpcode(0) == 1) accepted = serializer.InsertTask(Task(2), 0, &inner);
  };
  serializer.StartSerialization();
  ASSERT_TRUE(serializer.InsertTask(Task(1), 0, nullptr));
  ASSERT_EQ(inner.Wait(kWaitMs, false), EVENT_WAIT_SIGNAL);
  EXPECT_TRUE(accepted);
  EXPECT_EQ(serializer.Ran(), (Recorder::Runs{{1, 0}, {2, 0}}));
}

TEST_F(TaskSerializerTest, Terminate_FinishesCurrentTask_DropsQueuedOnes_RefusesNewOnes) {
  Recorder serializer(1);
  Event running, gate, current, queued;
  serializer.hook = [&](SipJson& msg, int32_t) {
    if (msg.GetOpcode(0) != 1) return;
    running.Set();
    gate.Wait(kWaitMs, false);
  };
  serializer.StartSerialization();
  ASSERT_TRUE(serializer.InsertTask(Task(1), 0, &current));
  ASSERT_EQ(running.Wait(kWaitMs, false), EVENT_WAIT_SIGNAL);
  ASSERT_TRUE(serializer.InsertTask(Task(2), 0, &queued));

  // The task in progress may end only after the queue was emptied.
  std::thread opener([&] {
    WaitForTrace("\nCTaskSerializer     : All pending tasks removed from queues!");
    gate.Set();
  });
  EXPECT_TRUE(serializer.TerminateSerialization());
  opener.join();

  EXPECT_TRUE(current.Check());
  EXPECT_FALSE(queued.Check());  // dropped: never run, never set
  EXPECT_EQ(serializer.Ran(), (Recorder::Runs{{1, 0}}));
  EXPECT_TRUE(Sink().Contains("\nCTaskSerializer     : EXIT THREAD TaskHandler()!"));
  EXPECT_TRUE(Sink().Contains("THREAD_RETURN: ## INFO: Thread = 0x"));

  Sink().Clear();
  EXPECT_FALSE(serializer.InsertTask(Task(3), 0, nullptr));
  EXPECT_TRUE(Sink().HasLine(
      "\nCTaskSerializer     : Manager locked for Tasks at level 0. Task ignored!"));

  // A new worker starts, but the levels stay closed.
  serializer.StartSerialization();
  EXPECT_TRUE(WaitForTrace("\nCTaskSerializer     : START THREAD TaskHandler()!"));
  EXPECT_FALSE(serializer.InsertTask(Task(4), 0, nullptr));
}

TEST_F(TaskSerializerTest, StartWhileRunning_ChangesNothing) {
  Recorder serializer(1);
  serializer.StartSerialization();
  serializer.StartSerialization();
  EXPECT_EQ(Sink().Count("\nCTaskSerializer     : StartSerialization!"), 2u);
  EXPECT_EQ(Sink().Count("CThread::SetThreadName:"), 1u);
  EXPECT_EQ(Sink().Count("\nCThread::Start: Start a thread"), 1u);
  EXPECT_TRUE(Sink().HasLine(
      "CThread::SetThreadName: ThreadId = 0x00000000, DebugName = , Qualifier = (_TaskHandler)\n"));
}

TEST_F(TaskSerializerTest, RealTimePriorityRefused_FallsBackToDefaultPriorityWorker) {
  CThreadOps ops;
  int rrRefusals = 0;
  ops.create = [&](pthread_t* id, const pthread_attr_t* attr, void* (*fn)(void*), void* arg) {
    int policy = SCHED_OTHER;
    pthread_attr_getschedpolicy(attr, &policy);
    if (policy == SCHED_RR) {
      ++rrRefusals;
      return EPERM;  // what an unprivileged process gets for SCHED_RR
    }
    return pthread_create(id, attr, fn, arg);
  };
  Recorder serializer(1, ops);
  serializer.StartSerialization();
  EXPECT_EQ(rrRefusals, 1);
  EXPECT_TRUE(Sink().HasLine("\npthread_create failed: 1"));
  EXPECT_TRUE(Sink().Contains("retrying with default priority"));
  EXPECT_TRUE(Sink().HasLine("\nThreadPrio=0"));

  Event done;
  ASSERT_TRUE(serializer.InsertTask(Task(7), 0, &done));
  EXPECT_EQ(done.Wait(kWaitMs, false), EVENT_WAIT_SIGNAL);
  EXPECT_EQ(serializer.Ran(), (Recorder::Runs{{7, 0}}));
}

TEST_F(TaskSerializerTest, NeverStarted_TerminateIsANoOp_DestructorFreesQueuedTasks) {
  Event never;
  {
    Recorder serializer(1);
    ASSERT_TRUE(serializer.InsertTask(Task(1), 0, &never));
    EXPECT_TRUE(serializer.TerminateSerialization());
    EXPECT_TRUE(Sink().HasLine("\nCTaskSerializer     :   terminated"));
    EXPECT_TRUE(serializer.InsertTask(Task(2), 0, nullptr));  // still accepting
  }
  EXPECT_TRUE(Sink().HasLine("\n\nCTaskSerializer     : Class destroyed!"));
  EXPECT_FALSE(never.Check());
}

}  // namespace
