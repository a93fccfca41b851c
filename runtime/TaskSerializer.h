// CTaskSerializer<T>: runs work that arrives on any thread as tasks, strictly one after
// another, on one worker thread ("_TaskHandler"). A task is a copy of a message T queued
// at a priority level; the worker takes the oldest task of the highest non-empty level
// and hands it to OnTaskExecution. A task may carry an external event that the worker
// sets when the task is done (also when it threw).
//
// Lifecycle: constructed (levels accepting, no worker) -> StartSerialization (worker
// waits for tasks) -> TerminateSerialization (levels stop accepting for good, queued tasks
// are dropped unrun with their events never set, the worker finishes its current task
// and is joined) -> StartSerialization may run a worker again, but inserts stay refused.
//
// StartSerialization resets the wake event: tasks queued before it wait in their queue
// until the next accepted insertion wakes the worker.
//
// Derived classes: the worker calls the virtual functions below, so a derived class must
// have stopped the worker (TerminateSerialization, e.g. from its stop operation) before
// its own members go away. The destructor terminates as well.
//
// Thread safety: InsertTask from any thread, including from inside OnTaskExecution (the
// queue lock is not held while a task runs). StartSerialization and
// TerminateSerialization may be called from any thread except the worker: a host may
// stop the module on one thread while start runs on another, so they take turns on a
// control lock (the worker object is not safe to start and join at once).
//
// Locks: control_ (start and terminate), then queueLock_ (the queues; held around
// OnQueueFull and OnQueueEmpty, never while a task runs), then leftMutex_ (the worker's
// last word). The accepting flags and the terminate flag are atomics, read without a lock.
#ifndef EM_RUNTIME_TASKSERIALIZER_H
#define EM_RUNTIME_TASKSERIALIZER_H

#include <cxxabi.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/Mutex.h"
#include "runtime/Event.h"
#include "runtime/RecursiveLock.h"
#include "runtime/TaskQueue.h"
#include "runtime/Thread.h"
#include "trace/DebugClient.h"

namespace em_oidmap {

// Real-time priority asked for the worker (SCHED_RR).
constexpr uint32_t kTaskHandlerPriority = 83;
// Pause after starting the worker so it can run, and the longest wait after waking it to
// terminate before joining it.
constexpr uint32_t kTaskSettleMs = 100;
// Time-out handed to the worker's join when terminating (traced, not honoured).
constexpr uint32_t kTaskJoinTimeoutMs = 2000;

template <typename T>
class CTaskSerializer {
 public:
  // levels: number of priority levels (0 = lowest); queueBytes: capacity of each level's
  // queue in bytes (8 per task, one slot always free). settleMs: the settle pause;
  // threadOps: the POSIX calls the worker's CThread makes.
  CTaskSerializer(uint32_t levels, uint32_t queueBytes, uint32_t settleMs = kTaskSettleMs,
                  CThreadOps threadOps = CThreadOps());
  virtual ~CTaskSerializer();
  CTaskSerializer(const CTaskSerializer&) = delete;
  CTaskSerializer& operator=(const CTaskSerializer&) = delete;

  // Runs one task on the worker thread, without the queue lock.
  virtual void OnTaskExecution(T& msg, int32_t level) = 0;
  // Called on the worker, under the queue lock, when a level's queue ran empty.
  virtual void OnQueueEmpty(int32_t /*level*/) {}
  // Called by InsertTask, under the queue lock, with the refused copy.
  virtual void OnQueueFull(T& /*msg*/, int32_t /*level*/) {}
  // Called on the worker before and after its loop.
  virtual void OnThreadStart() {}
  virtual void OnThreadExit() {}

  // Queues a copy of `msg` at `level`. `event` (may be null; must outlive the task) is
  // set when the task is done. False when the level does not exist or does not accept
  // tasks (after a terminate), or its queue is full.
  bool InsertTask(const T& msg, int32_t level, CEvent* event);
  // Starts the worker unless one is running. When the real-time worker cannot be created
  // (no privilege for SCHED_RR), starts it with the default policy instead.
  void StartSerialization();
  // Stops accepting, drops queued tasks, lets the worker finish its current task and
  // joins it. Always true.
  bool TerminateSerialization();

