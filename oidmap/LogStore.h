// CLogStore: the message log caches of all cabinets (CMsgLogCache) behind the module's
// cache lock, with the ceiling on the caches that log events may create.
//
// The cache is thread-safe on its own (its table lock, a readiness lock, one entry lock
// per cabinet). The module's cache lock makes whole the steps that take several of its
// calls: finding or creating a cabinet's cache against the ceiling, emptying one, and
// copying a page's entries. The readiness wait and the reads of counts and single entries
// need no more than the cache's own locks and do not take it.
//
// Threads: start creates the listed cabinets' caches (host thread); the worker's scans and
// the reply handler's log events store; request threads wait, read and clear.
// Lock order: cache_lock_, then the cache's table lock, then a cabinet's entry lock. The
// cache's readiness lock comes before its table lock and is never taken under cache_lock_
// (BeginScan releases it first).
#ifndef EM_OIDMAP_LOGSTORE_H
#define EM_OIDMAP_LOGSTORE_H

#include <cstddef>
#include <cstdint>
#include <utility>

#include "msglog/MsgLogCache.h"
#include "oidmap/CabinetDirectory.h"
#include "runtime/RecursiveLock.h"

namespace em_oidmap {

// Caches that log events may create for cabinets outside the cabinet list. Each cabinet
// keeps up to kMaxMsgLogEntries, and a peer that sends events with ever new cabinet
// numbers would otherwise grow the table without end; the listed cabinets always get
// theirs.
constexpr size_t kMaxCabinetCaches = 2 * static_cast<size_t>(kMaxCabinets);

class CLogStore {
 public:
  explicit CLogStore(const CCabinetDirectory& cabinets) : cabinets_(cabinets) {}
  CLogStore(const CLogStore&) = delete;
  CLogStore& operator=(const CLogStore&) = delete;

  // Start: the cabinet's cache, created empty (not ready) unless it is there.
  void InitCabinet(uint32_t cabinet) EXCLUDES(cache_lock_);
  // A scan begins: the cabinet's cache (created when start did not know the cabinet, so
  // that queries find an empty one) is not ready until EndScan.
  void BeginScan(uint32_t cabinet) EXCLUDES(cache_lock_);
  void EndScan(uint32_t cabinet);
  // The cache a collection stores into, created when missing; nullptr (traced) for a
  // cabinet outside the list once kMaxCabinetCaches caches exist.
  MsgLogCabinetCache* CacheForStore(uint32_t cabinet) EXCLUDES(cache_lock_);
  // Empties the cabinet's cache (its log was cleared).
  void ClearCabinet(uint32_t cabinet) EXCLUDES(cache_lock_);
  // Waits up to `timeoutMs` for the cabinet's cache to be ready; false at once for a
  // cabinet without a cache.
  bool WaitForReady(uint32_t cabinet, uint32_t timeoutMs) {
    return cache_.WaitForCacheReady(cabinet, timeoutMs);
  }
  // Calls fn(const MsgLogEntryList&, uint32_t lastSequenceNumber) under the cabinet's
  // entry lock; false (fn not called) for a cabinet without a cache.
  template <class F>
  bool ReadEntries(uint32_t cabinet, F&& fn) {
    return cache_.ReadEntries(cabinet, std::forward<F>(fn));
  }
  // The same with the module's cache lock held as well, as a page copy takes it.
  template <class F>
  bool ReadEntriesWhole(uint32_t cabinet, F&& fn) EXCLUDES(cache_lock_) {
    CRecursiveLockGuard guard(cache_lock_);
    return cache_.ReadEntries(cabinet, std::forward<F>(fn));
  }

  // The caches themselves, for tests and benchmarks.
  CMsgLogCache& Cache() { return cache_; }

 private:
  const CCabinetDirectory& cabinets_;
  CRecursiveLock cache_lock_;
  CMsgLogCache cache_;
};

}  // namespace em_oidmap

#endif  // EM_OIDMAP_LOGSTORE_H
