#include "runtime/Event.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "base/ThreadAnnotations.h"
#include "runtime/NamedEventTable.h"
#include "runtime/RecursiveLock.h"
#include "trace/DebugClient.h"

namespace em_oidmap {

// The POSIX mutex of an event, a capability. Its lock can fail (the result is traced by
// Wait), and the mutex is then not held although the analysis counts it as taken: every
// Unlock is conditional on the lock's result, held in an EventMutexHold.
class CAPABILITY("mutex") CEventMutex {
 public:
  int Init() { return pthread_mutex_init(&mutex_, nullptr); }
  void Destroy() { pthread_mutex_destroy(&mutex_); }
  int Lock() ACQUIRE() NO_THREAD_SAFETY_ANALYSIS { return pthread_mutex_lock(&mutex_); }
  void Unlock() RELEASE() NO_THREAD_SAFETY_ANALYSIS { pthread_mutex_unlock(&mutex_); }
  pthread_mutex_t* Native() { return &mutex_; }

 private:
  pthread_mutex_t mutex_{};
};

// The shared event. isSignaled and waiters change under `mutex`; they are atomics only
// because Check and ChangeAttributes read (and write) them without it.
struct CEventObject {
  pthread_cond_t cond{};
  CEventMutex mutex;
  uint32_t refCount GUARDED_BY(EventLock()) = 1;
  std::atomic<uint8_t> isManual{0};
  std::atomic<uint8_t> isSignaled{0};
  std::unique_ptr<char[]> name;  // private copy, or none
  std::atomic<uint32_t> waiters{0};
  pthread_condattr_t condAttr{};  // kept for the event's life

  // Waits on the condition until signalled or, with a deadline, until then; retried after
  // an interruption. Returns the wait's result.
  int WaitLocked(const timespec* deadline) REQUIRES(mutex) {
    int rc = 0;
    do {
      rc = deadline != nullptr ? pthread_cond_timedwait(&cond, mutex.Native(), deadline)
                               : pthread_cond_wait(&cond, mutex.Native());
    } while (rc == EINTR);
    return rc;
  }
};

namespace {

// Release of the last reference polls for waiters still inside Wait at this interval.
constexpr useconds_t kReleasePollUs = 1000000;
constexpr int64_t kNsPerSec = 1000000000;

uint8_t LoadSignaled(const CEventObject* ev) {
  return ev->isSignaled.load(std::memory_order_relaxed);
}
uint8_t LoadManual(const CEventObject* ev) { return ev->isManual.load(std::memory_order_relaxed); }
const char* NameOf(const CEventObject* ev) { return ev->name ? ev->name.get() : "anon"; }

// Holds an event's mutex for a scope, when it could be locked: Rc() is the lock's result.
// Leaving the scope (normally, or through a cancellation unwinding out of the condition
// wait, which takes the mutex again first) unlocks it.
class SCOPED_CAPABILITY EventMutexHold {
 public:
  explicit EventMutexHold(CEventObject* ev) ACQUIRE(ev->mutex)
      : mutex_(ev->mutex), rc_(mutex_.Lock()) {}
  ~EventMutexHold() RELEASE() NO_THREAD_SAFETY_ANALYSIS {
    if (rc_ == 0) mutex_.Unlock();
  }
  EventMutexHold(const EventMutexHold&) = delete;
  EventMutexHold& operator=(const EventMutexHold&) = delete;

  int Rc() const { return rc_; }
  bool Locked() const { return rc_ == 0; }

 private:
  CEventMutex& mutex_;
  const int rc_;
};

// Counts the calling thread as a waiter for its scope (also when a cancellation unwinds
// out of it).
class WaiterScope {
 public:
  explicit WaiterScope(CEventObject* ev) : ev_(ev) {
    ev_->waiters.fetch_add(1, std::memory_order_relaxed);
  }
  ~WaiterScope() { ev_->waiters.fetch_sub(1, std::memory_order_relaxed); }
  WaiterScope(const WaiterScope&) = delete;
  WaiterScope& operator=(const WaiterScope&) = delete;

