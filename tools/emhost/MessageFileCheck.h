// CheckMessageFile: finds what would keep the module from showing a message file's texts,
// without running the module. Rules (docs/emhost.md, "Checking files"):
//   - the file is well-formed XML with the EventMsg layout of msglog/LogMsgFile.h;
//   - every locale is written "0x%X" and every ErrorCode as the format writes it
//     (ErrorCodeText), since the module compares the texts and would never find another
//     spelling; no error code and no locale twice;
//   - every event has a non-empty LongMsg in every language of the LanguageTable, in one
//     Messages element per language;
//   - LongMsg and ShortMsg use only the placeholders the decoder knows, with argument
//     numbers a record of the format can carry: 0..16 old style (cabinet, object id and
//     at most 15 values), 0..255 unified (the strings of the record).
#ifndef EM_TOOLS_EMHOST_MESSAGEFILECHECK_H
#define EM_TOOLS_EMHOST_MESSAGEFILECHECK_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "msglog/LogMsgFile.h"

namespace em_oidmap::emhost {

struct MessageFileFinding {
  size_t line = 0;  // 1-based
  std::string what;
};

struct MessageFileReport {
  LogMsgFormat format = LogMsgFormat::kUnified;
  size_t events = 0;
  size_t languages = 0;
  std::vector<MessageFileFinding> findings;  // in document order
};

// The highest argument number a text of `format` may use.
size_t MaxArgumentNumber(LogMsgFormat format);

// Checks the message file held in `bytes` (in its own encoding). Without a `format` it is
// how most ErrorCodes are written: six digits unified, otherwise old style.
MessageFileReport CheckMessageFile(const std::string& bytes, std::optional<LogMsgFormat> format);

}  // namespace em_oidmap::emhost

#endif  // EM_TOOLS_EMHOST_MESSAGEFILECHECK_H