  // Debug name traced when the worker starts (empty when not configured).
  void SetWorkerDebugName(std::string name) EXCLUDES(control_) {
    CMutexLock control(control_);
    debugName_ = std::move(name);
  }

 private:
  struct TaskRecord {
    CEvent* event;
    T message;
  };
  struct LevelEntry {
    std::atomic<uint8_t> accepting{0};  // cleared without the lock on terminate
    uint8_t runnable = 1;
  };

  static void* ThreadMain(void* arg);
  void TaskHandler();
  void RunTask(TaskRecord* record, int32_t level);
  static uint64_t RefOf(TaskRecord* record) { return reinterpret_cast<uintptr_t>(record); }
  // The queues hold task records as 8-byte references (the queue's layout is prescribed).
  static TaskRecord* RecordOf(uint64_t ref) {
    const auto address = static_cast<uintptr_t>(ref);
    return reinterpret_cast<TaskRecord*>(address);  // NOLINT(performance-no-int-to-ptr)
  }
  static unsigned ShortRef(const void* record) {
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(record));
  }

  std::unique_ptr<LevelEntry[]> levels_;
  CMutex control_ ACQUIRED_BEFORE(queueLock_);  // held by Start- and TerminateSerialization
  CRecursiveLock queueLock_;
  // One queue per level; empty once the destructor has freed them.
  std::vector<std::unique_ptr<CTaskQueue>> queues_ GUARDED_BY(queueLock_);
  CEvent wake_;
  CThread worker_;
  [[maybe_unused]] uint64_t reserved_ = 0;  // not used by any operation
  uint32_t stackSize_ = 0;
  uint32_t levelCount_;
  std::atomic<bool> terminate_{false};  // read by the worker without the lock
  // Set by the worker after its last trace line, so that terminating does not sleep the
  // whole settle pause for a worker that has already left.
  CMutex leftMutex_;
  std::condition_variable leftCv_;
  bool workerLeft_ GUARDED_BY(leftMutex_) = false;

  uint32_t settleMs_;
  std::string debugName_ GUARDED_BY(control_);
  // Tasks dropped by TerminateSerialization. They are never run and their events are
  // never set (waiters must use a time-out); they are only kept here so that the
  // destructor can free them instead of leaking them.
  std::vector<std::unique_ptr<TaskRecord>> dropped_ GUARDED_BY(control_);
};

template <typename T>
CTaskSerializer<T>::CTaskSerializer(uint32_t levels, uint32_t queueBytes, uint32_t settleMs,
                                    CThreadOps threadOps)
    : worker_(true, std::move(threadOps)), levelCount_(levels), settleMs_(settleMs) {
  wake_.Create(false, true, nullptr);
  levels_.reset(new LevelEntry[levels]);
  {
    CRecursiveLockGuard guard(queueLock_);
    for (uint32_t i = 0; i < levels; ++i) {
      queues_.push_back(std::make_unique<CTaskQueue>(queueBytes));
      levels_[i].runnable = 1;
    }
  }
  EM_TRACE(4, "\nCTaskSerializer     : Enable all Tasks");
  for (uint32_t i = 0; i < levels; ++i) levels_[i].accepting.store(1, std::memory_order_relaxed);
}

template <typename T>
CTaskSerializer<T>::~CTaskSerializer() {
  TerminateSerialization();
  {
    CRecursiveLockGuard guard(queueLock_);
    for (const std::unique_ptr<CTaskQueue>& queue : queues_) {
      uint64_t ref = 0;
      while (queue->Pop(ref)) delete RecordOf(ref);
    }
    queues_.clear();
    levels_.reset();
  }
  EM_TRACE(4, "\n\nCTaskSerializer     : Class destroyed!");
  worker_.Kill();  // KillAliveThread is always set for the worker
  wake_.Release();
}

