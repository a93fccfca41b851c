#include "oidmap/LogQueryService.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <utility>

#include "msglog/MsgLogPage.h"
#include "oidmap/ModuleTrace.h"
#include "oidmap/Opcodes.h"
#include "oidmap/Timeouts.h"
#include "sip/SipStatus.h"

namespace em_oidmap {
namespace {

// The only platform whose raw records the lower modules keep: the cabinet's own
// management controller.
constexpr uint32_t kPlatformCabinetController = 0;

// How long log queries wait for a cabinet's cache: EM_OIDMAP_CACHE_WAIT_MS when it is set
// to a positive decimal number of milliseconds (tests and diagnosis), else the standard
// wait. Any other value is ignored with a warning: a typing error must not turn the wait
// into none, or into one that never ends.
uint32_t CacheWaitMs() {
  // Read while the module is created, before it has threads of its own.
  const char* text = std::getenv("EM_OIDMAP_CACHE_WAIT_MS");  // NOLINT(concurrency-mt-unsafe)
  if (text == nullptr || *text == '\0') return kCacheWaitMs;
  uint64_t value = 0;
  const char* at = text;
  for (; *at >= '0' && *at <= '9' && value <= UINT32_MAX; ++at) {
    value = value * 10 + static_cast<uint64_t>(*at - '0');
  }
  if (*at != '\0' || value == 0 || value > UINT32_MAX) {
    OIDMAP_TRACE(1,
                 "## WARNING! EM_OIDMAP_CACHE_WAIT_MS=\"%s\" is no positive number of "
                 "milliseconds - ignored, the wait is %u sec",
                 text, kCacheWaitMs / 1000);
    return kCacheWaitMs;
  }
  return static_cast<uint32_t>(value);
}

}  // namespace

CLogQueryService::CLogQueryService(const CHostLink& host, const CCabinetDirectory& cabinets,
                                   CLogStore& store, const CLogCollector& collector,
                                   std::string messageFileDir)
    : host_(host),
      cabinets_(cabinets),
      store_(store),
      collector_(collector),
      message_files_(std::move(messageFileDir)),
      cache_wait_ms_(CacheWaitMs()) {}

uint32_t CLogQueryService::Answer(SipJson& msg, uint32_t oc) {
  switch (oc) {
    case CM_MessageLogAvailable:
      return AnswerLogAvailable(msg);
    case CM_GetMsgLogCacheEntries:
    case CM_MsgLogLastSequenceNumber:
    case CM_MsgLogNumberOfEntries:
      return AnswerLogQuery(msg, oc);
    case CM_LogMessageRaw:
      return QueueRawLogRequest(msg);
    case CM_SupportedSelLanguages:
      return AnswerSelLanguages(msg);
    default:
      if (IsMessageTextOpcode(oc)) return AnswerTextRequest(msg, oc);
      msg.SetStatus(ST_NOT_HANDLED);
      return 0;
  }
}

uint32_t CLogQueryService::AnswerLogAvailable(SipJson& msg) {
  const uint32_t ca = msg.GetKey(msg.CurrentIndex(), "CA", 0);
  if (!cabinets_.IsKnownCabinet(ca)) {
    msg.SetStatus(ST_LOG_INVALID);
    OIDMAP_TRACE(1, "ERROR! Message log is invalid for CABID %04d", static_cast<int>(ca));
    return 1;
  }
  const bool available = collector_.IsLogDataSupported();
  msg.SetDataValue(available ? 1 : 0, ST_SUCCESS);
  OIDMAP_TRACE(2, "Message Log %savailable!", available ? "" : "not ");
  return 1;
}

// ---- Log queries --------------------------------------------------------------------------

uint32_t CLogQueryService::AnswerLogQuery(SipJson& msg, uint32_t oc) {
  const int32_t i = msg.CurrentIndex();
  const uint32_t ca = msg.GetKey(i, "CA", 0);
  OIDMAP_TRACE(3, "Wait until message log cache is ready ...");
  if (oc == CM_GetMsgLogCacheEntries) {
    // Checked before the wait: a client asking in a language nobody speaks is told at once.
    const uint32_t langId = msg.GetKey(i, "OE", 0) & 0xFFFF;
    if (!cabinets_.IsSupportedSelLanguage(static_cast<uint16_t>(langId))) {
      OIDMAP_TRACE(1, "Language ID 0x%X not supported!", langId);
      msg.SetStatus(ST_NOT_AVAILABLE);
      return 1;
    }
  }
  if (!store_.WaitForReady(ca, cache_wait_ms_)) {
    OIDMAP_TRACE(1, "ERROR! Timeout (120 sec) waiting for message log cache");
    msg.SetStatus(ST_TIMEOUT);
    return 1;
  }
  OIDMAP_TRACE(3, "... message log cache is ready!");
  if (oc != CM_GetMsgLogCacheEntries) {
    return AnswerCounts(msg, oc);
  }
  if (!GetMsgLogCacheEntries(msg)) {
    OIDMAP_TRACE(1, "Empty log cache");
    msg.RemoveData();
    msg.SetStatus(ST_SUCCESS);
  }
  return 1;
}

uint32_t CLogQueryService::AnswerCounts(SipJson& msg, uint32_t oc) {
  uint32_t count = 0;
  uint32_t last = 0;
  store_.ReadEntries(msg.GetKey(msg.CurrentIndex(), "CA", 0),
                     [&](const MsgLogEntryList& entries, uint32_t lastSequence) {
                       count = static_cast<uint32_t>(entries.size());
                       last = lastSequence;
                     });
  if (oc == CM_MsgLogNumberOfEntries) {
    msg.SetDataValue(count, ST_SUCCESS);
  } else if (last == 0) {
    msg.RemoveData();
    msg.SetStatus(ST_NOT_AVAILABLE);
  } else {
    msg.SetDataValue(last, ST_SUCCESS);
  }
  return 1;
}

bool CLogQueryService::GetMsgLogCacheEntries(SipJson& msg) {
  const int32_t i = msg.CurrentIndex();
  const uint32_t ca = msg.GetKey(i, "CA", 0);
  MsgLogPageQuery query;
  query.opCodeExt = msg.GetKey(i, "OE", 0);
  query.pageNumber = msg.GetKey(i, "OI", 0);
  const SipDataForm form = msg.GetDataForm(i);
  if (form == SipDataForm::kInteger || form == SipDataForm::kBoolean) {
    msg.GetDataValue(i, query.sequenceNumber);
  }

  // The page's entries are copied under the locks and translated without them: a long
  // text may have to be fetched from the lower modules, and log events must not wait.
  std::vector<MsgLogEntry> page;
  const bool found = store_.ReadEntriesWhole(ca, [&](const MsgLogEntryList& entries, uint32_t) {
    const size_t start = MsgLogPageStartIndex(query.pageNumber, query.sequenceNumber,
                                              entries.begin(), entries.end());
    const size_t count = std::min<size_t>(kMsgLogPageSize, entries.size() - start);
    page.assign(entries.begin() + start, entries.begin() + start + count);
    query.firstIndex = start;
  });
  if (!found) {
    return false;
  }
  query.pageNumber = 0;  // the copy starts with the page's first entry
  MsgLogTextSources sources;
  sources.files = &message_files_;
  sources.longTexts = &text_cache_;
  // One request time-out for all the long texts of the page: a module that never answers
  // must not hold the request thread once per code.
  CFetchDeadline deadline(kSingleRequestTimeoutMs);
  std::vector<PendingLongText> deferred;
  sources.requestLongText = [&](uint32_t errorCode, uint16_t langId) {
    return FetchPageLongText(errorCode, langId, ca, deadline, &deferred);
  };
  std::vector<uint8_t> data;
  const bool built = BuildMsgLogPage(query, page.data(), page.data() + page.size(), sources, &data);
  DeferLongTexts(deferred);
  if (!built) {
    return false;
  }
  msg.SetRawData(data, ST_SUCCESS);
  return true;
}

// ---- Raw log records and languages ----------------------------------------------------------

bool CLogQueryService::FindRecord(uint32_t cabinet, uint32_t sequence, uint32_t* module,
                                  int32_t* recordId) {
  *recordId = -1;
  store_.ReadEntries(cabinet, [&](const MsgLogEntryList& entries, uint32_t) {
    const size_t at = MsgLogPageStartIndex(0, sequence, entries.begin(), entries.end());
    if (at < entries.size() && entries[at].SequenceNumber == sequence) {
      *module = entries[at].ModuleId;
      *recordId = entries[at].RecordId;
    }
  });
  return *recordId >= 0;
}

uint32_t CLogQueryService::QueueRawLogRequest(SipJson& msg) {
  const int32_t i = msg.CurrentIndex();
  const uint32_t platform = msg.GetKey(i, "OE", 0);
  uint32_t sequence = 0;
  bool valid =
      msg.GetDataForm(i) == SipDataForm::kInteger && msg.GetDataValue(i, sequence) && sequence != 0;
  if (valid && platform != kPlatformCabinetController) {
    OIDMAP_TRACE(1, "## ERROR! Invalid platform ID 0x%X!", platform);
    valid = false;
  }
  if (valid) {
    // The record is named by the sequence number of its cached entry, which knows the
    // module that holds the record and the record's id there.
    uint32_t module = 0;
    int32_t recordId = -1;
    if (!FindRecord(msg.GetKey(i, "CA", 0), sequence, &module, &recordId)) {
      OIDMAP_TRACE(1, "## ERROR! Invalid SEL record ID 0x%X!", static_cast<uint32_t>(recordId));
      valid = false;
    }
  }
  if (!valid) {
    OIDMAP_TRACE(1, "ERROR! CM_LogMessageRaw - invalid request arguemnts!");
    msg.SetStatus(ST_INVALID_ARGUMENTS);
    return 1;
  }
  // A full queue does not accept the request now.
  msg.SetStatus(host_.QueueTask(CopyOfCurrentCommand(msg)) ? ST_PENDING : ST_LOG_INVALID);
  return 1;
}

void CLogQueryService::RunRawLogTask(SipJson& task) {
  const int32_t i = task.CurrentIndex();
  const uint32_t cabinet = task.GetKey(i, "CA", 0);
  uint32_t sequence = 0;
  task.GetDataValue(i, sequence);
  uint32_t module = 0;
  int32_t recordId = -1;
  const bool cached = FindRecord(cabinet, sequence, &module, &recordId);
  task.RemoveData();
  task.SetStatus(ST_NOT_AVAILABLE);
  if (cached) {  // the entry may have been evicted since the request was queued
    SipJson request(CM_LogMessageRaw, 0, static_cast<uint32_t>(recordId), cabinet);
    request.SetModuleId(module);
    request.SetStatus(ST_PENDING);
    host_.SendRequest(request, kLogReadTimeoutMs);
    const int32_t r = request.CurrentIndex();
    std::vector<uint8_t> raw;
    if (IsValidReplyStatus(request.GetStatus(r)) && request.GetDataBytes(r, raw) && !raw.empty()) {
      task.SetRawData(raw, ST_SUCCESS);
    }
  }
  host_.HandBack(task);
}

uint32_t CLogQueryService::AnswerSelLanguages(SipJson& msg) {
  const int32_t i = msg.CurrentIndex();
  SipJson request(CM_SupportedSelLanguages, 0, 0, msg.GetKey(i, "CA", 0));
  request.SetStatus(ST_PENDING);
  host_.SendRequest(request, kSingleRequestTimeoutMs);
  const int32_t r = request.CurrentIndex();
  const SipJson::Value* reply = request.Command(r);
  if (!IsValidReplyStatus(request.GetStatus(r)) || reply == nullptr) {
    msg.SetStatus(ST_NOT_AVAILABLE);
    return 1;
  }
  // The languages as the lower module gave them (16-bit language ids, little-endian).
  std::vector<uint8_t> bytes;
  request.GetDataBytes(r, bytes);
  msg.SetRawData(bytes, ST_SUCCESS);
  return 1;
}

}  // namespace em_oidmap
