#include "runtime/Thread.h"

#include <utility>

#include "trace/DebugClient.h"

namespace em_oidmap {

namespace {
// Thread ids are traced as their low 32 bits.
unsigned ShortId(pthread_t id) { return static_cast<unsigned>(id); }
}  // namespace

CThread::CThread(bool killAliveThread, CThreadOps ops)
    : killAliveThread_(killAliveThread ? 1 : 0), ops_(std::move(ops)) {}

bool CThread::PrepareAttributes(pthread_attr_t* attr, uint32_t priority, uint8_t waitable) {
  int rc = ops_.attrInit(attr);
  if (rc != 0) {
    EM_TRACE(2, "\npthread_attr_init failed: %d", rc);
    return false;
  }
  EM_TRACE(4, "\npthread_attr_init: %d", 0);

  if (waitable == 0) {
    rc = ops_.attrSetDetachState(attr, PTHREAD_CREATE_DETACHED);
    if (rc != 0) {
      EM_TRACE(2, "\npthread_attr_setdetachstate failed: %d", rc);
      return false;
    }
  }

  EM_TRACE(2, "\nThreadPrio=%d", static_cast<int>(priority));
  if (priority == 0) return true;
  rc = ops_.attrSetSchedPolicy(attr, SCHED_RR);
  if (rc != 0) {
    EM_TRACE(2, "\npthread_attr_setschedpolicy failed: %d", rc);
    return false;
  }
  sched_param param{};
  rc = ops_.attrGetSchedParam(attr, &param);
  if (rc != 0) {
    EM_TRACE(2, "\npthread_attr_getschedparam failed: %d", rc);
    return false;
  }
  param.sched_priority = static_cast<int>(priority);
  rc = ops_.attrSetSchedParam(attr, &param);
  if (rc != 0) {
    EM_TRACE(2, "\npthread_attr_setschedparam failed: error=%d priority=%d", rc,
             static_cast<int>(priority));
    return false;
  }
  return true;
}

bool CThread::Start(StartRoutine routine, void* arg, uint32_t priority, uint8_t suspend,
                    uint32_t stackSize, uintptr_t /*reserved*/, uint8_t waitable) {
  EM_TRACE(5,
           "\nCThread::Start: Start a thread, Prio=%d, Suspend=%d, StackSize=0x%08x, "
           "Waitable=%d, KillAliveThread=%d",
           static_cast<int>(priority), suspend, stackSize, waitable, killAliveThread_);
  if (killAliveThread_) Kill();
  waitable_ = waitable;

  // The attribute object is not destroyed after use; with glibc that holds nothing.
  pthread_attr_t attr;
  if (!PrepareAttributes(&attr, priority, waitable)) return false;

  // Created into a local: the id is undefined after a failed creation.
  pthread_t created = 0;
  const int rc = ops_.create(&created, &attr, routine, arg);
  if (rc != 0) {
    thread_ = 0;
    EM_TRACE(2, "\npthread_create failed: %d", rc);
    return false;
  }
  thread_ = created;
  EM_TRACE(2, "\nCThread::Start: thread=0x%08X created, Prio=%d, Waitable=%d, StackSize=0x%x",
           ShortId(thread_), static_cast<int>(priority), waitable, stackSize);
  sched_yield();  // give the new thread a chance to run
  return true;
}

bool CThread::WaitForTermination(uint32_t timeoutMs) {
  if (thread_ == 0) {
    EM_TRACE(1, "\nCThread::WaitForTermination: Thread = 0x0%08X doesn't exist !", 0u);
    return true;
  }
  if (timeoutMs < 0xFFFFFFFFu) {
    EM_TRACE(1,
             "\nCThread::WaitForTermination: WARNING: can't wait for Thread = 0x%08X "
             "termination with timeout",
             ShortId(thread_));
  }
  if (waitable_ == 0) {
    EM_TRACE(1, "\nCThread::WaitForTermination: WARNING: Can't wait for detached thread 0x%08X",
             ShortId(thread_));
    return false;
  }
  void* status = nullptr;
  int rc = ops_.join(thread_, &status);
  if (rc != 0) {
    EM_TRACE(1,
             "\nCThread::WaitForTermination: ERROR ! ThreadJoin failed, Thread = 0x%08X, "
             "Err = 0x%08x",
             ShortId(thread_), static_cast<unsigned>(rc));
    return false;
  }
  EM_TRACE(1, "\nCThread::WaitForTermination: a joinable Thread = 0x%08X has terminated, pstat=%p",
           ShortId(thread_), status);
  thread_ = 0;
  return true;
}

bool CThread::Kill() {
  EM_TRACE(1, "\nCThread::Kill: Try to kill the Thread = 0x%08X", ShortId(thread_));
  if (thread_ == 0) {
    EM_TRACE(1, "\nCThread::Kill: Thread = 0x0%08X doesn't exist !", 0u);
    return false;
  }
  if (waitable_ != 0) {
    EM_TRACE(1, "\nCThread::Kill: Try to join a joinable Thread = 0x%08X", ShortId(thread_));
    void* status = nullptr;
    int rc = ops_.join(thread_, &status);
    if (rc != 0) {
      EM_TRACE(1, "\nCThread::Kill: ERROR ! ThreadJoin failed, Thread = 0x%08X, Err = 0x%08x",
               ShortId(thread_), static_cast<unsigned>(rc));
      return false;
    }
    EM_TRACE(1, "\nCThread::Kill: a joinable Thread = 0x%08X has terminated, pstat=%p",
             ShortId(thread_), status);
    thread_ = 0;
    return true;
  }

  EM_TRACE(1, "\nCThread::Kill: Try to kill a non-joinable Thread = 0x0%08X", ShortId(thread_));
  pthread_t victim = thread_;
  thread_ = 0;
  int policy = 0;
  sched_param param{};
  if (ops_.getSchedParam(victim, &policy, &param) != 0) return true;  // already gone
  EM_TRACE(2, "\nCThread::Kill: Killing a non-joinable thread 0x%08X", ShortId(victim));
  int rc = ops_.cancel(victim);
  if (rc != 0) {
    EM_TRACE(2, "\nCThread::Kill: unable to cancel a non-joinable thread 0x%08X (err = 0x%08x)",
             ShortId(victim), static_cast<unsigned>(rc));
    return false;
  }
  EM_TRACE(2, "\nCThread::Kill: a non-joinable thread 0x%08X cancel invoked", ShortId(victim));
  return true;
}

void CThread::SetThreadName(const char* debugName, const char* qualifier) {
  EM_TRACE(1, "CThread::SetThreadName: ThreadId = 0x%08X, DebugName = %s, Qualifier = (%s)\n",
           ShortId(thread_), debugName != nullptr ? debugName : "",
           qualifier != nullptr ? qualifier : "");
}

bool CThread::IsAlive() const {
  if (thread_ == 0) return false;
  int policy = 0;
  sched_param param{};
  return ops_.getSchedParam(thread_, &policy, &param) == 0;
}

void CThread::TraceThreadReturn() {
  EM_TRACE(1, "THREAD_RETURN: ## INFO: Thread = 0x%08X exited, Return = 0x%08x##\n",
           ShortId(pthread_self()), 0u);
}

}  // namespace em_oidmap
