// em_oidmap.so as a host sees it: loaded with dlopen, created through EM_Create, driven
// by vtable slots over hostsim's simulated modules, judged by what reaches the host (sent
// requests, handed-back messages, trace lines in the exported Debug sink).
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "E2EHost.h"
#include "hostsim/DebugSink.h"
#include "hostsim/SimHost.h"
#include "module/CIExtensionModule.h"
#include "sip/SipJson.h"

namespace {

using e2e::Lib;
using e2e::CallSlot;

using e2e::kMidA;
using e2e::kMidB;
// Distinct count opcodes of the count opcode table: one broadcast each per cabinet.
constexpr size_t kCountBroadcastsPerCabinet = 7;

class ModuleE2ETest : public e2e::ModuleHostTest {
 protected:
  // Count broadcasts the module sent, per (OC, OE, CA).
  size_t CountBroadcasts() const {
    size_t n = 0;
    for (const auto& sent : host_.SentRequests()) {
      SipJson msg;
      msg.Parse(sent.json);
      const uint32_t oc = msg.GetOpcode(sent.index);
      if (msg.GetKey(sent.index, "MI") == 0xFFFFFFFF &&
          (oc == 0x0300 || oc == 0x0400 || oc == 0x0500 || oc == 0x0520 || oc == 0xF041 ||
           oc == 0x0C21)) {
        ++n;
      }
    }
    return n;
  }

  std::vector<uint32_t> SeCabinets(uint32_t n) const {
    std::vector<uint32_t> cabs;
    for (uint32_t i = 1; i <= n; ++i) cabs.push_back(i);
    return cabs;
  }
};

TEST_F(ModuleE2ETest, EntryPoints_CreateOnceDeleteOnce) {
  EXPECT_STREQ("EM_OIDMAP", Lib().name());
  CIExtensionModule* first = nullptr;
  CIExtensionModule* second = nullptr;
  ASSERT_TRUE(Lib().create(&first, nullptr));
  ASSERT_TRUE(Lib().create(&second, nullptr));
  EXPECT_EQ(first, second);
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM DLL (EM_OIDMAP ) : Create module"));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM DLL (EM_OIDMAP ) : ## ERROR: Module already existing!\n"));

  EXPECT_EQ(1u, Lib().destroy());
  EXPECT_EQ(0u, Lib().destroy());
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM DLL (EM_OIDMAP ) : Destroy module..."));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM DLL (EM_OIDMAP ) : .. Module destroyed successfully!"));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM DLL (EM_OIDMAP ) : Module already destroyed!"));

  // A new create after a delete builds a new object, which works.
  ASSERT_NE(nullptr, Create());
  EXPECT_STREQ("EM_OIDMAP", module_->GetModuleTag());
}

TEST_F(ModuleE2ETest, SetupAction_ReportsEveryCallAndReturnsOne) {
  EXPECT_EQ(1u, Lib().setup(2));
  EXPECT_EQ(1u, Lib().setup(0));
  EXPECT_EQ(1u, Lib().setup(5));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\n\nEM_OIDMAP           : ## Setup action \"RESTORE\" call - no action function defined\n"));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\n\nEM_OIDMAP           : ## ERROR! Setup action call with unknown action type (0) - no "
      "action defined!\n"));
  EXPECT_TRUE(hostsim::Sink().Contains("unknown action type (5)"));
}

TEST_F(ModuleE2ETest, ConstructionAndDestruction_TraceInOrder) {
  Create();
  Lib().destroy();
  module_ = nullptr;
  const auto lines = hostsim::Sink().Lines();
  auto pos = [&](const std::string& line) {
    for (size_t i = 0; i < lines.size(); ++i) {
      if (lines[i] == line) return static_cast<long>(i);
    }
    return -1L;
  };
  const long create = pos("\nEM DLL (EM_OIDMAP ) : Create module");
  const long enable = pos("\nCTaskSerializer     : Enable all Tasks");
  const long ctor_in = pos("\nEM_OIDMAP           : -> Constructor...");
  const long ctor_out = pos("\nEM_OIDMAP           : <- Constructor");
  const long destroy = pos("\nEM DLL (EM_OIDMAP ) : Destroy module...");
  const long dtor_in = pos("\nEM_OIDMAP           : -> Destructor...");
  const long dtor_out = pos("\nEM_OIDMAP           : <- Destructor");
  const long cache_out = pos("\nCMsgLogCache        : <- Destructor");
  const long done = pos("\nEM DLL (EM_OIDMAP ) : .. Module destroyed successfully!");
  ASSERT_GE(create, 0);
  EXPECT_LT(create, enable);
  EXPECT_LT(enable, ctor_in);
  EXPECT_EQ(ctor_in + 1, ctor_out);
  EXPECT_LT(ctor_out, destroy);
  EXPECT_EQ(dtor_in + 1, dtor_out) << "the pair only brackets the call";
  EXPECT_LT(dtor_out, cache_out);
  EXPECT_LT(cache_out, done);
}

