// em_oidmap.so as a host sees it: loaded with dlopen, created through EM_Create, driven
// by vtable slots over hostsim's simulated modules, judged by what reaches the host (sent
// requests, handed-back messages, trace lines in the exported Debug sink). The test
// executable replaces the global allocation functions (the module binds to them like to
// any host's), so that one allocation can be made to fail.
#if defined(__GNUC__) && !defined(__clang__)
// GCC pairs the inlined replacements with each other and takes free() for a mismatch.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "E2EHost.h"

namespace {

// The next allocation of at least this many bytes throws; 0: none does.
std::atomic<size_t> g_fail_allocation_of{0};

}  // namespace

void* operator new(std::size_t size) {
  size_t limit = g_fail_allocation_of.load();
  if (limit != 0 && size >= limit && g_fail_allocation_of.compare_exchange_strong(limit, 0)) {
    throw std::bad_alloc();
  }
  if (void* p = std::malloc(size != 0 ? size : 1)) return p;
  throw std::bad_alloc();
}
// Every other plain form goes through the one above, so that no allocation of one
// allocator is ever freed by another (the sanitizers check that).
void* operator new[](std::size_t size) { return ::operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return ::operator new(size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
  return ::operator new(size, tag);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }

namespace em_oidmap::e2e {
namespace {

class ModuleE2ETest : public ModuleHostTest {
 protected:
  // Count broadcasts the module sent for cabinet `ca`, one per distinct count opcode.
  size_t CountBroadcasts(const SimHost& host, uint32_t ca) const {
    size_t n = 0;
    for (const auto& sent : host.SentRequests()) {
      SipJson msg;
      msg.Parse(sent.json);
      const uint32_t oc = msg.GetOpcode(sent.index);
      if (msg.GetKey(sent.index, "MI") == 0xFFFFFFFF && msg.GetKey(sent.index, "CA") == ca &&
          (oc == 0x0300 || oc == 0x0400 || oc == 0x0500 || oc == 0x0520 || oc == 0xF041 ||
           oc == 0x0C21)) {
        ++n;
      }
    }
    return n;
  }
};

TEST_F(ModuleE2ETest, EntryPoints_CreateOnceDeleteOnce) {
  EXPECT_STREQ("EM_OIDMAP", Lib().name());
  CIExtensionModule* first = nullptr;
  CIExtensionModule* second = nullptr;
  ASSERT_TRUE(Lib().create(&first, nullptr));
  ASSERT_TRUE(Lib().create(&second, nullptr));
  EXPECT_EQ(first, second);
  EXPECT_TRUE(Sink().HasLine("\nEM DLL (EM_OIDMAP ) : Create module"));
  EXPECT_TRUE(Sink().HasLine(
      "\nEM DLL (EM_OIDMAP ) : ## ERROR: Module already existing!\n"));

  EXPECT_EQ(1u, Lib().destroy());
  EXPECT_EQ(0u, Lib().destroy());
  EXPECT_TRUE(Sink().HasLine("\nEM DLL (EM_OIDMAP ) : Destroy module..."));
  EXPECT_TRUE(Sink().HasLine("\nEM DLL (EM_OIDMAP ) : .. Module destroyed successfully!"));
  EXPECT_TRUE(Sink().HasLine("\nEM DLL (EM_OIDMAP ) : Module already destroyed!"));

  // A new create after a delete builds a new object, which works.
  ASSERT_NE(nullptr, Create());
  EXPECT_STREQ("EM_OIDMAP", module_->GetModuleTag());
}

// A module object whose construction throws: the exception is the host's to see, and the
// entry points are left as if nothing had been created.
TEST_F(ModuleE2ETest, ConstructorThrows_ExceptionReachesHostAndNothingIsKept) {
  // The module object is the first large allocation of EM_Create.
  g_fail_allocation_of = 1024;
  CIExtensionModule* module = nullptr;
  EXPECT_THROW(Lib().create(&module, nullptr), std::bad_alloc);
  EXPECT_EQ(0u, g_fail_allocation_of.load()) << "the allocation failed";
  EXPECT_TRUE(Sink().HasLine("\nEM DLL (EM_OIDMAP ) : Create module"));
  EXPECT_FALSE(Sink().Contains("Module could not be created"));

  EXPECT_EQ(0u, Lib().destroy()) << "no module was kept";
  ASSERT_TRUE(Lib().create(&module, nullptr));
  EXPECT_NE(nullptr, module);
  EXPECT_EQ(1u, Lib().destroy());
}

TEST_F(ModuleE2ETest, SetupAction_ReportsEveryCallAndReturnsOne) {
  EXPECT_EQ(1u, Lib().setup(2));
  EXPECT_EQ(1u, Lib().setup(0));
  EXPECT_EQ(1u, Lib().setup(5));
  EXPECT_TRUE(Sink().HasLine(
      "\n\nEM_OIDMAP           : ## Setup action \"RESTORE\" call - no action function defined\n"));
  EXPECT_TRUE(Sink().HasLine(
      "\n\nEM_OIDMAP           : ## ERROR! Setup action call with unknown action type (0) - no "
      "action defined!\n"));
  EXPECT_TRUE(Sink().Contains("unknown action type (5)"));
}

TEST_F(ModuleE2ETest, ConstructionAndDestruction_TraceInOrder) {
  Create();
  Destroy();
  const auto lines = Sink().Lines();
  // Each pair of "-> " and "<- " lines only brackets its call: the second follows at once.
  const char* const order[] = {
      "\nEM DLL (EM_OIDMAP ) : Create module", "\nCTaskSerializer     : Enable all Tasks",
      "\nEM_OIDMAP           : -> Constructor...", "+\nEM_OIDMAP           : <- Constructor",
      "\nEM DLL (EM_OIDMAP ) : Destroy module...", "\nEM_OIDMAP           : -> Destructor...",
      "+\nEM_OIDMAP           : <- Destructor", "\nCMsgLogCache        : <- Destructor",
      "\nEM DLL (EM_OIDMAP ) : .. Module destroyed successfully!"};
  size_t at = 0;
  for (const char* line : order) {
    const bool next = *line == '+';
    const auto found = std::find(lines.begin() + at, lines.end(), line + (next ? 1 : 0));
    ASSERT_NE(lines.end(), found) << line;
    if (next) {
      EXPECT_EQ(at, static_cast<size_t>(found - lines.begin())) << line;
    }
    at = static_cast<size_t>(found - lines.begin()) + 1;
  }
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
  EXPECT_TRUE(Traced("*** SCN_POWERSTATE_RESUME *** \n"));

  // A message log scan without a host: nothing answers, the cabinet's cache is made
  // ready all the same.
  SipJson task(0x0B16, 0, 0, 3);
  CallSlot<void, SipJson*, int32_t>(obj, 25, &task, 0);
  EXPECT_TRUE(Traced("Ready event SET for message log cache cabinet 3"));
  EXPECT_FALSE(Sink().Contains("Request message log using CM_LogEntry"));

  std::array<unsigned char, 245> short_info{};
  const uint32_t short_size = 245;
  std::memcpy(short_info.data(), &short_size, 4);
  EXPECT_EQ(0u, module_->GetModuleInfo(short_info.data()));
  EXPECT_EQ(0, short_info[46]);
}

TEST_F(ModuleE2ETest, Start_CabinetsExaminedAndMappingDecided) {
  auto cabinets = [](uint32_t n) {
    std::vector<uint32_t> list(n);
    for (uint32_t i = 0; i < n; ++i) list[i] = i + 1;
    return list;
  };
  struct Case {
    uint32_t server;
    std::vector<uint32_t> se;
    bool enumOk;
    uint32_t fansOfB;  // 0: B answers no count request (ST 0x01 replies do not count)
    size_t checked;
    std::vector<std::string> lines;  // after the module's tag unless they start a line
    std::vector<const char*> absent;
  };
  const Case cases[] = {
      {4, {}, true, 0, 1,
       {"## Start", "## Server's cabinet number = 4", "0 SE cabinet(s) detected...",
        "\n                    :      Check OID mapping for cabinet 4",
        "Init message log cache cabinet 4",
        "Mapping for opcode 0x0300-0x0000 was already requested",
        "1 valid replies received for count opcode 0x0300-0x0000", "OID mapping NOT needed!",
        "SEL resolution help desk message: \"Call the service desk at 555-0100\" (from config "
        "space)",
        "## Start completed! ##"},
       {"required!", "No SE cabinets found"}},
      {0, {7, 8}, false, 0, 1, {"No SE cabinets found"}, {"add cabinet"}},
      {0, {11, 12}, true, 0, 3,
       {"2 SE cabinet(s) detected...", "      add cabinet 11", "      add cabinet 12"}, {}},
      {0, cabinets(99), true, 0, 100, {}, {"cabinet list overflow"}},
      {0, cabinets(100), true, 0, 100,
       {"\n\nEM_OIDMAP           : ## ERROR: cabinet list overflow; rest ignored!!\n",
        "      add cabinet 99"},
       {"add cabinet 100"}},
      {0, {}, true, 2, 1,
       {"2 valid replies received for count opcode 0x0300-0x0000",
        "Mapping for OC 0x0300 required!", "OID mapping needed!",
        "Add map table entry 0 for opcode 0x0300-0x0000",
        "Counter OC 0x0300: Map instance id 0x0001 to MID 0x00020001 (added OID entry)"},
       {"NOT needed"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << &c - cases);
    SimHost host;
    SimModule& a = host.AddModule(kMidA);
    a.SetInstanceCount(0x0300, 0, c.server, 3);
    a.SetConfigText(0x211, "Call the service desk at 555-0100");
    SimModule& b = host.AddModule(kMidB);
    if (c.fansOfB != 0) b.SetInstanceCount(0x0300, 0, c.server, c.fansOfB);
    host.SetSeCabinets(c.se, c.enumOk);
    Sink().Clear();
    StartOn(host, c.server);
    EXPECT_EQ(c.checked, Sink().Count("Check OID mapping for cabinet"));
    EXPECT_EQ(c.checked, Sink().Count("Init message log cache cabinet"));
    const uint32_t last = c.checked == 1 ? c.server : c.se[c.checked - 2];
    EXPECT_EQ(7u, CountBroadcasts(host, last)) << "each names its cabinet " << last;
    for (const std::string& line : c.lines) {
      EXPECT_TRUE(Sink().HasLine(line[0] == '\n' ? line : "\nEM_OIDMAP           : " + line))
          << line;
    }
    for (const char* text : c.absent) EXPECT_FALSE(Sink().Contains(text)) << text;
    EXPECT_TRUE(Sink().Contains("CThread::SetThreadName: ThreadId = 0x00000000, DebugName = "));
    Destroy();
  }
}

TEST_F(ModuleE2ETest, Rescan_ProbesIdentLanguagesAndQueuesOneScanPerCabinet) {
  SimModule& mod = host_.AddModule(kMidA);
  mod.AddRule(Rule(0x0B20, R"({"RAW":[9,4,7,4,9,4,12]})"));
  StartWithCabinets(0, {5});
  Sink().Clear();
  module_->Rescan();

  EXPECT_TRUE(Traced("EM_IDENT not present using KTAS fallback logic"));
  EXPECT_EQ(2u, Sink().Count("Supported SEL language: LangId 0x409"));
  EXPECT_EQ(1u, Sink().Count("Supported SEL language: LangId 0x407"));
  EXPECT_EQ(3u, Sink().Count("Supported SEL language"))
      << "the odd last byte is not a language";
  EXPECT_EQ(2u, Sink().Count("Task with priority 0 inserted into task queue!"));

  EXPECT_TRUE(WaitForTrace("Ready event SET for message log cache cabinet", 2));
  EXPECT_EQ(2u, Sink().Count(
                    "Request message log using CM_LogMessageArgumentsRead broadcast..."));
  EXPECT_TRUE(Traced("Ready event SET for message log cache cabinet 0"));
  EXPECT_TRUE(Traced("Ready event SET for message log cache cabinet 5"));
}

}  // namespace
}  // namespace em_oidmap::e2e
