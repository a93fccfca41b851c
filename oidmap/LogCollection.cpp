// Task execution and log collection: the log scan (task 0x0B10), the message log scan
// (task 0x0B16) with its per-module CM_LogEntry fall-back, and collect from message, which
// turns module replies and log events into cache entries.
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "trace/DebugClient.h"
#include "oidmap/CountOpcodeTable.h"
#include "oidmap/OidMapExtModule.h"
#include "oidmap/Opcodes.h"
#include "sip/SipStatus.h"

namespace em_oidmap {

namespace {

// Log-entry broadcasts and log reads wait this long for the modules.
constexpr uint32_t kLogReadTimeoutMs = 150000;
constexpr uint32_t kAllModuleIds = 0xFFFFFFFF;
// Caches that log events may create for cabinets outside the cabinet list. Each cabinet
// keeps up to kMaxMsgLogEntries, and a peer that sends events with ever new cabinet
// numbers would otherwise grow the table without end; the listed cabinets always get
// theirs.
constexpr size_t kMaxCabinetCaches = 2 * kMaxCabinets;

// A valid reply that carries data.
bool ReplyHasData(const SipJson& msg, int32_t index) {
  return IsValidReplyStatus(msg.GetStatus(index)) &&
         msg.GetDataForm(index) != SipDataForm::kNone;
}

// The reply's records, when its data is raw bytes (the only form log records take).
bool LogBytes(const SipJson& msg, int32_t index, std::vector<uint8_t>& bytes) {
  bytes.clear();
  return msg.GetDataForm(index) == SipDataForm::kRawBytes && msg.GetDataBytes(index, bytes);
}

}  // namespace

void COidMapExtModule::OnTaskExecution(SipJson& task, int32_t /*level*/) {
  const int32_t i = task.CurrentIndex();
  const uint32_t cabinet = task.GetKey(i, "CA");
  switch (task.GetOpcode(i)) {
    case CM_TaskLogScan:
      RunLogScan(cabinet);
      break;
    case CM_TaskMessageLogScan:
      RunMessageLogScan(cabinet);
      break;
    case CM_LogMessageRaw:
      RunRawLogTask(task);
      break;
    default:
      if (IsMessageTextOpcode(task.GetOpcode(i))) RunTextTask(task);
      break;
  }
}

void COidMapExtModule::BeginScan(uint32_t cabinet) {
  {
    // Created here when start-up did not know the cabinet, so that the ready event can
    // be set and the queries find an (empty) cache even when no module has entries.
    CRecursiveLockGuard guard(cache_lock_);
    msg_log_cache_.FindOrCreateCabinetCache(cabinet);
  }
  msg_log_cache_.SetCacheReady(cabinet, false);
}

void COidMapExtModule::EndScan(uint32_t cabinet) {
  if (!msg_log_cache_.SetCacheReady(cabinet, true)) {
    EM_TRACE(1, "\nEM_OIDMAP           : ERROR! FAILED to set \"Cache Ready\" event for cabinet number %d",
             static_cast<int>(cabinet));
  }
}

void COidMapExtModule::RunLogScan(uint32_t cabinet) {
  try {
    BeginScan(cabinet);
    ScanOldStyleLog(cabinet, CMOID_CriticalErrorLog);
  } catch (...) {
    EM_TRACE(1, "\nEM_OIDMAP           : EXCEPTION during error log scan");
  }
  try {
    ScanOldStyleLog(cabinet, CMOID_NonCriticalMessageLog);
  } catch (...) {
    EM_TRACE(1, "\nEM_OIDMAP           : EXCEPTION during event log scan");
  }
  EndScan(cabinet);
}

void COidMapExtModule::ScanOldStyleLog(uint32_t cabinet, uint32_t logOi) {
  const bool errorLog = logOi == CMOID_CriticalErrorLog;
  SipJson replies(CM_LogEntry, 0, logOi, cabinet);
  SendToAllModules(replies, kLogReadTimeoutMs);
  const int32_t count = static_cast<int32_t>(replies.CommandCount());
  if (errorLog) {
    EM_TRACE(4, "\nEM_OIDMAP           :   error log replies from %d modules received, analysing...",
             static_cast<int>(count));
  } else {
    EM_TRACE(4, "\nEM_OIDMAP           :   event log replies from %d modules received, analysing...",
             static_cast<int>(count));
  }

  bool anyData = false;
  std::vector<uint8_t> bytes;
  for (int32_t i = 0; i < count; ++i) {
    if (IsValidReplyStatus(replies.GetStatus(i))) {
      log_data_supported_.store(true, std::memory_order_release);
    }
    if (!ReplyHasData(replies, i)) {
      continue;
    }
    anyData = true;
    PatchLogReplyOids(replies, i);
    if (TraceClient().IsTraceActive()) {
      const uint32_t mid = replies.GetKey(i, "MI");
      LogBytes(replies, i, bytes);
      const int records = static_cast<int>(CountOldStyleRecords(bytes.data(), bytes.size()));
      if (errorLog) {
        EM_TRACE(4,
                 "\nEM_OIDMAP           :     got error log reply from MID 0x%04X%04X: Data "
                 "length=0x%02X (%d message log entries)",
                 mid >> 16, mid & 0xFFFF, replies.GetDataLength(i), records);
      } else {
        EM_TRACE(4,
                 "\nEM_OIDMAP           :     got event log reply from MID 0x%04X%04X: Data "
                 "length=0x%02X (%d message log entries)",
                 mid >> 16, mid & 0xFFFF, replies.GetDataLength(i), records);
      }
    }
  }
  if (anyData) {
    CollectFromMessage(replies);
  } else {
    if (errorLog) {
      EM_TRACE(4, "\nEM_OIDMAP           :   No error log entries found");
    } else {
      EM_TRACE(4, "\nEM_OIDMAP           :   No event log entries found");
    }
  }
}

void COidMapExtModule::RunMessageLogScan(uint32_t cabinet) {
  try {
    BeginScan(cabinet);
    EM_TRACE(4, "\nEM_OIDMAP           : Request message log using CM_LogMessageArgumentsRead broadcast...");
    SipJson replies(CM_LogMessageArgumentsRead, 0, 0, cabinet);
    SendToAllModules(replies, kLogReadTimeoutMs);
    EM_TRACE(4, "\nEM_OIDMAP           : ... broadcast completed");

    std::vector<uint32_t> fallback;
    std::unordered_set<uint32_t> fallbackSeen;
    bool anyData = false;
    const int32_t count = static_cast<int32_t>(replies.CommandCount());
    for (int32_t i = 0; i < count; ++i) {
      const uint32_t mid = replies.GetKey(i, "MI");
      if (IsValidReplyStatus(replies.GetStatus(i))) {
        EM_TRACE(3, "\nEM_OIDMAP           : MID 0x%08X: CM_LogMessageArgumentsRead supported", mid);
        log_data_supported_.store(true, std::memory_order_release);
        anyData = anyData || ReplyHasData(replies, i);
      } else {
        EM_TRACE(3, "\nEM_OIDMAP           : MID 0x%08X: CM_LogMessageArgumentsRead not supported",
                 mid);
        // A reply the host left unanswered names no module: asking "it" would broadcast.
        // A module is asked once however many replies it gave: a flooding module would
        // otherwise cost two 150 s requests per reply and store its log as often.
        if (mid != 0 && mid != kAllModuleIds && fallbackSeen.insert(mid).second) {
          fallback.push_back(mid);
        }
      }
    }
    if (anyData) {
      CollectFromMessage(replies);
    }
    CollectFallbackLogs(cabinet, fallback, CMOID_CriticalErrorLog);
    CollectFallbackLogs(cabinet, fallback, CMOID_NonCriticalMessageLog);
  } catch (...) {
    EM_TRACE(1, "\nEM_OIDMAP           : EXCEPTION during message log scan");
  }
  EndScan(cabinet);
}

void COidMapExtModule::CollectFallbackLogs(uint32_t cabinet, const std::vector<uint32_t>& mids,
                                           uint32_t logOi) {
  const bool errorLog = logOi == CMOID_CriticalErrorLog;
  if (errorLog) {
    EM_TRACE(3, "\nEM_OIDMAP           : Request error log messages from all modules:");
  } else {
    EM_TRACE(3, "\nEM_OIDMAP           : Request event log messages from all modules:");
  }
  SipJson collection;
  for (uint32_t mid : mids) {
    if (errorLog) {
      EM_TRACE(4,
               "\nEM_OIDMAP           : MID 0x%08X: Request message log using CM_LogEntry "
               "(CMOID_CriticalErrorLog)...",
               mid);
    } else {
      EM_TRACE(4,
               "\nEM_OIDMAP           : MID 0x%08X: Request message log using CM_LogEntry "
               "(CMOID_NonCriticalMessageLog)...",
               mid);
    }
    SipJson request(CM_LogEntry, 0, logOi, cabinet);
    request.SetModuleId(mid);
    SendRequest(request, kLogReadTimeoutMs);
    EM_TRACE(4, "\nEM_OIDMAP           : ... MID 0x%08X: Request completed", mid);
    const int32_t i = request.CurrentIndex();
    const uint32_t status = request.GetStatus(i);
    if (IsValidReplyStatus(status)) {
      log_data_supported_.store(true, std::memory_order_release);
      if (ReplyHasData(request, i)) {
        if (errorLog) {
          EM_TRACE(3, "\nEM_OIDMAP           : MID 0x%08X: CM_LogEntry (CMOID_CriticalErrorLog)",
                   mid);
        } else {
          EM_TRACE(3,
                   "\nEM_OIDMAP           : MID 0x%08X: CM_LogEntry (CMOID_NonCriticalMessageLog)",
                   mid);
        }
        PatchLogReplyOids(request, i);
        collection.AppendCommand(*request.Command(i));
      } else {
        if (errorLog) {
          EM_TRACE(3,
                   "\nEM_OIDMAP           : MID 0x%08X: CM_LogEntry (CMOID_CriticalErrorLog) - no "
                   "data (Status: 0x%X)",
                   mid, status);
        } else {
          EM_TRACE(3,
                   "\nEM_OIDMAP           : MID 0x%08X: CM_LogEntry (CMOID_NonCriticalMessageLog) "
                   "- no data",
                   mid);
        }
      }
    } else if (status == ST_TIMEOUT) {
      if (errorLog) {
        EM_TRACE(1,
                 "\nEM_OIDMAP           : MID 0x%08X: ## CM_LogEntry (CMOID_CriticalErrorLog) - "
                 "TIMEOUT!! ##",
                 mid);
      } else {
        EM_TRACE(1,
                 "\nEM_OIDMAP           : MID 0x%08X: ## CM_LogEntry (CMOID_NonCriticalMessageLog) "
                 "- TIMEOUT!! ##",
                 mid);
      }
    } else {
      if (errorLog) {
        EM_TRACE(3,
                 "\nEM_OIDMAP           : MID 0x%08X: CM_LogEntry (CMOID_CriticalErrorLog) - not "
                 "supported (Status: 0x%X)",
                 mid, status);
      } else {
        EM_TRACE(3,
                 "\nEM_OIDMAP           : MID 0x%08X: CM_LogEntry (CMOID_NonCriticalMessageLog) - "
                 "not supported",
                 mid);
      }
    }
  }
  if (collection.CountCommandsWithData() != 0) {
    CollectFromMessage(collection);
  }
}

void COidMapExtModule::PatchLogReplyOids(SipJson& msg, int32_t index) {
  // Only a finished table of a start that found mapping needed is ever published.
  if (const COidMapTable* table = active_table_.load(std::memory_order_acquire)) {
    table->PatchMessageLogReply(msg, index);
  }
}

uint32_t COidMapExtModule::CollectFromMessage(SipJson& msg) {
  const uint32_t cabinet = msg.GetKey(msg.CurrentIndex(), "CA");
  MsgLogCabinetCache* cache = nullptr;
  {
    CRecursiveLockGuard guard(cache_lock_);
    cache = msg_log_cache_.FindCabinetCache(cabinet);
    if (cache == nullptr && !IsKnownCabinet(cabinet) &&
        msg_log_cache_.CabinetCount() >= kMaxCabinetCaches) {
      EM_TRACE(1, "\nEM_OIDMAP           : ## ERROR! No message log cache for cabinet %u: too "
               "many cabinets - log data ignored", cabinet);
      return 0;
    }
    if (cache == nullptr) cache = msg_log_cache_.FindOrCreateCabinetCache(cabinet);
  }
  CMsgLogMerge merge;
  const int32_t count = static_cast<int32_t>(msg.CommandCount());
  for (int32_t i = 0; i < count; ++i) {
    const uint32_t oc = msg.GetOpcode(i);
    if ((oc != CM_LogEntry && oc != CM_LogMessageArgumentsRead) || !ReplyHasData(msg, i)) {
      continue;
    }
    std::vector<MsgLogEntry> source = ParseLogReply(msg, i);
    EM_TRACE(4, "\nEM_OIDMAP           :     %d message log entries in source table",
             static_cast<int>(source.size()));
    const size_t merged = merge.Add(std::move(source));
    EM_TRACE(4, "\nEM_OIDMAP           :     %d message log entries were left after table merge",
             static_cast<int>(merged));
  }
  // Entries beyond what the cache keeps are numbered by the store but never moved.
  const size_t total = merge.Size();
  std::vector<MsgLogEntry> newest = merge.Take(kMaxMsgLogEntries);
  const size_t unseen = total - newest.size();
  return CMsgLogCache::StoreEntries(*cache, std::move(newest), unseen);
}

std::vector<MsgLogEntry> COidMapExtModule::ParseLogReply(const SipJson& msg, int32_t index) {
  std::vector<MsgLogEntry> source;
  const uint32_t mid = msg.GetKey(index, "MI");
  std::vector<uint8_t> bytes;
  if (!LogBytes(msg, index, bytes)) {
    EM_TRACE(1, "\nEM_OIDMAP           : ## ERROR! Message log data from MID 0x%08X is not raw bytes - ignored",
             mid);
    return source;
  }
  LogBlockWalk walk;
  if (msg.GetOpcode(index) == CM_LogMessageArgumentsRead) {
    walk = ParseUnifiedRecords(bytes.data(), bytes.size(), mid, source);
  } else {
    walk = ParseOldStyleRecords(bytes, mid, source);
  }
  if (!walk.whole) {
    EM_TRACE(1, "\nEM_OIDMAP           : ## ERROR! Message log data from MID 0x%08X malformed at byte %u of %u - rest ignored",
             mid, static_cast<unsigned>(walk.end), static_cast<unsigned>(bytes.size()));
  }
  return source;
}

LogBlockWalk COidMapExtModule::ParseOldStyleRecords(const std::vector<uint8_t>& data,
                                                    uint32_t mid,
                                                    std::vector<MsgLogEntry>& source) {
  return WalkOldStyleRecords(data.data(), data.size(), [&](const OldStyleRecord& record) {
    EM_TRACE(3, "\nEM_OIDMAP           : Add message log entry 0x%02X%02X OID %d",
             record.CodeClass(), record.CodeLow(), static_cast<int>(record.ObjectId()));
    const std::string key =
        LogLookupKey(record.CodeClass(), record.CodeLow(), record.ObjectId(), record.Cabinet());
    const bool css = LookUpCss(record, mid, key);
    const std::string designation = LookUpDesignation(record, mid, key);
    source.push_back(MakeOldStyleEntry(record, mid, css, designation));
  });
}

SipJson COidMapExtModule::LookupRequest(uint32_t oc, const OldStyleRecord& record,
                                        uint32_t mid) {
  SipJson request(oc, 0, record.ObjectId(), record.Cabinet());
  request.SetModuleId(mid);
  request.SetStatus(ST_PENDING);
  // The record's object id is global once its reply was patched; the module must be
  // asked about its own instance. The CSS opcodes have no row of their own, so the
  // record's entity row, which patched the id, translates it back.
  if (TranslateMessage(request, 0) == 0) {
    const COidMapTable* table = active_table_.load(std::memory_order_acquire);
    const CountOpcodeRow* row = FindFirstRowOfKind(kCountKindLogEntity, record.CodeClass());
    if (table != nullptr && row != nullptr) {
      table->TranslateToModule(request, 0, row->countOc, row->countOe);
    }
  }
  return request;
}

bool COidMapExtModule::LookUpCss(const OldStyleRecord& record, uint32_t mid,
                                 const std::string& key) {
  bool css = false;
  if (const std::optional<bool> cached = log_lookups_.FindCss(key)) {
    css = *cached;
  } else if (const std::optional<uint32_t> oc = FindCssOpcode(record.CodeClass())) {
    SipJson request = LookupRequest(*oc, record, mid);
    EM_TRACE(4, "\nEM_OIDMAP           :     Request CSS support CAB %d OC 0x%04X OID 0x%04X",
             static_cast<int>(request.GetKey(0, "CA")), *oc, request.GetKey(0, "OI"));
    SendRequest(request, kSingleRequestTimeoutMs);
    const int32_t i = request.CurrentIndex();
    uint32_t value = 0;
    // A valid answer without a readable value is no answer: asked again next time.
    if (IsValidReplyStatus(request.GetStatus(i)) && request.GetDataValue(i, value)) {
      css = value != 0;
      log_lookups_.StoreCss(key, css);
    }
  }
  EM_TRACE(3, "\nEM_OIDMAP           :     CSS: %s", css ? "yes" : "no");
  return css;
}

std::string COidMapExtModule::LookUpDesignation(const OldStyleRecord& record, uint32_t mid,
                                                const std::string& key) {
  std::string designation;
  if (std::optional<std::string> cached = log_lookups_.FindDesignation(key)) {
    designation = std::move(*cached);
  } else if (const std::optional<uint32_t> oc =
                 FindDesignationOpcode(record.CodeClass(), record.CodeLow())) {
    SipJson request = LookupRequest(*oc, record, mid);
    EM_TRACE(4, "\nEM_OIDMAP           :     Request designation string CAB %d OC 0x%04X OID 0x%04X",
             static_cast<int>(request.GetKey(0, "CA")), *oc, request.GetKey(0, "OI"));
    SendRequest(request, kSingleRequestTimeoutMs);
    const int32_t i = request.CurrentIndex();
    std::string text;
    if (IsValidReplyStatus(request.GetStatus(i)) && request.GetDataString(i, text)) {
      designation = text;
      log_lookups_.StoreDesignation(key, text);
    }
  }
  EM_TRACE(3, "\nEM_OIDMAP           :     Designation string: \"%s\"", designation.c_str());
  return designation;
}

}  // namespace em_oidmap
