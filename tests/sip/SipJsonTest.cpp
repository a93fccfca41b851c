// The message object: readers (path checks, defaults, text numbers, the data forms),
// builders, key removal, the host API (Parse/Serialize) and copies.
#include <cstdint>
#include <string>
#include <utility>
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

constexpr const char* kEmpty = R"({"SIP":{"V":1,"CMD":[]}})";

TEST(SipJsonBuild, HeaderMemberOrderAndRemoval) {
  EXPECT_EQ(SipJson(5, 0, 0, 4).Serialize(), R"({"SIP":{"V":1,"CMD":[{"OC":5,"CA":4}]}})");
  SipJson msg(0x310, 2, 3, 0);
  msg.SetModuleId(0x10002);
  msg.SetKey("CI", 8, true);
  msg.SetModuleId(0);
  EXPECT_FALSE(msg.HasKey(0, "MI"));
  EXPECT_TRUE(msg.SetKey("OE", 0, true));   // the last member moves into the gap
  EXPECT_TRUE(msg.SetKey("OI", 0, false));  // without the flag, 0 is written
  EXPECT_EQ(msg.Serialize(), R"({"SIP":{"V":1,"CMD":[{"OC":784,"CI":8,"OI":0,"CA":0}]}})");
  EXPECT_FALSE(msg.RemoveKey("XX"));
  msg.SetStatus(1);
  msg.SetCommandHeader(6, 0, 9, 1);  // starts from an empty command again
  EXPECT_EQ(msg.Serialize(), R"({"SIP":{"V":1,"CMD":[{"OC":6,"OI":9,"CA":1}]}})");
}

TEST(SipJsonBuild, DataSettersReplacePreviousDataAndSetStatus) {
  SipJson msg(1, 0, 0, 0);
  uint32_t value = 0;
  msg.SetRawData({0x7F}, 0);
  msg.SetRawData({0x01, 0x02}, 0x15);
  EXPECT_EQ(msg.GetDataLength(0), 2u);
  EXPECT_EQ(msg.GetStatus(0), 0x15u);
  msg.SetRawData({}, 0x0C);
  EXPECT_FALSE(msg.HasKey(0, "DA"));
  EXPECT_EQ(msg.GetStatus(0), 0x0Cu);
  msg.SetDataValue(0x80000000u, 0);  // written unsigned: not an int32 any more
  EXPECT_FALSE(msg.GetDataValue(0, value));
  msg.SetDataStrings({"AB", "C"}, 0);
  EXPECT_EQ(msg.GetDataLength(0), 6u);
  msg.SetDataString(std::string("a\0b", 3), 0xFF);
  std::string text;
  EXPECT_TRUE(msg.GetDataString(0, text));
  EXPECT_EQ(text, std::string("a\0b", 3));
  EXPECT_EQ(msg.Command(0)->MemberCount(), 4u);  // OC, CA, DA, ST: no duplicates
}

// Commands that are not objects and messages without "CMD" are driven end to end; here:
// the gap filled when extending, and indices out of bounds changing nothing.
TEST(SipJsonBuild, CurrentCommandExtendsUpToTheBound) {
  SipJson msg(1, 0, 0, 0);
  msg.SetCurrentIndex(3);
  msg.SetStatus(0);
  EXPECT_EQ(msg.Serialize(), R"({"SIP":{"V":1,"CMD":[{"OC":1,"CA":0},{},{},{"ST":0}]}})");
  const std::string before = msg.Serialize();
  for (int32_t index : {-1, SipJson::kMaxCommandIndex + 1}) {
    msg.SetCurrentIndex(index);
    EXPECT_TRUE(msg.CurrentCommand().IsNull());
    msg.SetCommandHeader(1, 2, 3, 4);
    msg.SetStatus(5);
    EXPECT_EQ(msg.Serialize(), before);
  }
}

