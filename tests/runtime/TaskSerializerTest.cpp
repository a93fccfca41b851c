#include "runtime/TaskSerializer.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/TestSupport.h"
#include "runtime/TaskQueue.h"
#include "sip/SipJson.h"

namespace em_oidmap {

namespace {

using hostsim::Sink;
using test_support::WaitForTrace;
using test_support::WaitUntil;
using Runs = std::vector<std::pair<uint32_t, int32_t>>;  // (task id, level)

constexpr uint32_t kWaitMs = 10000;
constexpr uint32_t kBlockerId = 100;

SipJson Task(uint32_t id) { return SipJson(id, 0, 0, 0); }

struct Event : CEvent {
  Event() { Create(false, true, nullptr); }
  ~Event() { Release(); }
};

// Records what it runs and what was refused; `hook` (set before the start) runs first.
class Recorder : public CTaskSerializer<SipJson> {
 public:
  explicit Recorder(uint32_t levels, CThreadOps ops = CThreadOps())
      : CTaskSerializer<SipJson>(levels, 160, 1, std::move(ops)) {}
  ~Recorder() override { TerminateSerialization(); }
  void OnTaskExecution(SipJson& msg, int32_t level) override {
    if (hook) hook(msg, level);
    Add(ran_, msg, level);
  }
  void OnQueueFull(SipJson& msg, int32_t level) override { Add(full_, msg, level); }
  Runs Ran() { return Copy(ran_); }
  Runs Full() { return Copy(full_); }
  std::function<void(SipJson&, int32_t)> hook;

