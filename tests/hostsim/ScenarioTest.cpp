#include "hostsim/Scenario.h"

#include <fstream>

#include <gtest/gtest.h>

#include "hostsim/SimHost.h"
#include "hostsim/SimLog.h"

namespace em_oidmap::hostsim {
namespace {

// The members no golden run of emhost uses (faults, kept writes and events are
// run_faults' and run_changes'): the host kind, a failing cabinet enumeration, delays,
// status overrides, rule order, a flooded broadcast, and events played in order of time.
TEST(ScenarioTest, FileRoundTrip_HostAnswersAsDescribed) {
  const std::string path = ::testing::TempDir() + "/hostsim_scenario.json";
  {
    std::ofstream file(path);
    file << R"({"hostKind": 5, "serverCabinet": "0x10", "seCabinets": [17, "18"],
      "seEnumeration": false,
      "modules": [{"mid": "0x00030001",
        "rules": [{"oc": "0x0B02", "oi": 2, "ca": 16, "st": "0x0C", "da": {"RAW": [1, 2, 255]},
                   "delayMs": 900000}, {"oc": "0x0B02", "st": 21, "da": ["a", "b"]},
                  {"oc": 774, "da": 5}],
        "counts": [{"oc": "0x0B03", "count": 1}],
        "statusOverrides": [{"oc": "0x0B03", "st": "0x14"}],
        "faults": [{"oc": 774, "replies": 3}]}],
      "events": [{"atMs": 9, "mid": 1, "oc": 2816, "record": {"code": 1025, "oid": 2}},
                 {"atMs": 3, "mid": 1, "oc": 769, "oi": 1, "da": 5}]})";
  }
  Scenario scenario;
  std::string error;
  ASSERT_TRUE(scenario.Load(path, error)) << error;
  EXPECT_EQ(scenario.serverCabinet, 16u);
  EXPECT_EQ(scenario.seCabinets, (std::vector<uint32_t>{17, 18}));
  ASSERT_EQ(scenario.events.size(), 2u);
  EXPECT_EQ(scenario.events[0].atMs, 3u);

  SimHost host;
  scenario.ApplyTo(host);
  EXPECT_EQ(host.GetHostKind(), 5u);
  const uint32_t* cabinets = nullptr;
  uint8_t count = 0;
  EXPECT_FALSE(host.EnumerateSeCabinets(16, &cabinets, &count));

  SipJson overridden(0x0B03, 0, 0, 16);  // overrides come before the count
  host.SendRequest(0, overridden, 5000);
  EXPECT_EQ(overridden.GetStatus(0), 0x14u);
  SipJson slow(0x0B02, 0, 2, 16);  // the first rule in file order, with its delay
  host.SendRequest(0, slow, 150000);
  EXPECT_EQ(slow.GetStatus(0), 0x0Fu);
  SipJson other(0x0B02, 0, 3, 16);
  host.SendRequest(0, other, 150000);
  EXPECT_EQ(other.GetDataForm(0), SipDataForm::kMultiString);
  SipJson one = ScenarioRequest{774, 0, 0, 16, 0x00030001u, ""}.ToMessage();
  host.SendRequest(0, one, 5000);
  EXPECT_EQ(1u, one.CommandCount()) << "one reply unless broadcast";
  SipJson flood = ScenarioRequest{774, 0, 0, kAllCabinets, 0x00030001u, ""}.ToMessage();
  host.SendRequest(0, flood, 5000);
  EXPECT_EQ(3u, flood.CommandCount()) << "a broadcast gets the reply three times";
}

// A scenario that is silently read otherwise than written would let tests pass on wrong
// premises: such input is refused with a reason.
TEST(ScenarioTest, MalformedInput_FailsWithAReasonAndKeepsTheScenario) {
  const struct { const char* text; const char* reason; } cases[] = {
      // Numbers out of range, unknown and missing members and the lines they are on are
      // emhost's golden output (check-lint-scenario, check-bad-scenario).
      {"{\"name\": 1,\n\n \"sound\": 2}", "3: scenario has unknown member \"sound\""},
      {"{\"modules\": [\n{\"mid\": 1,", "2: scenario is not valid JSON"},
      {"{\"modules\": [{\"mid\": 1, \"faults\": [{\"oc\": 1, \"st\": 1, \"timeout\": true}]}]}",
       "faults[0] needs exactly one of"},
      {"{\"modules\": [{\"mid\": 1, \"faults\": [{\"oc\": 1, \"every\": 0, \"st\": 1}]}]}",
       "\"every\" must be 1 or more"},
      {"{\"events\": [{\"atMs\": 1, \"mid\": 1, \"oc\": 769, \"record\": {\"code\": 1}}]}",
       "events[0] has a \"record\" but its \"oc\" is no log event"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    Scenario scenario;
    scenario.hostKind = 77;
    std::string error;
    EXPECT_FALSE(scenario.Parse(c.text, error));
    EXPECT_NE(error.find(c.reason), std::string::npos) << error;
    EXPECT_EQ(scenario.hostKind, 77u);
  }
}

TEST(ScenarioTest, Logs_RecordsWrittenReadablyAreEncoded) {
  Scenario scenario;
  std::string error;
  ASSERT_TRUE(scenario.Parse(R"({"modules": [{"mid": 1,
      "errorLog": [{"code": "0x1904", "codeBits": 2, "cabinet": 3, "oid": 258, "order": 7,
                    "args": [16909060]}],
      "eventLog": [{"code": "0x3F00", "argCount": 20}],
      "messageLog": [{"code": "0x123456", "css": true, "order": 9, "recordId": 4,
                      "aux": 1, "codeBits": 2, "strings": ["ab", ""]}]}]})",
                             error))
      << error;
  SimHost host;
  scenario.ApplyTo(host);
  auto bytes = [&](uint32_t oc, uint32_t oi) {
    SipJson msg(oc, 0, oi, 0);
    msg.SetKey("MI", 1, false);
    host.SendRequest(0, msg, 5000);
    std::vector<uint8_t> out;
    msg.GetDataBytes(0, out);
    return out;
  };
  EXPECT_EQ(bytes(0x0B00, 0),
            (std::vector<uint8_t>{0x04, 0x99, 0, 2, 7, 0, 0, 0, 3, 0, 2, 1, 4, 3, 2, 1}));
  EXPECT_EQ(bytes(0x0B00, 1), (std::vector<uint8_t>{0, 0x3F, 0, 20, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(bytes(0x0B16, 0),
            (std::vector<uint8_t>{30, 0, 0, 1, 0x56, 0x34, 0x12, 0, 1, 0, 0, 0, 9, 0, 0, 0,
                                  4, 0, 0, 0, 0, 0, 0, 0, 2, 2, 'a', 'b', 0, 0}));
}

}  // namespace
}  // namespace em_oidmap::hostsim
