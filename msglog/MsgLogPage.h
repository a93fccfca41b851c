// BuildMsgLogPage: one page of a cabinet's message log cache translated into text, as the
// answer records of the log-entry query (OC 0x0B10) carry it.
//
// Answer record, one per entry, packed one after the other (little-endian):
//   0-1   record length = 17 + text length     2     3
//   3     the entry's CodeBits                 4-5   short error code (see below)
//   6     low byte of Flags (bit 0: CSS)       7     0
//   8-11  OrderValue                           12-15 SequenceNumber
//   16-   the text and its NUL
// Short error code: class in the high byte, low code byte in the low one. An old-style
// code (class * 256 + low) is its own low 16 bits; a unified code (class * 65536 + low)
// moves its bits 16-23 down into the high byte.
//
// Where the texts come from, by record form (docs/message-log-queries.md):
//   old style: its raw record through CLogMsgDecoder with ERRMSG.XML;
//   unified:   the LongMsg of EVENTMSG.XML filled with the entry's argument strings; when
//              the file has none, the long text cache, then the lower modules (once per
//              code and page; an answer is put into the cache);
//   neither:   "Unknown error 0x%04X".
#ifndef EM_MSGLOG_MSGLOGPAGE_H
#define EM_MSGLOG_MSGLOGPAGE_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "msglog/LogMsgFile.h"
#include "msglog/MsgLogCache.h"
#include "msglog/MsgTextCache.h"

namespace em_oidmap {

// The most records of one answer, and the factor from page number to start index.
constexpr uint32_t kMsgLogPageSize = 2000;
// Byte 2 of every answer record.
constexpr uint8_t kMsgLogRecordType = 3;
// Bytes of an answer record besides its text: the header and the text's NUL.
constexpr size_t kMsgLogRecordOverhead = 17;

// The inputs of one log-entry query.
struct MsgLogPageQuery {
  uint32_t opCodeExt = 0;       // OE; the language id is its low 16 bits
  uint32_t pageNumber = 0;      // OI
  uint32_t sequenceNumber = 0;  // DA when it is a number, else 0
  // Index in the cache of the first entry handed in, for the traces (a caller may hand in
  // a copy of the page's part of the cache).
  size_t firstIndex = 0;
};

// The start index of a page among the entries [first, last): the first entry at or after
// index pageNumber * 2000 whose SequenceNumber is at least `sequenceNumber`; last - first
// when there is none. REQUIRES: the entries ascend by SequenceNumber.
size_t MsgLogPageStartIndex(uint32_t pageNumber, uint32_t sequenceNumber, const MsgLogEntry* first,
                            const MsgLogEntry* last);

// Asks the lower modules for the long text of a code in a language; empty when none
// answers. May block (it sends a request and waits for the reply).
using LongTextRequester = std::function<std::string(uint32_t errorCode, uint16_t langId)>;

// Where the texts come from. Every member may be null or empty: that source then has no
// text. `files` finds both EVENTMSG.XML and ERRMSG.XML; each is re-checked once per page
// and parsed only when it changed.
struct MsgLogTextSources {
  CLogMsgFile* files = nullptr;
  CMsgTextCache* longTexts = nullptr;
  LongTextRequester requestLongText;
};

// Appends to `data` the answer records of the entries from the start index on: the first
// entry at or after index pageNumber * 2000 whose SequenceNumber is at least the requested
// one; at most 2000 records. Returns true when at least one record was appended.
// REQUIRES: the entries [first, last) ascend by SequenceNumber (as the cache keeps them)
// and do not change during the call (the caller reads them under the cabinet's lock).
// Thread safety: may run on several threads at once with the same sources.
bool BuildMsgLogPage(const MsgLogPageQuery& query, const MsgLogEntry* first,
                     const MsgLogEntry* last, const MsgLogTextSources& sources,
                     std::vector<uint8_t>* data);
inline bool BuildMsgLogPage(const MsgLogPageQuery& query, const std::vector<MsgLogEntry>& entries,
                            const MsgLogTextSources& sources, std::vector<uint8_t>* data) {
  return BuildMsgLogPage(query, entries.data(), entries.data() + entries.size(), sources, data);
}

}  // namespace em_oidmap

#endif  // EM_MSGLOG_MSGLOGPAGE_H
