#include "oidmap/LogStore.h"

#include "oidmap/ModuleTrace.h"

namespace em_oidmap {

void CLogStore::InitCabinet(uint32_t cabinet) {
  CRecursiveLockGuard guard(cache_lock_);
  OIDMAP_TRACE(3, "Init message log cache cabinet %d", static_cast<int>(cabinet));
  cache_.FindOrCreateCabinetCache(cabinet);
}

void CLogStore::BeginScan(uint32_t cabinet) {
  {
    CRecursiveLockGuard guard(cache_lock_);
    cache_.FindOrCreateCabinetCache(cabinet);
  }
  cache_.SetCacheReady(cabinet, false);
}

void CLogStore::EndScan(uint32_t cabinet) {
  if (!cache_.SetCacheReady(cabinet, true)) {
    OIDMAP_TRACE(1, "ERROR! FAILED to set \"Cache Ready\" event for cabinet number %d",
                 static_cast<int>(cabinet));
  }
}

MsgLogCabinetCache* CLogStore::CacheForStore(uint32_t cabinet) {
  CRecursiveLockGuard guard(cache_lock_);
  MsgLogCabinetCache* cache = cache_.FindCabinetCache(cabinet);
  if (cache != nullptr) return cache;
  if (!cabinets_.IsKnownCabinet(cabinet) && cache_.CabinetCount() >= kMaxCabinetCaches) {
    OIDMAP_TRACE(1,
                 "## ERROR! No message log cache for cabinet %u: too many cabinets - log data "
                 "ignored",
                 cabinet);
    return nullptr;
  }
  return cache_.FindOrCreateCabinetCache(cabinet);
}

void CLogStore::ClearCabinet(uint32_t cabinet) {
  CRecursiveLockGuard guard(cache_lock_);
  cache_.ClearCabinet(cabinet);
}

}  // namespace em_oidmap