 private:
  CEventObject* ev_;
};

// Runs one of Wait's trace calls. An exception from the trace client is swallowed and
// makes the wait report EVENT_WAIT_FAILURE. Only the trace calls are wrapped, never the
// condition wait, so that a thread cancellation unwinds through Wait untouched (its
// waiter count and mutex undone by WaiterScope).
template <typename TraceCall>
bool TraceQuietly(TraceCall&& call) {
  try {
    call();
    return true;
  } catch (...) {
    return false;
  }
}

const char* WaitWord(int32_t result) {
  switch (result) {
    case EVENT_WAIT_SIGNAL:
      return "SIGNAL";
    case EVENT_WAIT_TIMEOUT:
      return "TIMEOUT";
    default:
      return "FAILURE";
  }
}

int WakeWaiters(CEventObject* ev) {
  return LoadManual(ev) ? pthread_cond_broadcast(&ev->cond) : pthread_cond_signal(&ev->cond);
}

// A new event object, or nullptr when its condition variable or mutex cannot be made
// (traced). `name` is only traced.
std::unique_ptr<CEventObject> MakeEventObject(bool isSignaled, bool isManual, const char* name) {
  auto ev = std::make_unique<CEventObject>();
  ev->isManual.store(isManual ? 1 : 0, std::memory_order_relaxed);
  ev->isSignaled.store(isSignaled ? 1 : 0, std::memory_order_relaxed);
  const char* shownName = name != nullptr ? name : "anon";

  int rc = pthread_condattr_init(&ev->condAttr);
  if (rc == 0) {
    rc = pthread_condattr_setclock(&ev->condAttr, CLOCK_MONOTONIC);
    if (rc != 0) pthread_condattr_destroy(&ev->condAttr);
  }
  if (rc != 0) {
    EM_TRACE(3,
             "pthread_condattr_setclock(): ## ERROR ##: Set CLOCK_MONOTONIC failed (ret=%d) for "
             "event %p <%s> (IsSignaled=%d)\n",
             rc, static_cast<void*>(ev.get()), shownName, isSignaled ? 1 : 0);
    return nullptr;
  }
  rc = pthread_cond_init(&ev->cond, &ev->condAttr);
  if (rc != 0) {
    pthread_condattr_destroy(&ev->condAttr);
    EM_TRACE(3,
             "pthread_cond_init(), CLOCK_MONOTONIC: ## ERROR ##: failed (ret=%d) on event %p "
             "<%s> (IsSignaled=%d)\n",
             rc, static_cast<void*>(ev.get()), shownName, isSignaled ? 1 : 0);
    return nullptr;
  }
  rc = ev->mutex.Init();
  if (rc != 0) {
    pthread_cond_destroy(&ev->cond);
    pthread_condattr_destroy(&ev->condAttr);
    EM_TRACE(3,
             "pthread_mutex_init(), CLOCK_MONOTONIC: ## ERROR ##: failed (ret=%d) on event %p "
             "<%s> (IsSignaled=%d)\n",
             rc, static_cast<void*>(ev.get()), shownName, isSignaled ? 1 : 0);
    return nullptr;
  }
  return ev;
}

// Wait on an event found signalled: an auto-reset event is consumed.
int32_t TakeSignal(CEventObject* ev, bool trace) REQUIRES(ev->mutex) {
  if (!LoadManual(ev)) ev->isSignaled.store(0, std::memory_order_relaxed);
  // Traced before the unlock, while the event is certainly alive.
  const bool traced = !trace || TraceQuietly([&] {
    EM_TRACE(5,
             "event %p <%s> (IsManual=%d) has been already signaled --> New state: "
             "IsSignaled=%d\n",
             static_cast<void*>(ev), NameOf(ev), LoadManual(ev), LoadSignaled(ev));
  });
  return traced ? EVENT_WAIT_SIGNAL : EVENT_WAIT_FAILURE;
}

// The deadline of a wait of `timeoutMs` from now, traced. False when the trace failed.
// The wait itself stays in CEvent::Wait's own frame: a thread cancelled in it unwinds
// from there, with no frame of locals below it left behind.
bool PrepareDeadline(const CEventObject* ev, uint32_t timeoutMs, bool trace, timespec* deadline) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  *deadline = EventDeadline(now, timeoutMs);
  return !trace || TraceQuietly([&] {
    EM_TRACE(5,
             "prepare time for waiting on event %p <%s> (ts_beg:sec=%ld,"
             "ts_beg:nsec=%ld) -> (ts:sec=%ld,ts:nsec=%ld)\n",
             static_cast<const void*>(ev), NameOf(ev), static_cast<long>(now.tv_sec),
             static_cast<long>(now.tv_nsec), static_cast<long>(deadline->tv_sec),
             static_cast<long>(deadline->tv_nsec));
  });
}

}  // namespace

timespec EventDeadline(const timespec& now, uint32_t timeoutMs) {
  int64_t nsec = static_cast<int64_t>(timeoutMs % 1000) * 1000000 + now.tv_nsec;
  timespec deadline{};
  deadline.tv_sec =
      now.tv_sec + static_cast<time_t>(timeoutMs / 1000) + static_cast<time_t>(nsec / kNsPerSec);
  deadline.tv_nsec = static_cast<long>(nsec % kNsPerSec);
  return deadline;
}

NamedEventTableStats GetNamedEventTableStats() {
  CRecursiveLockGuard guard(NameTableLock());
  return Table().Stats();
}

