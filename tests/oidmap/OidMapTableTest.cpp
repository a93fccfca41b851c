#include "oidmap/OidMapTable.h"

#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "hostsim/DebugSink.h"
#include "trace/DebugClient.h"
#include "oidmap/CountOpcodeTable.h"
#include "oidmap/Opcodes.h"
#include "sip/SipStatus.h"

namespace em_oidmap {

namespace {

constexpr uint32_t kCab0 = 0;
constexpr uint32_t kCab1 = 7;
// Cabinet 0: module A holds 3 instances of every kind, module B 2 (global 3 and 4).
constexpr uint32_t kMidA = 0x00100001;
constexpr uint32_t kMidB = 0x00200002;
// Cabinet 7: other modules, 1 + 1 instances.
constexpr uint32_t kMidC = 0x00300003;
constexpr uint32_t kMidD = 0x00400004;

// What start-up does: every distinct count request of the table, answered by two modules.
void FillLikeStartUp(COidMapTable& table, uint32_t ca, uint32_t midFirst, uint32_t nFirst,
                     uint32_t midSecond, uint32_t nSecond) {
  std::set<uint32_t> requested;
  for (const CountOpcodeRow* row = kCountOpcodeTable; row->countOc != 0; ++row) {
    if (!requested.insert(CountOpcodeKey(*row)).second) continue;
    table.AddInstances(row->countOc, row->countOe, ca, midFirst, nFirst);
    table.AddInstances(row->countOc, row->countOe, ca, midSecond, nSecond);
  }
}

SipJson Request(uint32_t oc, uint32_t oe, uint32_t oi, uint32_t ca) {
  SipJson msg(oc, oe, oi, ca);
  msg.SetStatus(ST_PENDING);
  return msg;
}

SipJson Reply(uint32_t oc, uint32_t oe, uint32_t oi, uint32_t ca, uint32_t mid,
              uint32_t status = ST_SUCCESS) {
  SipJson msg(oc, oe, oi, ca);
  msg.SetModuleId(mid);
  msg.SetStatus(status);
  return msg;
}

// An old-style log record: entity code (class), argument count, object id.
std::vector<uint8_t> LogRecord(uint8_t entity, uint8_t args, uint16_t oid,
                               uint8_t lowCode = 0x01) {
  std::vector<uint8_t> r(args >= 1 && args <= 16 ? 4u * args + 8 : 12u, 0);
  r[0] = lowCode;
  r[1] = entity;
  r[3] = args;
  r[10] = static_cast<uint8_t>(oid);
  r[11] = static_cast<uint8_t>(oid >> 8);
  return r;
}

SipJson LogReply(const std::vector<uint8_t>& data, uint32_t mid, uint32_t status = ST_SUCCESS) {
  SipJson msg(CM_MessageLogReply, 0, 0, kCab0);
  msg.SetModuleId(mid);
  msg.SetRawData(data, status);
  return msg;
}

uint32_t OidAt(const SipJson& msg, size_t offset) {
  std::vector<uint8_t> bytes;
  msg.GetDataBytes(0, bytes);
  if (bytes.size() < offset + 12) return 0xFFFFFFFF;
  return bytes[offset + 10] | (bytes[offset + 11] << 8);
}

class OidMapTableTest : public ::testing::Test {
 protected:
  void SetUp() override {
    FillLikeStartUp(table_, kCab0, kMidA, 3, kMidB, 2);
    FillLikeStartUp(table_, kCab1, kMidC, 1, kMidD, 1);
    // Cabinet 9: other owners for each count opcode, so that a wrong row shows.
    table_.AddInstances(0x0300, 0, kCab9, kMidA, 3);
    table_.AddInstances(0x0300, 0, kCab9, kMidB, 2);
    table_.AddInstances(0x0300, 0, kCab9, kMidA, 4);  // A again, with more: positions 5..8
    table_.AddInstances(0x0400, 0, kCab9, kMidC, 4);
    table_.AddInstances(CM_ExtObjectCount, 0x05, kCab9, kMidA, 5);
    table_.AddInstances(CM_ExtObjectCount, 0x1C, kCab9, kMidC, 2);
    table_.AddInstances(CM_ExtObjectCount, 0x1C, kCab9, kMidD, 2);
  }
  static constexpr uint32_t kCab9 = 9;
  COidMapTable table_;
};

// Requests (with or without ST) go to the owner of a global index with its local id;
// replies and events come back with the global index. Config value 0x71 counts through
// 0x0300 and 0x90 through 0x0400; extended OE 0x1C06 through (0x0C21, 0x1C) and 0x0506
// through (0x0C21, 0x05).
TEST_F(OidMapTableTest, Translate_GlobalIndexAndOwnersLocalId) {
  const struct {
    SipJson msg;
    uint32_t mi, oi;
  } cases[] = {
      {Request(0x0301, 0, 3, kCab0), kMidB, 0},
      {SipJson(0x0301, 0, 3, kCab0), kMidB, 0},
      {Request(0x0527, 0, 2, kCab0), kMidA, 2},
      {Request(0x0527, 0, 4, kCab0), kMidB, 1},
      {Request(0x0301, 0, 1, kCab1), kMidD, 0},
      {Reply(0x0301, 0, 0, kCab0, kMidB), kMidB, 3},
      {Reply(0x0301, 0, 1, kCab0, kMidB, ST_EVENT), kMidB, 4},
      {Reply(0x0301, 0, 0, kCab1, kMidD), kMidD, 1},
      {Request(CM_ReadConfigurationSpace, 0x71, 4, kCab9), kMidB, 1},
      {Request(CM_WriteConfigurationSpace, 0x90, 3, kCab9), kMidC, 3},
      {Reply(CM_ReadConfigurationSpace, 0x71, 1, kCab9, kMidB), kMidB, 4},
      {Reply(CM_ReadConfigurationSpace, 0x71, 2, kCab9, kMidA), kMidA, 2},  // first position
      {Reply(CM_ReadConfigurationSpace, 0x71, 3, kCab9, kMidA), kMidA, 8},  // only A's second
      {Request(CM_ExtObjectGet, 0x1C06, 2, kCab9), kMidD, 0},
      {Request(CM_ExtObjectSet, 0x0506, 4, kCab9), kMidA, 4},
      {Reply(CM_ExtObjectGet, 0x1C0F, 1, kCab9, kMidD), kMidD, 3},
  };
  for (const auto& c : cases) {
    SipJson msg = c.msg;
    SCOPED_TRACE(msg.Serialize());
    EXPECT_EQ(1u, table_.TranslateMessage(msg, 0));
    EXPECT_EQ(c.mi, msg.GetKey(0, "MI"));
    EXPECT_EQ(c.oi, msg.GetKey(0, "OI"));
  }
}

TEST_F(OidMapTableTest, Untranslatable_PassesUnchanged) {
  for (SipJson msg : {Request(0x0301, 0, 5, kCab0),                   // not below the count
                      Request(0x0999, 0, 1, kCab0),                   // unknown OC
                      Request(0x0301, 0, 1, 42),                      // unknown cabinet
                      Reply(0x0301, 0, 1, kCab0, kMidC),              // not this kind's owner
                      Request(CM_ReadConfigurationSpace, 0x12, 1, kCab0),
                      Request(CM_ExtObjectGet, 0x1C07, 1, kCab0),
                      Reply(CM_ExtObjectCount, 0x05, 0, 42, kMidA)}) {  // no count entry
    const std::string before = msg.Serialize();
    EXPECT_EQ(0u, table_.TranslateMessage(msg, 0)) << before;
    EXPECT_EQ(before, msg.Serialize());
  }
}

// A count request or reply is answered with the total of the instances, in eight bits.
TEST_F(OidMapTableTest, CountReply_IsTotalTruncatedToEightBits) {
  table_.AddInstances(0x0300, 0, kCab1, kMidC, 298);  // 300 with C's and D's one
  table_.AddInstances(CM_ExtObjectCount, 0x1C, kCab1, kMidC, 254);
  SipJson countRequest = Request(0x0300, 0, 0, kCab1);  // no DA yet
  SipJson extReply = Reply(CM_ExtObjectCount, 0x1C, 0, kCab1, kMidC);
  extReply.SetKey("DA", 9, false);
  for (auto [msg, total] : {std::pair{&countRequest, 44u}, std::pair{&extReply, 0u}}) {
    EXPECT_EQ(1u, table_.TranslateMessage(*msg, 0));
    uint32_t value = 99;
    EXPECT_TRUE(msg->GetDataValue(0, value));
    EXPECT_EQ(total, value);
  }
}

// Entity 0x04 counts through 0x0300, entity 0x05 through 0x0400.
TEST_F(OidMapTableTest, LogReply_PatchesRecordOids_SkipsEntity63) {
  TraceClient().SetTraceLevel(5);
  hostsim::Sink().Clear();
  std::vector<uint8_t> data = LogRecord(0x04, 0, 1);          // 12 bytes at 0
  const std::vector<uint8_t> second = LogRecord(0x45, 2, 0);  // 16 bytes at 12 (CodeBits set)
  // Inline text record, entity 63 with low code 0 and 20 arguments: 88 bytes at 28. Its
  // text looks like a patchable record 12 bytes in, which the walk must step over.
  std::vector<uint8_t> inlineText(88, 0);
  inlineText[1] = 0x3F;
  inlineText[3] = 20;
  inlineText[10] = 1;
  inlineText[12 + 1] = 0x04;
  inlineText[12 + 10] = 1;
  const std::vector<uint8_t> last = LogRecord(0x04, 0, 0);  // 12 bytes at 116
  data.insert(data.end(), second.begin(), second.end());
  data.insert(data.end(), inlineText.begin(), inlineText.end());
  data.insert(data.end(), last.begin(), last.end());
  SipJson reply = LogReply(data, kMidB);

  EXPECT_EQ(1u, table_.TranslateMessage(reply, 0));
  EXPECT_EQ(4u, OidAt(reply, 0));
  EXPECT_EQ(3u, OidAt(reply, 12));
  EXPECT_EQ(1u, OidAt(reply, 28));
  EXPECT_EQ(1u, OidAt(reply, 40));
  EXPECT_EQ(3u, OidAt(reply, 116));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           : Messag log reply OID patched from 0x0001 to 0x0004"));
  TraceClient().SetTraceLevel(0);

  // A request's status never passes the reply gate.
  reply.SetStatus(ST_PENDING);
  EXPECT_EQ(0u, table_.PatchMessageLogReply(reply, 0));
}

TEST_F(OidMapTableTest, LogRecords_TowardModule) {
  SipJson known = LogReply(LogRecord(0x04, 0, 1), kMidB, ST_PENDING);
  EXPECT_EQ(1u, table_.PatchLogRecords(known, 0, true));
  EXPECT_EQ(4u, OidAt(known, 0));
  EXPECT_FALSE(known.HasKey(0, "MI"));

  // No (MI, OID) match: a global index below the count becomes that instance's local id.
  SipJson global = LogReply(LogRecord(0x04, 0, 4), 0, ST_PENDING);
  EXPECT_EQ(1u, table_.PatchLogRecords(global, 0, true));
  EXPECT_EQ(1u, OidAt(global, 0));
}

TEST_F(OidMapTableTest, LogReply_CutShortData_IsNotOverread) {
  // Second record: whole header but its object id lies past the end.
  std::vector<uint8_t> data = LogRecord(0x04, 0, 0);
  std::vector<uint8_t> cut = LogRecord(0x04, 0, 0);
  cut[10] = 0xEE;
  data.insert(data.end(), cut.begin(), cut.begin() + 10);
  SipJson reply = LogReply(data, kMidB);
  EXPECT_EQ(1u, table_.TranslateMessage(reply, 0));
  EXPECT_EQ(3u, OidAt(reply, 0));
  std::vector<uint8_t> after;
  reply.GetDataBytes(0, after);
  EXPECT_EQ(22u, after.size());

  // A long record (16 arguments, 72 bytes) announced in a 14-byte block, and blocks too
  // short for any header: nothing is patched, nothing is read beyond the data.
  for (size_t size : {size_t{1}, size_t{3}, size_t{11}, size_t{14}}) {
    std::vector<uint8_t> block = LogRecord(0x04, 16, 0);
    block.resize(size);
    SipJson shortReply = LogReply(block, kMidA);
    EXPECT_EQ(size >= 12 ? 1u : 0u, table_.TranslateMessage(shortReply, 0)) << size;
  }
}

// The indexes must give what a first-match walk from row 0 gives.
TEST(CountOpcodeTable, LookupsMatchFirstMatchWalk) {
  auto walk = [](auto matches) -> const CountOpcodeRow* {
    for (const CountOpcodeRow* row = kCountOpcodeTable; row->countOc != 0; ++row)
      if (matches(*row)) return row;
    return nullptr;
  };
  ASSERT_EQ(0u, kCountOpcodeTable[kCountOpcodeRows].countOc);
  for (size_t i = 0; i < kCountOpcodeRows; ++i) {
    const CountOpcodeRow& probe = kCountOpcodeTable[i];
    EXPECT_EQ(walk([&](const CountOpcodeRow& r) {
                return r.itemOc == probe.itemOc && r.itemOe == probe.itemOe;
              }),
              FindFirstItemRow(probe.itemOc, probe.itemOe))
        << i;
    EXPECT_EQ(walk([&](const CountOpcodeRow& r) {
                return r.kind == probe.kind && r.itemOe == probe.itemOe;
              }),
              FindFirstRowOfKind(probe.kind, probe.itemOe))
        << i;
  }
  EXPECT_EQ(&kCountOpcodeTable[26], FindFirstRowOfKind(kCountKindExtObject, 0x1C06));
  EXPECT_EQ(2u, FindRowsOfKind(kCountKindExtObject, 0x1C06).size());
  EXPECT_EQ(nullptr, FindFirstItemRow(0x0301, 0x0001));
  EXPECT_EQ(nullptr, FindFirstRowOfKind(kCountKindEnd, 0));
}

}  // namespace

}  // namespace em_oidmap
