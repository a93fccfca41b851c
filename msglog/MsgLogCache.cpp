#include "msglog/MsgLogCache.h"

#include "trace/DebugClient.h"

namespace em_oidmap {

MsgLogCabinetCache::MsgLogCabinetCache() { ReadyEvent.Create(false, true, nullptr); }

MsgLogCabinetCache::~MsgLogCabinetCache() {
  // Handles do not drop their reference by themselves.
  ReadyEvent.Release();
}

CMsgLogCache::CMsgLogCache() = default;

CMsgLogCache::~CMsgLogCache() {
  EM_TRACE(5, "\nCMsgLogCache        : -> Destructor...");
  {
    CRecursiveLockGuard guard(table_lock_);
    cabinets_.clear();
  }
  EM_TRACE(5, "\nCMsgLogCache        : <- Destructor");
}

MsgLogCabinetCache* CMsgLogCache::FindLocked(uint32_t cabinet) {
  for (const auto& cache : cabinets_) {
    if (cache->CabinetId == cabinet) {
      return cache.get();
    }
  }
  return nullptr;
}

MsgLogCabinetCache* CMsgLogCache::FindCabinetCache(uint32_t cabinet) {
  CRecursiveLockGuard guard(table_lock_);
  return FindLocked(cabinet);
}

MsgLogCabinetCache* CMsgLogCache::FindOrCreateCabinetCache(uint32_t cabinet) {
  CRecursiveLockGuard guard(table_lock_);
  if (MsgLogCabinetCache* found = FindLocked(cabinet)) {
    return found;
  }
  auto cache = std::make_unique<MsgLogCabinetCache>();
  cache->CabinetId = cabinet;
  cabinets_.push_back(std::move(cache));
  return cabinets_.back().get();
}

size_t CMsgLogCache::CabinetCount() {
  CRecursiveLockGuard guard(table_lock_);
  return cabinets_.size();
}

bool CMsgLogCache::SetCacheReady(uint32_t cabinet, bool set) {
  CRecursiveLockGuard ready_guard(ready_lock_);
  if (set) {
    EM_MODULE_TRACE(3, "SET event for message log cache cabinet %d", static_cast<int>(cabinet));
  } else {
    EM_MODULE_TRACE(3, "RESET event for message log cache cabinet %d", static_cast<int>(cabinet));
  }
  MsgLogCabinetCache* cache = nullptr;
  {
    CRecursiveLockGuard guard(table_lock_);
    cache = FindLocked(cabinet);
    if (cache == nullptr) {
      return false;
    }
  }
  const bool ok = set ? cache->ReadyEvent.Set() : cache->ReadyEvent.Reset();
  if (set) {
    EM_MODULE_TRACE(3, "Ready event SET for message log cache cabinet %u", cabinet);
  } else {
    EM_MODULE_TRACE(3, "Ready event RESET for message log cache cabinet %u", cabinet);
  }
  return ok;
}

bool CMsgLogCache::WaitForCacheReady(uint32_t cabinet, uint32_t timeoutMs) {
  MsgLogCabinetCache* cache = FindCabinetCache(cabinet);
  if (cache == nullptr) {
    EM_MODULE_TRACE(1, "ERROR! Cabinet %d not found in message log cache table!",
                    static_cast<int>(cabinet));
    return false;
  }
  EM_MODULE_TRACE(3, "Wait on event for message log cache cabinet %d (Timeout: %d)",
                  static_cast<int>(cabinet), static_cast<int>(timeoutMs / 1000));
  return cache->ReadyEvent.Wait(timeoutMs, false) == EVENT_WAIT_SIGNAL;
}

uint32_t CMsgLogCache::StoreEntries(MsgLogCabinetCache& cache, std::vector<MsgLogEntry>&& newest,
                                    size_t unseen) {
  CMutexLock storeGuard(cache.store_mutex_);
  const size_t run = unseen + newest.size();
  size_t total = 0;
  uint32_t first = 0;
  // The entries evicted: the cache's and the run's numbers are one contiguous range
  // (every store appends the numbers that follow, and only the oldest leave), so the
  // evicted ones are the `evicted` numbers from `evictedFirst` on.
  uint32_t evictedFirst = 0;
  size_t evicted = 0;
  {
    CMutexLock guard(cache.entries_mutex_);
    MsgLogEntryList& entries = cache.entries_;
    total = entries.size() + run;
    const size_t surplus = total > kMaxMsgLogEntries ? total - kMaxMsgLogEntries : 0;
    const size_t evictHeld = surplus < entries.size() ? surplus : entries.size();
    const size_t skipRun = surplus - evictHeld;  // entries of the run evicted at once
    if (run != 0) first = cache.last_sequence_number_ + 1;
    evictedFirst = entries.empty() ? first : entries.front().SequenceNumber;
    entries.PopFront(evictHeld);
    for (size_t i = skipRun > unseen ? skipRun : unseen; i < run; ++i) {
      MsgLogEntry& entry = newest[i - unseen];
      entry.SequenceNumber = first + static_cast<uint32_t>(i);
      entries.push_back(std::move(entry));
    }
    const size_t overBudget = entries.OldestBeyond(kMaxCabinetCacheBytes);
    entries.PopFront(overBudget);
    evicted = surplus + overBudget;
    cache.last_sequence_number_ += static_cast<uint32_t>(run);
  }
  if (run != 0) {
    EM_MODULE_TRACE(4, "    %u entries stored to messag log cache", static_cast<unsigned>(total));
  }
  if (evicted != 0 && TraceClient().IsTraceActive()) {
    for (size_t i = 0; i < evicted; ++i) {
      EM_MODULE_TRACE(3, "Remove entry %u from beginning of message log list",
                      static_cast<uint32_t>(evictedFirst + i));
    }
  }
  return first;
}

bool CMsgLogCache::ClearCabinet(uint32_t cabinet) {
  MsgLogCabinetCache* cache = FindCabinetCache(cabinet);
  if (cache == nullptr) {
    return false;
  }
  CMutexLock guard(cache->entries_mutex_);
  cache->entries_.clear();
  return true;
}

void MsgLogEntryList::PopFront(size_t n) {
  for (size_t i = 0; i < n; ++i) {
    bytes_ -= MsgLogEntryBytes(storage_[head_ + i]);
    storage_[head_ + i] = MsgLogEntry();  // frees its record and texts now
  }
  head_ += n;
  if (head_ != 0 && head_ >= size()) {
    // Moves the live entries once per at least as many evictions; capacity stays.
    storage_.erase(storage_.begin(), storage_.begin() + static_cast<std::ptrdiff_t>(head_));
    head_ = 0;
  }
}

size_t MsgLogEntryList::OldestBeyond(size_t budget) const {
  size_t bytes = bytes_;
  size_t n = 0;
  while (bytes > budget && n < size()) bytes -= MsgLogEntryBytes((*this)[n++]);
  return n;
}

void MsgLogEntryList::clear() {
  storage_.clear();
  head_ = 0;
  bytes_ = 0;
}

}  // namespace em_oidmap