TEST_F(ModuleE2ETest, VtableSlots_InfoTagAndTaskHandler) {
  Create();
  void* obj = module_;
  std::array<unsigned char, 246> info{};
  const uint32_t size = 246;
  std::memcpy(info.data(), &size, 4);
  ASSERT_EQ(1u, (CallSlot<uint32_t, void*>(obj, 3, info.data())));
  EXPECT_STREQ("EM_OIDMAP", reinterpret_cast<const char*>(&info[46]));
  EXPECT_STREQ("OID mapper extension module", reinterpret_cast<const char*>(&info[146]));
  EXPECT_STREQ("EM_OIDMAP", (CallSlot<const char*>(obj, 15)));

  SipJson msg(0x0301, 0, 0, 0);
  EXPECT_EQ(0u, (CallSlot<uint32_t, SipJson*>(obj, 9, &msg)));
  EXPECT_EQ(0x01u, msg.GetStatus(0));

  EXPECT_EQ(0u, (CallSlot<uint32_t, uint32_t, uint32_t, uintptr_t>(obj, 14, 0x40002, 0, 0)));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           : *** SCN_POWERSTATE_RESUME *** \n"));

  // A message log scan without a host: nothing answers, the cabinet's cache is made
  // ready all the same.
  SipJson task(0x0B16, 0, 0, 3);
  CallSlot<void, SipJson*, int32_t>(obj, 25, &task, 0);
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           : Ready event SET for message log cache cabinet 3"));
  EXPECT_FALSE(hostsim::Sink().Contains("Request message log using CM_LogEntry"));

  std::array<unsigned char, 245> short_info{};
  const uint32_t short_size = 245;
  std::memcpy(short_info.data(), &short_size, 4);
  EXPECT_EQ(0u, module_->GetModuleInfo(short_info.data()));
  EXPECT_EQ(0, short_info[46]);
}

TEST_F(ModuleE2ETest, Start_NoSeCabinets_ExaminesServerCabinetOnly) {
  host_.AddModule(kMidA).SetInstanceCount(0x0300, 0, 4, 3);
  StartWithCabinets(4, {});
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           : ## Start"));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           : ## Server's cabinet number = 4"));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           : 0 SE cabinet(s) detected..."));
  EXPECT_EQ(1u, hostsim::Sink().Count("Check OID mapping for cabinet"));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\n                    :      Check OID mapping for cabinet 4"));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           : Init message log cache cabinet 4"));
  EXPECT_EQ(kCountBroadcastsPerCabinet, CountBroadcasts());
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           : Mapping for opcode 0x0300-0x0000 was already requested"));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           : ## Start completed! ##"));
  EXPECT_TRUE(hostsim::Sink().Contains("CThread::SetThreadName: ThreadId = 0x00000000, DebugName = "));
}

TEST_F(ModuleE2ETest, Start_EnumerationFails_OnlyServerCabinet) {
  StartWithCabinets(0, {7, 8}, false);
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           : No SE cabinets found"));
  EXPECT_EQ(1u, hostsim::Sink().Count("Check OID mapping for cabinet"));
}

TEST_F(ModuleE2ETest, Start_TwoSeCabinets_EachCabinetChecked) {
  StartWithCabinets(0, {11, 12});
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           : 2 SE cabinet(s) detected..."));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           :       add cabinet 11"));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           :       add cabinet 12"));
  EXPECT_EQ(3u, hostsim::Sink().Count("Check OID mapping for cabinet"));
  EXPECT_EQ(3u, hostsim::Sink().Count("Init message log cache cabinet"));
  EXPECT_EQ(3 * kCountBroadcastsPerCabinet, CountBroadcasts());
  // Every count broadcast names its cabinet.
  size_t for12 = 0;
  for (const auto& sent : host_.SentRequests()) {
    SipJson msg;
    msg.Parse(sent.json);
    if (msg.GetOpcode(sent.index) == 0x0C21 && msg.GetKey(sent.index, "CA") == 12) ++for12;
  }
  EXPECT_EQ(2u, for12) << "0x0C21 with OE 0x05 and 0x1C";
}