 private:
  void Add(Runs& runs, SipJson& msg, int32_t level) {
    std::lock_guard<std::mutex> guard(mutex_);
    runs.emplace_back(msg.GetOpcode(0), level);
  }
  Runs Copy(const Runs& runs) {
    std::lock_guard<std::mutex> guard(mutex_);
    return runs;
  }
  std::mutex mutex_;
  Runs ran_, full_;
};

// Starts the worker and keeps it inside a level-0 task until `gate` is set, so that
// tasks queue up behind it.
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

class TaskSerializerTest : public test_support::TracedTest<> {};

TEST(TaskQueueTest, WrapsByteWiseAtAnyCapacity) {
  CTaskQueue queue(21);  // two references fit; positions drift across the wrap
  uint64_t next = 0x0102030405060708ull, expected = next, ref = 0;
  for (int round = 0; round < 25; ++round) {
    ASSERT_TRUE(queue.Push(next++) && queue.Push(next++));
    ASSERT_FALSE(queue.Push(next));
    for (int i = 0; i < 2; ++i) {
      ASSERT_TRUE(queue.Pop(ref));
      ASSERT_EQ(ref, expected++) << "round " << round;
    }
  }
  EXPECT_FALSE(queue.Pop(ref));
}

TEST_F(TaskSerializerTest, TwentiethTaskRefused_HigherLevelFirst_FifoWithinALevel) {
  Recorder serializer(2);
  BlockedWorker blocked(serializer);
  Event done;
  for (uint32_t id = 1; id <= 18; ++id) EXPECT_TRUE(serializer.InsertTask(Task(id), 0, nullptr));
  EXPECT_TRUE(serializer.InsertTask(Task(19), 0, &done));
  EXPECT_FALSE(serializer.InsertTask(Task(20), 0, nullptr));
  EXPECT_EQ(serializer.Full(), (Runs{{20, 0}}));
  EXPECT_TRUE(serializer.InsertTask(Task(31), 1, nullptr));  // a queue of its own
  EXPECT_TRUE(serializer.InsertTask(Task(32), 1, nullptr));
  EXPECT_FALSE(serializer.InsertTask(Task(40), 2, nullptr));
  EXPECT_FALSE(serializer.InsertTask(Task(40), -1, nullptr));

  blocked.gate.Set();
  ASSERT_EQ(done.Wait(kWaitMs, false), EVENT_WAIT_SIGNAL);
  Runs expected{{kBlockerId, 0}, {31, 1}, {32, 1}};
  for (uint32_t id = 1; id <= 19; ++id) expected.emplace_back(id, 0);
  EXPECT_EQ(serializer.Ran(), expected);
}

TEST_F(TaskSerializerTest, ThrowingTaskStillSetsItsEvent_TasksMayQueueTasks) {
  Recorder serializer(1);
  Event thrown, inner;
  bool accepted = false;
  serializer.hook = [&](SipJson& msg, int32_t) {
    if (msg.GetOpcode(0) == 1) throw std::runtime_error("task failed");
    if (msg.GetOpcode(0) == 2) accepted = serializer.InsertTask(Task(3), 0, &inner);
  };
  serializer.StartSerialization();
  serializer.InsertTask(Task(1), 0, &thrown);
  serializer.InsertTask(Task(2), 0, nullptr);
  EXPECT_EQ(thrown.Wait(kWaitMs, false), EVENT_WAIT_SIGNAL);
  EXPECT_EQ(inner.Wait(kWaitMs, false), EVENT_WAIT_SIGNAL);
  EXPECT_TRUE(accepted);
  EXPECT_EQ(serializer.Ran(), (Runs{{2, 0}, {3, 0}}));
}

TEST_F(TaskSerializerTest, Terminate_FinishesCurrentTask_DropsQueuedOnes_RefusesNewOnes) {
  Recorder serializer(1);
  BlockedWorker blocked(serializer);
  Event queued;
  ASSERT_TRUE(serializer.InsertTask(Task(2), 0, &queued));
  std::thread opener([&] {  // the running task may end only once the queue was emptied
    WaitForTrace("\nCTaskSerializer     : All pending tasks removed from queues!");
    blocked.gate.Set();
  });
  EXPECT_TRUE(serializer.TerminateSerialization());
  opener.join();
  EXPECT_EQ(serializer.Ran(), (Runs{{kBlockerId, 0}}));
  EXPECT_FALSE(queued.Check());  // dropped: never run, never set
  EXPECT_FALSE(serializer.InsertTask(Task(3), 0, nullptr));
  serializer.StartSerialization();  // a new worker, but the levels stay closed
  EXPECT_TRUE(WaitForTrace("\nCTaskSerializer     : START THREAD TaskHandler()!", 2));
  EXPECT_FALSE(serializer.InsertTask(Task(4), 0, nullptr));
}

TEST_F(TaskSerializerTest, RealTimeRefused_FallbackWorkerRuns_SecondStartChangesNothing) {
  CThreadOps ops;
  ops.create = [](pthread_t* id, const pthread_attr_t* attr, void* (*fn)(void*), void* arg) {
    int policy = SCHED_OTHER;
    pthread_attr_getschedpolicy(attr, &policy);
    // What an unprivileged process gets where SCHED_RR is applied.
    return policy == SCHED_RR ? EPERM : pthread_create(id, attr, fn, arg);
  };
  Recorder serializer(1, ops);
  serializer.StartSerialization();
  serializer.StartSerialization();
  EXPECT_EQ(Sink().Count("\npthread_create failed: 1"), 1u);
  EXPECT_TRUE(Sink().Contains("retrying with default priority"));
  EXPECT_EQ(Sink().Count("CThread::SetThreadName:"), 1u);

  Event done;
  ASSERT_TRUE(serializer.InsertTask(Task(7), 0, &done));
  EXPECT_EQ(done.Wait(kWaitMs, false), EVENT_WAIT_SIGNAL);
}

TEST_F(TaskSerializerTest, ConcurrentProducers_EveryAcceptedTaskRuns) {
  Recorder serializer(2);
  serializer.StartSerialization();
  std::atomic<size_t> accepted{0};
  std::vector<std::thread> producers;
  for (int p = 0; p < 4; ++p) {
    producers.emplace_back([&, p] {
      for (uint32_t i = 0; i < 50; ++i) {
        if (serializer.InsertTask(Task(i), (p + i) % 2, nullptr)) ++accepted;
        std::this_thread::yield();
      }
    });
  }
  for (auto& t : producers) t.join();
  EXPECT_GT(accepted.load(), 0u);
  EXPECT_TRUE(WaitUntil([&] { return serializer.Ran().size() == accepted.load(); }));
}

TEST_F(TaskSerializerTest, NeverStarted_DestructorFreesQueuedTasksUnrun) {
  Event never;
  {
    Recorder serializer(1);
    ASSERT_TRUE(serializer.InsertTask(Task(1), 0, &never));
    EXPECT_TRUE(serializer.TerminateSerialization());  // no worker: nothing to stop
    EXPECT_TRUE(serializer.InsertTask(Task(2), 0, nullptr));
  }  // frees both tasks without running them (a leak shows under the sanitizers)
  EXPECT_FALSE(never.Check());
}

}  // namespace

}  // namespace em_oidmap
