// How long the module waits for the long texts that a log page needs from the lower
// modules, and what it does with those it could not wait for.
//
// CFetchDeadline: one request time-out in all for a run of text fetches (the fetches of
// one page on the request thread, or one drain task on the worker). Each fetch waits at
// most what is left; a fetch that times out has waited all it was given, so nothing is
// left after it. A page of 2000 codes that a silent module would otherwise hold for 2000
// time-outs holds its request thread for one.
//
// CPendingLongTexts: the (code, language) pairs a page could not wait for. They get the
// fallback text on that page and are fetched on the worker, so that the next page finds
// them in the text cache. The set has a ceiling; at most one drain task is queued at a
// time, whatever the number of codes (the task queue holds 19 tasks in all), and a drain
// task that leaves codes behind queues the next one behind the tasks already waiting.
//
// Thread safety: a CFetchDeadline belongs to one thread. CPendingLongTexts may be used
// from any thread; its mutex is a leaf (nothing is sent or queued while it is held).
#ifndef EM_OIDMAP_PENDINGLONGTEXTS_H
#define EM_OIDMAP_PENDINGLONGTEXTS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <unordered_set>
#include <vector>

#include "base/Mutex.h"

namespace em_oidmap {

// The most codes waiting to be fetched: two pages of distinct codes. A system has far
// fewer codes without a text in its message files.
constexpr size_t kMaxPendingLongTexts = 4000;

class CFetchDeadline {
 public:
  explicit CFetchDeadline(uint32_t budgetMs);
  // The time-out for the next fetch: what is left of the budget, 0 when nothing is.
  uint32_t NextTimeoutMs() const;
  // The last fetch timed out: nothing is left.
  void Expire() { expired_ = true; }

 private:
  const std::chrono::steady_clock::time_point deadline_;
  bool expired_ = false;
};

struct PendingLongText {
  uint32_t errorCode = 0;
  uint16_t langId = 0;
  uint32_t cabinet = 0;  // the cabinet of the page that asked: the fetch names it
};

class CPendingLongTexts {
 public:
  // Adds the texts that are not pending yet, while there is room. Returns how many were
  // refused for want of room. Sets *queueDrain when the caller must queue a drain task
  // (then none is queued or running); it then calls DrainNotQueued if queueing fails.
  size_t Add(const std::vector<PendingLongText>& texts, bool* queueDrain) EXCLUDES(mutex_);
  // Worker: takes the oldest pending text; false when none is left.
  bool Take(PendingLongText* text) EXCLUDES(mutex_);
  // Worker, at the end of a drain task: true when texts are left (the caller queues the
  // next drain task, or calls DrainNotQueued); false ends the drain.
  bool ContinueDrain() EXCLUDES(mutex_);
  // A drain task could not be queued: the next Add asks for one again.
  void DrainNotQueued() EXCLUDES(mutex_);
  size_t Size() const EXCLUDES(mutex_);

 private:
  static uint64_t Key(uint32_t errorCode, uint16_t langId) {
    return (static_cast<uint64_t>(errorCode) << 16) | langId;
  }

  mutable CMutex mutex_;
  std::deque<PendingLongText> order_ GUARDED_BY(mutex_);  // oldest first
  std::unordered_set<uint64_t> keys_ GUARDED_BY(mutex_);
  bool drain_queued_ GUARDED_BY(mutex_) = false;
};

}  // namespace em_oidmap

#endif  // EM_OIDMAP_PENDINGLONGTEXTS_H
