// CStartGate: holds back the requests that arrive while start runs on another host thread,
// until the OID map table of that start is published: a request that overtook start would
// otherwise pass untranslated, and a lower module would take its global index for a local
// one.
//
// Threads: the start thread closes and opens the gate (ClosedScope); request threads wait
// at it. A request on the start thread itself (a host that offers requests while starting)
// passes at once.
// Lock: mutex_, a leaf: nothing else is taken while it is held. closed_flag_ mirrors
// closed_ for a lock-free look in the common case (no start running).
#ifndef EM_OIDMAP_STARTGATE_H
#define EM_OIDMAP_STARTGATE_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <thread>

#include "base/Mutex.h"

namespace em_oidmap {

class CStartGate {
 public:
  CStartGate() = default;
  CStartGate(const CStartGate&) = delete;
  CStartGate& operator=(const CStartGate&) = delete;

  // Closes the gate for a start on the calling thread; opens it again, and wakes the
  // waiting requests, whatever way the scope is left.
  class ClosedScope {
   public:
    explicit ClosedScope(CStartGate& gate) : gate_(gate) { gate_.Close(); }
    ~ClosedScope() { gate_.Open(); }
    ClosedScope(const ClosedScope&) = delete;
    ClosedScope& operator=(const ClosedScope&) = delete;

   private:
    CStartGate& gate_;
  };

  // Returns true at once when no start runs or when called on the starting thread; else
  // waits until start has ended, at most `timeoutMs`. False on time-out.
  bool WaitUntilOpen(uint32_t timeoutMs) EXCLUDES(mutex_);

 private:
  void Close() EXCLUDES(mutex_);
  void Open() EXCLUDES(mutex_);

  CMutex mutex_;
  std::condition_variable opened_;
  bool closed_ GUARDED_BY(mutex_) = false;
  std::thread::id starter_ GUARDED_BY(mutex_);
  std::atomic<bool> closed_flag_{false};
};

}  // namespace em_oidmap

#endif  // EM_OIDMAP_STARTGATE_H
