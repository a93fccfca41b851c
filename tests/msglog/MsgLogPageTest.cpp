#include "msglog/MsgLogPage.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "tests/support/PageRecords.h"

namespace em_oidmap {

namespace {

// The page's records; they must all parse and fill the answer exactly.
std::vector<test_support::PageRecord> Records(const std::vector<uint8_t>& data) {
  std::vector<test_support::PageRecord> records;
  EXPECT_TRUE(test_support::ParsePage(data, &records));
  return records;
}

MsgLogEntry Unified(uint32_t seq, uint32_t code, std::map<int32_t, std::string> args = {}) {
  MsgLogEntry e;
  e.SequenceNumber = seq;
  e.ErrorCode = code;
  e.SetArguments(args);
  return e;
}

// Class 0x04, code 0x01 ("fan failed"): cabinet 1, object id 3, speed 900.
MsgLogEntry FanFailedOldStyle(uint32_t seq) {
  MsgLogEntry e;
  e.SequenceNumber = seq;
  e.OldStyle = 1;
  e.ErrorCode = 0x0401;
  e.SetRawRecord({0x01, 0x84, 0, 2, 7, 0, 0, 0, 1, 0, 3, 0, 0x84, 0x03, 0, 0});
  e.SetArgument(0, "FAN3");
  return e;
}

TEST(MsgLogPageTest, TextsFollowTheRequestedLanguage) {
  CLogMsgFile files(EM_SAMPLE_MSGFILES_DIR, [] { return std::string(); });
  const MsgLogTextSources sources{&files, nullptr, nullptr};
  const std::vector<MsgLogEntry> entries = {FanFailedOldStyle(1),
                                            Unified(2, 0x040001, {{1, "900"}})};
  const struct {
    uint32_t opCodeExt;
    std::vector<std::string> texts;
  } cases[] = {
      {0x407, {"Lüfter FAN3 ausgefallen (Drehzahl 900 U/min).",
               "Lüfter <?D> ausgefallen (Drehzahl 900 U/min)."}},
      {0x2040C, {"Le ventilateur FAN3 est en panne (vitesse 900 tr/min).",
                 "Le ventilateur <?D> est en panne (vitesse 900 tr/min)."}},
      // Not in the language table: English.
      {0x411, {"Fan FAN3 failed (speed 900 RPM).", "Fan <?D> failed (speed 900 RPM)."}},
  };
  for (const auto& c : cases) {
    std::vector<uint8_t> data;
    ASSERT_TRUE(BuildMsgLogPage({c.opCodeExt, 0, 0}, entries, sources, &data));
    std::vector<std::string> texts;
    for (const auto& record : Records(data)) texts.push_back(record.text);
    EXPECT_EQ(c.texts, texts) << std::hex << c.opCodeExt;
  }
}

TEST(MsgLogPageTest, StartIndexFromPageAndSequenceNumber) {
  std::vector<MsgLogEntry> full;  // as left after evicting 500 of 2500
  for (uint32_t seq = 501; seq <= 2500; ++seq) full.push_back(Unified(seq, 0x010001));
  std::vector<MsgLogEntry> oversized;
  for (uint32_t seq = 1; seq <= 2500; ++seq) oversized.push_back(Unified(seq, 0x010001));
  const MsgLogTextSources none{nullptr, nullptr, nullptr};

  const struct {
    const std::vector<MsgLogEntry>* entries;
    uint32_t page, sequence;
    size_t count;
    uint32_t firstSequence;
  } cases[] = {
      {&full, 0, 1000, 1501, 1000}, {&full, 0, 0, 2000, 501},   {&full, 0, 2500, 1, 2500},
      {&full, 0, 2501, 0, 0},       {&full, 1, 0, 0, 0},        {&oversized, 0, 0, 2000, 1},
      {&oversized, 1, 0, 500, 2001}, {&oversized, 1, 2400, 101, 2400},
      {&full, 0xFFFFFFFF, 0, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "page " << c.page << " sequence " << c.sequence);
    std::vector<uint8_t> data;
    EXPECT_EQ(c.count > 0, BuildMsgLogPage({0x409, c.page, c.sequence}, *c.entries, none, &data));
    const auto records = Records(data);
    ASSERT_EQ(c.count, records.size());
    if (c.count == 0) continue;
    EXPECT_EQ(c.firstSequence, records.front().sequence);
    EXPECT_EQ(c.firstSequence + c.count - 1, records.back().sequence);
  }
}

}  // namespace

}  // namespace em_oidmap
