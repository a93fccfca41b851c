#include "oidmap/LogCollector.h"

#include <optional>
#include <unordered_set>
#include <utility>

#include "module/ExtensionModule.h"
#include "oidmap/ModuleTrace.h"
#include "oidmap/Opcodes.h"
#include "oidmap/Timeouts.h"
#include "sip/SipStatus.h"

namespace em_oidmap {
namespace {

constexpr uint32_t kAllModuleIds = 0xFFFFFFFF;

// How the traces name an old-style log.
struct LogNames {
  const char* word;    // "error" / "event"
  const char* oiName;  // the name of its OI
};

LogNames NamesOf(uint32_t logOi) {
  return logOi == CMOID_CriticalErrorLog ? LogNames{"error", "CMOID_CriticalErrorLog"}
                                         : LogNames{"event", "CMOID_NonCriticalMessageLog"};
}

// A valid reply that carries data.
bool ReplyHasData(const SipJson& msg, int32_t index) {
  return IsValidReplyStatus(msg.GetStatus(index)) && msg.GetDataForm(index) != SipDataForm::kNone;
}

// The reply's records, when its data is raw bytes (the only form log records take).
bool LogBytes(const SipJson& msg, int32_t index, std::vector<uint8_t>& bytes) {
  bytes.clear();
  return msg.GetDataForm(index) == SipDataForm::kRawBytes && msg.GetDataBytes(index, bytes);
}

}  // namespace

// ---- Scans ------------------------------------------------------------------------------

void CLogCollector::RunLogScan(uint32_t cabinet) {
  bool begun = false;
  for (const uint32_t logOi : {CMOID_CriticalErrorLog, CMOID_NonCriticalMessageLog}) {
    try {
      if (!begun) {
        begun = true;
        store_.BeginScan(cabinet);
      }
      ScanOldStyleLog(cabinet, logOi);
    } catch (...) {
      OIDMAP_TRACE(1, "EXCEPTION during %s log scan", NamesOf(logOi).word);
    }
  }
  store_.EndScan(cabinet);
}

void CLogCollector::ScanOldStyleLog(uint32_t cabinet, uint32_t logOi) {
  const char* word = NamesOf(logOi).word;
  SipJson replies(CM_LogEntry, 0, logOi, cabinet);
  host_.SendToAllModules(replies, kLogReadTimeoutMs);
  const int32_t count = static_cast<int32_t>(replies.CommandCount());
  OIDMAP_TRACE(4, "  %s log replies from %d modules received, analysing...", word,
               static_cast<int>(count));

  bool anyData = false;
  std::vector<uint8_t> bytes;
  for (int32_t i = 0; i < count; ++i) {
    if (IsValidReplyStatus(replies.GetStatus(i))) {
      SetLogDataSupported();
    }
    if (!ReplyHasData(replies, i)) {
      continue;
    }
    anyData = true;
    mapper_.PatchLogReply(replies, i);
    if (TraceClient().IsTraceActive()) {
      const uint32_t mid = replies.GetKey(i, "MI");
      LogBytes(replies, i, bytes);
      const int records = static_cast<int>(CountOldStyleRecords(bytes.data(), bytes.size()));
      OIDMAP_TRACE(4,
                   "    got %s log reply from MID 0x%04X%04X: Data length=0x%02X (%d message "
                   "log entries)",
                   word, MidHigh(mid), MidLow(mid), replies.GetDataLength(i), records);
    }
  }
  if (anyData) {
    CollectFromMessage(replies);
  } else {
    OIDMAP_TRACE(4, "  No %s log entries found", word);
  }
}

void CLogCollector::RunMessageLogScan(uint32_t cabinet) {
  try {
    store_.BeginScan(cabinet);
    const std::vector<uint32_t> fallback = ScanUnifiedLog(cabinet);
    CollectFallbackLogs(cabinet, fallback, CMOID_CriticalErrorLog);
    CollectFallbackLogs(cabinet, fallback, CMOID_NonCriticalMessageLog);
  } catch (...) {
    OIDMAP_TRACE(1, "EXCEPTION during message log scan");
  }
  store_.EndScan(cabinet);
}

std::vector<uint32_t> CLogCollector::ScanUnifiedLog(uint32_t cabinet) {
  OIDMAP_TRACE(4, "Request message log using CM_LogMessageArgumentsRead broadcast...");
  SipJson replies(CM_LogMessageArgumentsRead, 0, 0, cabinet);
  host_.SendToAllModules(replies, kLogReadTimeoutMs);
  OIDMAP_TRACE(4, "... broadcast completed");

  std::vector<uint32_t> fallback;
  std::unordered_set<uint32_t> fallbackSeen;
  bool anyData = false;
  const int32_t count = static_cast<int32_t>(replies.CommandCount());
  for (int32_t i = 0; i < count; ++i) {
    const uint32_t mid = replies.GetKey(i, "MI");
    if (IsValidReplyStatus(replies.GetStatus(i))) {
      OIDMAP_TRACE(3, "MID 0x%08X: CM_LogMessageArgumentsRead supported", mid);
      SetLogDataSupported();
      anyData = anyData || ReplyHasData(replies, i);
    } else {
      OIDMAP_TRACE(3, "MID 0x%08X: CM_LogMessageArgumentsRead not supported", mid);
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
  return fallback;
}

void CLogCollector::CollectFallbackLogs(uint32_t cabinet, const std::vector<uint32_t>& mids,
                                        uint32_t logOi) {
  const LogNames names = NamesOf(logOi);
  // The error log's lines tell the status, the event log's do not.
  const bool withStatus = logOi == CMOID_CriticalErrorLog;
  OIDMAP_TRACE(3, "Request %s log messages from all modules:", names.word);
  SipJson collection;
  for (uint32_t mid : mids) {
    OIDMAP_TRACE(4, "MID 0x%08X: Request message log using CM_LogEntry (%s)...", mid, names.oiName);
    SipJson request(CM_LogEntry, 0, logOi, cabinet);
    request.SetModuleId(mid);
    host_.SendRequest(request, kLogReadTimeoutMs);
    OIDMAP_TRACE(4, "... MID 0x%08X: Request completed", mid);
    const int32_t i = request.CurrentIndex();
    const uint32_t status = request.GetStatus(i);
    if (IsValidReplyStatus(status)) {
      SetLogDataSupported();
      if (ReplyHasData(request, i)) {
        OIDMAP_TRACE(3, "MID 0x%08X: CM_LogEntry (%s)", mid, names.oiName);
        mapper_.PatchLogReply(request, i);
        collection.AppendCommand(*request.Command(i));
      } else if (withStatus) {
        OIDMAP_TRACE(3, "MID 0x%08X: CM_LogEntry (%s) - no data (Status: 0x%X)", mid, names.oiName,
                     status);
      } else {
        OIDMAP_TRACE(3, "MID 0x%08X: CM_LogEntry (%s) - no data", mid, names.oiName);
      }
    } else if (status == ST_TIMEOUT) {
      OIDMAP_TRACE(1, "MID 0x%08X: ## CM_LogEntry (%s) - TIMEOUT!! ##", mid, names.oiName);
    } else if (withStatus) {
      OIDMAP_TRACE(3, "MID 0x%08X: CM_LogEntry (%s) - not supported (Status: 0x%X)", mid,
                   names.oiName, status);
    } else {
      OIDMAP_TRACE(3, "MID 0x%08X: CM_LogEntry (%s) - not supported", mid, names.oiName);
    }
  }
  if (collection.CountCommandsWithData() != 0) {
    CollectFromMessage(collection);
  }
}

void CLogCollector::QueueMessageLogScans(const std::vector<uint32_t>& cabinets) const {
  for (uint32_t cabinet : cabinets) {
    if (host_.IsStopping()) {
      break;
    }
    host_.QueueTask(SipJson(CM_TaskMessageLogScan, 0, 0, cabinet));
  }
}

// ---- Collect from message ----------------------------------------------------------------

uint32_t CLogCollector::CollectFromMessage(SipJson& msg) {
  MsgLogCabinetCache* cache = store_.CacheForStore(msg.GetKey(msg.CurrentIndex(), "CA"));
  if (cache == nullptr) {
    return 0;
  }
  CMsgLogMerge merge;
  const int32_t count = static_cast<int32_t>(msg.CommandCount());
  for (int32_t i = 0; i < count; ++i) {
    const uint32_t oc = msg.GetOpcode(i);
    if ((oc != CM_LogEntry && oc != CM_LogMessageArgumentsRead) || !ReplyHasData(msg, i)) {
      continue;
    }
    std::vector<MsgLogEntry> source = ParseLogReply(msg, i);
    OIDMAP_TRACE(4, "    %d message log entries in source table", static_cast<int>(source.size()));
    const size_t merged = merge.Add(std::move(source));
    OIDMAP_TRACE(4, "    %d message log entries were left after table merge",
                 static_cast<int>(merged));
  }
  // Entries beyond what the cache keeps are numbered by the store but never moved.
  const size_t total = merge.Size();
  std::vector<MsgLogEntry> newest = merge.Take(kMaxMsgLogEntries);
  const size_t unseen = total - newest.size();
  return CMsgLogCache::StoreEntries(*cache, std::move(newest), unseen);
}

std::vector<MsgLogEntry> CLogCollector::ParseLogReply(const SipJson& msg, int32_t index) {
  std::vector<MsgLogEntry> source;
  const uint32_t mid = msg.GetKey(index, "MI");
  std::vector<uint8_t> bytes;
  if (!LogBytes(msg, index, bytes)) {
    OIDMAP_TRACE(1, "## ERROR! Message log data from MID 0x%08X is not raw bytes - ignored", mid);
    return source;
  }
  LogBlockWalk walk;
  if (msg.GetOpcode(index) == CM_LogMessageArgumentsRead) {
    walk = ParseUnifiedRecords(bytes.data(), bytes.size(), mid, source);
  } else {
    walk = ParseOldStyleRecords(bytes, mid, source);
  }
  if (!walk.whole) {
    OIDMAP_TRACE(1,
                 "## ERROR! Message log data from MID 0x%08X malformed at byte %u of %u - rest "
                 "ignored",
                 mid, static_cast<unsigned>(walk.end), static_cast<unsigned>(bytes.size()));
  }
  if (walk.cut != 0) {
    OIDMAP_TRACE(
        1, "## WARNING! Message log data from MID 0x%08X: arguments of %u entries cut to %u bytes",
        mid, static_cast<unsigned>(walk.cut), static_cast<unsigned>(kMaxEntryArgumentBytes));
  }
  return source;
}

LogBlockWalk CLogCollector::ParseOldStyleRecords(const std::vector<uint8_t>& data, uint32_t mid,
                                                 std::vector<MsgLogEntry>& source) {
  return WalkOldStyleRecords(data.data(), data.size(), [&](const OldStyleRecord& record) {
    OIDMAP_TRACE(3, "Add message log entry 0x%02X%02X OID %d", record.CodeClass(), record.CodeLow(),
                 static_cast<int>(record.ObjectId()));
    const std::string key =
        LogLookupKey(record.CodeClass(), record.CodeLow(), record.ObjectId(), record.Cabinet());
    const bool css = LookUpCss(record, mid, key);
    const std::string designation = LookUpDesignation(record, mid, key);
    source.push_back(MakeOldStyleEntry(record, mid, css, designation));
  });
}

// ---- CSS and designation look-ups ----------------------------------------------------------

SipJson CLogCollector::LookupRequest(uint32_t oc, const OldStyleRecord& record,
                                     uint32_t mid) const {
  SipJson request(oc, 0, record.ObjectId(), record.Cabinet());
  request.SetModuleId(mid);
  request.SetStatus(ST_PENDING);
  // The record's object id is global once its reply was patched; the module must be
  // asked about its own instance.
  mapper_.TranslateLookupRequest(request, record.CodeClass());
  return request;
}

bool CLogCollector::LookUpCss(const OldStyleRecord& record, uint32_t mid, const std::string& key) {
  bool css = false;
  if (const std::optional<bool> cached = lookups_.FindCss(key)) {
    css = *cached;
  } else if (const std::optional<uint32_t> oc = FindCssOpcode(record.CodeClass())) {
    SipJson request = LookupRequest(*oc, record, mid);
    OIDMAP_TRACE(4, "    Request CSS support CAB %d OC 0x%04X OID 0x%04X",
                 static_cast<int>(request.GetKey(0, "CA")), *oc, request.GetKey(0, "OI"));
    host_.SendRequest(request, kSingleRequestTimeoutMs);
    const int32_t i = request.CurrentIndex();
    uint32_t value = 0;
    // A valid answer without a readable value is no answer: asked again next time.
    if (IsValidReplyStatus(request.GetStatus(i)) && request.GetDataValue(i, value)) {
      css = value != 0;
      lookups_.StoreCss(key, css);
    }
  }
  OIDMAP_TRACE(3, "    CSS: %s", css ? "yes" : "no");
  return css;
}

std::string CLogCollector::LookUpDesignation(const OldStyleRecord& record, uint32_t mid,
                                             const std::string& key) {
  std::string designation;
  if (std::optional<std::string> cached = lookups_.FindDesignation(key)) {
    designation = std::move(*cached);
  } else if (const std::optional<uint32_t> oc =
                 FindDesignationOpcode(record.CodeClass(), record.CodeLow())) {
    SipJson request = LookupRequest(*oc, record, mid);
    OIDMAP_TRACE(4, "    Request designation string CAB %d OC 0x%04X OID 0x%04X",
                 static_cast<int>(request.GetKey(0, "CA")), *oc, request.GetKey(0, "OI"));
    host_.SendRequest(request, kSingleRequestTimeoutMs);
    const int32_t i = request.CurrentIndex();
    std::string text;
    if (IsValidReplyStatus(request.GetStatus(i)) && request.GetDataString(i, text)) {
      SanitiseDesignation(text);  // once, before it is cached and stored with entries
      designation = text;
      lookups_.StoreDesignation(key, text);
    }
  }
  OIDMAP_TRACE(3, "    Designation string: \"%s\"", designation.c_str());
  return designation;
}

}  // namespace em_oidmap
