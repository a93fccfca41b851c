#include "msglog/MsgLogPage.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <unordered_map>
#include <utility>

#include "msglog/LogMsgDecoder.h"
#include "trace/DebugClient.h"

namespace em_oidmap {

namespace {

// The record length is 16 bits wide: a longer text is cut.
constexpr size_t kMaxRecordText = 0xFFFF - kMsgLogRecordOverhead;
// Room reserved per record before the texts are known (a typical long text is shorter).
constexpr size_t kReservedBytesPerRecord = kMsgLogRecordOverhead + 80;

// The message file of one record form, as opened for one page.
struct FormTexts {
  CLogMsgFile::Document doc;
  std::string language = "en";
};

FormTexts OpenForm(CLogMsgFile* files, LogMsgFormat format, uint16_t langId) {
  FormTexts form;
  if (files == nullptr) return form;
  form.doc = files->OpenDocument(format);
  if (form.doc) form.language = form.doc->LanguageName(langId);
  return form;
}

uint16_t ShortCodeOfOldStyle(uint32_t errorCode) { return static_cast<uint16_t>(errorCode); }

uint16_t ShortCodeOfUnified(uint32_t errorCode) {
  return static_cast<uint16_t>((errorCode & 0xFF) | (((errorCode >> 16) & 0xFF) << 8));
}

void Put16(uint8_t* at, uint32_t value) {
  at[0] = static_cast<uint8_t>(value);
  at[1] = static_cast<uint8_t>(value >> 8);
}

void Put32(uint8_t* at, uint32_t value) {
  Put16(at, value);
  Put16(at + 2, value >> 16);
}

// The text up to its first NUL (which would end it early for the reader) and within the
// 16-bit record length, cut on a UTF-8 character boundary.
size_t RecordTextLength(const std::string& text) {
  size_t length = std::min(strnlen(text.c_str(), text.size()), kMaxRecordText);
  if (length < text.size()) {
    while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) --length;
  }
  return length;
}

void AppendRecord(std::vector<uint8_t>& data, const MsgLogEntry& entry, uint16_t shortCode,
                  const std::string& text) {
  const size_t textLength = RecordTextLength(text);
  const size_t at = data.size();
  data.resize(at + kMsgLogRecordOverhead + textLength);
  uint8_t* record = &data[at];
  Put16(record, static_cast<uint32_t>(kMsgLogRecordOverhead + textLength));
  record[2] = kMsgLogRecordType;
  record[3] = entry.CodeBits;
  Put16(record + 4, shortCode);
  record[6] = static_cast<uint8_t>(entry.Flags);
  record[7] = 0;
  Put32(record + 8, entry.OrderValue);
  Put32(record + 12, entry.SequenceNumber);
  std::memcpy(record + 16, text.data(), textLength);
  record[16 + textLength] = 0;
}

// Translates the entries of one page; holds what stays the same for all of them.
class PageTranslator {
 public:
  PageTranslator(const MsgLogTextSources& sources, uint16_t langId, FormTexts unified,
                 FormTexts oldStyle)
      : sources_(sources),
        lang_id_(langId),
        unified_(std::move(unified)),
        old_style_(std::move(oldStyle)),
        decoder_(old_style_.doc, LogMsgFormat::kOldStyle) {}

  // The entry's text (empty when no source has one) and its short error code.
  std::string Translate(const MsgLogEntry& entry, uint16_t* shortCode) {
    const bool oldStyle = entry.OldStyle != 0;
    EM_MODULE_TRACE(3, "Translate (%s format based) log entry 0x%08X - CSS: %s",
                    oldStyle ? "old style" : "Unified", entry.ErrorCode,
                    (entry.Flags & 1) ? "true" : "false");
    EM_MODULE_TRACE(4, "    Decode long text message string (%s SEL message) ...",
                    oldStyle ? "old style" : "Unified");
    std::string text;
    if (oldStyle) {
      *shortCode = ShortCodeOfOldStyle(entry.ErrorCode);
      std::string_view designation;
      entry.FindArgument(0, &designation);
      const MsgLogBytes record = entry.RawRecord();
      decoder_.Decode(record.data(), record.size(), text, false, false, designation,
                      old_style_.language.c_str());
      return text;
    }
    *shortCode = ShortCodeOfUnified(entry.ErrorCode);
    if (unified_.doc) {
      const std::string_view format =
          unified_.doc->FindMessage(ErrorCodeText(entry.ErrorCode, LogMsgFormat::kUnified),
                                    kKeyLongMsg, unified_.language.c_str(), 0);
      if (!format.empty()) return CLogMsgDecoder::FillTextArguments(format, entry);
    }
    return LongTextFromModules(entry.ErrorCode);
  }

