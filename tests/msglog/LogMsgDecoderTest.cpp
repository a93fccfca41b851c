#include "msglog/LogMsgDecoder.h"

#include <gtest/gtest.h>

#include "MsgTextTestUtil.h"
#include "hostsim/DebugSink.h"
#include "module/DebugClient.h"

namespace {

using msgtext_test::ArgsRecord;

std::string Decode(const CLogMsgDecoder& decoder, const std::vector<uint8_t>& record,
                   bool prefix = false, bool shortText = false,
                   const std::string& designation = "", const char* lang = "en") {
  std::string out;
  EXPECT_EQ(1, decoder.Decode(record.data(), record.size(), out, prefix, shortText,
                              designation, lang));
  return out;
}

const CLogMsgDecoder kOldNoFile(nullptr, LogMsgFormat::kOldStyle);
const CLogMsgDecoder kUnifiedNoFile(nullptr, LogMsgFormat::kUnified);
// Class 0x01, code 0x05, cabinet 1, object id 2, n = 1.
const std::vector<uint8_t> kRecord0105 = ArgsRecord(0x01, 0x05, 1, 2, {});

TEST(LogMsgDecoderTest, FallbackTextsAndCodePrefix) {
  EXPECT_EQ("ERROR 0x0105 (0x1, 0x2)", Decode(kOldNoFile, kRecord0105));
  EXPECT_EQ("ERROR 0x010005 (0x2)", Decode(kUnifiedNoFile, kRecord0105));
  EXPECT_EQ("[0105] ERROR 0x0105 (0x1, 0x2)", Decode(kOldNoFile, kRecord0105, true));
  EXPECT_EQ("[010005] ERROR 0x010005 (0x2)", Decode(kUnifiedNoFile, kRecord0105, true));
  // n = 0 still lists the two 16-bit values; only byte 1's low six bits are the class.
  EXPECT_EQ("ERROR 0x0105 (0x1, 0x2)", Decode(kOldNoFile, ArgsRecord(0x01, 0x05, 1, 2, {}, 0)));
  EXPECT_EQ("ERROR 0x3A0001 (0xFFFF, 0xABCDEF01)",
            Decode(kUnifiedNoFile, ArgsRecord(0xFA, 0x01, 0, 0xFFFF, {0xABCDEF01})));
  const auto five = ArgsRecord(0x01, 0x05, 1, 2, {0x10, 0x20, 0x30, 0x40});
  EXPECT_EQ("0x010005 (0x2, 0x10, 0x20)", Decode(kUnifiedNoFile, five, false, true));

  std::string out = "A; ";  // appended to, never cleared
  ASSERT_EQ(1, kOldNoFile.Decode(kRecord0105.data(), 12, out, false, true, "", nullptr));
  EXPECT_EQ("A; 0x0105 (0x1, 0x2)", out);
}

TEST(LogMsgDecoderTest, InlineTextRecordIsCutAtNulAndAtTheRecordEnd) {
  auto inlineRecord = [](uint8_t n, const std::string& text) {
    std::vector<uint8_t> r = {0, 0x3F, 0, n, 0, 0, 0, 0};
    r.insert(r.end(), text.begin(), text.end());
    return r;
  };
  EXPECT_EQ("Hi there", Decode(kUnifiedNoFile, inlineRecord(2, "Hi thereXY")));
  EXPECT_EQ("Hi", Decode(kUnifiedNoFile, inlineRecord(2, std::string("Hi\0xyz", 6))));
  EXPECT_EQ("Hi t", Decode(kOldNoFile, inlineRecord(255, "Hi t")));
  EXPECT_EQ("[3F0000] ", Decode(kUnifiedNoFile, inlineRecord(0, ""), true));
}

TEST(LogMsgDecoderTest, ShortRecordsNeverReadPastTheirLength) {
  std::string out = "kept";
  for (size_t len = 0; len < 4; ++len)
    EXPECT_EQ(0, kOldNoFile.Decode(kRecord0105.data(), len, out, false, false, "", "en"));
  EXPECT_EQ(0, kOldNoFile.Decode(nullptr, 12, out, false, false, "", "en"));
  EXPECT_EQ("kept", out);
  for (size_t len = 4; len < 12; ++len) {  // own buffers: ASan sees any overread
    const std::vector<uint8_t> cut(kRecord0105.begin(), kRecord0105.begin() + len);
    Decode(kOldNoFile, cut);
    Decode(kUnifiedNoFile, cut, true, true);
  }
  EXPECT_EQ("ERROR 0x0105 (0x1, <?1>)",
            Decode(kOldNoFile, std::vector<uint8_t>(kRecord0105.begin(), kRecord0105.begin() + 10)));
  const std::string text = Decode(kOldNoFile, ArgsRecord(0x01, 0x05, 1, 2, {7}, 255));
  EXPECT_EQ(0u, text.find("ERROR 0x0105 (0x1, 0x2, 0x7, <?3>, <?4>,"));
  EXPECT_NE(std::string::npos, text.find("<?255>)"));
}

TEST(LogMsgDecoderTest, PlaceholderSyntax) {
  std::vector<CLogMsgDecoder::Argument> args;  // argument k holds k for k = 0..10
  for (uint32_t k = 0; k <= 10; ++k) args.push_back({k, true});
  args.push_back({0xBEEF, true});
  args.push_back({0x31555043, true});  // "CPU1"
  args.push_back({0, false});          // claimed by the count, not in the record
  auto fill = [&args](const std::string& format, const std::string& designation = "FAN 2") {
    return CLogMsgDecoder::FillFormat(format, args, designation, LogMsgFormat::kUnified, false);
  };
  EXPECT_EQ("1/2 ... 10/48879", fill("%1/%2 ... %10/%11"));
  EXPECT_EQ("0xBEEF 11 \"CPU1\" at FAN 2", fill("0x%11X %1u1 %12S at %D"));
  EXPECT_EQ("<?13> <?14> <?999>0", fill("%13 %14 %9990"));
  // No printf: conversions of its own syntax stay text.
  EXPECT_EQ("100 % of %HD% at %s %n %x %", fill("%1u00 %% of %HD% at %s %n %x %"));
  EXPECT_EQ("<?D> is gone", fill("%D is gone", ""));
  EXPECT_EQ("FAN 2: <not set>/<not set>",
            CLogMsgDecoder::FillFormat("%D: %1/%2X", args, "FAN 2", LogMsgFormat::kOldStyle, true));
}

TEST(LogMsgDecoderTest, FormatStringsFromTheSampleFiles) {
  CLogMsgFile unifiedFile(EM_SAMPLE_MSGFILES_DIR, [] { return std::string(); });
  CLogMsgFile oldFile(EM_SAMPLE_MSGFILES_DIR, [] { return std::string(); });
  ASSERT_TRUE(unifiedFile.Open(LogMsgFormat::kUnified) && oldFile.Open(LogMsgFormat::kOldStyle));
  const CLogMsgDecoder unified(unifiedFile, LogMsgFormat::kUnified);
  const CLogMsgDecoder old(oldFile, LogMsgFormat::kOldStyle);

  const auto slowFan = ArgsRecord(0x04, 0x02, 1, 3, {1200, 1500});
  const std::string english = "Fan FAN3 is running too slowly: 1200 RPM, lower limit 1500 RPM.";
  EXPECT_EQ(english, Decode(unified, slowFan, false, false, "FAN3"));
  EXPECT_EQ(english, Decode(old, slowFan, false, false, "FAN3"));
  EXPECT_EQ("[040002] Fan FAN3 too slow", Decode(unified, slowFan, true, true, "FAN3"));
  EXPECT_EQ("Lüfter FAN3 dreht zu langsam: 1200 U/min, Untergrenze 1500 U/min.",
            Decode(unified, slowFan, false, false, "FAN3", "DE"));
  EXPECT_EQ("ERROR 0x040002 (0x3, 0x4B0, 0x5DC)", Decode(unified, slowFan, false, false, "", "it"));
  EXPECT_EQ("Fan FAN3 is running too slowly: <not set> RPM, lower limit <not set> RPM.",
            Decode(unified, ArgsRecord(0x04, 0x02, 0xCCCC, 0xCCCC, {1, 2}), false, false, "FAN3"));

  // Eleven per-rank counts (two-digit argument numbers), then the record cut after six.
  const auto cut = ArgsRecord(0x0C, 0x05, 1, 4, {10, 20, 30, 40, 50, 60}, 12);
  EXPECT_EQ("Memory module DIMM-A1 error counts per rank: 10, 20, 30, 40, 50, 60, <?7>, <?8>, "
            "<?9>, <?10>, <?11>.",
            Decode(unified, cut, false, false, "DIMM-A1"));

  TraceClient().SetTraceLevel(4);
  hostsim::Sink().Clear();
  Decode(old, ArgsRecord(0x04, 0x01, 1, 3, {900}), false, false, "FAN3", nullptr);
  TraceClient().SetTraceLevel(0);
  EXPECT_TRUE(hostsim::Sink().HasLine("\nCLogMsgDecoder      :     Number Args (pLogEntry): 2"));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nCLogMsgDecoder      : Old SEL error code: 0x401 (Lang: \"\")"));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nCLogMsgDecoder      :  Long Message: \"Fan %D failed (speed %2 RPM).\""));
}

}  // namespace
