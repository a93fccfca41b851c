// The cabinet directory over hostsim: what the re-scan's questions leave in it.
#include "oidmap/CabinetDirectory.h"

#include <gtest/gtest.h>

#include <set>

#include "ComponentHost.h"

namespace em_oidmap {
namespace {

constexpr uint32_t kMidA = 0x00010001;

hostsim::ReplyRule Answer(uint32_t oc, const char* da) {
  hostsim::ReplyRule rule;
  rule.oc = oc;
  rule.dataJson = da;
  return rule;
}

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
