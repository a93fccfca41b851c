#include "msglog/MsgLogCache.h"

#include "module/DebugClient.h"

MsgLogCabinetCache::MsgLogCabinetCache() {
  ReadyEvent.Create(false, true, nullptr);
}

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
    EM_TRACE(3, "\nEM_OIDMAP           : SET event for message log cache cabinet %d",
             static_cast<int>(cabinet));
  } else {
    EM_TRACE(3, "\nEM_OIDMAP           : RESET event for message log cache cabinet %d",
             static_cast<int>(cabinet));
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
    EM_TRACE(3, "\nEM_OIDMAP           : Ready event SET for message log cache cabinet %u", cabinet);
  } else {
    EM_TRACE(3, "\nEM_OIDMAP           : Ready event RESET for message log cache cabinet %u",
             cabinet);
  }
  return ok;
}

bool CMsgLogCache::WaitForCacheReady(uint32_t cabinet, uint32_t timeoutMs) {
  MsgLogCabinetCache* cache = FindCabinetCache(cabinet);
  if (cache == nullptr) {
    EM_TRACE(1, "\nEM_OIDMAP           : ERROR! Cabinet %d not found in message log cache table!",
             static_cast<int>(cabinet));
    return false;
  }
  EM_TRACE(3, "\nEM_OIDMAP           : Wait on event for message log cache cabinet %d (Timeout: %d)",
           static_cast<int>(cabinet), static_cast<int>(timeoutMs / 1000));
  return cache->ReadyEvent.Wait(timeoutMs, false) == EVENT_WAIT_SIGNAL;
}

uint32_t CMsgLogCache::StoreEntries(MsgLogCabinetCache& cache,
                                    const std::vector<MsgLogEntry>& merged) {
  uint32_t first = 0;
  if (!merged.empty()) {
    first = cache.LastSequenceNumber + 1;
    cache.Entries.reserve(cache.Entries.size() + merged.size());
    for (const MsgLogEntry& entry : merged) {
      cache.Entries.push_back(entry);
      cache.Entries.back().SequenceNumber = ++cache.LastSequenceNumber;
    }
    EM_TRACE(4, "\nEM_OIDMAP           :     %u entries stored to messag log cache",
             static_cast<unsigned>(cache.Entries.size()));
  }
  if (cache.Entries.size() > kMaxMsgLogEntries) {
    const size_t surplus = cache.Entries.size() - kMaxMsgLogEntries;
    if (TraceClient().IsTraceActive()) {
      for (size_t i = 0; i < surplus; ++i) {
        EM_TRACE(3, "\nEM_OIDMAP           : Remove entry %u from beginning of message log list",
                 cache.Entries[i].SequenceNumber);
      }
    }
    // One move of the rest instead of one per removed entry; the result is the same.
    cache.Entries.erase(cache.Entries.begin(),
                        cache.Entries.begin() + static_cast<std::ptrdiff_t>(surplus));
  }
  return first;
}

bool CMsgLogCache::ClearCabinet(uint32_t cabinet) {
  MsgLogCabinetCache* cache = FindCabinetCache(cabinet);
  if (cache == nullptr) {
    return false;
  }
  cache->Entries.clear();
  return true;
}
