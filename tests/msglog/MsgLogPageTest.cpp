#include "msglog/MsgLogPage.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "hostsim/DebugSink.h"
#include "module/DebugClient.h"

namespace {

// One answer record, read back field by field.
struct Record {
  uint16_t length;
  uint8_t type, codeBits;
  uint16_t shortCode;
  uint8_t flags, zero;
  uint32_t order, sequence;
  std::string text;
};

uint32_t Le(const std::vector<uint8_t>& d, size_t at, int bytes) {
  uint32_t v = 0;
  for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | d[at + i];
  return v;
}

// Splits the answer by the records' own lengths; every record must end in its text's NUL
// and the records must fill the answer exactly.
std::vector<Record> Records(const std::vector<uint8_t>& d) {
  std::vector<Record> out;
  size_t at = 0;
  while (at + 16 < d.size()) {
    Record r{static_cast<uint16_t>(Le(d, at, 2)), d[at + 2], d[at + 3],
             static_cast<uint16_t>(Le(d, at + 4, 2)), d[at + 6], d[at + 7], Le(d, at + 8, 4),
             Le(d, at + 12, 4), std::string()};
    if (r.length < 17 || at + r.length > d.size() || d[at + r.length - 1] != 0) break;
    r.text.assign(reinterpret_cast<const char*>(&d[at + 16]), r.length - 17);
    out.push_back(r);
    at += r.length;
  }
  EXPECT_EQ(d.size(), at) << "records do not fill the answer";
  return out;
}

MsgLogEntry Unified(uint32_t seq, uint32_t code, std::map<int32_t, std::string> args = {}) {
  MsgLogEntry e;
  e.SequenceNumber = seq;
  e.ErrorCode = code;
  e.Arguments = std::move(args);
  e.Flags = 0x101;  // only the low byte is answered
  e.OrderValue = 0xA0B0C0D0;
  e.CodeBits = 24;
  return e;
}

// Class 0x04, code 0x01 ("fan failed"): cabinet 1, object id 3, speed 900.
MsgLogEntry FanFailedOldStyle(uint32_t seq) {
  MsgLogEntry e;
  e.SequenceNumber = seq;
  e.OldStyle = 1;
  e.ErrorCode = 0x0401;
  e.CodeBits = 2;
  e.Flags = 1;
  e.OrderValue = 7;
  e.RawRecord = {0x01, 0x84, 0, 2, 7, 0, 0, 0, 1, 0, 3, 0, 0x84, 0x03, 0, 0};
  e.Arguments[0] = "FAN3";
  return e;
}

TEST(MsgLogPageTest, RecordsCarryTheEntryFieldsAndTextsFromEverySource) {
  CLogMsgFile files(EM_SAMPLE_MSGFILES_DIR, [] { return std::string(); });
  CMsgTextCache longTexts;
  int asked = 0;
  MsgLogTextSources sources{&files, &longTexts, [&asked](uint32_t code, uint16_t lang) {
                              ++asked;
                              return code == 0x1F0007 && lang == 0x409 ? "From a module"
                                                                       : "";
                            }};
  MsgLogEntry oldWithoutRecord = FanFailedOldStyle(12);
  oldWithoutRecord.RawRecord.clear();
  oldWithoutRecord.ErrorCode = 0x0123;
  const std::vector<MsgLogEntry> entries = {
      FanFailedOldStyle(6),
      FanFailedOldStyle(7),
      Unified(8, 0x040002, {{1, "1200"}, {2, "1500"}}),
      Unified(9, 0x1F0007),  // not in the file: asked for, once
      Unified(10, 0x1F0007),
      Unified(11, 0x2E0009),  // known nowhere
      oldWithoutRecord,
  };

  TraceClient().SetTraceLevel(5);
  hostsim::Sink().Clear();
  std::vector<uint8_t> data;
  ASSERT_TRUE(BuildMsgLogPage({0x10409, 0, 7}, entries, sources, &data));
  TraceClient().SetTraceLevel(0);

  struct Expected {
    uint8_t codeBits;
    uint16_t shortCode;
    uint8_t flags;
    uint32_t order, sequence;
    std::string text;
  };
  const std::vector<Expected> expected = {
      {2, 0x0401, 1, 7, 7, "Fan FAN3 failed (speed 900 RPM)."},
      {24, 0x0402, 1, 0xA0B0C0D0, 8,
       "Fan <?D> is running too slowly: 1200 RPM, lower limit 1500 RPM."},
      {24, 0x1F07, 1, 0xA0B0C0D0, 9, "From a module"},
      {24, 0x1F07, 1, 0xA0B0C0D0, 10, "From a module"},
      {24, 0x2E09, 1, 0xA0B0C0D0, 11, "Unknown error 0x2E0009"},
      {2, 0x0123, 1, 7, 12, "Unknown error 0x0123"},
  };
  const std::vector<Record> records = Records(data);
  ASSERT_EQ(expected.size(), records.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(17 + expected[i].text.size(), records[i].length);
    EXPECT_EQ(3, records[i].type);
    EXPECT_EQ(expected[i].codeBits, records[i].codeBits);
    EXPECT_EQ(expected[i].shortCode, records[i].shortCode);
    EXPECT_EQ(expected[i].flags, records[i].flags);
    EXPECT_EQ(0, records[i].zero);
    EXPECT_EQ(expected[i].order, records[i].order);
    EXPECT_EQ(expected[i].sequence, records[i].sequence);
    EXPECT_EQ(expected[i].text, records[i].text);
  }
  // The two unknown codes were asked for once each; the answer went into the cache.
  EXPECT_EQ(2, asked);
  std::string cached;
  EXPECT_TRUE(longTexts.FindText(MsgTextKind::kLongText, 0x1F0007, 0x409, &cached));
  EXPECT_FALSE(longTexts.FindText(MsgTextKind::kLongText, 0x2E0009, 0x409, &cached));

  const hostsim::CaptureSink& sink = hostsim::Sink();
  for (const char* line : {
           "\nEM_OIDMAP           : GetMsgLogCacheEntries OpCodeExt: 0x10409",
           "\nEM_OIDMAP           : Search start index for requested message log sequence "
           "number 7 ...",
           "\nEM_OIDMAP           : found start index 1 for message log sequence number 7",
           "\nEM_OIDMAP           : Translate (old style format based) log entry 0x00000401 - "
           "CSS: true",
           "\nEM_OIDMAP           :     Decode long text message string (Unified SEL message) ...",
           "\nEM_OIDMAP           :     Request long text message string via TCBI ...",
           "\nEM_OIDMAP           :     ... long text: \"From a module\"",
           "\nEM_OIDMAP           : WARNING! Missing translation for language en for message "
           "error code 0x2E0009",
           "\nEM_OIDMAP           : Append SIP Msg: \"Unknown error 0x0123\"",
       }) {
    EXPECT_TRUE(sink.HasLine(line)) << line;
  }

  // The next page asks the cache, not the modules, and parses neither file again.
  data.clear();
  ASSERT_TRUE(BuildMsgLogPage({0x409, 0, 0}, entries, sources, &data));
  EXPECT_EQ(3, asked);  // only the code known nowhere was asked again
  EXPECT_EQ(2u, files.ParseCount());
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
    for (const Record& r : Records(data)) texts.push_back(r.text);
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
    const std::vector<Record> records = Records(data);
    ASSERT_EQ(c.count, records.size());
    if (c.count == 0) continue;
    EXPECT_EQ(c.firstSequence, records.front().sequence);
    EXPECT_EQ(c.firstSequence + c.count - 1, records.back().sequence);
  }
}

}  // namespace
