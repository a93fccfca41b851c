#include "msglog/LogMsgDecoder.h"

#include <gtest/gtest.h>

namespace em_oidmap {

namespace {

using Record = std::vector<uint8_t>;

// An old-style record with the 16-bit values `a`, `b` at bytes 8 and 10 and `wide` from
// byte 12 (little-endian); the argument count is 1 + wide.size() unless given.
Record ArgsRecord(uint8_t cls, uint8_t low, uint16_t a, uint16_t b,
                  const std::vector<uint32_t>& wide, int n = -1) {
  Record r = {low, cls, 0, static_cast<uint8_t>(n < 0 ? 1 + wide.size() : n),
              0, 0, 0, 0, uint8_t(a), uint8_t(a >> 8), uint8_t(b), uint8_t(b >> 8)};
  for (uint32_t w : wide)
    for (int i = 0; i < 4; ++i) r.push_back(static_cast<uint8_t>(w >> (8 * i)));
  return r;
}

std::string Decode(const CLogMsgDecoder& decoder, const Record& record, bool prefix = false,
                   bool shortText = false, const std::string& designation = "",
                   const char* lang = "en") {
  std::string out;
  EXPECT_EQ(1, decoder.Decode(record.data(), record.size(), out, prefix, shortText,
                              designation, lang));
  return out;
}

const CLogMsgDecoder kOld(nullptr, LogMsgFormat::kOldStyle);
const CLogMsgDecoder kUnified(nullptr, LogMsgFormat::kUnified);
// Class 0x01, code 0x05, cabinet 1, object id 2, n = 1.
const Record kRecord0105 = ArgsRecord(0x01, 0x05, 1, 2, {});

TEST(LogMsgDecoderTest, FallbackTextsAndCodePrefix) {
  EXPECT_EQ("ERROR 0x0105 (0x1, 0x2)", Decode(kOld, kRecord0105));
  EXPECT_EQ("ERROR 0x010005 (0x2)", Decode(kUnified, kRecord0105));
  EXPECT_EQ("[0105] ERROR 0x0105 (0x1, 0x2)", Decode(kOld, kRecord0105, true));
  EXPECT_EQ("[010005] ERROR 0x010005 (0x2)", Decode(kUnified, kRecord0105, true));
  // n = 0 still lists the two 16-bit values; only byte 1's low six bits are the class.
  EXPECT_EQ("ERROR 0x0105 (0x1, 0x2)", Decode(kOld, ArgsRecord(0x01, 0x05, 1, 2, {}, 0)));
  EXPECT_EQ("ERROR 0x3A0001 (0xFFFF, 0xABCDEF01)",
            Decode(kUnified, ArgsRecord(0xFA, 0x01, 0, 0xFFFF, {0xABCDEF01})));
  EXPECT_EQ("0x010005 (0x2, 0x10, 0x20)",  // short text: three arguments at most
            Decode(kUnified, ArgsRecord(0x01, 0x05, 1, 2, {0x10, 0x20, 0x30, 0x40}), false, true));
  std::string out = "A; ";  // appended to, never cleared
  ASSERT_EQ(1, kOld.Decode(kRecord0105.data(), 12, out, false, true, "", nullptr));
  EXPECT_EQ("A; 0x0105 (0x1, 0x2)", out);
}

TEST(LogMsgDecoderTest, InlineTextRecordIsCutAtNulAndAtTheRecordEnd) {
  auto inlineRecord = [](uint8_t n, const std::string& text) {
    Record r = {0, 0x3F, 0, n, 0, 0, 0, 0};
    r.insert(r.end(), text.begin(), text.end());
    return r;
  };
  EXPECT_EQ("Hi there", Decode(kUnified, inlineRecord(2, "Hi thereXY")));
  EXPECT_EQ("Hi", Decode(kUnified, inlineRecord(2, std::string("Hi\0xyz", 6))));
  EXPECT_EQ("Hi t", Decode(kOld, inlineRecord(255, "Hi t")));
  EXPECT_EQ("[3F0000] ", Decode(kUnified, inlineRecord(0, ""), true));
}

TEST(LogMsgDecoderTest, ShortRecordsNeverReadPastTheirLength) {
  std::string out = "kept";
  for (size_t len = 0; len < 4; ++len)
    EXPECT_EQ(0, kOld.Decode(kRecord0105.data(), len, out, false, false, "", "en"));
  EXPECT_EQ(0, kOld.Decode(nullptr, 12, out, false, false, "", "en"));
  EXPECT_EQ("kept", out);
  for (size_t len = 4; len < 12; ++len) {  // own buffers: ASan sees any overread
    const Record cut(kRecord0105.begin(), kRecord0105.begin() + len);
    Decode(kOld, cut);
    Decode(kUnified, cut, true, true);
  }
  EXPECT_EQ("ERROR 0x0105 (0x1, <?1>)",
            Decode(kOld, Record(kRecord0105.begin(), kRecord0105.begin() + 10)));
  const std::string text = Decode(kOld, ArgsRecord(0x01, 0x05, 1, 2, {7}, 255));
  EXPECT_EQ(0u, text.find("ERROR 0x0105 (0x1, 0x2, 0x7, <?3>, <?4>,"));
  EXPECT_NE(std::string::npos, text.find("<?255>)"));
}

TEST(LogMsgDecoderTest, PlaceholderSyntax) {
  std::vector<CLogMsgDecoder::Argument> args;  // argument k holds k for k = 0..10
  for (uint32_t k = 0; k <= 10; ++k) args.push_back({k, true});
  args.insert(args.end(), {{0xBEEF, true}, {0x31555043, true} /* "CPU1" */, {0, false}});
  auto fill = [&args](const std::string& format, const std::string& designation = "FAN 2") {
    return CLogMsgDecoder::FillFormat(format, args, designation, LogMsgFormat::kUnified, false);
  };
  EXPECT_EQ("1/2 ... 10/48879", fill("%1/%2 ... %10/%11"));
  EXPECT_EQ("0xBEEF 11 \"CPU1\" at FAN 2", fill("0x%11X %1u1 %12S at %D"));
  EXPECT_EQ("<?13> <?14> <?999>0", fill("%13 %14 %9990"));  // 13 is counted but absent
  // No printf: conversions of its own syntax stay text.
  EXPECT_EQ("100 % of %HD% at %s %n %x %", fill("%1u00 %% of %HD% at %s %n %x %"));
  EXPECT_EQ("<?D> is gone", fill("%D is gone", ""));
}

TEST(LogMsgDecoderTest, FormatStringsFromTheSampleFiles) {
  const auto noDir = [] { return std::string(); };
  CLogMsgFile unifiedFile(EM_SAMPLE_MSGFILES_DIR, noDir), oldFile(EM_SAMPLE_MSGFILES_DIR, noDir);
  ASSERT_TRUE(unifiedFile.Open(LogMsgFormat::kUnified) && oldFile.Open(LogMsgFormat::kOldStyle));
  const CLogMsgDecoder unified(unifiedFile, LogMsgFormat::kUnified);
  const CLogMsgDecoder old(oldFile, LogMsgFormat::kOldStyle);

  const Record slowFan = ArgsRecord(0x04, 0x02, 1, 3, {1200, 1500});
  const Record fanFailed = ArgsRecord(0x04, 0x01, 1, 3, {900});
  // Whole texts in every language (the old-style file's ISO-8859-1 as UTF-8), missing and
  // unset arguments and two-digit argument numbers are emhost's golden decode output; here
  // what the tool does not show.
  EXPECT_EQ("[040002] Fan FAN3 too slow", Decode(unified, slowFan, true, true, "FAN3"));
  EXPECT_EQ("ERROR 0x040002 (0x3, 0x4B0, 0x5DC)", Decode(unified, slowFan, false, false, "", "it"));
  EXPECT_EQ("Fan FAN3 failed (speed 900 RPM).",  // no language: English
            Decode(old, fanFailed, false, false, "FAN3", nullptr));
}

}  // namespace

}  // namespace em_oidmap
