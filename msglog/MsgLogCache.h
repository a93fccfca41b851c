// CMsgLogCache: the message log entries of every cabinet, as collected from the lower
// modules, with a cache-ready event per cabinet.
//
// Readiness protocol: a collection resets the cabinet's ready event before it changes the
// entries and sets it when it is done; a reader waits on the event and reads the entries
// only afterwards. The event orders a scan's result before the queries that wait for it.
//
// Thread safety: the table of cabinets is guarded by its own recursive lock, held only
// while the table is walked; a cabinet cache found under it is used after it is released
// (caches are never removed before the owner ends). A cabinet's entries and its last
// sequence number are read and written only under that cabinet's own lock (StoreEntries,
// ClearCabinet, ReadEntries): log events store from host threads while a scan stores from
// the worker, and a reader woken early must not walk an array that is being appended to
// or evicted. A reader sees a store either not at all or whole.
//
// Stores of one cabinet take turns on its store lock, which is held for the whole store
// including its trace lines; the entry lock is held only while the array changes, so a
// store that evicts many entries (a reply of 10 MB evicts hundreds of thousands, each
// traced) keeps no reader waiting for its traces.
//
// Lock order: the module's cache lock, then the table lock, then a cabinet's store lock,
// then its entry lock. The entry lock is innermost: nothing takes another cache lock while
// holding it (the function given to ReadEntries must not call back into this class).
#ifndef EM_MSGLOG_MSGLOGCACHE_H
#define EM_MSGLOG_MSGLOGCACHE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/Mutex.h"
#include "msglog/MsgLogEntry.h"
#include "runtime/Event.h"
#include "runtime/RecursiveLock.h"

namespace em_oidmap {

// The most entries one cabinet keeps after a store.
constexpr uint32_t kMaxMsgLogEntries = 2000;
// The most bytes one cabinet's entries hold after a store (as MsgLogEntryBytes counts
// them); past it the oldest go, as past kMaxMsgLogEntries. 2000 entries of today's logs
// take about 0.1 MB (most hold their strings inside the entry); the ceiling allows an
// average of 800 bytes per entry, and 200 caches stay within 300 MB however large the
// records that peers send.
constexpr size_t kMaxCabinetCacheBytes = 1536u << 10;
// How long a query waits for a cabinet's cache to become ready.
constexpr uint32_t kCacheWaitMs = 120000;

// The bytes a cached entry holds: its place in the array and the heap block of its record
// and argument strings, as the allocator takes it (the bytes asked for and a header, in
// steps of 16). Known without a walk: a store counts every entry it adds or evicts.
inline size_t MsgLogEntryBytes(const MsgLogEntry& entry) {
  const size_t heap = entry.HeapBytes();
  return sizeof(MsgLogEntry) + (heap != 0 ? (heap + 8 + 15) & ~size_t{15} : 0);
}

// A cabinet's entries, oldest first, in one contiguous array, and the bytes they hold. Eviction
// from the front only moves a start offset; the dead prefix is dropped by one move of the live
// entries once it is as long as they are, so a store of k entries costs O(k) amortised however full
// the cache is, and a full cache that takes one entry at a time stops reallocating.
class MsgLogEntryList {
 public:
  size_t size() const { return storage_.size() - head_; }
  bool empty() const { return size() == 0; }
  const MsgLogEntry& operator[](size_t i) const { return storage_[head_ + i]; }
  const MsgLogEntry* begin() const { return storage_.data() + head_; }
  const MsgLogEntry* end() const { return storage_.data() + storage_.size(); }
  const MsgLogEntry& front() const { return storage_[head_]; }
  const MsgLogEntry& back() const { return storage_.back(); }
  // Entries the array has room for; grows geometrically (tests check the cost of a store).
  size_t capacity() const { return storage_.capacity(); }

  // What the entries hold, as MsgLogEntryBytes counts it.
  size_t bytes() const { return bytes_; }

  void push_back(MsgLogEntry&& entry) {
    bytes_ += MsgLogEntryBytes(entry);
    storage_.push_back(std::move(entry));
  }
  // Removes the `n` oldest entries. REQUIRES: n <= size().
  void PopFront(size_t n);
  // The number of oldest entries whose removal brings bytes() within `budget`.
  size_t OldestBeyond(size_t budget) const;
  void clear();

