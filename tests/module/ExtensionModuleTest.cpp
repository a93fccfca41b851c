// The extension-module base where the end-to-end suite does not look: sends and hand-backs
// through the host interface, notifications passed on, the message trace formats, the
// module information record and the vtable slots em_oidmap.so is not driven through there.
#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "hostsim/DebugSink.h"
#include "hostsim/SimHost.h"
#include "tests/support/TestSupport.h"
#include "trace/DebugClient.h"
#include "module/ExtensionModule.h"
#include "sip/SipJson.h"

namespace em_oidmap {

namespace {

class TestModule : public CExtensionModule {
 public:
  const char* GetModuleTag() override { return "EM_TEST"; }
  uint32_t GetModuleInfo(void* info) override {
    return FillModuleInfo(info, "EM_OIDMAP", "OID mapper extension module");
  }
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

class ExtensionModuleTest : public test_support::TracedTest<5> {};

TEST_F(ExtensionModuleTest, Sends_Status6WithoutHost_ThenThroughTheHost) {
  TestModule module;
  SipJson msg(0x0301, 0, 3, 0), broadcast(0x0300, 0, 0, 0), alternate(0x0301, 0, 0, 0);
  module.SendRequest(msg, 5000);
  module.SendToAllModules(broadcast, 5000);
  module.AlternateSend(alternate);
  for (const SipJson* m : {&msg, &broadcast, &alternate}) EXPECT_EQ(0x06u, m->GetStatus(0));
  SipJson unhanded(0x0B11, 0, 0, 0);  // a hand-back without a host changes nothing
  unhanded.SetStatus(0x00);
  module.HandBack(unhanded);
  EXPECT_EQ(0x00u, unhanded.GetStatus(0));
  EXPECT_EQ(0xFFFFFFFFu, broadcast.GetKey(0, "MI"));

  hostsim::SimHost host;
  ASSERT_EQ(1u, static_cast<CIExtensionModule&>(module).Start(&host, 0xABCDEF0123ull));
  SipJson all(0x0B03, 0, 0, 2);
  module.SendToAllCabinets(all, 15000);
  module.AlternateSend(all);
  const auto sent = host.SentRequests();
  ASSERT_EQ(1u, sent.size());
  EXPECT_EQ(0xABCDEF0123ull, sent[0].context);
  EXPECT_EQ(15000u, sent[0].timeoutMs);
  EXPECT_NE(std::string::npos, sent[0].json.find("\"CA\":4294967295"));
  EXPECT_EQ(1u, host.AlternateSends().size());

  // The host sees 255 during a hand-back; the caller keeps its own status (22 if none).
  SipJson event(0x0B11, 0, 0, 0), no_status(0x0301, 0, 0, 0);
  event.SetStatus(0x00);
  module.HandBack(event);
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
  host.SetHostKind(4);
  EXPECT_EQ("Halvoran Node Steward", module.EventLogSourceName());
}

TEST_F(ExtensionModuleTest, Notify_SwitchShutdownSticksAndEveryCodeIsPassedOn) {
  TestModule module;
  CIExtensionModule* iface = &module;
  EXPECT_EQ(7u, iface->Notify(0x20000, 0x12, 99));
  EXPECT_TRUE(module.IsSwitchShutdown());
  for (uint32_t code : {0x20001u, 0x30000u, 0x40000u, 0x40004u}) iface->Notify(code, 0, 0);
  EXPECT_TRUE(module.IsSwitchShutdown()) << "the flag is never cleared";
  EXPECT_EQ(7u, iface->Notify(0x12345, 0xBEEF, 5));
  EXPECT_EQ(0x12345u, module.notified_code);
  EXPECT_EQ(0xBEEFu, module.notified_param);
  EXPECT_EQ(5u, module.notified_extra);
}

TEST_F(ExtensionModuleTest, MessageTraces_FormatByCabinetAndDataForm) {
  using Trace = void (CExtensionModule::*)(const SipJson&, uint32_t);
  const struct { Trace trace; const char* json; const char* line; } cases[] = {
      {&CExtensionModule::TraceRequest, R"({"OC":769,"OE":2,"OI":3,"MI":131073,"ST":0})",
       "\nEM_TEST (REQ)       : OC 0x0301-0x0002 OID 0x0003 MID 0x00020001 Stat 0x00"},
      {&CExtensionModule::TraceReturn, R"({"OC":769,"CA":12,"DA":42})",
       "\nEM_TEST (RET)       : OC 0x0301-0x0000 OID 0x0000 CABID 0012 MID 0x00000000 Stat 0x16 "
       "Data 42"},
      {&CExtensionModule::TraceReply, R"({"OC":769,"ST":0,"DA":{"a":"x\ty\u001f"}})",
       "\nEM_TEST (RPL)       : OC 0x0301-0x0000 OID 0x0000 MID 0x00000000 Stat 0x00 Data (JSON "
       "struct):\n{\"a\":\"x\\ty\\u001F\"}"},
      {&CExtensionModule::TraceReply, R"({"OC":769,"CA":2,"ST":0,"DA":{"b":1}})",
       "\nEM_TEST (RPL)       : OC 0x0301-0x0000 OID 0x0000 CABID 0002 MID 0x00000000 Stat 0x00 "
       "Data (JSON struct):\n{\"b\":1}"},
      {&CExtensionModule::TraceReply, R"({"OC":2816,"CA":1,"ST":0,"DA":{"RAW":[1,2,3]}})",
       "\nEM_TEST (RPL)       : OC 0x0B00-0x0000 OID 0x0000 CABID 0001 MID 0x00000000 Stat 0x00 "
       "Len 3"},
  };
  TestModule module;
  for (const auto& c : cases) {
    SipJson msg;
    ASSERT_TRUE(msg.Parse(std::string(R"({"SIP":{"V":1,"CMD":[)") + c.json + "]}}"));
    (module.*c.trace)(msg, 2);
    EXPECT_TRUE(hostsim::Sink().HasLine(c.line)) << c.json;
    TraceClient().SetTraceLevel(0);  // tracing off: nothing is written
    (module.*c.trace)(msg, 1);
    TraceClient().SetTraceLevel(5);
  }
  EXPECT_EQ(hostsim::Sink().Lines().size(), std::size(cases));
}

TEST_F(ExtensionModuleTest, ModuleInfo_FieldsWrittenOthersKept) {
  TestModule module;
  std::vector<unsigned char> rec(260, 0xAA);
  const uint32_t size = 260;
  std::memcpy(rec.data(), &size, 4);
  ASSERT_EQ(1u, module.GetModuleInfo(rec.data()));
  EXPECT_EQ(0xABu, rec[8]);   // bits 0 and 1 or-ed in
  EXPECT_EQ(0xADu, rec[21]);  // low three bits 5, upper bits kept
  uint32_t v = 0;
  std::memcpy(&v, &rec[26], 4);
  EXPECT_EQ(100u, v);
  std::memcpy(&v, &rec[42], 4);
  EXPECT_EQ(1u, v);
  EXPECT_EQ(0, std::memcmp(&rec[46], "EM_OIDMAP\0\0\0\0\0\0\0", 16));
  for (size_t i = 62; i < 146; ++i) ASSERT_EQ(0, rec[i]) << i;
  EXPECT_STREQ("OID mapper extension module", reinterpret_cast<char*>(&rec[146]));
  for (size_t i = 146 + 27; i < 246; ++i) ASSERT_EQ(0, rec[i]) << i;
  EXPECT_EQ(0xAAu, rec[4]);  // untouched fields stay
  EXPECT_EQ(0xAAu, rec[250]);
}

// A reordering of the interface must fail here: the host knows only slot numbers.
TEST_F(ExtensionModuleTest, VtableSlots_MatchHostContract) {
  hostsim::SimHost host;
  TestModule module;
  void* obj = static_cast<CIExtensionModule*>(&module);
  EXPECT_EQ(1u, (CallSlot<uint32_t>(obj, 4)));
  EXPECT_EQ(1u, (CallSlot<uint32_t, CIModuleHost*, uint64_t>(obj, 5, &host, 77)));
  EXPECT_EQ(&host, module.Host());
  EXPECT_EQ(77u, module.Context());
  EXPECT_EQ(7u, (CallSlot<uint32_t, uint32_t, uint32_t, uintptr_t>(obj, 24, 5, 6, 7)));
  EXPECT_EQ(5u, module.notified_code);
}

}  // namespace

}  // namespace em_oidmap
