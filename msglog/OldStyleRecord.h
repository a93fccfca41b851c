// The layout of an old-style log record (the data of CM_LogEntry replies is a packed
// sequence of these, little-endian): byte 0 low code byte, byte 1 bits 0-5 the code's
// class and bits 6-7 the code bits, byte 3 the argument count n, bytes 4-7 the order
// value, bytes 8-9 the cabinet, bytes 10-11 the object id, then 4 bytes for each
// argument beyond the first.
#ifndef EM_MSGLOG_OLDSTYLERECORD_H
#define EM_MSGLOG_OLDSTYLERECORD_H

#include <cstddef>
#include <cstdint>

namespace em_oidmap {

// A record is at least this long; fewer bytes left in a block hold no record.
constexpr size_t kOldStyleRecordMinBytes = 12;
// The header that tells a record's length.
constexpr size_t kOldStyleRecordHeaderBytes = 4;
constexpr size_t kOldStyleRecordOidOffset = 10;
// The class of inline-text records: they carry text, never an object id, and with low
// code byte 0 may carry up to 255 arguments.
constexpr uint8_t kOldStyleInlineTextClass = 0x3F;

// The record's length from its header bytes 0, 1 and 3. Records with 1..16 arguments are
// 4n + 8 bytes long, as is an inline-text record (class 63, byte 0 zero) with any n other
// than 0; every other record is 12 bytes long.
inline size_t OldStyleRecordLength(uint8_t byte0, uint8_t byte1, uint8_t byte3) {
  const bool hasArguments =
      static_cast<uint8_t>(byte3 - 1) < 16 ||
      ((byte1 & 0x3F) == kOldStyleInlineTextClass && byte0 == 0 && byte3 != 0);
  return hasArguments ? static_cast<size_t>(byte3) * 4 + 8 : kOldStyleRecordMinBytes;
}

}  // namespace em_oidmap

#endif  // EM_MSGLOG_OLDSTYLERECORD_H