 private:
  std::vector<MsgLogEntry> storage_;
  size_t head_ = 0;  // storage_[0, head_) are evicted entries
  size_t bytes_ = 0;
};

// The cache of one cabinet. Its entries are reached through CMsgLogCache only, under
// the cabinet's lock.
class MsgLogCabinetCache {
 public:
  MsgLogCabinetCache();
  ~MsgLogCabinetCache();
  MsgLogCabinetCache(const MsgLogCabinetCache&) = delete;
  MsgLogCabinetCache& operator=(const MsgLogCabinetCache&) = delete;

  CEvent ReadyEvent;  // manual-reset, created not signalled
  uint32_t CabinetId = 0;

 private:
  friend class CMsgLogCache;
  CMutex store_mutex_ ACQUIRED_BEFORE(entries_mutex_);  // held for a whole store
  CMutex entries_mutex_;
  uint32_t last_sequence_number_ GUARDED_BY(entries_mutex_) = 0;  // only ever grows
  MsgLogEntryList entries_ GUARDED_BY(entries_mutex_);            // oldest first
};

class CMsgLogCache {
 public:
  CMsgLogCache();
  // Frees every cabinet cache with all its entries.
  ~CMsgLogCache();
  CMsgLogCache(const CMsgLogCache&) = delete;
  CMsgLogCache& operator=(const CMsgLogCache&) = delete;

  // The cabinet's cache, or nullptr.
  MsgLogCabinetCache* FindCabinetCache(uint32_t cabinet);
  // The cabinet's cache, created empty (event reset) and appended when missing.
  MsgLogCabinetCache* FindOrCreateCabinetCache(uint32_t cabinet);
  // Sets (set = true) or resets the cabinet's ready event. False for an unknown cabinet
  // or when the event operation fails.
  bool SetCacheReady(uint32_t cabinet, bool set);
  // Waits up to timeoutMs for the cabinet's ready event. True only when it was signalled;
  // false at once for an unknown cabinet.
  bool WaitForCacheReady(uint32_t cabinet, uint32_t timeoutMs);
  // Stores one run of entries: numbers them from the cabinet's last sequence number on,
  // appends them and evicts the oldest entries beyond kMaxMsgLogEntries and beyond
  // kMaxCabinetCacheBytes, under the cabinet's entry lock; the lines that say so are
  // traced after it is released. The run is `unseen` entries that the caller left out,
  // followed by `newest`; entries that the same store evicts again (the unseen ones among
  // them) are numbered and traced but never copied in. Returns the first new sequence
  // number, 0 when the run is empty.
  // REQUIRES: unseen == 0 or newest.size() >= kMaxMsgLogEntries (only entries that this
  // store evicts may be left out).
  static uint32_t StoreEntries(MsgLogCabinetCache& cache, std::vector<MsgLogEntry>&& newest,
                               size_t unseen = 0);
  // Empties the cabinet's entries (its log was cleared), under the cabinet's lock. The
  // numbering goes on. False for an unknown cabinet.
  bool ClearCabinet(uint32_t cabinet);
  // Calls fn(const MsgLogEntryList& entries, uint32_t lastSequenceNumber) under the
  // cabinet's lock and returns true; false (fn not called) for an unknown cabinet.
  // REQUIRES: fn does not call into this cache (the cabinet's lock is innermost).
  template <class F>
  bool ReadEntries(uint32_t cabinet, F&& fn) {
    MsgLogCabinetCache* cache = FindCabinetCache(cabinet);
    if (cache == nullptr) return false;
    CMutexLock guard(cache->entries_mutex_);
    fn(static_cast<const MsgLogEntryList&>(cache->entries_), cache->last_sequence_number_);
    return true;
  }
  // Number of cabinet caches.
  size_t CabinetCount();

 private:
  MsgLogCabinetCache* FindLocked(uint32_t cabinet) REQUIRES(table_lock_);

  CRecursiveLock ready_lock_ ACQUIRED_BEFORE(table_lock_);  // held for a whole SetCacheReady
  CRecursiveLock table_lock_;
  std::vector<std::unique_ptr<MsgLogCabinetCache>> cabinets_ GUARDED_BY(table_lock_);
};

}  // namespace em_oidmap

#endif  // EM_MSGLOG_MSGLOGCACHE_H
