// COidMapExtModule: the em_oidmap module object. It maps object identifiers between the
// global index that clients see and the module-local ids of the lower modules, and keeps
// the message log caches of all cabinets. Its member functions are split by job:
//   OidMapExtModule.cpp        construction, destruction, module information, stop
//   StartUp.cpp                start, re-scan, cabinet list, count opcode checks
//   RequestHandler.cpp         the request handler (slot 9) and its dispatch
//   ReplyHandler.cpp           the reply handler (slot 8): replies and events
//   MultipleModuleRequests.cpp broadcasts to all modules and the merge of their replies
//   LogCollection.cpp          task execution (slot 25), log scans, collect from message
//   LogQueries.cpp             message log queries and message text requests
//
// Threads: start and re-scan run on a host thread before requests; requests and replies
// on host threads; tasks on the serializer's worker ("_TaskHandler").
// Lock order: cache_lock_, then the cache table's own lock, then a cabinet's entry lock
// (innermost; see msglog/MsgLogCache.h).
#ifndef EM_OIDMAP_OIDMAPEXTMODULE_H
#define EM_OIDMAP_OIDMAPEXTMODULE_H

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/Mutex.h"
#include "module/ExtensionModule.h"
#include "msglog/CollectionTables.h"
#include "msglog/LogRecords.h"
#include "msglog/LogMsgFile.h"
#include "msglog/MsgLogCache.h"
#include "msglog/MsgTextCache.h"
#include "oidmap/OidMapTable.h"
#include "runtime/RecursiveLock.h"
#include "runtime/TaskSerializer.h"
#include "sip/SipJson.h"

namespace em_oidmap {

constexpr const char* kModuleName = "EM_OIDMAP";
constexpr const char* kModuleDescription = "OID mapper extension module";
constexpr int32_t kMaxCabinets = 100;
constexpr uint32_t kSingleRequestTimeoutMs = 5000;
// How long a request that arrives while start is still running waits for it to finish.
constexpr uint32_t kStartWaitMs = 120000;
constexpr uint32_t kTaskQueueBytes = 160;

class COidMapExtModule : public CExtensionModule, public CTaskSerializer<SipJson> {
 public:
  // `messageFileDir` is where the message files are looked for first: the process's
  // current directory, unless a harness that must not move it names another.
  explicit COidMapExtModule(std::string messageFileDir = ".");
  ~COidMapExtModule() override;

  // ---- Host interface overrides --------------------------------------------------------
  uint32_t GetModuleInfo(void* moduleInfo) override;
  // Base start, worker start, cabinet list, count opcode checks, caches, help-desk text.
  uint32_t Start(CIModuleHost* host, uint64_t context) override;
  // Ends task serialization. Returns 1.
  uint32_t Stop() override;
  // EM_IDENT probe, cabinet list, SEL languages, one message-log scan task per cabinet.
  void Rescan() override;
  const char* GetModuleTag() override { return kModuleName; }
  // Slot 8: translates a reply or event back to the global view, traces it, forwards
  // events and keeps the message log caches in step with log events. Never throws.
  void OnReply(SipJson& reply) override;
  // Slot 9: declines threshold writes, forwards translated requests to their owner,
  // handles the multiple-module requests and the message log opcodes. Returns 1 when the
  // message holds the answer, 0 when the host should offer the request elsewhere.
  uint32_t OnRequest(SipJson& request) override;
  // Slot 25: the serializer's task handler.
  void OnTaskExecution(SipJson& task, int32_t level) override;

  // ---- Multiple-module requests (MultipleModuleRequests.cpp) ---------------------------
  // Broadcasts the requests that concern all modules and merges the replies into the
  // client's command. Returns 1 when handled here, 0 when `msg` is not such a request.
  uint32_t MultipleModuleRequest(SipJson& msg);

  // ---- Message log (LogCollection.cpp, LogQueries.cpp) -----------------------------------
  // Parses the log replies of `msg` (OC 0x0B00 / 0x0B16), merges and stores them into the
  // cache of the message's cabinet. Returns the first new sequence number, 0 when nothing
  // was stored.
  uint32_t CollectFromMessage(SipJson& msg);
  // True once some module answered a log scan request with success.
  bool IsLogDataSupported() const { return log_data_supported_.load(std::memory_order_acquire); }
  // Answers the message log queries and text requests of the dispatch (OC 0x0B10, 0x0B12,
  // 0x0B13, 0x0B17, 0x0B19, 0x0B1A, 0x0B20, 0x0B21, 0x0B23..0x0B25). Returns the
  // request handler's result.
  uint32_t HandleMessageLogRequest(SipJson& msg, uint32_t oc);

  // ---- Translation -------------------------------------------------------------------
  // Translates the command at `index` through the OID map table while mapping is needed.
  // Returns 1 when the message was changed.
  uint32_t TranslateMessage(SipJson& msg, int32_t index);

  // ---- State, for the request and reply handlers and for tests ---------------------------
  bool IsMappingNeeded() const { return mapping_needed_.load(std::memory_order_acquire); }
  bool IsKtasFallback() const { return ktas_fallback_.load(std::memory_order_acquire); }
  std::vector<uint32_t> CabinetList() const;
  bool IsKnownCabinet(uint32_t cabinet) const;
  std::set<uint16_t> SupportedSelLanguages() const;
  std::string HelpDeskMessage() const;
  // The table the last start built (empty before the first start).
  const COidMapTable& MapTable() const;
  CMsgLogCache& MsgLogCache() { return msg_log_cache_; }
  CRecursiveLock& CacheLock() { return cache_lock_; }

