// The extension-module base as a host sees it: through CIExtensionModule pointers and raw
// vtable slots, with the exact trace lines in the capture sink.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "hostsim/DebugSink.h"
#include "hostsim/SimHost.h"
#include "module/DebugClient.h"
#include "module/ExtensionModule.h"
#include "sip/SipJson.h"

namespace {

class TestModule : public CExtensionModule {
 public:
  const char* GetModuleTag() override { return "EM_TEST"; }
  uint32_t OnModuleNotification(uint32_t code, uint32_t param, uintptr_t extra) override {
    notified_code = code;
    notified_param = param;
    notified_extra = extra;
    return 7;
  }
  uint32_t notified_code = 0;
  uint32_t notified_param = 0;
  uintptr_t notified_extra = 0;
};

// Calls vtable slot `slot` (1-based, Itanium layout) of `obj` as a host binary would,
// knowing nothing but the slot number and the signature.
template <typename R, typename... Args>
R CallSlot(void* obj, int slot, Args... args) {
  void** vtable = *reinterpret_cast<void***>(obj);
  using Fn = R (*)(void*, Args...);
  return reinterpret_cast<Fn>(vtable[slot - 1])(obj, args...);
}

class ExtensionModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TraceClient().SetTraceLevel(5);
    hostsim::Sink().Clear();
  }
  void TearDown() override { TraceClient().SetTraceLevel(0); }
};

TEST_F(ExtensionModuleTest, ModuleThatOverridesNothing_AnswersDefaults) {
  CExtensionModule base;
  CIExtensionModule* module = &base;
  SipJson msg;  // no command yet: the handler must create it
  EXPECT_EQ(0u, module->OnRequest(msg));
  EXPECT_EQ(1u, msg.CommandCount());
  EXPECT_EQ(0x01u, msg.GetStatus(0));
  EXPECT_EQ(1u, module->Query4());
  EXPECT_EQ(1u, module->Stop());
  EXPECT_EQ(0u, module->Query10());
  EXPECT_EQ(0u, module->Query23());
  EXPECT_EQ(0u, module->OnModuleNotification(1, 2, 3));
  EXPECT_STREQ("EM_XXX", module->GetModuleTag());
  unsigned char info[300] = {};
  uint32_t size = sizeof info;
  std::memcpy(info, &size, 4);
  EXPECT_EQ(0u, module->GetModuleInfo(info));
}

TEST_F(ExtensionModuleTest, SendWithoutHost_SetsStatusSixAndCallsNothing) {
  TestModule module;
  SipJson msg(0x0301, 0, 3, 0);
  module.SendRequest(msg, 5000);
  EXPECT_EQ(0x06u, msg.GetStatus(0));
  SipJson broadcast(0x0300, 0, 0, 0);
  module.SendToAllModules(broadcast, 5000);
  EXPECT_EQ(0x06u, broadcast.GetStatus(0));
  EXPECT_EQ(0xFFFFFFFFu, broadcast.GetKey(0, "MI"));
  SipJson alternate(0x0301, 0, 0, 0);
  module.AlternateSend(alternate);
  EXPECT_EQ(0x06u, alternate.GetStatus(0));
}

TEST_F(ExtensionModuleTest, SendsAndHandBack_GoThroughHost) {
  hostsim::SimHost host;
  TestModule module;
  CIExtensionModule* iface = &module;
  ASSERT_EQ(1u, iface->Start(&host, 0xABCDEF0123ull));
  SipJson msg(0x0B03, 0, 0, 2);
  module.SendToAllCabinets(msg, 15000);
  const auto sent = host.SentRequests();
  ASSERT_EQ(1u, sent.size());
  EXPECT_EQ(0xABCDEF0123ull, sent[0].context);
  EXPECT_EQ(15000u, sent[0].timeoutMs);
  EXPECT_NE(std::string::npos, sent[0].json.find("\"CA\":4294967295"));
  module.AlternateSend(msg);
  EXPECT_EQ(1u, host.AlternateSends().size());

  // The host sees 255 during a hand-back; the caller keeps its own status (22 if none).
  SipJson event(0x0B11, 0, 0, 0);
  event.SetStatus(0x00);
  module.HandBack(event);
  SipJson no_status(0x0301, 0, 0, 0);
  module.HandBack(no_status);
  const auto back = host.HandedBackMessages();
  ASSERT_EQ(2u, back.size());
  EXPECT_EQ(0xFFu, back[0].statusDuringCall);
  EXPECT_EQ(0xFFu, back[1].statusDuringCall);
  EXPECT_EQ(0x00u, event.GetStatus(0));
  EXPECT_EQ(22u, no_status.GetStatus(0));
}

