// CLogMsgDecoder: turns one old-style log record into a readable text, from the format
// string of the message file or, without one, a fixed text of the code and raw arguments.
//
// Record: byte 0 low code byte, byte 1 bits 0-5 class, byte 3 argument count n,
// bytes 8-9 and 10-11 unsigned 16-bit values, from byte 12 one 32-bit value for each
// argument beyond the first (little-endian). Every read is checked against the given
// length: arguments the record claims but does not hold are "missing" and show as
// "<?N>" in the text (N = the argument's number) instead of being read.
//
// The placeholder syntax of format strings is described in docs/message-format.md.
//
// Ownership and threads: the decoder shares the message document that was loaded when it
// was made; a later reload of the file does not change what it decodes with. Decode is
// const and the document immutable, so one decoder may decode on several threads at once.
#ifndef EM_MSGLOG_LOGMSGDECODER_H
#define EM_MSGLOG_LOGMSGDECODER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "msglog/LogMsgFile.h"
#include "msglog/MsgLogEntry.h"

namespace em_oidmap {

// The class and low code byte of an inline-text record: it carries text, not arguments.
constexpr uint8_t kInlineTextClass = 0x3F;
// Bytes 8-9 and 10-11 both holding this mark arguments that were never set.
constexpr uint16_t kArgsNotSetMarker = 0xCCCC;

class CLogMsgDecoder {
 public:
  // `file` may be null: every lookup then yields no text and the fallback text results.
  CLogMsgDecoder(CLogMsgFile::Document file, LogMsgFormat format)
      : file_(std::move(file)), format_(format) {}
  // Decodes with the document `file` holds now.
  CLogMsgDecoder(const CLogMsgFile& file, LogMsgFormat format)
      : file_(file.CurrentDocument()), format_(format) {}

  // Appends the text of the `length` bytes at `record` to `out` (never clears it).
  // `withCodePrefix` puts "[<code digits>] " first; `shortText` uses the ShortMsg text
  // (fallback: at most three arguments, no "ERROR "); `designation` fills "%D";
  // `languageName` null means "en" for the lookup.
  // Returns 1 when a text was appended, 0 when no record was given, the record is too
  // short to hold its code and argument count (under 4 bytes), or building failed;
  // `out` then keeps what it had.
  int32_t Decode(const uint8_t* record, size_t length, std::string& out, bool withCodePrefix,
                 bool shortText, std::string_view designation, const char* languageName) const;

  // One argument of a record; `present` is false when the record was too short to hold it.
  struct Argument {
    uint32_t value = 0;
    bool present = false;
  };

  // Fills `format` with `args`. `argsNotSet` renders every argument placeholder as
  // "<not set>". Never interprets `format` through printf.
  static std::string FillFormat(std::string_view format, const std::vector<Argument>& args,
                                std::string_view designation, LogMsgFormat logFormat,
                                bool argsNotSet);

  // Fills `format` with the argument strings of a unified entry: "%N" (with any
  // conversion letter) renders string N as it stands, "%NS" in double quotes, "%D"
  // string 0 (the designation, when the entry has one); a string the entry lacks shows as
  // "<?N>" / "<?D>". Never interprets `format` through printf.
  static std::string FillTextArguments(std::string_view format, const MsgLogEntry& entry);
  // The same, appended to `text` (a page reuses one buffer for all its entries).
  static void AppendTextArguments(std::string_view format, const MsgLogEntry& entry,
                                  std::string& text);

 private:
  // The text of a record that is not an inline-text record: its message of the file filled
  // with its arguments, or the fallback text without one.
  std::string DecodeFormatted(const uint8_t* record, size_t length, bool shortText,
                              std::string_view designation, const char* languageName) const;
  std::vector<Argument> CollectArguments(const uint8_t* record, size_t length, uint32_t errorCode,
                                         const char* langForTrace) const;
  std::string FallbackText(uint32_t errorCode, const std::vector<Argument>& args,
                           bool shortText) const;

  CLogMsgFile::Document file_;
  LogMsgFormat format_;
};

}  // namespace em_oidmap

#endif  // EM_MSGLOG_LOGMSGDECODER_H