TEST_F(ModuleE2ETest, Start_CabinetListCap) {
  StartWithCabinets(0, SeCabinets(99));
  EXPECT_EQ(100u, hostsim::Sink().Count("Check OID mapping for cabinet"));
  EXPECT_FALSE(hostsim::Sink().Contains("cabinet list overflow"));
  EXPECT_EQ(100 * kCountBroadcastsPerCabinet, CountBroadcasts());
  Lib().destroy();
  module_ = nullptr;

  hostsim::Sink().Clear();
  host_.ClearRecords();
  StartWithCabinets(0, SeCabinets(100));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\n\nEM_OIDMAP           : ## ERROR: cabinet list overflow; rest ignored!!\n"));
  EXPECT_EQ(100u, hostsim::Sink().Count("Check OID mapping for cabinet"));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           :       add cabinet 99"));
  EXPECT_FALSE(hostsim::Sink().HasLine("\nEM_OIDMAP           :       add cabinet 100"));
}

TEST_F(ModuleE2ETest, Start_TwoModulesAnswering_MappingNeeded) {
  host_.AddModule(kMidA).SetInstanceCount(0x0300, 0, 0, 3);
  host_.AddModule(kMidB).SetInstanceCount(0x0300, 0, 0, 2);
  StartWithCabinets(0, {});
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           : 2 valid replies received for count opcode 0x0300-0x0000"));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           : Mapping for OC 0x0300 required!"));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           : OID mapping needed!"));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           : Add map table entry 0 for opcode 0x0300-0x0000"));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           : Counter OC 0x0300: Map instance id 0x0001 to MID 0x00020001 "
      "(added OID entry)"));
}

TEST_F(ModuleE2ETest, Start_OneModuleAnswering_MappingNotNeeded) {
  host_.AddModule(kMidA).SetInstanceCount(0x0300, 0, 0, 3);
  host_.AddModule(kMidB);  // handles nothing: ST 0x01 replies do not count
  StartWithCabinets(0, {});
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           : 1 valid replies received for count opcode 0x0300-0x0000"));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           : OID mapping NOT needed!"));
  EXPECT_FALSE(hostsim::Sink().Contains("required!"));
}

TEST_F(ModuleE2ETest, Start_ReadsHelpDeskTextFromConfigSpace) {
  host_.AddModule(kMidA).SetConfigText(0x211, "Call the service desk at 555-0100");
  StartWithCabinets(0, {});
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           : SEL resolution help desk message: \"Call the service desk at "
      "555-0100\" (from config space)"));
}

TEST_F(ModuleE2ETest, Rescan_ProbesIdentLanguagesAndQueuesOneScanPerCabinet) {
  hostsim::SimModule& mod = host_.AddModule(kMidA);
  hostsim::ReplyRule languages;
  languages.oc = 0x0B20;
  languages.dataJson = R"({"RAW":[9,4,7,4,9,4,12]})";
  mod.AddRule(languages);
  StartWithCabinets(0, {5});
  hostsim::Sink().Clear();
  module_->Rescan();

  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           : EM_IDENT not present using KTAS fallback logic"));
  EXPECT_EQ(2u, hostsim::Sink().Count("Supported SEL language: LangId 0x409"));
  EXPECT_EQ(1u, hostsim::Sink().Count("Supported SEL language: LangId 0x407"));
  EXPECT_EQ(3u, hostsim::Sink().Count("Supported SEL language"))
      << "the odd last byte is not a language";
  EXPECT_EQ(2u, hostsim::Sink().Count("Task with priority 0 inserted into task queue!"));

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (hostsim::Sink().Count("Ready event SET for message log cache cabinet") < 2 &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_EQ(2u, hostsim::Sink().Count(
                    "Request message log using CM_LogMessageArgumentsRead broadcast..."));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           : Ready event SET for message log cache cabinet 0"));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           : Ready event SET for message log cache cabinet 5"));
}

TEST_F(ModuleE2ETest, CreateStartRescanDeleteCycles_AreClean) {
  host_.AddModule(kMidA).SetInstanceCount(0x0300, 0, 0, 3);
  host_.AddModule(kMidB).SetInstanceCount(0x0300, 0, 0, 2);
  for (int round = 0; round < 3; ++round) {
    StartWithCabinets(0, {1, 2});
    module_->Rescan();
    if (round == 1) module_->Stop();
    EXPECT_EQ(1u, Lib().destroy());
    module_ = nullptr;
  }
  EXPECT_EQ(3u, hostsim::Sink().Count(".. Module destroyed successfully!"));
}

}  // namespace
