// The module object in-process: start-up over simulated modules, then translation of
// requests and replies through the mapping it decided on.
#include <gtest/gtest.h>

#include <string>

#include "hostsim/DebugSink.h"
#include "hostsim/SimHost.h"
#include "module/DebugClient.h"
#include "oidmap/OidMapExtModule.h"

namespace {

constexpr uint32_t kMidA = 0x00010001;
constexpr uint32_t kMidB = 0x00020001;

// A host whose modules send their statuses as text, as some peers do.
class TextStatusHost : public hostsim::SimHost {
 public:
  uint32_t SendRequest(uint64_t context, SipJson& msg, uint32_t timeoutMs) override {
    const uint32_t rc = SimHost::SendRequest(context, msg, timeoutMs);
    // Count replies of success come back as "0x0C" and "014" (both 12).
    for (int32_t i = 0; i < static_cast<int32_t>(msg.CommandCount()); ++i) {
      SipJson::Value* cmd = msg.Command(i);
      if (cmd != nullptr && msg.GetOpcode(i) == 0x0300 && msg.GetStatus(i) == 0x00) {
        (*cmd)["ST"].SetString(i % 2 == 0 ? "0x0C" : "014", msg.GetAllocator());
      }
    }
    return rc;
  }
};

class OidMapExtModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TraceClient().SetTraceLevel(3);
    hostsim::Sink().Clear();
  }
  void TearDown() override { TraceClient().SetTraceLevel(0); }

  void Start(hostsim::SimHost& host, COidMapExtModule& module) {
    host.SetSeCabinets({1});
    module.SetServerCabinet(0);
    ASSERT_EQ(1u, module.Start(&host, host.Attach(&module)));
  }
};

TEST_F(OidMapExtModuleTest, TwoModules_RequestGoesToOwnerAndReplyComesBackGlobal) {
  hostsim::SimHost host;
  host.AddModule(kMidA).SetInstanceCount(0x0300, 0, 0, 3);
  host.AddModule(kMidB).SetInstanceCount(0x0300, 0, 0, 2);
  COidMapExtModule module;
  Start(host, module);
  ASSERT_TRUE(module.IsMappingNeeded());
  EXPECT_EQ((std::vector<uint32_t>{0, 1}), module.CabinetList());

  SipJson request(0x0301, 0, 3, 0);  // global index 3, no ST: a request going down
  ASSERT_EQ(1u, module.TranslateMessage(request, 0));
  EXPECT_EQ(kMidB, request.GetKey(0, "MI"));
  EXPECT_EQ(0u, request.GetKey(0, "OI"));

  SipJson reply(0x0301, 0, 0, 0);
  reply.SetModuleId(kMidB);
  reply.SetStatus(0x00);
  ASSERT_EQ(1u, module.TranslateMessage(reply, 0));
  EXPECT_EQ(3u, reply.GetKey(0, "OI"));

  // Beyond the instances the modules reported: left alone.
  SipJson beyond(0x0301, 0, 5, 0);
  EXPECT_EQ(0u, module.TranslateMessage(beyond, 0));
  EXPECT_EQ(5u, beyond.GetKey(0, "OI"));
  EXPECT_FALSE(beyond.HasKey(0, "MI"));

  // Cabinet 1 had no instances: nothing to map there.
  SipJson other_cabinet(0x0301, 0, 3, 1);
  EXPECT_EQ(0u, module.TranslateMessage(other_cabinet, 0));
}

TEST_F(OidMapExtModuleTest, OneModule_MappingNotNeeded_NothingTranslated) {
  hostsim::SimHost host;
  host.AddModule(kMidA).SetInstanceCount(0x0300, 0, 0, 3);
  COidMapExtModule module;
  Start(host, module);
  EXPECT_FALSE(module.IsMappingNeeded());
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           : OID mapping NOT needed!"));

  SipJson request(0x0301, 0, 4, 0);
  const std::string before = request.Serialize();
  EXPECT_EQ(0u, module.TranslateMessage(request, 0));
  EXPECT_EQ(before, request.Serialize());
  SipJson count_reply(0x0C21, 0x05, 0, 0);
  count_reply.SetDataValue(7, 0);
  EXPECT_EQ(0u, module.TranslateMessage(count_reply, 0));
}

TEST_F(OidMapExtModuleTest, StatusesGivenAsText_CountAsValid) {
  TextStatusHost host;
  host.AddModule(kMidA).SetInstanceCount(0x0300, 0, 0, 3);
  host.AddModule(kMidB).SetInstanceCount(0x0300, 0, 0, 2);
  COidMapExtModule module;
  Start(host, module);
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           : Got SIP status 0x0C"));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           : 2 valid replies received for count opcode 0x0300-0x0000"));
  EXPECT_TRUE(module.IsMappingNeeded());
  ASSERT_NE(nullptr, module.MapTable().Find(0x0300, 0, 0));
  EXPECT_EQ(5u, module.MapTable().Find(0x0300, 0, 0)->Count());
}

TEST_F(OidMapExtModuleTest, Rescan_FallbackAndLanguagesFollowTheLatestAnswers) {
  hostsim::SimHost host;
  hostsim::SimModule& ident = host.AddModule(kMidA);
  hostsim::ReplyRule probe;
  probe.oc = 0x0B18;
  probe.dataJson = "1";
  hostsim::ReplyRule languages;
  languages.oc = 0x0B20;
  languages.dataJson = R"({"RAW":[9,4,7,4]})";
  ident.AddRule(probe);
  ident.AddRule(languages);
  COidMapExtModule module;
  Start(host, module);
  module.Rescan();
  EXPECT_TRUE(module.IsKtasFallback());
  EXPECT_FALSE(hostsim::Sink().Contains("EM_IDENT not present"));
  EXPECT_EQ((std::set<uint16_t>{0x407, 0x409}), module.SupportedSelLanguages());

  ident.ClearRules();
  probe.dataJson = "0";
  languages.dataJson = R"({"RAW":[12,4]})";
  ident.AddRule(probe);
  ident.AddRule(languages);
  module.Rescan();
  EXPECT_FALSE(module.IsKtasFallback());
  EXPECT_EQ((std::set<uint16_t>{0x40C}), module.SupportedSelLanguages())
      << "a language no longer reported is gone";

  ident.ClearRules();
  module.Rescan();
  EXPECT_TRUE(module.SupportedSelLanguages().empty());
  module.Stop();
}

TEST_F(OidMapExtModuleTest, SwitchShutdown_EndsCabinetChecks) {
  hostsim::SimHost host;
  host.AddModule(kMidA).SetInstanceCount(0x0300, 0, 0, 3);
  COidMapExtModule module;
  module.Notify(0x20000, 0, 0);
  Start(host, module);
  EXPECT_EQ(0u, hostsim::Sink().Count("Check OID mapping for cabinet"));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           : ## Start completed! ##"));
}

}  // namespace
