// The two record forms in which lower modules deliver their message logs, and the merge
// of the tables built from several modules' replies.
//
// Old-style record (CM_LogEntry replies): see msglog/OldStyleRecord.h.
// Unified record (CM_LogMessageArgumentsRead replies), little-endian:
//   0-1 record length | 2 unused | 3 AuxByte | 4-7 error code | 8-11 flags (bit 0 CSS) |
//   12-15 order value | 16-19 record id (signed) | 20-23 unused | 24 CodeBits |
//   25 string count m | from 26: m NUL-terminated strings.
//
// Data blocks come from other modules and may be wrong. Every walk is bounded by the
// block: it stops at the last whole record and reports where and whether the rest was
// malformed (a cut record, a length that cannot be, a string without its NUL); it never
// reads past the block and always advances.
//
// Thread safety: free functions on caller-owned data; a CMsgLogMerge is used by one
// thread at a time.
#ifndef EM_MSGLOG_LOGRECORDS_H
#define EM_MSGLOG_LOGRECORDS_H

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "msglog/MsgLogCache.h"
#include "msglog/OldStyleRecord.h"

namespace em_oidmap {

constexpr size_t kUnifiedHeaderBytes = 26;  // a unified record before its strings
// The most bytes of argument strings one unified entry keeps. A record may carry almost
// 64 KB of them, and 2000 entries in each of 200 cabinet caches would then hold tens of
// GB; the strings that fill a message's parameters (values, names, a path) stay far
// below this.
constexpr size_t kMaxEntryArgumentBytes = 1024;

// How a walk over one data block ended.
struct LogBlockWalk {
  size_t records = 0;  // whole records found
  size_t end = 0;      // offset just past the last whole record
  bool whole = true;   // false: bytes after `end` are no whole record
  size_t cut = 0;      // entries whose argument strings were cut to kMaxEntryArgumentBytes
};

// One old-style record inside a data block. REQUIRES: length >= 12 bytes at `bytes`.
struct OldStyleRecord {
  const uint8_t* bytes = nullptr;
  size_t length = 0;

  uint8_t CodeLow() const { return bytes[0]; }
  uint8_t CodeClass() const { return bytes[1] & 0x3F; }
  uint8_t CodeBits() const { return bytes[1] >> 6; }
  // The 14-bit error code: class in bits 8-13, low byte in bits 0-7.
  uint32_t ErrorCode() const {
    return ((static_cast<uint32_t>(bytes[1]) << 8) & 0x3F00) | bytes[0];
  }
  uint32_t OrderValue() const;
  uint16_t Cabinet() const { return static_cast<uint16_t>(bytes[8] | bytes[9] << 8); }
  uint16_t ObjectId() const { return static_cast<uint16_t>(bytes[10] | bytes[11] << 8); }
};

// Calls fn(const OldStyleRecord&) for each whole old-style record of the block, in order.
template <class F>
LogBlockWalk WalkOldStyleRecords(const uint8_t* data, size_t size, F&& fn) {
  LogBlockWalk walk;
  while (walk.end < size) {
    const size_t left = size - walk.end;
    const uint8_t* at = data + walk.end;
    if (left < kOldStyleRecordMinBytes || OldStyleRecordLength(at[0], at[1], at[3]) > left) {
      walk.whole = false;
      break;
    }
    const OldStyleRecord record{at, OldStyleRecordLength(at[0], at[1], at[3])};
    fn(record);
    ++walk.records;
    walk.end += record.length;
  }
  return walk;
}

// Number of whole old-style records in the block.
uint32_t CountOldStyleRecords(const uint8_t* data, size_t size);

// The entry of an old-style record delivered by module `moduleId`: a copy of the record,
// the CSS flag and, when not empty, the designation as argument 0.
MsgLogEntry MakeOldStyleEntry(const OldStyleRecord& record, uint32_t moduleId, bool css,
                              const std::string& designation);

// Appends one entry per whole unified record of the block to `out`, tracing each
// ("Add message log entry"). A record whose strings run past its length is malformed and
// ends the walk. The argument strings are made valid UTF-8 (msglog/Utf8.h) and kept up
// to kMaxEntryArgumentBytes in all, cut on a character boundary; strings past that are
// dropped.
LogBlockWalk ParseUnifiedRecords(const uint8_t* data, size_t size, uint32_t moduleId,
                                 std::vector<MsgLogEntry>& out);

// The merged table of one collection: the source tables of the replies, added in reply
// order, merged into one list as if each were merged in turn into the table of those
// before it. That pairwise merge walks the merged table and puts a source entry before
// the first merged entry whose value is greater than its own; values are the order
// values compared as signed 32-bit numbers, and an entry with order value 0 takes the
// value of the next non-zero entry of its own list (none: after everything). On a tie
// the earlier reply's entry stays first; nothing is dropped.
//
// The order of every pairwise step depends only on the heads of the lists, so all
// sources are merged in one pass that takes the least (value, reply) head: O(n log k)
// for n entries from k replies instead of O(n k).
class CMsgLogMerge {
 public:
  // Adds the next reply's table. Returns the number of entries merged so far.
  size_t Add(std::vector<MsgLogEntry>&& source);
  // Number of entries added so far.
  size_t Size() const { return total_; }
  // The last `keepAtMost` entries of the merged table (all by default); the merge is
  // empty afterwards. A store that keeps only the newest entries asks for no more than
  // it keeps, so that entries it would evict at once are never moved (they are freed
  // reply by reply, in the order they were made).
  std::vector<MsgLogEntry> Take(size_t keepAtMost = std::numeric_limits<size_t>::max());

 private:
  struct Source {
    std::vector<MsgLogEntry> entries;
    std::vector<int64_t> keys;  // merge value of each entry
  };
  std::vector<Source> sources_;
  size_t total_ = 0;
};

}  // namespace em_oidmap

#endif  // EM_MSGLOG_LOGRECORDS_H
