#include "msglog/LogMsgDecoder.h"

#include <gtest/gtest.h>

#include "MsgTextTestUtil.h"
#include "hostsim/DebugSink.h"
#include "module/DebugClient.h"

namespace {

using msgtext_test::ArgsRecord;
using msgtext_test::Record;
using Arg = CLogMsgDecoder::Argument;

std::string Decode(const CLogMsgDecoder& decoder, const std::vector<uint8_t>& record,
                   bool prefix = false, bool shortText = false,
                   const std::string& designation = "", const char* lang = "en") {
  std::string out;
  EXPECT_EQ(1, decoder.Decode(record.data(), record.size(), out, prefix, shortText,
                              designation, lang));
  return out;
}

// Class 0x01, code 0x05, cabinet 1, object id 2, n = 1.
const std::vector<uint8_t> kRecord0105 = ArgsRecord(0x01, 0x05, 1, 2, {});

TEST(LogMsgDecoderTest, FallbackTextsWithoutMessageFile) {
  const CLogMsgDecoder old(nullptr, LogMsgFormat::kOldStyle);
  const CLogMsgDecoder unified(nullptr, LogMsgFormat::kUnified);
  EXPECT_EQ("ERROR 0x0105 (0x1, 0x2)", Decode(old, kRecord0105));
  EXPECT_EQ("ERROR 0x010005 (0x2)", Decode(unified, kRecord0105));
  EXPECT_EQ("[0105] ERROR 0x0105 (0x1, 0x2)", Decode(old, kRecord0105, true));
  EXPECT_EQ("[010005] ERROR 0x010005 (0x2)", Decode(unified, kRecord0105, true));
  // n = 0 still lists the two 16-bit values (old) or the object id (unified).
  EXPECT_EQ("ERROR 0x0105 (0x1, 0x2)", Decode(old, ArgsRecord(0x01, 0x05, 1, 2, {}, 0)));
  EXPECT_EQ("ERROR 0x010005 (0x2)", Decode(unified, ArgsRecord(0x01, 0x05, 1, 2, {}, 0)));
  // Only the low six bits of byte 1 are the class.
  EXPECT_EQ("ERROR 0x3A0001 (0xFFFF, 0xABCDEF01)",
            Decode(unified, ArgsRecord(0xFA, 0x01, 0, 0xFFFF, {0xABCDEF01})));
}

TEST(LogMsgDecoderTest, ShortFallbackListsAtMostThreeArguments) {
  const CLogMsgDecoder unified(nullptr, LogMsgFormat::kUnified);
  const auto record = ArgsRecord(0x01, 0x05, 1, 2, {0x10, 0x20, 0x30, 0x40});  // n = 5
  EXPECT_EQ("0x010005 (0x2, 0x10, 0x20)", Decode(unified, record, false, true));
  EXPECT_EQ("ERROR 0x010005 (0x2, 0x10, 0x20, 0x30, 0x40)", Decode(unified, record));
}

TEST(LogMsgDecoderTest, InlineTextRecordIsCutAtNulAndAtTheRecordEnd) {
  const CLogMsgDecoder decoder(nullptr, LogMsgFormat::kUnified);
  const std::vector<uint8_t> text = {'H', 'i', ' ', 't', 'h', 'e', 'r', 'e', 'X', 'Y'};
  EXPECT_EQ("Hi there", Decode(decoder, Record(0x3F, 0, 2, text)));  // 8 of the 10 bytes
  EXPECT_EQ("Hi", Decode(decoder, Record(0x3F, 0, 2, {'H', 'i', 0, 'x', 'y', 'z', 0, 0})));
  EXPECT_EQ("Hi t", Decode(decoder, Record(0x3F, 0, 255, {'H', 'i', ' ', 't'})));
  EXPECT_EQ("[3F0000] ", Decode(decoder, Record(0x3F, 0, 0, {}), true));
}

TEST(LogMsgDecoderTest, ShortRecordsNeverReadPastTheirLength) {
  const CLogMsgDecoder old(nullptr, LogMsgFormat::kOldStyle);
  const CLogMsgDecoder unified(nullptr, LogMsgFormat::kUnified);
  std::string out = "kept";
  EXPECT_EQ(0, old.Decode(nullptr, 12, out, false, false, "", "en"));
  for (size_t len = 0; len < 4; ++len) {
    EXPECT_EQ(0, old.Decode(kRecord0105.data(), len, out, false, false, "", "en"));
  }
  EXPECT_EQ("kept", out);
  // Each length is copied into its own buffer so that ASan sees any overread.
  for (size_t len = 4; len < 12; ++len) {
    const std::vector<uint8_t> cut(kRecord0105.begin(), kRecord0105.begin() + len);
    Decode(old, cut);
    Decode(unified, cut, true, true);
  }
  EXPECT_EQ("ERROR 0x0105 (0x1, <?1>)",
            Decode(old, std::vector<uint8_t>(kRecord0105.begin(), kRecord0105.begin() + 10)));

  // Count 255 in a 16-byte record: one 32-bit value is there, the rest show as missing.
  const auto claims = ArgsRecord(0x01, 0x05, 1, 2, {7}, 255);
  const std::string text = Decode(old, claims);
  EXPECT_EQ(0u, text.find("ERROR 0x0105 (0x1, 0x2, 0x7, <?3>, <?4>,"));
  EXPECT_NE(std::string::npos, text.find("<?255>)"));
}

TEST(LogMsgDecoderTest, OutputIsAppendedTo) {
  const CLogMsgDecoder old(nullptr, LogMsgFormat::kOldStyle);
  std::string out = "A; ";
  ASSERT_EQ(1, old.Decode(kRecord0105.data(), kRecord0105.size(), out, false, true, "", nullptr));
  EXPECT_EQ("A; 0x0105 (0x1, 0x2)", out);
}

TEST(LogMsgDecoderFillTest, PlaceholderSyntax) {
  std::vector<Arg> args;  // argument k holds k for k = 0..10
  for (uint32_t k = 0; k <= 10; ++k) args.push_back({k, true});
  args.push_back({0xBEEF, true});
  args.push_back({0x31555043, true});  // "CPU1"
  args.push_back({0, false});          // claimed by the count, not in the record
  auto fill = [&args](const std::string& format, const std::string& designation = "FAN 2") {
    return CLogMsgDecoder::FillFormat(format, args, designation, LogMsgFormat::kUnified, false);
  };
  EXPECT_EQ("1/2 ... 10/48879", fill("%1/%2 ... %10/%11"));
  EXPECT_EQ("0xBEEF 11", fill("0x%11X %1u1"));
  EXPECT_EQ("tag \"CPU1\" at FAN 2", fill("tag %12S at %D"));
  EXPECT_EQ("<?13> <?14> <?999>0", fill("%13 %14 %9990"));
  EXPECT_EQ("100 % of %HD% at %s %n %x %", fill("%1u00 %% of %HD% at %s %n %x %"));
  EXPECT_EQ("<?D> is gone", fill("%D is gone", ""));
  // Arguments that were never set.
  EXPECT_EQ("FAN 2: <not set>/<not set>",
            CLogMsgDecoder::FillFormat("%D: %1/%2X", args, "FAN 2", LogMsgFormat::kOldStyle,
                                       true));
}

TEST(LogMsgDecoderFileTest, FormatStringsFromTheSampleFiles) {
  CLogMsgFile unifiedFile(EM_SAMPLE_MSGFILES_DIR, [] { return std::string(); });
  ASSERT_TRUE(unifiedFile.Open(LogMsgFormat::kUnified));
  CLogMsgFile oldFile(EM_SAMPLE_MSGFILES_DIR, [] { return std::string(); });
  ASSERT_TRUE(oldFile.Open(LogMsgFormat::kOldStyle));
  const CLogMsgDecoder unified(unifiedFile, LogMsgFormat::kUnified);
  const CLogMsgDecoder old(oldFile, LogMsgFormat::kOldStyle);

  // Fan too slow: object 3, 1200 RPM, lower limit 1500 RPM.
  const auto slowFan = ArgsRecord(0x04, 0x02, 1, 3, {1200, 1500});
  EXPECT_EQ("Fan FAN3 is running too slowly: 1200 RPM, lower limit 1500 RPM.",
            Decode(unified, slowFan, false, false, "FAN3"));
  EXPECT_EQ("[040002] Fan FAN3 too slow", Decode(unified, slowFan, true, true, "FAN3"));
  EXPECT_EQ("Lüfter FAN3 dreht zu langsam: 1200 U/min, Untergrenze 1500 U/min.",
            Decode(unified, slowFan, false, false, "FAN3", "DE"));
  EXPECT_EQ("Fan FAN3 is running too slowly: 1200 RPM, lower limit 1500 RPM.",
            Decode(old, slowFan, false, false, "FAN3"));
  // A language the file lacks, and a code it lacks, give the raw text.
  EXPECT_EQ("ERROR 0x040002 (0x3, 0x4B0, 0x5DC)", Decode(unified, slowFan, false, false, "", "it"));
  EXPECT_EQ("ERROR 0x0105 (0x1, 0x2)", Decode(old, kRecord0105));

  // Eleven per-rank counts: two-digit argument numbers.
  std::vector<uint32_t> counts;
  for (uint32_t c = 1; c <= 11; ++c) counts.push_back(c * 10);
  EXPECT_EQ("Memory module DIMM-A1 error counts per rank: 10, 20, 30, 40, 50, 60, 70, 80, 90, "
            "100, 110.",
            Decode(unified, ArgsRecord(0x0C, 0x05, 1, 4, counts), false, false, "DIMM-A1"));
  // The same record cut after six counts.
  const auto cut = ArgsRecord(0x0C, 0x05, 1, 4, {10, 20, 30, 40, 50, 60}, 12);
  EXPECT_EQ("Memory module DIMM-A1 error counts per rank: 10, 20, 30, 40, 50, 60, <?7>, <?8>, "
            "<?9>, <?10>, <?11>.",
            Decode(unified, cut, false, false, "DIMM-A1"));
  // The 0xCCCC marker in bytes 8-11.
  EXPECT_EQ("Fan FAN3 is running too slowly: <not set> RPM, lower limit <not set> RPM.",
            Decode(unified, ArgsRecord(0x04, 0x02, 0xCCCC, 0xCCCC, {1, 2}), false, false,
                   "FAN3"));
}

TEST(LogMsgDecoderTraceTest, TracesTheArgumentsAndTheLookup) {
  CLogMsgFile file(EM_SAMPLE_MSGFILES_DIR, [] { return std::string(); });
  ASSERT_TRUE(file.Open(LogMsgFormat::kOldStyle));
  const CLogMsgDecoder old(file, LogMsgFormat::kOldStyle);
  TraceClient().SetTraceLevel(5);
  hostsim::Sink().Clear();
  Decode(old, ArgsRecord(0x04, 0x01, 1, 3, {900}), false, false, "FAN3", nullptr);
  TraceClient().SetTraceLevel(0);
  const auto& sink = hostsim::Sink();
  EXPECT_TRUE(sink.HasLine("\nCLogMsgDecoder      :     Number Args (pLogEntry): 2"));
  EXPECT_TRUE(sink.HasLine("\nCLogMsgDecoder      : Old SEL error code: 0x401 (Lang: \"\")"));
  EXPECT_TRUE(sink.HasLine("\nCLogMsgDecoder      :     Arg[2]: 0x00000384 (900)"));
  EXPECT_TRUE(sink.HasLine(
      "\nCLogMsgDecoder      :  Long Message: \"Fan %D failed (speed %2 RPM).\""));
  EXPECT_TRUE(sink.HasLine("\nCLogMsgDecoder      :   Message arguments (3):"));
}

}  // namespace
