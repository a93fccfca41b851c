// The log record parsers, the merge of several replies' tables and the look-up tables of
// the collection, in-process on bytes written with hostsim's record encoders.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "hostsim/SimLog.h"
#include "msglog/CollectionTables.h"
#include "msglog/LogRecords.h"

namespace em_oidmap {

namespace {

using hostsim::EncodeLog;
using hostsim::OldStyle;
using hostsim::SimOldStyleRecord;
using hostsim::SimUnifiedRecord;
using hostsim::Unified;
using Bytes = std::vector<uint8_t>;

Bytes WithCount(SimOldStyleRecord record, uint8_t count) {
  record.argCount = count;
  return record.Encode();
}

Bytes Concat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

std::vector<size_t> OldStyleLengths(const Bytes& block, LogBlockWalk& walk) {
  std::vector<size_t> lengths;
  walk = WalkOldStyleRecords(block.data(), block.size(),
                             [&](const OldStyleRecord& r) { lengths.push_back(r.length); });
  return lengths;
}

TEST(LogRecordsTest, OldStyleWalk_LengthRulesAndCutBlocks) {
  const Bytes twoShort = EncodeLog(std::vector<SimOldStyleRecord>{OldStyle(0x0401), OldStyle(0x0402)});
  Bytes long63 = OldStyle(0x3F00, 0, 0, 0, std::vector<uint32_t>(19, 7)).Encode();
  struct Case {
    const char* name;
    Bytes block;
    std::vector<size_t> lengths;
    bool whole;
  } cases[] = {
      {"11 bytes hold no record", Bytes(11, 0), {}, false},
      {"count 0", OldStyle(0x1904).Encode(), {12}, true},
      {"16 arguments", OldStyle(0x1904, 0, 0, 0, std::vector<uint32_t>(15, 1)).Encode(), {72}, true},
      {"count 17 carries none", WithCount(OldStyle(0x1904), 17), {12}, true},
      {"class 63 low 0, count 20", long63, {88}, true},
      {"class 63 low 1, count 20", WithCount(OldStyle(0x3F01), 20), {12}, true},
      {"last record cut", Concat(twoShort, Bytes(long63.begin(), long63.begin() + 50)), {12, 12},
       false},
      {"stray bytes after two records", Concat(twoShort, Bytes(5, 0)), {12, 12}, false},
  };
  for (const Case& c : cases) {
    LogBlockWalk walk;
    EXPECT_EQ(c.lengths, OldStyleLengths(c.block, walk)) << c.name;
    EXPECT_EQ(c.whole, walk.whole) << c.name;
    size_t end = 0;
    for (size_t length : c.lengths) end += length;
    EXPECT_EQ(end, walk.end) << c.name;
    EXPECT_EQ(c.lengths.size(), CountOldStyleRecords(c.block.data(), c.block.size())) << c.name;
  }
}

TEST(LogRecordsTest, OldStyleEntry_FieldsFromTheRecord) {
  SimOldStyleRecord written = OldStyle(0x1922, 0x80000001, 0x0105, 3, {9});
  written.codeBits = 2;
  const Bytes bytes = written.Encode();
  const OldStyleRecord record{bytes.data(), bytes.size()};
  const MsgLogEntry entry = MakeOldStyleEntry(record, 0x00020001, true, "CPU 2");
  EXPECT_EQ(0x1922u, entry.ErrorCode);
  EXPECT_EQ(2u, entry.CodeBits);
  EXPECT_EQ(0x80000001u, entry.OrderValue);
  EXPECT_EQ(1u, entry.Flags);
  EXPECT_EQ(1u, entry.OldStyle);
  EXPECT_EQ(-1, entry.RecordId);
  EXPECT_EQ(0x00020001u, entry.ModuleId);
  EXPECT_EQ(bytes, entry.RawRecord().ToVector());
  EXPECT_EQ((std::map<int32_t, std::string>{{0, "CPU 2"}}), entry.Arguments());
  EXPECT_EQ(3u, record.Cabinet());
  EXPECT_EQ(0x0105u, record.ObjectId());
  EXPECT_TRUE(MakeOldStyleEntry(record, 1, false, "").Arguments().empty());
}

TEST(LogRecordsTest, UnifiedParse_GoodRecordsAndEveryKindOfBadOne) {
  SimUnifiedRecord full = Unified(0x123456, 77, {"fan", "", "ignored"});
  full.flags = 0x0301;
  full.recordId = 12;
  full.aux = 0xA5;
  full.codeBits = 3;
  const Bytes good = EncodeLog(std::vector<SimUnifiedRecord>{full, Unified(0x10, 5, {"x"})});
  auto withLength = [](uint16_t length) {
    SimUnifiedRecord r = Unified(0x10, 1, {"abc"});
    r.length = length;
    return r.Encode();
  };
  Bytes noNul = Unified(0x10, 1, {"abc"}).Encode();
  noNul.pop_back();  // the string's NUL
  noNul[0] = static_cast<uint8_t>(noNul.size());
  Bytes countTooHigh = Unified(0x10, 1, {"a", "b"}).Encode();
  countTooHigh[25] = 5;
  struct Case {
    const char* name;
    Bytes block;
    size_t records;
    bool whole;
  } cases[] = {
      {"two records", good, 2, true},
      {"length 0", withLength(0), 0, false},
      {"length below the fixed part", withLength(25), 0, false},
      {"length past the data", withLength(31), 0, false},
      {"string without its NUL", noNul, 0, false},
      {"more strings than the record holds", countTooHigh, 0, false},
      {"good records kept before a bad one", Concat(good, withLength(0)), 2, false},
      {"a lone byte after them", Concat(good, Bytes(1, 30)), 2, false},
  };
  for (const Case& c : cases) {
    std::vector<MsgLogEntry> out;
    const LogBlockWalk walk = ParseUnifiedRecords(c.block.data(), c.block.size(), 0x55, out);
    EXPECT_EQ(c.records, out.size()) << c.name;
    EXPECT_EQ(c.records, walk.records) << c.name;
    EXPECT_EQ(c.whole, walk.whole) << c.name;
    EXPECT_EQ(c.records == 0 ? 0u : good.size(), walk.end) << c.name;
  }

  std::vector<MsgLogEntry> out;
  ParseUnifiedRecords(good.data(), good.size(), 0x55, out);
  const MsgLogEntry& e = out.at(0);
  EXPECT_EQ(0x123456u, e.ErrorCode);
  EXPECT_EQ(0x0301u, e.Flags);
  EXPECT_EQ(77u, e.OrderValue);
  EXPECT_EQ(12, e.RecordId);
  EXPECT_EQ(0xA5, e.AuxByte);
  EXPECT_EQ(3, e.CodeBits);
  EXPECT_EQ(0, e.OldStyle);
  EXPECT_EQ(0x55u, e.ModuleId);
  EXPECT_TRUE(e.RawRecord().empty());
  EXPECT_EQ((std::map<int32_t, std::string>{{1, "fan"}}), e.Arguments())
      << "the empty second string ends the list";
  EXPECT_EQ((std::map<int32_t, std::string>{{1, "x"}}), out.at(1).Arguments());

  // The strings are kept as valid UTF-8, kMaxEntryArgumentBytes of them in all; the record
  // stays whole and the strings past the room are dropped.
  const std::string large(kMaxEntryArgumentBytes, 'y');
  const Bytes hostile = Unified(0x10, 1, {"L\xFC" "fter", large, "dropped"}).Encode();
  out.clear();
  const LogBlockWalk walk = ParseUnifiedRecords(hostile.data(), hostile.size(), 0x55, out);
  ASSERT_EQ(1u, out.size());
  EXPECT_EQ(1u, walk.cut);
  const std::string first = "L\xEF\xBF\xBD" "fter";
  EXPECT_EQ((std::map<int32_t, std::string>{
                {1, first}, {2, large.substr(0, kMaxEntryArgumentBytes - first.size())}}),
            out[0].Arguments());
}

// The merge as the pairwise walk describes it, inserting into a list: the reference that
// the one-pass merge must reproduce.
int64_t KeyAt(const std::vector<MsgLogEntry>& list, size_t i) {
  for (; i < list.size(); ++i) {
    if (list[i].OrderValue != 0) return static_cast<int32_t>(list[i].OrderValue);
  }
  return std::numeric_limits<int64_t>::max();
}

std::vector<MsgLogEntry> PairwiseMerge(const std::vector<std::vector<MsgLogEntry>>& sources) {
  std::vector<MsgLogEntry> merged;
  for (std::vector<MsgLogEntry> source : sources) {
    size_t pos = 0;
    while (!source.empty()) {
      if (pos == merged.size()) {
        merged.insert(merged.end(), source.begin(), source.end());
        break;
      }
      if (KeyAt(merged, pos) <= KeyAt(source, 0)) {
        ++pos;
      } else {
        merged.insert(merged.begin() + static_cast<std::ptrdiff_t>(pos), source.front());
        source.erase(source.begin());
        ++pos;
      }
    }
  }
  return merged;
}

// Each entry tagged by its reply and position: ErrorCode = reply * 100 + position.
std::vector<MsgLogEntry> Table(uint32_t reply, const std::vector<uint32_t>& orders) {
  std::vector<MsgLogEntry> table(orders.size());
  for (size_t i = 0; i < orders.size(); ++i) {
    table[i].OrderValue = orders[i];
    table[i].ErrorCode = reply * 100 + static_cast<uint32_t>(i);
  }
  return table;
}

std::vector<uint32_t> Tags(const std::vector<MsgLogEntry>& entries) {
  std::vector<uint32_t> tags;
  for (const MsgLogEntry& e : entries) tags.push_back(e.ErrorCode);
  return tags;
}

std::vector<uint32_t> MergeTags(const std::vector<std::vector<MsgLogEntry>>& sources) {
  CMsgLogMerge merge;
  size_t total = 0;
  for (std::vector<MsgLogEntry> source : sources) {
    total += source.size();
    EXPECT_EQ(total, merge.Add(std::move(source)));
  }
  return Tags(merge.Take());
}

TEST(LogRecordsTest, Merge_OrderValuesZerosTiesAndSignedValues) {
  struct Case {
    const char* name;
    std::vector<std::vector<uint32_t>> replies;
    std::vector<uint32_t> tags;
  } cases[] = {
      {"0 ordered as the 12 after it", {{5, 9}, {7, 0, 12}}, {100, 200, 101, 201, 202}},
      {"tie: the earlier reply first", {{5}, {5}, {5}}, {100, 200, 300}},
      {"signed: 0x80000000 is the least", {{1, 2}, {0x80000000u, 3}}, {200, 100, 101, 201}},
      {"0 with nothing after it goes last", {{0, 4}, {3, 0}}, {200, 100, 101, 201}},
      {"an empty reply changes nothing", {{}, {2, 1}}, {200, 201}},
  };
  for (const Case& c : cases) {
    std::vector<std::vector<MsgLogEntry>> sources;
    for (size_t r = 0; r < c.replies.size(); ++r) {
      sources.push_back(Table(static_cast<uint32_t>(r + 1), c.replies[r]));
    }
    EXPECT_EQ(c.tags, MergeTags(sources)) << c.name;
    // Only the newest two, as a store that keeps two asks for them.
    CMsgLogMerge newest;
    for (std::vector<MsgLogEntry> source : sources) newest.Add(std::move(source));
    const std::vector<uint32_t> tail(c.tags.size() > 2 ? c.tags.end() - 2 : c.tags.begin(),
                                     c.tags.end());
    EXPECT_EQ(tail, Tags(newest.Take(2))) << c.name;
    EXPECT_EQ(c.tags, Tags(PairwiseMerge(sources))) << c.name << " (reference)";
  }
}

TEST(LogRecordsTest, Merge_SameAsPairwiseWalkForAnyInput) {
  std::mt19937 random(11);
  const uint32_t values[] = {0, 0, 1, 2, 3, 5, 8, 0x7FFFFFFF, 0x80000000u, 0xFFFFFFFFu};
  for (int round = 0; round < 500; ++round) {
    std::vector<std::vector<MsgLogEntry>> sources;
    const uint32_t replies = 1 + random() % 6;
    for (uint32_t r = 0; r < replies; ++r) {
      std::vector<uint32_t> orders(random() % 10);
      for (uint32_t& o : orders) o = values[random() % (sizeof values / sizeof values[0])];
      sources.push_back(Table(r + 1, orders));  // unsorted on purpose
    }
    ASSERT_EQ(Tags(PairwiseMerge(sources)), MergeTags(sources)) << "round " << round;
  }
}

TEST(LogRecordsTest, LookupTables_RowsAndFallbacks) {
  EXPECT_EQ(0x0307u, FindCssOpcode(0x04).value_or(0));
  EXPECT_EQ(0x2114u, FindCssOpcode(0x1C).value_or(0));
  EXPECT_FALSE(FindCssOpcode(0x05).has_value());
  struct Case {
    uint8_t codeClass;
    uint8_t low;
    uint32_t oc;  // 0: nothing asked
  } cases[] = {
      {0x19, 0x04, 0x0742}, {0x19, 0x28, 0x0752}, {0x19, 0x07, 0x0702},  // class row
      {0x10, 0x00, 0x0404}, {0x36, 0x01, 0xF042}, {0x36, 0x0A, 0},
      {0x36, 0x0C, 0},      {0x01, 0x00, 0},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.oc, FindDesignationOpcode(c.codeClass, c.low).value_or(0))
        << std::hex << int(c.codeClass) << "/" << int(c.low);
  }
  EXPECT_EQ("19040A0003", LogLookupKey(0x19, 0x04, 0x0A, 3));
  EXPECT_EQ("3F00FFFFABCD", LogLookupKey(0x3F, 0x00, 0xFFFF, 0xABCD));

  // Each answer cache keeps its newest answers up to the ceiling.
  CLogLookupCache lookups;
  for (size_t k = 0; k <= kMaxLookupCacheEntries; ++k) {
    lookups.StoreCss(std::to_string(k), k % 2 == 1);
    lookups.StoreDesignation(std::to_string(k), "FAN " + std::to_string(k));
  }
  lookups.StoreCss("1", false);  // an answer replaced keeps its place
  EXPECT_FALSE(lookups.FindCss("0").has_value());
  EXPECT_FALSE(lookups.FindDesignation("0").has_value());
  EXPECT_EQ(false, lookups.FindCss("1"));
  EXPECT_EQ("FAN 1", lookups.FindDesignation("1"));
  const std::string last = std::to_string(kMaxLookupCacheEntries);
  EXPECT_EQ(kMaxLookupCacheEntries % 2 == 1, lookups.FindCss(last));
}

}  // namespace

}  // namespace em_oidmap
