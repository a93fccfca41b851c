// Readers: path checks, defaults, text numbers and the data forms.
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sip/SipJson.h"
#include "tests/sip/SipJsonTestUtil.h"

namespace em_oidmap {

namespace {

using Bytes = std::vector<uint8_t>;

void ExpectNoCommandAt(const SipJson& msg, int32_t index) {
  SCOPED_TRACE(index);
  EXPECT_EQ(msg.GetOpcode(index), 0u);
  EXPECT_EQ(msg.GetStatus(index), 22u);
  EXPECT_EQ(msg.GetKey(index, "OI", 7), 7u);
  uint32_t value = 99;
  EXPECT_FALSE(msg.GetDataValue(index, value));
  EXPECT_EQ(msg.GetDataLength(index), 0u);
  EXPECT_EQ(msg.Command(index), nullptr);
}

TEST(SipJsonPaths, BrokenEnvelopesAndCommandsReadAsDefaults) {
  for (const char* text : {R"({"SIP":{"V":1,"CMD":{"OC":5,"ST":0}}})",
                           R"({"X":{"CMD":[{"OC":5}]}})", R"({"SIP":[{"CMD":[{"OC":5}]}]})",
                           R"({"SIP":{"V":1}})"}) {
    SCOPED_TRACE(text);
    SipJson msg = FromText(text);
    EXPECT_EQ(msg.CommandCount(), 0u);
    EXPECT_EQ(msg.CountCommandsWithData(), 0u);
    ExpectNoCommandAt(msg, 0);
  }
  SipJson msg = FromText(R"({"SIP":{"V":1,"CMD":[5,{"OC":9,"ST":1}]}})");
  EXPECT_EQ(msg.CommandCount(), 2u);
  for (int32_t index : {0, -1, 2}) ExpectNoCommandAt(msg, index);
  EXPECT_EQ(msg.GetOpcode(1), 9u);
}

TEST(SipJsonPaths, WrongTypedValuesFallBackPerReader) {
  SipJson msg = FromText(
      R"({"SIP":{"CMD":[{"OC":"0x0310","ST":true,"OI":"12","OE":1.5,"MI":-1,"CA":[1]}]}})");
  EXPECT_EQ(msg.GetOpcode(0), 0x310u);
  EXPECT_EQ(msg.GetStatus(0), 22u);        // a boolean is neither number nor text
  EXPECT_EQ(msg.GetKey(0, "OI"), 0u);      // plain reader takes numbers only
  EXPECT_EQ(msg.GetKey(0, "OI", 3), 12u);  // with a default, text is converted
  EXPECT_EQ(msg.GetKey(0, "OE", 3), 3u);   // floating point is not a key value
  EXPECT_EQ(msg.GetKey(0, "MI"), 0xFFFFFFFFu);
  EXPECT_EQ(msg.GetKey(0, "CA", 4), 4u);
}

// The one-walk reader of the addressing members reads each as the reader by name does:
// the first of repeated names, text numbers, wrong types, near-miss names, defaults; and
// a write or a removal through the places it found gives what one by name gives, also
// for the members written after a removal moved the last member into the gap.
TEST(SipJsonPaths, HeaderReadsAsReadersByName) {
  for (const char* text :
       {R"({"SIP":{"CMD":[{"OC":"0x0310","ST":true,"OI":"12","OE":1.5,"MI":-1,"CA":[1]}]}})",
        R"({"SIP":{"CMD":[{"OCX":1,"O":2,"OC":3,"OC":4,"ST":5,"ST":6,"mi":7,"MI":"0x8"}]}})",
        R"({"SIP":{"CMD":[{"CA":7,"OE":9,"OI":null,"MI":{"a":1}}]}})",
        R"({"SIP":{"CMD":[{"OI":1,"CI":5,"MI":2,"DA":0,"CI":6,"MI":3,"OI":4}]}})",
        R"({"SIP":{"CMD":[{}]}})"}) {
    SipJson msg = FromText(text);
    const SipJson::Header h = SipJson::HeaderOf(*msg.Command(0));
    using H = SipJson::Header;
    const struct { const char* key; uint32_t bit; uint32_t value; uint32_t def; } members[] = {
        {"OC", H::kOc, h.oc, 0}, {"OE", H::kOe, h.oe, 0}, {"OI", H::kOi, h.oi, 0},
        {"CA", H::kCa, h.ca, 0}, {"MI", H::kMi, h.mi, 0}, {"ST", H::kSt, h.st, 22},
        {"CI", H::kCi, h.ci, 0}};
    for (const auto& m : members) {
      SCOPED_TRACE(std::string(text) + " " + m.key);
      EXPECT_EQ(m.value, msg.GetKey(0, m.key, m.def));
      EXPECT_EQ((h.present & m.bit) != 0, msg.HasKey(0, m.key));
      SipJson byName = msg;
      SipJson byPlace = msg;
      byName.SetKey(*byName.Command(0), m.key, 77, false);
      byPlace.SetHeaderKey(*byPlace.Command(0), h, m.bit, 77);
      EXPECT_EQ(byName.Serialize(), byPlace.Serialize());
      // Removed, then every member written, as the request handler restores a reply.
      byName = msg;
      byPlace = msg;
      SipJson::Header after = h;
      byName.SetKey(*byName.Command(0), m.key, 0, true);
      byPlace.RemoveHeaderKey(*byPlace.Command(0), after, m.bit);
      for (const auto& other : members) {
        if (other.bit == m.bit) continue;
        byName.SetKey(*byName.Command(0), other.key, 9, false);
        byPlace.SetHeaderKey(*byPlace.Command(0), after, other.bit, 9);
      }
      EXPECT_EQ(byName.Serialize(), byPlace.Serialize());
    }
  }
}

TEST(SipJsonTextNumbers, HexOctalDecimalStopAtFirstInvalidCharacter) {
  const struct { const char* text; uint32_t value; } cases[] = {
      {"0x15", 21}, {"0X1f", 31}, {"017", 15}, {"9", 9},   {"0", 0},   {"0x", 0},  {"08", 0},
      {"12ab", 12}, {"", 0},      {"-5", 0},   {" 7", 0},  {"0xFFFFFFFF", 0xFFFFFFFFu},
      {"99999999999", 0xFFFFFFFFu}};
  for (const auto& c : cases) {
    SipJson msg = FromText(std::string(R"({"SIP":{"CMD":[{"ST":")") + c.text + "\"}]}}");
    EXPECT_EQ(msg.GetStatus(0), c.value) << c.text;
  }
  EXPECT_EQ(SipJson::ParseLenientNumber(nullptr), 0u);
}

TEST(SipJsonDataForms, FormAndLengthOfEachPayload) {
  const struct { const char* data; SipDataForm form; uint32_t length; } cases[] = {
      {"null", SipDataForm::kNone, 0},          {"false", SipDataForm::kBoolean, 1},
      {"-7", SipDataForm::kInteger, 8},         {"18446744073709551615", SipDataForm::kInteger, 8},
      {"2.5", SipDataForm::kFloat, 0},          {R"("abc")", SipDataForm::kText, 4},
      {R"(["AB","C"])", SipDataForm::kMultiString, 6},
      {"[1,300,70000]", SipDataForm::kNumberList, 7},
      {"[4294967296,-1,1.5,\"x\"]", SipDataForm::kNumberList, 24},
      {R"({"RAW":[1,2]})", SipDataForm::kRawBytes, 2}, {R"({"RAW":7})", SipDataForm::kRawBytes, 0},
      {R"({"a":{"b":[1]}})", SipDataForm::kJsonStruct, 0},
  };
  for (const auto& c : cases) {
    SipJson msg = WithData(c.data);
    EXPECT_EQ(msg.GetDataForm(0), c.form) << c.data;
    EXPECT_EQ(msg.GetDataLength(0), c.length) << c.data;
  }
}

TEST(SipJsonDataForms, DataValue) {
  const struct { const char* data; bool found; uint32_t value; } cases[] = {
      {"true", true, 1},         {"2147483647", true, 0x7FFFFFFF}, {"-1", true, 0xFFFFFFFFu},
      {"4294967295", false, 0},  {"2.0", false, 0},  {R"("5")", false, 0},  {"[5]", false, 0},
      {R"({"RAW":[127]})", true, 0x7F},  {R"({"RAW":[1,2]})", true, 0x0201},
      {R"({"RAW":[1,2,3,4,5]})", true, 0x04030201},
      {R"({"RAW":[1,300]})", true, 0x2C01},  // masked to 16 bits
      {R"({"RAW":[]})", false, 0}, {R"({"RAW":[1,"x"]})", false, 0}, {R"({"RAW":[-1]})", false, 0},
  };
  for (const auto& c : cases) {
    uint32_t value = 0xDEAD;
    EXPECT_EQ(WithData(c.data).GetDataValue(0, value), c.found) << c.data;
    EXPECT_EQ(value, c.found ? c.value : 0xDEADu) << c.data;
  }
}

TEST(SipJsonDataForms, DataStringAndStrings) {
  const char* raw = R"({"RAW":[65,66,0,67]})";
  const struct { const char* data; uint32_t start; bool ok; const char* out; } cases[] = {
      {raw, 0, true, "AB"},  // cut at the NUL
      {raw, 3, true, "C"},      {R"("text")", 0, true, "text"}, {"null", 0, true, ""},
      {raw, 4, false, "-"},     {R"({"RAW":["A",66]})", 1, false, "-"},
      {R"("text")", 1, false, "-"}, {"true", 0, false, "-"},   {"[\"a\"]", 0, false, "-"}};
  for (const auto& c : cases) {
    std::string out = "-";  // failures leave the result alone
    EXPECT_EQ(WithData(c.data).GetDataString(0, out, c.start), c.ok) << c.data;
    EXPECT_EQ(out, c.out) << c.data;
  }
  std::vector<std::string> strings = {"stale"};
  EXPECT_TRUE(WithData(R"(["AB",1,"C"])").GetDataStrings(0, strings));
  EXPECT_EQ(strings, (std::vector<std::string>{"AB", "C"}));
  EXPECT_FALSE(WithData("[1]").GetDataStrings(0, strings));
}

TEST(SipJsonDataForms, DataBytes) {
  const struct { const char* data; bool ok; Bytes bytes; } cases[] = {
      {R"({"RAW":[1,300,-1,"x"]})", true, {1, 0x2C, 0xFF, 0}}, {R"({"RAW":["x",1]})", true, {}},
      {R"(["AB","C"])", true, {'A', 'B', 0, 'C', 0, 0}},         {"[1,2]", true, {}},
      {R"("hi")", true, {'h', 'i', 0}},  {"200", true, {200}},   {"300", true, {0x2C, 0x01}},
      {"70000", true, {0x70, 0x11, 0x01, 0x00}}, {"4294967296", true, {0, 0, 0, 0, 1, 0, 0, 0}},
      {"true", false, {}}, {"-5", false, {}}, {"1.5", false, {}}, {R"({"a":1})", false, {}},
  };
  for (const auto& c : cases) {
    Bytes out = {9, 9};
    EXPECT_EQ(WithData(c.data).GetDataBytes(0, out), c.ok) << c.data;
    EXPECT_EQ(out, c.bytes) << c.data;
  }
}

TEST(SipJsonDataForms, OnlyDataBearingStatusesCountAsData) {
  SipJson msg = FromText(R"({"SIP":{"CMD":[
      {"ST":0,"DA":1},{"ST":12,"DA":null},{"ST":21},{"ST":255,"DA":""},
      {"ST":1,"DA":1},{"ST":"0","DA":1},{"DA":1},7]}})");
  EXPECT_EQ(msg.CountCommandsWithData(), 3u);
  const bool hasData[] = {true, false, false, true, false, true, false, false};
  do {  // the cursor walks every command once and stops on the last
    EXPECT_EQ(msg.HasData(), hasData[msg.CurrentIndex()]) << msg.CurrentIndex();
  } while (msg.NextCommand());
  EXPECT_EQ(msg.CurrentIndex(), 7);
  msg.SetCurrentIndex(INT32_MAX);
  EXPECT_FALSE(msg.NextCommand());
}

}  // namespace

}  // namespace em_oidmap
