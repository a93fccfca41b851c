// Arbitrary bytes as the log replies of several modules, in both record forms, through
// what collect from message does with them: parse each reply into a source table, merge
// the tables and store the result into a cabinet's cache. Nothing may crash, loop or read
// past a reply; every walk ends within its block, the merge keeps every entry, and the
// cache keeps at most its cap with ascending sequence numbers.
//
// Input: byte 0 chooses the form of each reply (bit r set: unified); then replies, each a
// 2-byte little-endian length followed by that many bytes (cut at the end of the input).
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz/FuzzHarness.h"
#include "msglog/LogRecords.h"
#include "msglog/MsgLogCache.h"

using namespace em_oidmap;  // a program of its own: its names are short
using fuzz::Check;

namespace {

constexpr size_t kMaxReplies = 8;

std::vector<MsgLogEntry> ParseReply(const uint8_t* data, size_t size, bool unified,
                                    uint32_t mid) {
  std::vector<MsgLogEntry> source;
  LogBlockWalk walk;
  if (unified) {
    walk = ParseUnifiedRecords(data, size, mid, source);
  } else {
    size_t lengths = 0;
    walk = WalkOldStyleRecords(data, size, [&](const OldStyleRecord& record) {
      Check(record.bytes >= data && record.bytes + record.length <= data + size);
      lengths += record.length;
      source.push_back(MakeOldStyleEntry(record, mid, (record.CodeLow() & 1) != 0, "D"));
    });
    Check(lengths == walk.end);
    Check(CountOldStyleRecords(data, size) == walk.records);
  }
  Check(walk.end <= size);
  Check(walk.whole == (walk.end == size));
  Check(walk.records == source.size());
  return source;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Quiet();
  if (size == 0) return 0;
  const uint8_t forms = data[0];
  size_t at = 1;
  CMsgLogMerge merge;
  size_t total = 0;
  for (size_t r = 0; r < kMaxReplies && at < size; ++r) {
    size_t length = data[at];
    if (at + 1 < size) length |= static_cast<size_t>(data[at + 1]) << 8;
    at += 2;
    if (at > size) at = size;
    if (length > size - at) length = size - at;
    // A copy of exactly the reply's bytes, so that a read past it is caught.
    const std::vector<uint8_t> reply(data + at, data + at + length);
    at += length;
    std::vector<MsgLogEntry> source = ParseReply(reply.data(), reply.size(),
                                                 (forms >> r) & 1, static_cast<uint32_t>(r));
    total += source.size();
    Check(merge.Add(std::move(source)) == total);
  }
  // As collect from message stores: only what the cache keeps is taken from the merge.
  std::vector<MsgLogEntry> merged = merge.Take(kMaxMsgLogEntries);
  Check(merged.size() == (total < kMaxMsgLogEntries ? total : kMaxMsgLogEntries));

  CMsgLogCache cache;
  MsgLogCabinetCache* cabinet = cache.FindOrCreateCabinetCache(0);
  const size_t unseen = total - merged.size();
  const uint32_t first = CMsgLogCache::StoreEntries(*cabinet, std::move(merged), unseen);
  Check(first == (total == 0 ? 0u : 1u));
  cache.ReadEntries(0, [&](const MsgLogEntryList& entries, uint32_t last) {
    Check(last == total);
    Check(entries.size() == (total < kMaxMsgLogEntries ? total : kMaxMsgLogEntries));
    for (size_t i = 1; i < entries.size(); ++i) {
      Check(entries[i].SequenceNumber == entries[i - 1].SequenceNumber + 1);
    }
  });
  return 0;
}