TEST_F(ExtensionModuleTest, EventLogSource_FollowsHostKind) {
  TestModule module;
  EXPECT_EQ("Halvoran Node Steward", module.EventLogSourceName());
  hostsim::SimHost host;
  host.SetHostKind(5);
  module.Start(&host, 0);
  EXPECT_EQ("Halvoran Agentless Service", module.EventLogSourceName());
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_TEST             : Register event log source \"Halvoran Agentless Service\" ..."));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_TEST             : ... event log source \"Halvoran Agentless Service\" registered"));
  host.SetHostKind(4);
  EXPECT_EQ("Halvoran Node Steward", module.EventLogSourceName());
}

TEST_F(ExtensionModuleTest, Notifications_TraceAndSwitchShutdownFlag) {
  TestModule module;
  CIExtensionModule* iface = &module;
  EXPECT_EQ(7u, iface->Notify(0x20000, 0x12, 99));
  EXPECT_TRUE(module.IsSwitchShutdown());
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\n\nEM_TEST             : ## NOTIFY: Code = 0Xx20000, param = 0x00000012"));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_TEST             : *** SCN_SWITCH_SHUTDOWN *** \n"));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_TEST             : -> SWITCH shutdown notification, set SwitchShutdown flag"));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_TEST             :   call OnModuleNotification()..."));
  EXPECT_TRUE(
      hostsim::Sink().HasLine("\nEM_TEST             :   ... OnModuleNotification() completed"));
  EXPECT_EQ(99u, module.notified_extra);

  iface->Notify(0x20001, 0, 0);
  EXPECT_TRUE(module.IsSwitchShutdown()) << "the flag is never cleared";
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_TEST             : -> SWITCH start completed (all layers started) - requests "
      "enabled"));

  iface->Notify(0x30000, 0, 0);
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_TEST             : -> System shutdown"));
  for (uint32_t code = 0x40000; code <= 0x40004; ++code) iface->Notify(code, 0, 0);
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_TEST             : *** SCN_POWERSTATE_AC_ONLINE *** \n"));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_TEST             : *** SCN_POWERSTATE_SUSPEND *** \n"));

  // Unknown codes are passed on unchanged.
  EXPECT_EQ(7u, iface->Notify(0x12345, 0xBEEF, 5));
  EXPECT_EQ(0x12345u, module.notified_code);
  EXPECT_EQ(0xBEEFu, module.notified_param);
}

TEST_F(ExtensionModuleTest, ServerCabinet_IsProcessWide) {
  {
    TestModule module;
    module.SetServerCabinet(7);
    EXPECT_TRUE(hostsim::Sink().HasLine("\n\nEM_TEST             : ## Server cabinet number = 7 ##\n"));
  }
  EXPECT_TRUE(CExtensionModule::IsServerCabinetSet());
  EXPECT_EQ(7u, CExtensionModule::ServerCabinet());
}

TEST_F(ExtensionModuleTest, MessageTraces_ChooseFormatByCabinetAndDataForm) {
  TestModule module;
  SipJson msg;
  msg.Parse(R"({"SIP":{"V":1,"CMD":[{"OC":769,"OE":2,"OI":3,"MI":131073,"ST":0}]}})");
  module.TraceRequest(msg, 2);
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_TEST (REQ)       : OC 0x0301-0x0002 OID 0x0003 MID 0x00020001 Stat 0x00"));

  msg.Parse(R"({"SIP":{"V":1,"CMD":[{"OC":769,"CA":12,"DA":42}]}})");
  module.TraceReturn(msg, 2);
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_TEST (RET)       : OC 0x0301-0x0000 OID 0x0000 CABID 0012 MID 0x00000000 Stat 0x16 "
      "Data 42"));

  msg.Parse(R"({"SIP":{"V":1,"CMD":[{"OC":769,"ST":0,"DA":{"a":"x\ty"}}]}})");
  module.TraceReply(msg, 2);
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_TEST (RPL)       : OC 0x0301-0x0000 OID 0x0000 MID 0x00000000 Stat 0x00 Data (JSON "
      "struct):\n{\"a\":\"x\\ty\"}"));

  msg.Parse(R"({"SIP":{"V":1,"CMD":[{"OC":2816,"CA":1,"ST":0,"DA":{"RAW":[1,2,3]}}]}})");
  module.TraceReply(msg, 2);
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_TEST (RPL)       : OC 0x0B00-0x0000 OID 0x0000 CABID 0001 MID 0x00000000 Stat 0x00 "
      "Len 3"));

  // Tracing off: nothing is written.
  hostsim::Sink().Clear();
  TraceClient().SetTraceLevel(0);
  module.TraceReply(msg, 1);
  EXPECT_TRUE(hostsim::Sink().Lines().empty());
}

