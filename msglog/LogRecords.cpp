#include "msglog/LogRecords.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <queue>
#include <string_view>
#include <utility>

#include "msglog/Utf8.h"
#include "trace/DebugClient.h"

namespace em_oidmap {

namespace {

// Order key of a 0 that no non-zero value follows: after every other entry.
constexpr int64_t kOrderLast = std::numeric_limits<int64_t>::max();

uint32_t Le32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

// Merge value of each entry of one reply's table.
std::vector<int64_t> OrderKeys(const std::vector<MsgLogEntry>& entries) {
  std::vector<int64_t> keys(entries.size());
  int64_t next = kOrderLast;
  for (size_t i = entries.size(); i-- > 0;) {
    if (entries[i].OrderValue != 0) {
      next = static_cast<int32_t>(entries[i].OrderValue);
    }
    keys[i] = next;
  }
  return keys;
}

}  // namespace

uint32_t OldStyleRecord::OrderValue() const { return Le32(bytes + 4); }

uint32_t CountOldStyleRecords(const uint8_t* data, size_t size) {
  return static_cast<uint32_t>(
      WalkOldStyleRecords(data, size, [](const OldStyleRecord&) {}).records);
}

MsgLogEntry MakeOldStyleEntry(const OldStyleRecord& record, uint32_t moduleId, bool css,
                              const std::string& designation) {
  MsgLogEntry entry;
  entry.ModuleId = moduleId;
  entry.OldStyle = 1;
  entry.CodeBits = record.CodeBits();
  entry.ErrorCode = record.ErrorCode();
  entry.Flags = css ? 1 : 0;
  entry.OrderValue = record.OrderValue();
  const MsgLogArgument designationArgument{0, designation};
  entry.Assign(MsgLogBytes{record.bytes, record.length}, &designationArgument,
               designation.empty() ? 0 : 1);
  return entry;
}

LogBlockWalk ParseUnifiedRecords(const uint8_t* data, size_t size, uint32_t moduleId,
                                 std::vector<MsgLogEntry>& out) {
  LogBlockWalk walk;
  MsgLogArgument strings[UINT8_MAX];  // of one record, which has at most 255
  char repaired[kMaxEntryArgumentBytes];
  std::string repairing;
  while (walk.end < size) {
    const uint8_t* at = data + walk.end;
    const size_t left = size - walk.end;
    const size_t length = left < 2 ? 0 : static_cast<size_t>(at[0] | at[1] << 8);
    // A length below the fixed part would also never advance (0) or read outside it.
    if (length < kUnifiedHeaderBytes || length > left) {
      walk.whole = false;
      break;
    }
    MsgLogEntry& entry = out.emplace_back();
    entry.ModuleId = moduleId;
    entry.AuxByte = at[3];
    entry.ErrorCode = Le32(at + 4);
    entry.Flags = Le32(at + 8);
    entry.OrderValue = Le32(at + 12);
    entry.RecordId = static_cast<int32_t>(Le32(at + 16));
    entry.CodeBits = at[24];
    const uint8_t count = at[25];
    const char* text = reinterpret_cast<const char*>(at + kUnifiedHeaderBytes);
    const char* const recordEnd = reinterpret_cast<const char*>(at + length);
    bool stringsWhole = true;
    size_t found = 0;
    size_t room = kMaxEntryArgumentBytes;
    size_t repairedUsed = 0;
    bool cut = false;
    for (int32_t k = 1; k <= count; ++k) {
      const void* nul = std::memchr(text, 0, static_cast<size_t>(recordEnd - text));
      if (nul == nullptr) {
        stringsWhole = false;
        break;
      }
      const char* const stop = static_cast<const char*>(nul);
      if (stop == text) {
        break;  // an empty string ends the list
      }
      // The strings past the room are still walked: they decide whether the record is whole.
      if (room != 0) {
        const std::string_view raw(text, static_cast<size_t>(stop - text));
        size_t taken = Utf8PrefixLength(raw, room);
        if (taken == 0) taken = std::min(room, raw.size());  // no boundary: not UTF-8 at all
        std::string_view argument = raw.substr(0, taken);
        if (!IsValidUtf8(argument)) {
          repairing.assign(argument);
          MakeValidUtf8(repairing);  // a replacement may have made it longer
          argument = repairing;
        }
        const size_t kept = Utf8PrefixLength(argument, room);
        cut = cut || taken < raw.size() || kept < argument.size();
        argument = argument.substr(0, kept);
        if (argument.data() == repairing.data()) {
          // The entry copies the strings once they are all read: a repaired one waits in
          // `repaired`, which holds at most the room of one entry.
          std::memcpy(repaired + repairedUsed, argument.data(), kept);
          argument = std::string_view(repaired + repairedUsed, kept);
          repairedUsed += kept;
        }
        room -= kept;
        if (!argument.empty()) strings[found++] = MsgLogArgument{k, argument};
      } else {
        cut = true;
      }
      text = stop + 1;
    }
    if (!stringsWhole) {
      out.pop_back();
      walk.whole = false;
      break;
    }
    entry.Assign(MsgLogBytes{}, strings, found);
    EM_MODULE_TRACE(3, " Add message log entry 0x%06X (CSS: %s)", entry.ErrorCode,
                    (entry.Flags & 1) ? "yes" : "no");
    if (cut) ++walk.cut;
    ++walk.records;
    walk.end += length;
  }
  return walk;
}

size_t CMsgLogMerge::Add(std::vector<MsgLogEntry>&& source) {
  total_ += source.size();
  if (!source.empty()) {
    Source added;
    added.keys = OrderKeys(source);
    added.entries = std::move(source);
    sources_.push_back(std::move(added));
  }
  return total_;
}

std::vector<MsgLogEntry> CMsgLogMerge::Take(size_t keepAtMost) {
  const size_t skip = total_ > keepAtMost ? total_ - keepAtMost : 0;
  std::vector<MsgLogEntry> merged;
  if (sources_.size() == 1 && skip == 0) {
    merged = std::move(sources_.front().entries);
  } else if (!sources_.empty()) {
    merged.reserve(total_ - skip);
    // Heads of the sources by (merge value, reply order): the least one goes next.
    using Head = std::pair<int64_t, size_t>;
    std::priority_queue<Head, std::vector<Head>, std::greater<Head>> heads;
    std::vector<size_t> next(sources_.size(), 0);
    for (size_t s = 0; s < sources_.size(); ++s) {
      heads.emplace(sources_[s].keys[0], s);
    }
    for (size_t taken = 0; !heads.empty(); ++taken) {
      const size_t s = heads.top().second;
      heads.pop();
      Source& source = sources_[s];
      if (taken >= skip) {
        merged.push_back(std::move(source.entries[next[s]]));
      }
      if (++next[s] < source.entries.size()) {
        heads.emplace(source.keys[next[s]], s);
      }
    }
  }
  sources_.clear();
  total_ = 0;
  return merged;
}

}  // namespace em_oidmap