CEvent::CEvent(const CEvent& other) { *this = other; }

CEvent& CEvent::operator=(const CEvent& other) {
  if (this == &other) return *this;
  CRecursiveLockGuard guard(EventLock());
  closed_.store(false, std::memory_order_relaxed);
  event_ = other.event_;
  if (event_ != nullptr) {
    ++event_->refCount;
    EM_TRACE(5, "incr refcount on event %p <%s> (IsSignaled=%d,IsManual=%d)\n",
             static_cast<void*>(event_), NameOf(event_), LoadSignaled(event_), LoadManual(event_));
  }
  return *this;
}

void CEvent::Create(bool isSignaled, bool isManual, const char* name) {
  event_ = nullptr;
  closed_.store(false, std::memory_order_relaxed);
  if (name == nullptr) {
    event_ = MakeEventObject(isSignaled, isManual, nullptr).release();
  } else if (!CreateNamed(isSignaled, isManual, name)) {
    return;  // an existing event shared, or nothing made (both traced)
  }
  if (event_ == nullptr) return;
  EM_TRACE(5, "creating event %p <%s> (IsSignaled=%d)\n", static_cast<void*>(event_),
           NameOf(event_), LoadSignaled(event_));
}

bool CEvent::CreateNamed(bool isSignaled, bool isManual, const char* name) {
  CRecursiveLockGuard eventLock(EventLock());
  CEventObject* existing = nullptr;
  {
    CRecursiveLockGuard tableGuard(NameTableLock());
    NameEntry* entry = Table().Find(name);
    if (entry != nullptr) existing = entry->event;
  }
  if (existing != nullptr) {
    ++existing->refCount;
    event_ = existing;
    // Traced before the lock goes: another thread's Release may free the event after.
    EM_TRACE(3, "refCount for event %p <%s> incremented (IsSignaled=%d)\n",
             static_cast<void*>(existing), NameOf(existing), LoadSignaled(existing));
    if (LoadManual(existing) != static_cast<uint8_t>(isManual)) {
      EM_TRACE(1, "WARNING: manual setting mismatch for event %p <%s>\n",
               static_cast<void*>(existing), NameOf(existing));
    }
    return false;
  }
  std::unique_ptr<CEventObject> ev = MakeEventObject(isSignaled, isManual, name);
  if (!ev) return false;
  ev->name = CopyEventName(name);
  {
    CRecursiveLockGuard tableGuard(NameTableLock());
    NamedEventTable& table = Table();
    NameEntry* entry = table.Find(name);
    if (entry == nullptr) entry = table.Append(name);
    entry->event = ev.get();
    entry->reserved = 0;
    table.Sort();
  }
  event_ = ev.release();
  return true;
}

void CEvent::Release() {
  CEventObject* ev = event_;
  if (ev == nullptr) return;
  {
    CRecursiveLockGuard guard(EventLock());
    if (ev->refCount != 1) {
      --ev->refCount;
      EM_TRACE(5, "decr refcount on event %p <%s> (IsSignaled=%d)\n", static_cast<void*>(ev),
               NameOf(ev), LoadSignaled(ev));
      return;
    }
    ev->refCount = 0;
    if (ev->name) {
      CRecursiveLockGuard tableGuard(NameTableLock());
      NameEntry* entry = Table().Find(ev->name.get());
      if (entry != nullptr) Table().Remove(entry);
    }
  }
  // Threads still inside Wait hold the mutex or sleep on the condition variable.
  for (;;) {
    {
      EventMutexHold hold(ev);
      if (ev->waiters.load(std::memory_order_relaxed) == 0) break;
    }
    usleep(kReleasePollUs);
  }
  pthread_cond_destroy(&ev->cond);
  pthread_condattr_destroy(&ev->condAttr);
  ev->mutex.Destroy();
  EM_TRACE(5, "deleting event %p <%s> (IsSignaled=%d)\n", static_cast<void*>(ev), NameOf(ev),
           LoadSignaled(ev));
  delete ev;
}

bool CEvent::ChangeAttributes(bool isSignaled, bool isManual) {
  CEventObject* ev = event_;
  if (ev == nullptr || !IsOpen()) return false;
  if (ev->waiters.load(std::memory_order_relaxed) != 0) return false;
  uint8_t signaledNow = LoadSignaled(ev);
  uint8_t manualNow = LoadManual(ev);
  if (signaledNow == static_cast<uint8_t>(isSignaled) &&
      manualNow == static_cast<uint8_t>(isManual)) {
    return true;
  }
  EM_TRACE(5,
           "Create event %p <%s>, changing attributes (IsSignaled=%d,IsManual=%d) --> "
           "(IsSignaled=%d,IsManual=%d)\n",
           static_cast<void*>(ev), NameOf(ev), signaledNow, manualNow, isSignaled ? 1 : 0,
           isManual ? 1 : 0);
  ev->isSignaled.store(isSignaled ? 1 : 0, std::memory_order_relaxed);
  ev->isManual.store(isManual ? 1 : 0, std::memory_order_relaxed);
  return true;
}

