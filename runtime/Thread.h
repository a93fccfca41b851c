// CThread: owns one POSIX thread. Starts it with a priority (SCHED_RR when not 0) and a
// joinable or detached state, waits for its end, and stops it by joining (joinable) or
// cancelling (detached). Every step is traced; no call throws.
//
// The POSIX calls that can fail are taken from a CThreadOps, so tests can make them fail
// (e.g. pthread_create refusing SCHED_RR with EPERM without CAP_SYS_NICE).
//
// Thread safety: one owner thread drives a CThread; its operations take no lock.
#ifndef EM_RUNTIME_THREAD_H
#define EM_RUNTIME_THREAD_H

#include <pthread.h>
#include <sched.h>

#include <cstdint>
#include <functional>

namespace em_oidmap {

// The POSIX calls CThread makes. Defaults are the real ones.
struct CThreadOps {
  std::function<int(pthread_attr_t*)> attrInit = pthread_attr_init;
  std::function<int(pthread_attr_t*, int)> attrSetDetachState = pthread_attr_setdetachstate;
  std::function<int(pthread_attr_t*, int)> attrSetSchedPolicy = pthread_attr_setschedpolicy;
  std::function<int(const pthread_attr_t*, sched_param*)> attrGetSchedParam =
      pthread_attr_getschedparam;
  std::function<int(pthread_attr_t*, const sched_param*)> attrSetSchedParam =
      pthread_attr_setschedparam;
  std::function<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> create =
      pthread_create;
  std::function<int(pthread_t, void**)> join = pthread_join;
  std::function<int(pthread_t)> cancel = pthread_cancel;
  // Used as "does the thread still exist?".
  std::function<int(pthread_t, int*, sched_param*)> getSchedParam = pthread_getschedparam;
};

class CThread {
 public:
  using StartRoutine = void* (*)(void*);

  // killAliveThread: Start first stops a thread the object still holds.
  explicit CThread(bool killAliveThread = false, CThreadOps ops = CThreadOps());
  CThread(const CThread&) = delete;
  CThread& operator=(const CThread&) = delete;
  // Leaves a held thread alone (owners Kill or wait before).
  ~CThread() = default;

  // Creates a thread running routine(arg). Priority 0 keeps the default policy; any
  // other value asks for SCHED_RR at that priority (unchanged, no clamping) on the
  // attribute. The inherit-scheduler attribute is left at its default, so glibc gives the
  // thread its creator's scheduling instead. suspend and stackSize are only traced;
  // `reserved` is ignored. waitable: joinable (true) or detached (false).
  // Returns false, traced, when an attribute call or the creation fails.
  bool Start(StartRoutine routine, void* arg, uint32_t priority, uint8_t suspend,
             uint32_t stackSize, uintptr_t reserved, uint8_t waitable);
  // Joins the thread (a time-out below EVENT_WAIT_FOREVER is traced and not honoured).
  // True when no thread is held or the join succeeded (the object becomes idle); false
  // for a detached thread or a failed join.
  bool WaitForTermination(uint32_t timeoutMs);
  // Joinable: joins it (never cancels). Detached: cancels it if it still exists.
  // False when no thread is held or the join/cancel failed.
  bool Kill();
  // Only traces the held id, the debug name and the qualifier; the OS name is not set.
  void SetThreadName(const char* debugName, const char* qualifier);

  // True when a thread is held.
  bool HoldsThread() const { return thread_ != 0; }
  // True when a thread is held and its scheduling parameters can still be read.
  bool IsAlive() const;
  pthread_t ThreadId() const { return thread_; }
  bool IsWaitable() const { return waitable_ != 0; }

  // The trace a started routine writes just before it returns 0.
  static void TraceThreadReturn();

 private:
  // Initialises `attr` for Start: detached unless waitable, SCHED_RR at `priority` unless
  // it is 0. False, traced, when a call fails.
  bool PrepareAttributes(pthread_attr_t* attr, uint32_t priority, uint8_t waitable);

  pthread_t thread_ = 0;
  uint8_t killAliveThread_;
  uint8_t waitable_ = 0;
  CThreadOps ops_;
};

}  // namespace em_oidmap

#endif  // EM_RUNTIME_THREAD_H
