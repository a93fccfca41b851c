// Builders, key removal, the host API (Parse/Serialize) and copies.
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "sip/SipJson.h"
#include "tests/sip/SipJsonTestUtil.h"

namespace em_oidmap {

namespace {

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
