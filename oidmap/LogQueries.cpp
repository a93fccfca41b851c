// Message log queries (pages of translated entries, last sequence number, number of
// entries) and message text requests (long text, summary, causes, resolutions), the raw
// log record request and the supported SEL languages. Texts that are not cached yet are
// fetched from the lower modules on the task thread; the answer goes up through the
// hand-back (docs/message-log-queries.md).
#include <string>
#include <vector>

#include "trace/DebugClient.h"
#include "msglog/MsgLogPage.h"
#include "oidmap/OidMapExtModule.h"
#include "oidmap/Opcodes.h"
#include "sip/SipStatus.h"

namespace em_oidmap {

namespace {

constexpr uint32_t kLogReadTimeoutMs = 150000;
// The only platform whose raw records the lower modules keep: the cabinet's own
// management controller.
constexpr uint32_t kPlatformCabinetController = 0;

// The kind of text a text request asks for, and the request that fetches it below.
MsgTextKind TextKindOf(uint32_t oc) {
  switch (oc) {
    case CM_LogMessageLongText: return MsgTextKind::kLongText;
    case CM_LogMessageSummary: return MsgTextKind::kSummary;
    case CM_LogMessageAllCauses:
    case CM_LogMessageCause: return MsgTextKind::kCauses;
    default: return MsgTextKind::kResolutions;
  }
}

uint32_t FetchOpcodeOf(MsgTextKind kind) {
  switch (kind) {
    case MsgTextKind::kLongText: return CM_LogMessageLongText;
    case MsgTextKind::kSummary: return CM_LogMessageSummary;
    case MsgTextKind::kCauses: return CM_LogMessageAllCauses;
    default: return CM_LogMessageAllResolutions;
  }
}

// The message of a task: a copy of the client's current command, "CI" included.
SipJson CopyOfCurrentCommand(const SipJson& msg) {
  SipJson copy;
  if (const SipJson::Value* command = msg.Command(msg.CurrentIndex())) {
    copy.CurrentCommand().CopyFrom(*command, copy.GetAllocator());
  }
  return copy;
}

}  // namespace

uint32_t COidMapExtModule::HandleMessageLogRequest(SipJson& msg, uint32_t oc) {
  switch (oc) {
    case CM_GetMsgLogCacheEntries:
    case CM_MsgLogLastSequenceNumber:
    case CM_MsgLogNumberOfEntries:
      return AnswerLogQuery(msg, oc);
    case CM_LogMessageRaw:
      return QueueRawLogRequest(msg);
    case CM_SupportedSelLanguages:
      return AnswerSelLanguages(msg);
    default:
      return AnswerTextRequest(msg, oc);
  }
}

// ---- Log queries ------------------------------------------------------------------------

uint32_t COidMapExtModule::AnswerLogQuery(SipJson& msg, uint32_t oc) {
  const int32_t i = msg.CurrentIndex();
  const uint32_t ca = msg.GetKey(i, "CA", 0);
  EM_TRACE(3, "\nEM_OIDMAP           : Wait until message log cache is ready ...");
  if (oc == CM_GetMsgLogCacheEntries) {
    // Checked before the wait: a client asking in a language nobody speaks is told at once.
    const uint32_t langId = msg.GetKey(i, "OE", 0) & 0xFFFF;
    if (SupportedSelLanguages().count(static_cast<uint16_t>(langId)) == 0) {
      EM_TRACE(1, "\nEM_OIDMAP           : Language ID 0x%X not supported!", langId);
      msg.SetStatus(ST_NOT_AVAILABLE);
      return 1;
    }
  }
  if (!msg_log_cache_.WaitForCacheReady(ca, cache_wait_ms_)) {
    EM_TRACE(1, "\nEM_OIDMAP           : ERROR! Timeout (120 sec) waiting for message log cache");
    msg.SetStatus(ST_TIMEOUT);
    return 1;
  }
  EM_TRACE(3, "\nEM_OIDMAP           : ... message log cache is ready!");

  if (oc == CM_GetMsgLogCacheEntries) {
    if (!GetMsgLogCacheEntries(msg)) {
      EM_TRACE(1, "\nEM_OIDMAP           : Empty log cache");
      msg.RemoveData();
      msg.SetStatus(ST_SUCCESS);
    }
    return 1;
  }
  uint32_t count = 0;
  uint32_t last = 0;
  msg_log_cache_.ReadEntries(ca, [&](const MsgLogEntryList& entries, uint32_t lastSequence) {
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

bool COidMapExtModule::GetMsgLogCacheEntries(SipJson& msg) {
  const int32_t i = msg.CurrentIndex();
  const uint32_t ca = msg.GetKey(i, "CA", 0);
  MsgLogPageQuery query;
  query.opCodeExt = msg.GetKey(i, "OE", 0);
  query.pageNumber = msg.GetKey(i, "OI", 0);
  const SipDataForm form = msg.GetDataForm(i);
  if (form == SipDataForm::kInteger || form == SipDataForm::kBoolean) {
    msg.GetDataValue(i, query.sequenceNumber);
  }

  // The page's entries are copied under the cabinet's lock and translated without it:
  // a long text may have to be fetched from the lower modules, and log events must not
  // wait for that.
  std::vector<MsgLogEntry> page;
  bool found = false;
  {
    CRecursiveLockGuard guard(cache_lock_);
    found = msg_log_cache_.ReadEntries(ca, [&](const MsgLogEntryList& entries, uint32_t) {
      const size_t start = MsgLogPageStartIndex(query.pageNumber, query.sequenceNumber,
                                                entries.begin(), entries.end());
      const size_t count = std::min<size_t>(kMsgLogPageSize, entries.size() - start);
      page.assign(entries.begin() + start, entries.begin() + start + count);
      query.firstIndex = start;
    });
  }
  if (!found) {
    return false;
  }
  query.pageNumber = 0;  // the copy starts with the page's first entry
  MsgLogTextSources sources;
  sources.files = &message_files_;
  sources.longTexts = &text_cache_;
  sources.requestLongText = [this, ca](uint32_t errorCode, uint16_t langId) {
    bool handled = false;
    const std::vector<std::string> texts =
        FetchTexts(CM_LogMessageLongText, errorCode, langId, ca, &handled);
    return texts.empty() ? std::string() : texts.front();
  };
  std::vector<uint8_t> data;
  if (!BuildMsgLogPage(query, page.data(), page.data() + page.size(), sources, &data)) {
    return false;
  }
  msg.SetRawData(data, ST_SUCCESS);
  return true;
}

// ---- Text requests ----------------------------------------------------------------------

uint32_t COidMapExtModule::AnswerTextRequest(SipJson& msg, uint32_t oc) {
  const int32_t i = msg.CurrentIndex();
  uint32_t errorCode = 0;
  const SipDataForm form = msg.GetDataForm(i);
  if ((form != SipDataForm::kInteger && form != SipDataForm::kRawBytes) ||
      !msg.GetDataValue(i, errorCode)) {
    EM_TRACE(1,
             "\nEM_OIDMAP           : ## ERROR! Invalid log message text request arguments (no "
             "error code supplied)!");
    msg.SetStatus(ST_INVALID_ARGUMENTS);
    return 1;
  }
  EM_TRACE(3, "\nEM_OIDMAP           : Request message text for error code 0x%06X (Lang: 0x%04X) ...",
           errorCode, msg.GetKey(i, "OE", 0) & 0xFFFF);
  if (AnswerFromTextCache(msg, oc)) {
    return 1;
  }
  EM_TRACE(3,
           "\nEM_OIDMAP           :   message text(s) not found in text cache - issue request to "
           "lower modules (insert into task queue)");
  if (!InsertTask(CopyOfCurrentCommand(msg), 0, nullptr)) {
    msg.SetStatus(ST_LOG_INVALID);  // the task queue is full: not accepted now
    return 1;
  }
  msg.SetStatus(ST_PENDING);
  return 1;
}

bool COidMapExtModule::AnswerFromTextCache(SipJson& msg, uint32_t oc) {
  const int32_t i = msg.CurrentIndex();
  uint32_t errorCode = 0;
  msg.GetDataValue(i, errorCode);
  const uint16_t langId = static_cast<uint16_t>(msg.GetKey(i, "OE", 0));
  const uint32_t paragraph = msg.GetKey(i, "OI", 0);
  const MsgTextKind kind = TextKindOf(oc);

  switch (oc) {
    case CM_LogMessageLongText:
    case CM_LogMessageSummary: {
      if (oc == CM_LogMessageLongText) {
        EM_TRACE(3, "\nEM_OIDMAP           :   find long message in cache...");
      } else {
        EM_TRACE(3, "\nEM_OIDMAP           :   find summary message in cache...");
      }
      std::string text;
      if (!text_cache_.FindText(kind, errorCode, langId, &text)) return false;
      EM_TRACE(3, "\nEM_OIDMAP           :    -> reply simply message");
      msg.SetDataString(text, ST_SUCCESS);
      return true;
    }
    case CM_LogMessageAllCauses:
    case CM_LogMessageAllResolutions: {
      if (oc == CM_LogMessageAllCauses) {
        EM_TRACE(3, "\nEM_OIDMAP           :   find cause message(s) in cache...");
      } else {
        EM_TRACE(3, "\nEM_OIDMAP           :   find resolution message(s) in cache...");
      }
      std::vector<std::string> paragraphs;
      if (!text_cache_.FindParagraphs(kind, errorCode, langId, &paragraphs)) return false;
      EM_TRACE(3, "\nEM_OIDMAP           :    -> reply complete multistring message");
      msg.SetDataStrings(paragraphs, ST_SUCCESS);
      return true;
    }
    default: {
      if (oc == CM_LogMessageCause) {
        EM_TRACE(3, "\nEM_OIDMAP           :   find cause message(s) in cache, get paragraph #%d...",
                 static_cast<int>(paragraph));
      } else {
        EM_TRACE(3,
                 "\nEM_OIDMAP           :   find resolution message(s) in cache, get paragraph "
                 "#%d...",
                 static_cast<int>(paragraph));
      }
      std::string text;
      switch (text_cache_.FindParagraph(kind, errorCode, langId, paragraph, &text)) {
        case ParagraphLookup::kNotCached:
          return false;
        case ParagraphLookup::kTooHigh:
          EM_TRACE(3,
                   "\nEM_OIDMAP           :    -> paragraph number %d too high (no more message "
                   "strings)",
                   static_cast<int>(paragraph));
          msg.RemoveData();
          msg.SetStatus(ST_PARAGRAPH_TOO_HIGH);
          return true;
        case ParagraphLookup::kFound:
          EM_TRACE(3, "\nEM_OIDMAP           :    -> reply message [%d]", static_cast<int>(paragraph));
          msg.SetDataString(text, ST_SUCCESS);
          return true;
      }
      return false;
    }
  }
}

std::vector<std::string> COidMapExtModule::FetchTexts(uint32_t textOc, uint32_t errorCode,
                                                      uint16_t langId, uint32_t cabinet,
                                                      bool* handled) {
  // Asked like the client asks this module: the language in OE, the error code in DA; the
  // first module that knows the code answers with a text or a multi-string.
  SipJson request(textOc, langId, 0, cabinet);
  request.SetDataValue(errorCode, ST_PENDING);
  SendToAllModules(request, kSingleRequestTimeoutMs);
  std::vector<std::string> texts;
  *handled = false;
  for (uint32_t r = 0; r < request.CommandCount(); ++r) {
    const int32_t i = static_cast<int32_t>(r);
    const uint32_t st = request.GetStatus(i);
    if (st != ST_NOT_HANDLED) *handled = true;
    if (!IsValidReplyStatus(st)) continue;
    if (request.GetDataForm(i) == SipDataForm::kMultiString) {
      request.GetDataStrings(i, texts);
    } else {
      std::string text;
      if (request.GetDataForm(i) == SipDataForm::kText && request.GetDataString(i, text) &&
          !text.empty()) {
        texts.push_back(std::move(text));
      }
    }
    if (!texts.empty()) break;
  }
  return texts;
}

void COidMapExtModule::RunTextTask(SipJson& task) {
  const int32_t i = task.CurrentIndex();
  const uint32_t oc = task.GetOpcode(i);
  uint32_t errorCode = 0;
  task.GetDataValue(i, errorCode);
  const uint16_t langId = static_cast<uint16_t>(task.GetKey(i, "OE", 0));
  const uint32_t cabinet = task.GetKey(i, "CA", 0);
  const MsgTextKind kind = TextKindOf(oc);
  EM_TRACE(3, "\nEM_OIDMAP           : request message text for error code 0x%06X langId %d...",
           errorCode, static_cast<int>(langId));

  bool handled = false;
  std::vector<std::string> texts =
      FetchTexts(FetchOpcodeOf(kind), errorCode, langId, cabinet, &handled);
  bool stored = false;
  if (kind == MsgTextKind::kLongText || kind == MsgTextKind::kSummary) {
    if (!texts.empty()) {
      EM_TRACE(3, "\nEM_OIDMAP           :   message = \"%s\"", texts.front().c_str());
      stored = text_cache_.PutText(kind, errorCode, langId, texts.front());
      if (kind == MsgTextKind::kLongText) {
        EM_TRACE(3, "\nEM_OIDMAP           :   put \"long text\" message into cache");
      } else {
        EM_TRACE(3, "\nEM_OIDMAP           :   put \"summary\" message into cache");
      }
    }
  } else if (!texts.empty()) {
    if (TraceClient().IsTraceActive()) {
      EM_TRACE(3, "\nEM_OIDMAP           :   %d messages:", static_cast<int>(texts.size()));
      for (size_t p = 0; p < texts.size(); ++p) {
        EM_TRACE(3, "\nEM_OIDMAP           :     message [%d] = \"%s\"", static_cast<int>(p),
                 texts[p].c_str());
      }
    }
    if (kind == MsgTextKind::kCauses) {
      stored = text_cache_.PutParagraphs(kind, errorCode, langId, std::move(texts));
      EM_TRACE(3, "\nEM_OIDMAP           :   put \"causes\" message(s) into cache");
    } else {
      stored = text_cache_.PutResolutions(errorCode, langId, std::move(texts),
                                          HelpDeskMessage());
      EM_TRACE(3, "\nEM_OIDMAP           :   put \"resolutions\" message(s) into cache");
    }
  } else if (kind == MsgTextKind::kResolutions && !handled) {
    EM_TRACE(2, "\nEM_OIDMAP           : ## INFO: Message log resolutions are not supported on this system!");
  }

  if (!stored || !AnswerFromTextCache(task, oc)) {
    EM_TRACE(3, "\nEM_OIDMAP           :   requested log message(s) not found for this error code");
    task.RemoveData();
    task.SetStatus(ST_NOT_AVAILABLE);
  }
  HandBack(task);
}

// ---- Raw log records and languages ----------------------------------------------------------

uint32_t COidMapExtModule::QueueRawLogRequest(SipJson& msg) {
  const int32_t i = msg.CurrentIndex();
  const uint32_t platform = msg.GetKey(i, "OE", 0);
  const SipDataForm form = msg.GetDataForm(i);
  uint32_t sequence = 0;
  bool valid = (form == SipDataForm::kInteger) && msg.GetDataValue(i, sequence) && sequence != 0;
  if (valid && platform != kPlatformCabinetController) {
    EM_TRACE(1, "\nEM_OIDMAP           : ## ERROR! Invalid platform ID 0x%X!", platform);
    valid = false;
  }
  if (valid) {
    // The record is named by the sequence number of its cached entry, which knows the
    // module that holds the record and the record's id there.
    int32_t recordId = -1;
    msg_log_cache_.ReadEntries(msg.GetKey(i, "CA", 0),
                               [&](const MsgLogEntryList& entries, uint32_t) {
                                 const size_t at = MsgLogPageStartIndex(0, sequence,
                                                                        entries.begin(),
                                                                        entries.end());
                                 if (at < entries.size() &&
                                     entries[at].SequenceNumber == sequence) {
                                   recordId = entries[at].RecordId;
                                 }
                               });
    if (recordId < 0) {
      EM_TRACE(1, "\nEM_OIDMAP           : ## ERROR! Invalid SEL record ID 0x%X!",
               static_cast<uint32_t>(recordId));
      valid = false;
    }
  }
  if (!valid) {
    EM_TRACE(1, "\nEM_OIDMAP           : ERROR! CM_LogMessageRaw - invalid request arguemnts!");
    msg.SetStatus(ST_INVALID_ARGUMENTS);
    return 1;
  }
  if (!InsertTask(CopyOfCurrentCommand(msg), 0, nullptr)) {
    msg.SetStatus(ST_LOG_INVALID);
    return 1;
  }
  msg.SetStatus(ST_PENDING);
  return 1;
}

void COidMapExtModule::RunRawLogTask(SipJson& task) {
  const int32_t i = task.CurrentIndex();
  const uint32_t cabinet = task.GetKey(i, "CA", 0);
  uint32_t sequence = 0;
  task.GetDataValue(i, sequence);
  uint32_t module = 0;
  int32_t recordId = -1;
  msg_log_cache_.ReadEntries(cabinet, [&](const MsgLogEntryList& entries, uint32_t) {
    const size_t at = MsgLogPageStartIndex(0, sequence, entries.begin(), entries.end());
    if (at < entries.size() && entries[at].SequenceNumber == sequence) {
      module = entries[at].ModuleId;
      recordId = entries[at].RecordId;
    }
  });
  task.RemoveData();
  task.SetStatus(ST_NOT_AVAILABLE);
  if (recordId >= 0) {  // the entry may have been evicted since the request was queued
    SipJson request(CM_LogMessageRaw, 0, static_cast<uint32_t>(recordId), cabinet);
    request.SetModuleId(module);
    request.SetStatus(ST_PENDING);
    SendRequest(request, kLogReadTimeoutMs);
    const int32_t r = request.CurrentIndex();
    std::vector<uint8_t> raw;
    if (IsValidReplyStatus(request.GetStatus(r)) && request.GetDataBytes(r, raw) &&
        !raw.empty()) {
      task.SetRawData(raw, ST_SUCCESS);
    }
  }
  HandBack(task);
}

uint32_t COidMapExtModule::AnswerSelLanguages(SipJson& msg) {
  const int32_t i = msg.CurrentIndex();
  SipJson request(CM_SupportedSelLanguages, 0, 0, msg.GetKey(i, "CA", 0));
  request.SetStatus(ST_PENDING);
  SendRequest(request, kSingleRequestTimeoutMs);
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
