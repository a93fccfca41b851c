// CLogCollector: fills the message log caches from the lower modules. The log scan (task
// 0x0B10: the old-style error and event logs of all modules), the message log scan (task
// 0x0B16: the unified log of all modules, then the old-style logs module by module from
// those without one), and collect from message, which turns log replies and log events
// into cache entries: records parsed (bounded by the data), merged by order value, the
// CSS flag and designation of old-style records asked of their module, stored.
//
// Threads: the scans on the worker, one at a time; collect from message also on the host
// thread that delivers a log event (the reply handler). Re-scan queues the scan tasks.
// Locks: none of its own. The CSS and designation caches are thread-safe
// (CLogLookupCache) and no lock is held while a module is asked; the caches' locks are
// the log store's. The log-data-supported flag is an atomic that only ever becomes true.
#ifndef EM_OIDMAP_LOGCOLLECTOR_H
#define EM_OIDMAP_LOGCOLLECTOR_H

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "msglog/CollectionTables.h"
#include "msglog/LogRecords.h"
#include "oidmap/HostLink.h"
#include "oidmap/LogStore.h"
#include "oidmap/OidMapper.h"
#include "sip/SipJson.h"

namespace em_oidmap {

class CLogCollector {
 public:
  CLogCollector(const CHostLink& host, const COidMapper& mapper, CLogStore& store)
      : host_(host), mapper_(mapper), store_(store) {}
  CLogCollector(const CLogCollector&) = delete;
  CLogCollector& operator=(const CLogCollector&) = delete;

  // Worker: the two scan tasks of a cabinet. Each makes the cabinet's cache not ready,
  // collects, and makes it ready again, also after an exception in one of its stages.
  void RunLogScan(uint32_t cabinet);
  void RunMessageLogScan(uint32_t cabinet);
  // Re-scan: queues one message log scan task per cabinet, until the module is stopping.
  void QueueMessageLogScans(const std::vector<uint32_t>& cabinets) const;

  // Parses the log replies of `msg` (OC 0x0B00 / 0x0B16 with valid status and data),
  // merges them and stores them into the cache of the message's cabinet. Returns the
  // first new sequence number, 0 when nothing was stored.
  uint32_t CollectFromMessage(SipJson& msg);
  // True once some module answered a log request with success.
  bool IsLogDataSupported() const { return log_data_supported_.load(std::memory_order_acquire); }

 private:
  // One CM_LogEntry broadcast of the log scan, for the error log (OI 0) or the event
  // log (OI 1).
  void ScanOldStyleLog(uint32_t cabinet, uint32_t logOi);
  // CM_LogEntry for one log to each module in `mids` (those without a unified log).
  void CollectFallbackLogs(uint32_t cabinet, const std::vector<uint32_t>& mids, uint32_t logOi);
  // The module replies of the message log scan that did not support it, once each.
  std::vector<uint32_t> ScanUnifiedLog(uint32_t cabinet);
  // The source table of one reply; traces one error line for malformed data.
  std::vector<MsgLogEntry> ParseLogReply(const SipJson& msg, int32_t index);
  // Old-style records with their CSS flags and designations asked of module `mid`.
  LogBlockWalk ParseOldStyleRecords(const std::vector<uint8_t>& data, uint32_t mid,
                                    std::vector<MsgLogEntry>& source);
  bool LookUpCss(const OldStyleRecord& record, uint32_t mid, const std::string& key);
  std::string LookUpDesignation(const OldStyleRecord& record, uint32_t mid, const std::string& key);
  // A CSS or designation request about the record's object, ready to send to `mid`.
  SipJson LookupRequest(uint32_t oc, const OldStyleRecord& record, uint32_t mid) const;
  void SetLogDataSupported() { log_data_supported_.store(true, std::memory_order_release); }

  const CHostLink& host_;
  const COidMapper& mapper_;
  CLogStore& store_;
  std::atomic<bool> log_data_supported_{false};
  CLogLookupCache lookups_;  // CssSupportCache and DesignationCache
};

}  // namespace em_oidmap

#endif  // EM_OIDMAP_LOGCOLLECTOR_H
