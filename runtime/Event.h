// CEvent: a handle to an operating-system style event built on a POSIX mutex and a
// condition variable on CLOCK_MONOTONIC. An event is signalled or not, manual-reset or
// auto-reset, and may be named: a second Create with the same name shares the event
// (reference counted) for as long as some handle still holds it.
//
// Handles are plain values. They do NOT drop their reference when destroyed: the owner
// calls Release() once, in its own destructor. Copy assignment takes a new reference and
// leaves the reference this handle held before as it was, so assigning over a live handle
// keeps the old event alive; owners assign into empty handles only.
//
// Every operation on a closed (Close) or empty (never created, or failed Create) handle
// returns false / 0 / EVENT_WAIT_FAILURE without a trace line.
//
// Thread safety: any thread may call any operation on a shared handle, except Create,
// Release and copy assignment, which the owner calls while no one else uses the handle.
#ifndef EM_RUNTIME_EVENT_H
#define EM_RUNTIME_EVENT_H

#include <time.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace em_oidmap {

constexpr int32_t EVENT_WAIT_SIGNAL = 0;
constexpr int32_t EVENT_WAIT_TIMEOUT = 102;
constexpr int32_t EVENT_WAIT_FAILURE = -1;
constexpr uint32_t EVENT_WAIT_FOREVER = 0xFFFFFFFF;

// The absolute CLOCK_MONOTONIC deadline `timeoutMs` after `now`, nanoseconds carried
// into seconds. REQUIRES: now.tv_nsec < 1,000,000,000.
timespec EventDeadline(const timespec& now, uint32_t timeoutMs);

// The shared event object; only CEvent touches it (see Event.cpp).
struct CEventObject;

class CEvent {
 public:
  CEvent() = default;
  // Takes a reference, as copy assignment does.
  CEvent(const CEvent& other);
  // Takes a reference to other's event and reopens this handle. The event this handle
  // referred to before keeps the reference it had (it is not released).
  CEvent& operator=(const CEvent& other);
  // No release here: see the file comment.
  ~CEvent() = default;

  // Makes this handle refer to a new event, or, when `name` is already known, to the
  // existing event (its own reset mode and state win; a different `isManual` is traced
  // as a warning). The name is copied. On failure the handle stays empty.
  void Create(bool isSignaled, bool isManual, const char* name);
  // Drops this handle's reference; the last one frees the event (waiting first for
  // threads still inside Wait) and its name. The handle keeps its pointer: call once.
  void Release();

  // Forces state and reset mode. False on a closed/empty handle or while a thread waits.
  bool ChangeAttributes(bool isSignaled, bool isManual);
  // Signals: wakes all waiters (manual) or one (auto). False when the wake call failed.
  bool Set();
  // Wakes as Set does, but leaves the event non-signalled. Woken waiters still return
  // EVENT_WAIT_SIGNAL; later waiters wait.
  bool Pulse();
  bool Reset();
  // The signalled flag, without consuming it.
  bool Check();
  // Closes this handle and signals the event, releasing its waiters. The reference
  // stays until Release().
  bool Close();
  // Waits up to `timeoutMs` (EVENT_WAIT_FOREVER: no limit). An auto-reset event is
  // consumed by the wait that returns EVENT_WAIT_SIGNAL. `trace` switches this call's
  // own trace lines. Returns EVENT_WAIT_SIGNAL, EVENT_WAIT_TIMEOUT or EVENT_WAIT_FAILURE.
  int32_t Wait(uint32_t timeoutMs, bool trace = true);
  bool IsOpen() const { return !closed_.load(std::memory_order_relaxed); }

  // The shared object (nullptr when empty): identity for callers and tests.
  const CEventObject* Object() const { return event_; }

 private:
  // Create of a named event: shares the event of that name (false) or makes one and
  // enters it in the table (true; false too when it cannot be made).
  bool CreateNamed(bool isSignaled, bool isManual, const char* name);
  // Set (pulse false) or Pulse.
  bool Wake(bool pulse);

  CEventObject* event_ = nullptr;
  // Read by other threads sharing the handle while the owner closes it.
  std::atomic<bool> closed_{false};
};

// The named-event table's used entries and capacity, for diagnostics and tests.
struct NamedEventTableStats {
  size_t count;
  size_t capacity;
};
NamedEventTableStats GetNamedEventTableStats();

}  // namespace em_oidmap

#endif  // EM_RUNTIME_EVENT_H
