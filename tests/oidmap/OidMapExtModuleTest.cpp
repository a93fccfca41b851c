// The module object in-process over hostsim: what its start does with the components.
#include "oidmap/OidMapExtModule.h"

#include <gtest/gtest.h>

#include "hostsim/DebugSink.h"
#include "hostsim/SimHost.h"

namespace em_oidmap {
namespace {

constexpr uint32_t kMidA = 0x00010001;

class OidMapExtModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TraceClient().SetTraceLevel(3);
    hostsim::Sink().Clear();
  }
  void TearDown() override { TraceClient().SetTraceLevel(0); }
};

TEST_F(OidMapExtModuleTest, SwitchShutdown_EndsCabinetChecks) {
  hostsim::SimHost host;
  host.AddModule(kMidA).SetInstanceCount(0x0300, 0, 0, 3);
  COidMapExtModule module;
  module.Notify(0x20000, 0, 0);
  module.SetServerCabinet(0);
  ASSERT_EQ(1u, module.Start(&host, host.Attach(&module)));
  EXPECT_EQ(0u, hostsim::Sink().Count("Check OID mapping for cabinet"));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           : ## Start completed! ##"));
}

}  // namespace
}  // namespace em_oidmap