 private:
  void BuildCabinetList();
  void CheckOidMapping(COidMapTable& table, uint32_t cabinet);
  // Waits until a start that runs on another thread has finished. False on time-out.
  bool WaitForStartCompleted();
  uint32_t HandleRequest(SipJson& msg);
  uint32_t AnswerLogAvailable(SipJson& msg);
  // ---- Message log queries and texts (LogQueries.cpp) ----
  uint32_t AnswerLogQuery(SipJson& msg, uint32_t oc);
  // Fills the page of the query into msg; false when it holds no record.
  bool GetMsgLogCacheEntries(SipJson& msg);
  uint32_t AnswerTextRequest(SipJson& msg, uint32_t oc);
  // Answers a text request from the text cache; false when nothing is cached for it.
  bool AnswerFromTextCache(SipJson& msg, uint32_t oc);
  uint32_t QueueRawLogRequest(SipJson& msg);
  uint32_t AnswerSelLanguages(SipJson& msg);
  // Task thread: fetch the texts of a queued text request, or a raw log record, and hand
  // the answer up.
  void RunTextTask(SipJson& task);
  void RunRawLogTask(SipJson& task);
  // Asks the lower modules for the texts of `textOc` (0x0B21, 0x0B23, 0x0B1A, 0x0B17).
  // `handled` tells whether any module took the request at all.
  std::vector<std::string> FetchTexts(uint32_t textOc, uint32_t errorCode, uint16_t langId,
                                      uint32_t cabinet, bool* handled);
  // Configuration-space read of value `oe`: broadcast and merged when the value has a
  // merge rule (returns 1), else 0.
  uint32_t MergeConfigurationRead(SipJson& msg, uint32_t oe);
  // Empties the cache of `cabinet` under the module's cache lock.
  void ClearCabinetCache(uint32_t cabinet);
  void InitMessageLogCache(uint32_t cabinet);
  void ReadHelpDeskMessage();
  void ProbeIdentModule();
  void ReadSelLanguages();
  void QueueMessageLogScans();

  // ---- Log collection (LogCollection.cpp) ----
  // The two scan tasks: reset the cabinet's ready event, collect, set it again.
  void RunLogScan(uint32_t cabinet);
  void RunMessageLogScan(uint32_t cabinet);
  void BeginScan(uint32_t cabinet);
  void EndScan(uint32_t cabinet);
  // One CM_LogEntry broadcast of the log scan (OI 0 critical, 1 non-critical).
  void ScanOldStyleLog(uint32_t cabinet, uint32_t logOi);
  // CM_LogEntry to each module that does not answer CM_LogMessageArgumentsRead.
  void CollectFallbackLogs(uint32_t cabinet, const std::vector<uint32_t>& mids, uint32_t logOi);
  void PatchLogReplyOids(SipJson& msg, int32_t index);
  // The source table of one reply of `msg`; traces one error line for malformed data.
  std::vector<MsgLogEntry> ParseLogReply(const SipJson& msg, int32_t index);
  // Old-style records with their CSS flags and designations asked of module `mid`.
  LogBlockWalk ParseOldStyleRecords(const std::vector<uint8_t>& data, uint32_t mid,
                                    std::vector<MsgLogEntry>& source);
  bool LookUpCss(const OldStyleRecord& record, uint32_t mid, const std::string& key);
  std::string LookUpDesignation(const OldStyleRecord& record, uint32_t mid,
                                const std::string& key);
  // A CSS or designation request about the record's object, ready to send to `mid`.
  SipJson LookupRequest(uint32_t oc, const OldStyleRecord& record, uint32_t mid);

  // Start-up and OID mapping.
  std::atomic<bool> mapping_needed_{false};
  std::atomic<bool> ktas_fallback_{false};
  // Start builds a new table and publishes it when it has finished writing it; until
  // then nothing is translated. Tables are kept until the module ends, so a translation
  // still reading an earlier one is never left with a freed table.
  std::vector<std::unique_ptr<COidMapTable>> tables_;  // written only by start
  std::atomic<const COidMapTable*> active_table_{nullptr};
  // Set while start runs, so that requests of other threads wait for the table.
  CMutex start_mutex_;
  std::condition_variable start_done_;
  bool start_running_ GUARDED_BY(start_mutex_) = false;
  std::thread::id start_thread_ GUARDED_BY(start_mutex_);
  std::atomic<bool> start_running_flag_{false};
  std::set<uint32_t> already_requested_;       // count opcode keys of one cabinet's check

  // The re-scan rebuilds the cabinet list and languages while request threads read them.
  mutable CMutex cabinet_mutex_;
  mutable CMutex language_mutex_;
  mutable CMutex help_desk_mutex_;
  std::map<uint16_t, uint16_t> sel_languages_ GUARDED_BY(language_mutex_);  // used as a set
  std::string help_desk_message_ GUARDED_BY(help_desk_mutex_);
  std::array<uint32_t, kMaxCabinets> cabinets_ GUARDED_BY(cabinet_mutex_){};
  int32_t cabinet_count_ GUARDED_BY(cabinet_mutex_) = 1;

  // ---- Message log queries and texts (LogQueries.cpp) ----
  CLogMsgFile message_files_;  // both message files, parsed again only when changed
  CMsgTextCache text_cache_;   // texts the lower modules gave
  uint32_t cache_wait_ms_;     // kCacheWaitMs, or EM_OIDMAP_CACHE_WAIT_MS

  // ---- Message log collection (LogCollection.cpp) ----
  std::atomic<bool> log_data_supported_{false};
  CLogLookupCache log_lookups_;  // CssSupportCache and DesignationCache

  CRecursiveLock cache_lock_;  // the module's message log cache lock
  CMsgLogCache msg_log_cache_;
};

}  // namespace em_oidmap

#endif  // EM_OIDMAP_OIDMAPEXTMODULE_H