template <typename T>
bool CTaskSerializer<T>::InsertTask(const T& msg, int32_t level, CEvent* event) {
  EM_TRACE(4, "\nCTaskSerializer     : Task at level %d raised", level);
  if (!levels_ || level < 0 || static_cast<uint32_t>(level) >= levelCount_ ||
      levels_[level].accepting.load(std::memory_order_relaxed) == 0) {
    EM_TRACE(4, "\nCTaskSerializer     : Manager locked for Tasks at level %d. Task ignored!",
             level);
    return false;
  }
  // Copied before the lock: the only allocation per task.
  std::unique_ptr<TaskRecord> record(new TaskRecord{event, msg});

  CRecursiveLockGuard guard(queueLock_);
  CTaskQueue& queue = *queues_[static_cast<size_t>(level)];
  if (queue.HasRoom()) {
    queue.Push(RefOf(record.release()));  // owned by the queue, then by the worker
    EM_TRACE(5, "\nCTaskSerializer     : Task with priority %d inserted into task queue!", level);
    wake_.Set();  // under the lock: see the reset in TaskHandler
    return true;
  }
  EM_TRACE(1, "\nCTaskSerializer     : ## ERROR! Task queue for priority %d is full", level);
  OnQueueFull(record->message, level);
  record.reset();
  return false;
}

template <typename T>
void CTaskSerializer<T>::StartSerialization() {
  CMutexLock control(control_);
  EM_TRACE(4, "\nCTaskSerializer     : StartSerialization!");
  if (worker_.HoldsThread() && worker_.IsAlive()) return;

  wake_.Reset();
  terminate_.store(false, std::memory_order_relaxed);
  {
    CMutexLock left(leftMutex_);
    workerLeft_ = false;
  }
  worker_.SetThreadName(debugName_.c_str(), "_TaskHandler");
  if (!worker_.Start(&CTaskSerializer::ThreadMain, this, kTaskHandlerPriority, 0, stackSize_, 0,
                     1)) {
    // SCHED_RR needs CAP_SYS_NICE or an RLIMIT_RTPRIO allowance; the tasks must run anyway.
    EM_TRACE(1,
             "\nCTaskSerializer     : WARNING: real-time TaskHandler thread not created, "
             "retrying with default priority");
    worker_.Start(&CTaskSerializer::ThreadMain, this, 0, 0, stackSize_, 0, 1);
  }
  usleep(static_cast<useconds_t>(settleMs_) * 1000);
}

template <typename T>
bool CTaskSerializer<T>::TerminateSerialization() {
  CMutexLock control(control_);
  EM_TRACE(4, "\nCTaskSerializer     : TerminateSerialization!");
  if (!worker_.HoldsThread()) {
    EM_TRACE(5, "\nCTaskSerializer     :   terminated");
    return true;
  }
  if (worker_.IsAlive()) {
    EM_TRACE(4, "\nCTaskSerializer     : Disable all Tasks");
    for (uint32_t i = 0; i < levelCount_; ++i) {
      levels_[i].accepting.store(0, std::memory_order_relaxed);
    }
    {
      CRecursiveLockGuard guard(queueLock_);
      for (const std::unique_ptr<CTaskQueue>& queue : queues_) {
        uint64_t ref = 0;
        while (queue->Pop(ref)) dropped_.emplace_back(RecordOf(ref));
        queue->Clear();
      }
      EM_TRACE(4, "\nCTaskSerializer     : All pending tasks removed from queues!");
    }
    terminate_.store(true, std::memory_order_relaxed);
    wake_.Set();
    {
      // The settle pause ends early once the worker has left: an idle worker takes
      // microseconds, and the worker's lines still all come before the join's.
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(settleMs_);
      CMutexUniqueLock left(leftMutex_);
      while (!workerLeft_ && left.WaitUntil(leftCv_, deadline)) {
      }
    }
    worker_.WaitForTermination(kTaskJoinTimeoutMs);
    worker_.Kill();
  }
  EM_TRACE(5, "\nCTaskSerializer     :   terminated");
  return true;
}

