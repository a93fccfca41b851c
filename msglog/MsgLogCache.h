// CMsgLogCache: the message log entries of every cabinet, as collected from the lower
// modules, with a cache-ready event per cabinet.
//
// Readiness protocol: a collection resets the cabinet's ready event before it changes the
// entries and sets it when it is done; a reader waits on the event and reads the entries
// only afterwards. The event is the only ordering between the writer and the readers.
//
// Thread safety: the table of cabinets is guarded by its own recursive lock, held only
// while the table is walked; a cabinet cache found under it is used after it is released
// (caches are never removed before the owner ends). Callers that change a cabinet's
// entries hold the module's cache lock, which is always taken before the table's lock.
#ifndef EM_MSGLOG_MSGLOGCACHE_H
#define EM_MSGLOG_MSGLOGCACHE_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "runtime/Event.h"
#include "runtime/RecursiveLock.h"

// The most entries one cabinet keeps after a store.
constexpr uint32_t kMaxMsgLogEntries = 2000;
// How long a query waits for a cabinet's cache to become ready.
constexpr uint32_t kCacheWaitMs = 120000;

// One cached message log entry.
struct MsgLogEntry {
  uint32_t ModuleId = 0;             // MI of the module whose reply delivered it
  std::vector<uint8_t> RawRecord;    // old-style record bytes; empty for unified entries
  std::map<int32_t, std::string> Arguments;  // unified: 1..m; old style: 0 = designation
  uint32_t ErrorCode = 0;
  uint32_t Flags = 0;                // bit 0: customer self service (CSS)
  uint32_t OrderValue = 0;           // merge order; 0 = none
  uint32_t SequenceNumber = 0;       // 0 until stored
  int32_t RecordId = -1;             // record number at the source; -1 = none
  uint8_t AuxByte = 0;
  uint8_t OldStyle = 0;              // 1: decode RawRecord; 0: unified
  uint8_t CodeBits = 0;
};

// The cache of one cabinet.
struct MsgLogCabinetCache {
  MsgLogCabinetCache();
  ~MsgLogCabinetCache();
  MsgLogCabinetCache(const MsgLogCabinetCache&) = delete;
  MsgLogCabinetCache& operator=(const MsgLogCabinetCache&) = delete;

  uint32_t LastSequenceNumber = 0;   // only ever grows
  std::vector<MsgLogEntry> Entries;  // oldest first
  CEvent ReadyEvent;                 // manual-reset, created not signalled
  uint32_t CabinetId = 0;
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
  // Appends `merged` with new sequence numbers and evicts the oldest entries beyond
  // kMaxMsgLogEntries. Returns the first new sequence number, 0 when `merged` is empty.
  // REQUIRES: the caller holds the module's cache lock.
  static uint32_t StoreEntries(MsgLogCabinetCache& cache, const std::vector<MsgLogEntry>& merged);
  // Empties the cabinet's entries (its log was cleared). False for an unknown cabinet.
  // REQUIRES: the caller holds the module's cache lock.
  bool ClearCabinet(uint32_t cabinet);
  // Number of cabinet caches.
  size_t CabinetCount();

 private:
  MsgLogCabinetCache* FindLocked(uint32_t cabinet);

  CRecursiveLock table_lock_;   // guards cabinets_
  CRecursiveLock ready_lock_;   // held for a whole SetCacheReady
  std::vector<std::unique_ptr<MsgLogCabinetCache>> cabinets_;
};

#endif  // EM_MSGLOG_MSGLOGCACHE_H
