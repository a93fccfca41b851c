// The packed part of a cached entry: record and argument strings read back as written,
// inside the entry or on the heap, through copies, moves and one-part changes.
#include "msglog/MsgLogEntry.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace em_oidmap {
namespace {

using Bytes = std::vector<uint8_t>;
using Args = std::map<int32_t, std::string>;

void ExpectHolds(const MsgLogEntry& entry, const Bytes& record, const Args& args) {
  EXPECT_EQ(record, entry.RawRecord().ToVector());
  EXPECT_EQ(args, entry.Arguments());
  EXPECT_EQ(args.size(), entry.ArgumentCount());
  for (const auto& arg : args) {
    std::string_view text;
    ASSERT_TRUE(entry.FindArgument(arg.first, &text)) << arg.first;
    EXPECT_EQ(arg.second, text);
  }
  std::string_view none;
  EXPECT_FALSE(entry.FindArgument(12345, &none));
}

TEST(MsgLogEntryTest, PartsReadBackInsideOrOnTheHeapThroughCopiesAndMoves) {
  const std::string longText(300, 'x');  // a length of two varint bytes
  const struct {
    const char* name;
    Bytes record;
    Args args;
    bool inside;
  } cases[] = {
      {"nothing", {}, {}, true},
      {"old-style record of 20 bytes", Bytes(20, 7), {}, true},
      {"record of 21 bytes", Bytes(21, 7), {}, false},
      {"two short strings", {}, {{1, "FAN SYS 1"}, {2, "1200"}}, true},
      {"record with designation, 20 bytes packed", Bytes(12, 1), {{0, "CPU 2"}}, true},
      {"record with designation, 21 bytes packed", Bytes(12, 1), {{0, "CPU 22"}}, false},
      {"numbers of either sign", {}, {{-70000, "a"}, {0, ""}, {64, "b"}, {1 << 30, "c"}}, true},
      {"long string", Bytes(3, 9), {{1, longText}}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    MsgLogEntry entry;
    entry.ErrorCode = 0x190004;
    entry.SetRawRecord(c.record);
    entry.SetArguments(c.args);
    ExpectHolds(entry, c.record, c.args);
    EXPECT_EQ(c.inside, entry.HeapBytes() == 0);

    MsgLogEntry copy = entry;
    ExpectHolds(copy, c.record, c.args);
    EXPECT_EQ(entry.HeapBytes(), copy.HeapBytes());
    MsgLogEntry moved = std::move(copy);
    ExpectHolds(moved, c.record, c.args);
    EXPECT_EQ(0x190004u, moved.ErrorCode);
    ExpectHolds(copy, {}, {});  // a moved-from entry is empty
    moved = entry;              // over what it held
    ExpectHolds(moved, c.record, c.args);
  }
}

TEST(MsgLogEntryTest, OnePartChangesKeepTheOther) {
  MsgLogEntry entry;
  entry.SetArgument(2, "two");
  entry.SetArgument(1, "one");  // before the larger number
  entry.SetRawRecord(Bytes{1, 2, 3});
  entry.SetArgument(2, "TWO");  // replaced
  entry.SetArgument(0, std::string(40, 'd'));
  ExpectHolds(entry, {1, 2, 3}, {{0, std::string(40, 'd')}, {1, "one"}, {2, "TWO"}});
  entry.SetRawRecord(Bytes(30, 5));
  ExpectHolds(entry, Bytes(30, 5), {{0, std::string(40, 'd')}, {1, "one"}, {2, "TWO"}});
  entry.SetArguments({});
  ExpectHolds(entry, Bytes(30, 5), {});
}

}  // namespace
}  // namespace em_oidmap
