// What start and re-scan decide over hostsim: the count checks of the OID mapper, the
// cabinet checks of the module object, the cabinet directory's re-scan questions.
#include <gtest/gtest.h>

#include <set>

#include "ComponentHost.h"
#include "oidmap/OidMapExtModule.h"
#include "tests/support/TestSupport.h"

namespace em_oidmap {
namespace {

constexpr uint32_t kMidA = 0x00010001;
constexpr uint32_t kMidB = 0x00020001;

class StartAndRescanTest : public test_support::TracedTest<3> {};

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

TEST_F(StartAndRescanTest, StatusesGivenAsText_CountAsValid) {
  ComponentHost<TextStatusHost> c;
  c.host.AddModule(kMidA).SetInstanceCount(0x0300, 0, 0, 3);
  c.host.AddModule(kMidB).SetInstanceCount(0x0300, 0, 0, 2);
  c.StartUp();
  TraceClient().SetTraceLevel(0);
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           : Got SIP status 0x0C"));
  EXPECT_TRUE(c.mapper.IsMappingNeeded());
  ASSERT_NE(nullptr, c.mapper.MapTable().Find(0x0300, 0, 0));
  EXPECT_EQ(5u, c.mapper.MapTable().Find(0x0300, 0, 0)->Count());
}

TEST_F(StartAndRescanTest, SwitchShutdown_EndsCabinetChecks) {
  hostsim::SimHost host;
  host.AddModule(kMidA).SetInstanceCount(0x0300, 0, 0, 3);
  COidMapExtModule module;
  module.Notify(0x20000, 0, 0);
  module.SetServerCabinet(0);
  ASSERT_EQ(1u, module.Start(&host, host.Attach(&module)));
  EXPECT_EQ(0u, hostsim::Sink().Count("Check OID mapping for cabinet"));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           : ## Start completed! ##"));
}

hostsim::ReplyRule Answer(uint32_t oc, const char* da) {
  hostsim::ReplyRule rule;
  rule.oc = oc;
  rule.dataJson = da;
  return rule;
}

// Untraced: the trace sites' other branch.
TEST(CabinetDirectoryTest, Rescan_FallbackAndLanguagesFollowTheLatestAnswers) {
  ComponentHost<> c;
  hostsim::SimModule& ident = c.host.AddModule(kMidA);
  const struct {
    const char* probe;  // nullptr: neither question is answered
    const char* languages;
    bool fallback;
    std::set<uint16_t> supported;
  } cases[] = {
      {"1", R"({"RAW":[9,4,7,4]})", true, {0x407, 0x409}},
      {"0", R"({"RAW":[12,4]})", false, {0x40C}},  // a language no longer reported is gone
      {nullptr, nullptr, true, {}},
  };
  for (const auto& t : cases) {
    ident.ClearRules();
    if (t.probe != nullptr) {
      ident.AddRule(Answer(0x0B18, t.probe));
      ident.AddRule(Answer(0x0B20, t.languages));
    }
    c.cabinets.ProbeIdentModule();
    c.cabinets.ReadSelLanguages();
    EXPECT_EQ(t.fallback, c.cabinets.IsKtasFallback()) << t.languages;
    EXPECT_EQ(t.supported, c.cabinets.SupportedSelLanguages()) << t.languages;
    for (uint16_t lang : t.supported) EXPECT_TRUE(c.cabinets.IsSupportedSelLanguage(lang));
  }
}

}  // namespace
}  // namespace em_oidmap