  const std::string& Language(const MsgLogEntry& entry) const {
    return entry.OldStyle ? old_style_.language : unified_.language;
  }

 private:
  std::string LongTextFromModules(uint32_t errorCode) {
    std::string text;
    if (sources_.longTexts &&
        sources_.longTexts->FindText(MsgTextKind::kLongText, errorCode, lang_id_, &text))
      return text;
    if (!sources_.requestLongText) return text;
    // A code the modules do not know is asked once per page, not once per entry.
    const auto asked = asked_.find(errorCode);
    if (asked != asked_.end()) return asked->second;
    EM_MODULE_TRACE(4, "    Request long text message string via TCBI ...");
    text = sources_.requestLongText(errorCode, lang_id_);
    if (!text.empty()) {
      EM_MODULE_TRACE(4, "    ... long text: \"%s\"", text.c_str());
      if (sources_.longTexts)
        sources_.longTexts->PutText(MsgTextKind::kLongText, errorCode, lang_id_, text);
    }
    asked_.emplace(errorCode, text);
    return text;
  }

  const MsgLogTextSources& sources_;
  const uint16_t lang_id_;
  const FormTexts unified_;
  const FormTexts old_style_;
  const CLogMsgDecoder decoder_;
  std::unordered_map<uint32_t, std::string> asked_;
};

}  // namespace

size_t MsgLogPageStartIndex(uint32_t pageNumber, uint32_t sequenceNumber, const MsgLogEntry* first,
                            const MsgLogEntry* last) {
  // The entries ascend, so a binary search finds the first one that reaches the number.
  const uint64_t pageStart = static_cast<uint64_t>(pageNumber) * kMsgLogPageSize;
  const size_t size = static_cast<size_t>(last - first);
  if (pageStart >= size) return size;
  const MsgLogEntry* start = std::lower_bound(
      first + static_cast<std::ptrdiff_t>(pageStart), last, sequenceNumber,
      [](const MsgLogEntry& entry, uint32_t wanted) { return entry.SequenceNumber < wanted; });
  return static_cast<size_t>(start - first);
}

bool BuildMsgLogPage(const MsgLogPageQuery& query, const MsgLogEntry* first,
                     const MsgLogEntry* last, const MsgLogTextSources& sources,
                     std::vector<uint8_t>* data) {
  EM_MODULE_TRACE(3, "GetMsgLogCacheEntries OpCodeExt: 0x%X", query.opCodeExt);
  const uint16_t langId = static_cast<uint16_t>(query.opCodeExt);

  const MsgLogEntry* start =
      first + MsgLogPageStartIndex(query.pageNumber, query.sequenceNumber, first, last);
  const size_t count = std::min<size_t>(kMsgLogPageSize, static_cast<size_t>(last - start));
  const MsgLogEntry* end = start + static_cast<std::ptrdiff_t>(count);

  // Only the files that the page's record forms need are opened.
  const bool needUnified =
      std::any_of(start, end, [](const MsgLogEntry& entry) { return entry.OldStyle == 0; });
  const bool needOldStyle =
      std::any_of(start, end, [](const MsgLogEntry& entry) { return entry.OldStyle != 0; });
  PageTranslator translator(
      sources, langId,
      needUnified ? OpenForm(sources.files, LogMsgFormat::kUnified, langId) : FormTexts(),
      needOldStyle ? OpenForm(sources.files, LogMsgFormat::kOldStyle, langId) : FormTexts());

  EM_MODULE_TRACE(3,
                  "Search start index for requested message log sequence "
                  "number %d ...",
                  static_cast<int>(query.sequenceNumber));
  if (count == 0) return false;
  EM_MODULE_TRACE(3, "found start index %d for message log sequence number %d",
                  static_cast<int>(query.firstIndex + static_cast<size_t>(start - first)),
                  static_cast<int>(query.sequenceNumber));

  data->reserve(data->size() + count * kReservedBytesPerRecord);
  for (auto entry = start; entry != end; ++entry) {
    uint16_t shortCode = 0;
    std::string text = translator.Translate(*entry, &shortCode);
    if (text.empty()) {
      char unknown[32];
      snprintf(unknown, sizeof(unknown), "Unknown error 0x%04X", entry->ErrorCode);
      text = unknown;
      EM_MODULE_TRACE(1,
                      "WARNING! Missing translation for language %s for "
                      "message error code 0x%04X",
                      translator.Language(*entry).c_str(), entry->ErrorCode);
    }
    EM_MODULE_TRACE(5, "Append SIP Msg: \"%s\"", text.c_str());
    AppendRecord(*data, *entry, shortCode, text);
  }
  return true;
}

}  // namespace em_oidmap
