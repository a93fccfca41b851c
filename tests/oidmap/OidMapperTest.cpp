// The OID mapper over hostsim: what the count checks of start decide.
#include "oidmap/OidMapper.h"

#include <gtest/gtest.h>

#include "ComponentHost.h"
#include "hostsim/DebugSink.h"
#include "trace/DebugClient.h"

namespace em_oidmap {
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

TEST(OidMapperTest, StatusesGivenAsText_CountAsValid) {
  TraceClient().SetTraceLevel(3);
  hostsim::Sink().Clear();
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

}  // namespace
}  // namespace em_oidmap