bool CEvent::Set() { return Wake(false); }

bool CEvent::Pulse() { return Wake(true); }

bool CEvent::Wake(bool pulse) {
  CEventObject* ev = event_;
  if (ev == nullptr || !IsOpen()) return false;
  int wakeRc = 0;
  {
    EventMutexHold hold(ev);
    if (pulse) {
      EM_TRACE(5, "Pulse event %p <%s> IsSignaled=%d --> IsSignaled=0\n", static_cast<void*>(ev),
               NameOf(ev), LoadSignaled(ev));
    } else {
      EM_TRACE(5, "Set event %p <%s> IsSignaled=%d --> IsSignaled=1\n", static_cast<void*>(ev),
               NameOf(ev), LoadSignaled(ev));
    }
    ev->isSignaled.store(pulse ? 0 : 1, std::memory_order_relaxed);
    wakeRc = WakeWaiters(ev);
  }
  sched_yield();  // let a woken thread run
  return wakeRc == 0;
}

bool CEvent::Reset() {
  CEventObject* ev = event_;
  if (ev == nullptr || !IsOpen()) return false;
  EventMutexHold hold(ev);
  EM_TRACE(5, "Reset event %p <%s>: IsSignaled=%d --> IsSignaled=0\n", static_cast<void*>(ev),
           NameOf(ev), LoadSignaled(ev));
  ev->isSignaled.store(0, std::memory_order_relaxed);
  return true;
}

bool CEvent::Check() {
  CEventObject* ev = event_;
  if (ev == nullptr || !IsOpen()) return false;
  uint8_t signaled = LoadSignaled(ev);
  EM_TRACE(5, "Check event %p <%s> (IsSignaled=%d)\n", static_cast<void*>(ev), NameOf(ev),
           signaled);
  return signaled != 0;
}

bool CEvent::Close() {
  CEventObject* ev = event_;
  if (ev == nullptr || !IsOpen()) return false;
  EM_TRACE(5, "Close event %p <%s> IsSignaled=%d --> IsSignaled=1\n", static_cast<void*>(ev),
           NameOf(ev), LoadSignaled(ev));
  closed_.store(true, std::memory_order_relaxed);
  {
    EventMutexHold hold(ev);
    ev->isSignaled.store(1, std::memory_order_relaxed);
  }
  return WakeWaiters(ev) == 0;
}

int32_t CEvent::Wait(uint32_t timeoutMs, bool trace) {
  CEventObject* ev = event_;
  if (ev == nullptr || !IsOpen()) return EVENT_WAIT_FAILURE;
  if (trace && !TraceQuietly([&] {
        if (timeoutMs < EVENT_WAIT_FOREVER) {
          EM_TRACE(5, "\nwaiting %dms on event %p", static_cast<int>(timeoutMs),
                   static_cast<void*>(ev));
        } else {
          EM_TRACE(5, "\nwaiting forever on event %p", static_cast<void*>(ev));
        }
      })) {
    return EVENT_WAIT_FAILURE;
  }

  EventMutexHold hold(ev);
  if (LoadSignaled(ev)) return TakeSignal(ev, trace);

  int32_t result = EVENT_WAIT_FAILURE;
  int waitRc = 0;
  WaiterScope waiter(ev);
  if (hold.Locked()) {
    const bool forever = timeoutMs == EVENT_WAIT_FOREVER;
    timespec deadline{};
    if (!forever && !PrepareDeadline(ev, timeoutMs, trace, &deadline)) {
      return EVENT_WAIT_FAILURE;
    }
    waitRc = ev->WaitLocked(forever ? nullptr : &deadline);
    // A wake-up counts as a signal even with the flag cleared (Pulse).
    if (waitRc == 0 || LoadSignaled(ev)) {
      result = EVENT_WAIT_SIGNAL;
      if (!LoadManual(ev)) ev->isSignaled.store(0, std::memory_order_relaxed);
    } else if (waitRc == ETIMEDOUT) {
      result = EVENT_WAIT_TIMEOUT;
    }
  }
  // Traced while still counted as a waiter: a concurrent last Release cannot free the
  // event under us.
  if (trace && !TraceQuietly([&] {
        EM_TRACE(5, "%s(%d,%d) on event %p <%s> (IsSignaled=%d)\n", WaitWord(result), hold.Rc(),
                 waitRc, static_cast<void*>(ev), NameOf(ev), LoadSignaled(ev));
      })) {
    return EVENT_WAIT_FAILURE;
  }
  return result;
}

}  // namespace em_oidmap