template <typename T>
void* CTaskSerializer<T>::ThreadMain(void* arg) {
  auto* self = static_cast<CTaskSerializer*>(arg);
  self->TaskHandler();
  CThread::TraceThreadReturn();
  // The serializer outlives this: the terminating thread joins after it wakes.
  CMutexLock left(self->leftMutex_);
  self->workerLeft_ = true;
  self->leftCv_.notify_all();
  return nullptr;
}

template <typename T>
void CTaskSerializer<T>::TaskHandler() {
  EM_TRACE(4, "\nCTaskSerializer     : START THREAD TaskHandler()!");
  OnThreadStart();
  for (;;) {
    EM_TRACE(4, "\nCTaskSerializer     : Waiting on task queue for next task ...");
    wake_.Wait(EVENT_WAIT_FOREVER, true);
    EM_TRACE(4, "\nCTaskSerializer     : Wakeup from (any) task queue!");
    if (terminate_.load(std::memory_order_relaxed)) break;
    EM_TRACE(4, "\nCTaskSerializer     : Checking Task queue for Task records ..");

    TaskRecord* record = nullptr;
    int32_t level = 0;
    {
      CRecursiveLockGuard guard(queueLock_);
      for (int32_t l = static_cast<int32_t>(levelCount_) - 1; l >= 0; --l) {
        uint64_t ref = 0;
        if (levels_[l].runnable && queues_[static_cast<size_t>(l)]->Pop(ref)) {
          record = RecordOf(ref);
          level = l;
          break;
        }
      }
      // Reset under the lock: InsertTask sets the event under the same lock, so a task
      // queued meanwhile cannot be missed.
      if (record == nullptr) wake_.Reset();
    }
    if (record == nullptr) {
      if (terminate_.load(std::memory_order_relaxed)) break;
      continue;
    }

    RunTask(record, level);
    {
      CRecursiveLockGuard guard(queueLock_);
      if (!queues_[static_cast<size_t>(level)]->HasTask()) OnQueueEmpty(level);
    }
    // The wake event stays set, so the next wait returns at once until the queues are empty.
    if (terminate_.load(std::memory_order_relaxed)) break;
  }
  OnThreadExit();
  EM_TRACE(4, "\nCTaskSerializer     : EXIT THREAD TaskHandler()!");
}

template <typename T>
void CTaskSerializer<T>::RunTask(TaskRecord* record, int32_t level) {
  std::unique_ptr<TaskRecord> owned(record);
  EM_TRACE(5, "\nCTaskSerializer     : Process Task (Record 0x%X) at level %d", ShortRef(record),
           level);
  try {
    OnTaskExecution(record->message, level);
    EM_TRACE(5, "\nCTaskSerializer     : Task (Record 0x%X) at level %d completed",
             ShortRef(record), level);
  } catch (abi::__forced_unwind&) {
    throw;  // thread cancellation must go on unwinding
  } catch (...) {
    EM_TRACE(1, "\n\nCTaskSerializer     : ## EXCEPTION in OnTaskExecution()! ##");
  }

  CEvent* event = record->event;
  if (event != nullptr) {
    try {
      if (event->Set()) {
        EM_TRACE(5, "\nCTaskSerializer     : External event object 0x%X set!", ShortRef(event));
      } else {
        EM_TRACE(1, "\nCTaskSerializer     : ERROR setting external event object 0x%X!",
                 ShortRef(event));
      }
    } catch (abi::__forced_unwind&) {
      throw;
    } catch (...) {
      EM_TRACE(1, "\n\nCTaskSerializer     : ## EXCEPTION setting external event object 0x%X!",
               ShortRef(event));
    }
  }
}

}  // namespace em_oidmap

#endif  // EM_RUNTIME_TASKSERIALIZER_H