TEST_F(ExtensionModuleTest, ModuleInfo_ShortRecordRefused_FieldsWritten) {
  struct InfoModule : TestModule {
    uint32_t GetModuleInfo(void* info) override {
      return FillModuleInfo(info, "EM_OIDMAP", "OID mapper extension module");
    }
  } module;
  std::vector<unsigned char> rec(245, 0xAA);
  uint32_t size = 245;
  std::memcpy(rec.data(), &size, 4);
  const auto before = rec;
  EXPECT_EQ(0u, module.GetModuleInfo(rec.data()));
  EXPECT_EQ(before, rec);

  rec.assign(260, 0xAA);
  size = 260;
  std::memcpy(rec.data(), &size, 4);
  ASSERT_EQ(1u, module.GetModuleInfo(rec.data()));
  EXPECT_EQ(0xABu, rec[8]);         // bits 0 and 1 or-ed in
  EXPECT_EQ(0xADu, rec[21]);        // low three bits 5, upper bits kept
  uint32_t v = 0;
  std::memcpy(&v, &rec[26], 4);
  EXPECT_EQ(100u, v);
  std::memcpy(&v, &rec[42], 4);
  EXPECT_EQ(1u, v);
  EXPECT_EQ(0, std::memcmp(&rec[46], "EM_OIDMAP\0\0\0\0\0\0\0", 16));
  for (size_t i = 62; i < 146; ++i) ASSERT_EQ(0, rec[i]) << i;
  EXPECT_STREQ("OID mapper extension module", reinterpret_cast<char*>(&rec[146]));
  for (size_t i = 146 + 27; i < 246; ++i) ASSERT_EQ(0, rec[i]) << i;
  EXPECT_EQ(0xAAu, rec[4]);         // untouched fields stay
  EXPECT_EQ(0xAAu, rec[250]);
}

// A reordering of the interface must fail here: the host knows only slot numbers.
TEST_F(ExtensionModuleTest, VtableSlots_MatchHostContract) {
  hostsim::SimHost host;
  TestModule module;
  CIExtensionModule* iface = &module;
  void* obj = iface;

  unsigned char info[300] = {};
  uint32_t size = sizeof info;
  std::memcpy(info, &size, 4);
  EXPECT_EQ(0u, (CallSlot<uint32_t, void*>(obj, 3, info)));
  EXPECT_EQ(1u, (CallSlot<uint32_t>(obj, 4)));
  EXPECT_EQ(1u, (CallSlot<uint32_t, CIModuleHost*, uint64_t>(obj, 5, &host, 77)));
  EXPECT_EQ(&host, module.Host());
  EXPECT_EQ(77u, module.Context());

  SipJson msg(0x0301, 0, 0, 0);
  EXPECT_EQ(0u, (CallSlot<uint32_t, SipJson*>(obj, 9, &msg)));  // references pass as pointers
  EXPECT_EQ(0x01u, msg.GetStatus(0));

  EXPECT_EQ(7u, (CallSlot<uint32_t, uint32_t, uint32_t, uintptr_t>(obj, 14, 0x20000, 1, 2)));
  EXPECT_TRUE(module.IsSwitchShutdown());
  EXPECT_STREQ("EM_TEST", (CallSlot<const char*>(obj, 15)));
  EXPECT_EQ(7u, (CallSlot<uint32_t, uint32_t, uint32_t, uintptr_t>(obj, 24, 5, 6, 7)));
  EXPECT_EQ(5u, module.notified_code);
}

}  // namespace