TEST(SipJsonHostApi, ParseSerializeRoundTrip) {
  const std::string text =
      R"({"SIP":{"V":1,"CMD":[{"OC":1,"ST":255,"DA":{"a":[1,-2,3.5,"\u0001",null]}}]}})";
  SipJson msg;
  msg.SetCurrentIndex(4);
  ASSERT_TRUE(msg.Parse(text));
  EXPECT_EQ(msg.CurrentIndex(), 0);
  EXPECT_EQ(msg.Serialize(), text);
  // Integers survive hops through text exactly, and every other number is the same after
  // its first hop (an integer beyond 64 bits is a double); numbers with absurdly long
  // fractions or exponents (hostile peers) parse or are refused without undefined
  // behaviour, and none beyond the largest double is taken.
  for (const char* numbers :
       {R"({"d":[4294967295,18446744073709551615,-7,-9223372036854775808,-0]})",
        R"({"d":[65588888888888888888888888888888888888000000004087392194332429830,0.1]})",
        R"({"d":[-2.5e-300,1e-400,-1e-400,1.7976931348623157e308,4.9e-324]})"}) {
    const std::string once = FromText(numbers).Serialize();
    EXPECT_EQ(FromText(once).Serialize(), once) << numbers;
  }
  EXPECT_EQ(FromText(R"({"d":[-9223372036854775808,1e-400]})").Serialize(),
            R"({"d":[-9223372036854775808,0.0]})");
  SipJson hostile;
  EXPECT_TRUE(hostile.Parse("{\"a\":0." + std::string(400, '0') + "1}"));
  EXPECT_TRUE(hostile.Parse("{\"a\":1." + std::string(400, '9') + "e-999}"));
  EXPECT_FALSE(hostile.Parse("{\"a\":1e999999999999}"));
  EXPECT_FALSE(hostile.Parse("{\"a\":1.8e308}"));
}

TEST(SipJsonHostApi, ParseRejectsToAnEmptyMessageAndBoundsNesting) {
  auto nested = [](unsigned depth) {
    return "{\"a\":" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "}";
  };
  const std::string rejected[] = {"",     "[1]",        "5",
                                  "{",    "{} x",       "{\"a\":1,}",
                                  std::string("{}\0{", 4), nested(SipJson::kMaxParseDepth + 1),
                                  nested(100000)};
  for (const std::string& text : rejected) {
    SipJson msg(1, 2, 3, 4);
    msg.SetCurrentIndex(2);
    EXPECT_FALSE(msg.Parse(text)) << text.substr(0, 20);
    EXPECT_EQ(msg.Serialize(), kEmpty);
    EXPECT_EQ(msg.CurrentIndex(), 0);
  }
  SipJson msg;
  EXPECT_TRUE(msg.Parse(nested(SipJson::kMaxParseDepth)));
  EXPECT_EQ(SipJson(msg).Serialize(), nested(SipJson::kMaxParseDepth));
}

TEST(SipJsonCopies, CopiesAreIndependentAndMovedFromIsUsable) {
  SipJson original(1, 0, 0, 0);
  original.SetRawData({1, 2, 3}, 0);
  SipJson copy(original);
  SipJson assigned;
  assigned = original;
  original.SetRawData({9}, 1);
  copy.SetModuleId(5);
  for (const SipJson* m : {&original, &assigned})
    EXPECT_FALSE(m->HasKey(0, "MI"));
  EXPECT_EQ(assigned.GetDataLength(0), 3u);
  EXPECT_EQ(copy.GetStatus(0), 0u);

  copy.SetCurrentIndex(2);
  SipJson moved(std::move(copy));
  assigned = std::move(moved);
  EXPECT_EQ(assigned.GetKey(0, "MI"), 5u);
  EXPECT_EQ(assigned.CurrentIndex(), 2);
  copy.SetStatus(4);  // NOLINT(bugprone-use-after-move): a moved-from message is reusable
  EXPECT_EQ(copy.Serialize(), R"({"SIP":{"V":1,"CMD":[{"ST":4}]}})");

  // Appended commands are copies too: nothing of the source may be shared.
  SipJson source = FromText(R"({"SIP":{"CMD":[{"OC":7,"DA":{"RAW":[1]},"X":"long text"}]}})");
  SipJson target;
  EXPECT_EQ(target.AppendCommand(*source.Command(0)), 0);
  EXPECT_EQ(target.AppendCommand(*source.Command(0)), 1);
  source = SipJson();
  EXPECT_EQ(target.Serialize(),
            R"({"SIP":{"V":1,"CMD":[{"OC":7,"DA":{"RAW":[1]},"X":"long text"},)"
            R"({"OC":7,"DA":{"RAW":[1]},"X":"long text"}]}})");
}

}  // namespace

}  // namespace em_oidmap
