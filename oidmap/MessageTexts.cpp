// The message text requests of CLogQueryService: long text, summary, all causes, all
// resolutions, one cause or resolution paragraph. Answered from the text cache; a text not
// cached yet is fetched from the lower modules on the worker and the answer handed up
// (docs/message-log-queries.md).
#include <string>
#include <utility>
#include <vector>

#include "msglog/Utf8.h"
#include "oidmap/LogQueryService.h"
#include "oidmap/ModuleTrace.h"
#include "oidmap/Opcodes.h"
#include "oidmap/Timeouts.h"
#include "sip/SipStatus.h"

namespace em_oidmap {
namespace {

// The kind of text a text request asks for, and the request that fetches it below.
MsgTextKind TextKindOf(uint32_t oc) {
  switch (oc) {
    case CM_LogMessageLongText:
      return MsgTextKind::kLongText;
    case CM_LogMessageSummary:
      return MsgTextKind::kSummary;
    case CM_LogMessageAllCauses:
    case CM_LogMessageCause:
      return MsgTextKind::kCauses;
    default:
      return MsgTextKind::kResolutions;
  }
}

uint32_t FetchOpcodeOf(MsgTextKind kind) {
  switch (kind) {
    case MsgTextKind::kLongText:
      return CM_LogMessageLongText;
    case MsgTextKind::kSummary:
      return CM_LogMessageSummary;
    case MsgTextKind::kCauses:
      return CM_LogMessageAllCauses;
    default:
      return CM_LogMessageAllResolutions;
  }
}

}  // namespace

uint32_t CLogQueryService::AnswerTextRequest(SipJson& msg, uint32_t oc) {
  const int32_t i = msg.CurrentIndex();
  uint32_t errorCode = 0;
  const SipDataForm form = msg.GetDataForm(i);
  if ((form != SipDataForm::kInteger && form != SipDataForm::kRawBytes) ||
      !msg.GetDataValue(i, errorCode)) {
    OIDMAP_TRACE(1,
                 "## ERROR! Invalid log message text request arguments (no error code "
                 "supplied)!");
    msg.SetStatus(ST_INVALID_ARGUMENTS);
    return 1;
  }
  OIDMAP_TRACE(3, "Request message text for error code 0x%06X (Lang: 0x%04X) ...", errorCode,
               msg.GetKey(i, "OE", 0) & 0xFFFF);
  if (AnswerFromTextCache(msg, oc)) {
    return 1;
  }
  OIDMAP_TRACE(3,
               "  message text(s) not found in text cache - issue request to lower modules "
               "(insert into task queue)");
  // A full queue does not accept the request now.
  msg.SetStatus(host_.QueueTask(CopyOfCurrentCommand(msg)) ? ST_PENDING : ST_LOG_INVALID);
  return 1;
}

bool CLogQueryService::AnswerFromTextCache(SipJson& msg, uint32_t oc) {
  const int32_t i = msg.CurrentIndex();
  uint32_t errorCode = 0;
  msg.GetDataValue(i, errorCode);
  const uint16_t langId = static_cast<uint16_t>(msg.GetKey(i, "OE", 0));
  if (oc == CM_LogMessageCause || oc == CM_LogMessageResolution) {
    return AnswerParagraph(msg, oc, errorCode, langId);
  }
  return AnswerWholeText(msg, oc, errorCode, langId);
}

bool CLogQueryService::AnswerWholeText(SipJson& msg, uint32_t oc, uint32_t errorCode,
                                       uint16_t langId) {
  switch (oc) {
    case CM_LogMessageLongText:
      OIDMAP_TRACE(3, "  find long message in cache...");
      break;
    case CM_LogMessageSummary:
      OIDMAP_TRACE(3, "  find summary message in cache...");
      break;
    case CM_LogMessageAllCauses:
      OIDMAP_TRACE(3, "  find cause message(s) in cache...");
      break;
    default:
      OIDMAP_TRACE(3, "  find resolution message(s) in cache...");
      break;
  }
  const MsgTextKind kind = TextKindOf(oc);
  std::vector<std::string> paragraphs;  // a long text and a summary have one
  if (!text_cache_.FindParagraphs(kind, errorCode, langId, &paragraphs)) return false;
  if (kind == MsgTextKind::kLongText || kind == MsgTextKind::kSummary) {
    OIDMAP_TRACE(3, "   -> reply simply message");
    msg.SetDataString(paragraphs.front(), ST_SUCCESS);
  } else {
    OIDMAP_TRACE(3, "   -> reply complete multistring message");
    msg.SetDataStrings(paragraphs, ST_SUCCESS);
  }
  return true;
}

bool CLogQueryService::AnswerParagraph(SipJson& msg, uint32_t oc, uint32_t errorCode,
                                       uint16_t langId) {
  const uint32_t paragraph = msg.GetKey(msg.CurrentIndex(), "OI", 0);
  if (oc == CM_LogMessageCause) {
    OIDMAP_TRACE(3, "  find cause message(s) in cache, get paragraph #%d...",
                 static_cast<int>(paragraph));
  } else {
    OIDMAP_TRACE(3, "  find resolution message(s) in cache, get paragraph #%d...",
                 static_cast<int>(paragraph));
  }
  std::string text;
  switch (text_cache_.FindParagraph(TextKindOf(oc), errorCode, langId, paragraph, &text)) {
    case ParagraphLookup::kNotCached:
      return false;
    case ParagraphLookup::kTooHigh:
      OIDMAP_TRACE(3, "   -> paragraph number %d too high (no more message strings)",
                   static_cast<int>(paragraph));
      msg.RemoveData();
      msg.SetStatus(ST_PARAGRAPH_TOO_HIGH);
      return true;
    case ParagraphLookup::kFound:
      OIDMAP_TRACE(3, "   -> reply message [%d]", static_cast<int>(paragraph));
      msg.SetDataString(text, ST_SUCCESS);
      return true;
  }
  return false;
}

std::vector<std::string> CLogQueryService::FetchTexts(uint32_t textOc, uint32_t errorCode,
                                                      uint16_t langId, uint32_t cabinet,
                                                      uint32_t timeoutMs, bool* handled,
                                                      bool* timedOut) const {
  // Asked like the client asks this module: the language in OE, the error code in DA; the
  // first module that knows the code answers with a text or a multi-string.
  SipJson request(textOc, langId, 0, cabinet);
  request.SetDataValue(errorCode, ST_PENDING);
  host_.SendToAllModules(request, timeoutMs);
  std::vector<std::string> texts;
  *handled = false;
  *timedOut = false;
  for (uint32_t r = 0; r < request.CommandCount(); ++r) {
    const int32_t i = static_cast<int32_t>(r);
    const uint32_t st = request.GetStatus(i);
    if (st != ST_NOT_HANDLED) *handled = true;
    if (st == ST_TIMEOUT) *timedOut = true;
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
  // Texts given to clients are valid UTF-8: decided here, once, before they are cached.
  for (std::string& text : texts) MakeValidUtf8(text);
  return texts;
}

std::string CLogQueryService::FetchPageLongText(uint32_t errorCode, uint16_t langId,
                                                uint32_t cabinet, CFetchDeadline& deadline,
                                                std::vector<PendingLongText>* deferred) {
  const uint32_t timeoutMs = deadline.NextTimeoutMs();
  bool handled = false;
  bool timedOut = timeoutMs == 0;
  std::vector<std::string> texts;
  if (!timedOut) {
    texts = FetchTexts(CM_LogMessageLongText, errorCode, langId, cabinet, timeoutMs, &handled,
                       &timedOut);
  }
  if (timedOut) {
    deadline.Expire();  // the fetch waited all that was left
    if (texts.empty()) deferred->push_back({errorCode, langId, cabinet});
  }
  return texts.empty() ? std::string() : texts.front();
}

void CLogQueryService::DeferLongTexts(const std::vector<PendingLongText>& deferred) {
  if (deferred.empty()) return;
  OIDMAP_TRACE(2,
               "%u long texts not fetched in time - fetched on the task thread for the next page",
               static_cast<unsigned>(deferred.size()));
  bool queueDrain = false;
  const size_t refused = pending_long_texts_.Add(deferred, &queueDrain);
  if (refused != 0) {
    OIDMAP_TRACE(1, "## WARNING! %u long texts not fetched: %u are waiting already",
                 static_cast<unsigned>(refused), static_cast<unsigned>(kMaxPendingLongTexts));
  }
  if (queueDrain) QueueLongTextTask();
}

void CLogQueryService::QueueLongTextTask() {
  if (!host_.QueueTask(SipJson(CM_TaskFetchLongTexts, 0, 0, 0))) {
    pending_long_texts_.DrainNotQueued();  // the next page asks again
  }
}

void CLogQueryService::RunLongTextTask() {
  // One request time-out per task, as for a page: the other tasks get their turn between.
  CFetchDeadline deadline(kSingleRequestTimeoutMs);
  PendingLongText text;
  for (uint32_t timeoutMs = deadline.NextTimeoutMs();
       timeoutMs != 0 && pending_long_texts_.Take(&text); timeoutMs = deadline.NextTimeoutMs()) {
    OIDMAP_TRACE(3, "request message text for error code 0x%06X langId %d...", text.errorCode,
                 static_cast<int>(text.langId));
    bool handled = false;
    bool timedOut = false;
    std::vector<std::string> texts = FetchTexts(CM_LogMessageLongText, text.errorCode, text.langId,
                                                text.cabinet, timeoutMs, &handled, &timedOut);
    StoreTexts(CM_LogMessageLongText, text.errorCode, text.langId, std::move(texts), handled);
    if (timedOut) deadline.Expire();
  }
  if (pending_long_texts_.ContinueDrain()) QueueLongTextTask();
}

void CLogQueryService::RunTextTask(SipJson& task) {
  const int32_t i = task.CurrentIndex();
  const uint32_t oc = task.GetOpcode(i);
  uint32_t errorCode = 0;
  task.GetDataValue(i, errorCode);
  const uint16_t langId = static_cast<uint16_t>(task.GetKey(i, "OE", 0));
  OIDMAP_TRACE(3, "request message text for error code 0x%06X langId %d...", errorCode,
               static_cast<int>(langId));
  bool handled = false;
  bool timedOut = false;
  std::vector<std::string> texts =
      FetchTexts(FetchOpcodeOf(TextKindOf(oc)), errorCode, langId, task.GetKey(i, "CA", 0),
                 kSingleRequestTimeoutMs, &handled, &timedOut);
  const bool stored = StoreTexts(oc, errorCode, langId, std::move(texts), handled);
  if (!stored || !AnswerFromTextCache(task, oc)) {
    OIDMAP_TRACE(3, "  requested log message(s) not found for this error code");
    task.RemoveData();
    task.SetStatus(ST_NOT_AVAILABLE);
  }
  host_.HandBack(task);
}

bool CLogQueryService::StoreTexts(uint32_t oc, uint32_t errorCode, uint16_t langId,
                                  std::vector<std::string> texts, bool handled) {
  const MsgTextKind kind = TextKindOf(oc);
  if (texts.empty()) {
    if (kind == MsgTextKind::kResolutions && !handled) {
      OIDMAP_TRACE(2, "## INFO: Message log resolutions are not supported on this system!");
    }
    return false;
  }
  if (kind == MsgTextKind::kLongText || kind == MsgTextKind::kSummary) {
    OIDMAP_TRACE(3, "  message = \"%s\"", texts.front().c_str());
    const bool stored = text_cache_.PutText(kind, errorCode, langId, texts.front());
    if (kind == MsgTextKind::kLongText) {
      OIDMAP_TRACE(3, "  put \"long text\" message into cache");
    } else {
      OIDMAP_TRACE(3, "  put \"summary\" message into cache");
    }
    return stored;
  }
  if (TraceClient().IsTraceActive()) {
    OIDMAP_TRACE(3, "  %d messages:", static_cast<int>(texts.size()));
    for (size_t p = 0; p < texts.size(); ++p) {
      OIDMAP_TRACE(3, "    message [%d] = \"%s\"", static_cast<int>(p), texts[p].c_str());
    }
  }
  if (kind == MsgTextKind::kCauses) {
    const bool stored = text_cache_.PutParagraphs(kind, errorCode, langId, std::move(texts));
    OIDMAP_TRACE(3, "  put \"causes\" message(s) into cache");
    return stored;
  }
  const bool stored =
      text_cache_.PutResolutions(errorCode, langId, std::move(texts), cabinets_.HelpDeskMessage());
  OIDMAP_TRACE(3, "  put \"resolutions\" message(s) into cache");
  return stored;
}

}  // namespace em_oidmap
