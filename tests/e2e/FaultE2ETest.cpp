// Faults played through em_oidmap.so as a host meets them: lower modules that time out,
// answer late, write their status as odd text, send data of the wrong type, 10 MB of log
// or 50,000 replies to one broadcast; stop and switch shutdown in the middle of start,
// re-scan and a running scan; EM_Delete with scans queued; events on host threads. Every
// case ends with the module deleted and no thread of it left behind.
#include <dirent.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "E2EHost.h"

namespace em_oidmap::e2e {
namespace {

constexpr uint32_t kSwitchShutdown = 0x20000;

size_t ThreadCount() {
  size_t n = 0;
  if (DIR* dir = opendir("/proc/self/task")) {
    while (const dirent* entry = readdir(dir)) {
      if (entry->d_name[0] != '.') ++n;
    }
    closedir(dir);
  }
  return n;
}

// The thread count once it has settled at `expected`, or after 2 s: a joined thread can
// still be listed for a moment, since the kernel wakes the joiner before it reaps the task.
size_t ThreadCountSettled(size_t expected) {
  size_t n = ThreadCount();
  for (int i = 0; i < 200 && n != expected; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    n = ThreadCount();
  }
  return n;
}

// A: two fans and two unified log entries. B: three fans and one entry of its own.
void AddWellFormedModules(SimHost& host) {
  SimModule& a = host.AddModule(kMidA);
  a.SetInstanceCount(kFanCount, 0, 0, 2);
  a.SetLog(0x0B16, std::nullopt, EncodeLog({Unified(0xA1, 10, {"a"}), Unified(0xA2, 20)}));
  SimModule& b = host.AddModule(kMidB);
  b.SetInstanceCount(kFanCount, 0, 0, 3);
  b.SetLog(0x0B16, std::nullopt, EncodeLog({Unified(0xB1, 15)}));
  b.AddRule(Rule(kFanGet, "\"B\""));
}

class FaultE2ETest : public ModuleHostTest {
 protected:
  void SetUp() override {
    ModuleHostTest::SetUp();
    // A sanitizer's own helper thread starts with the process's first new thread.
    std::thread([] {}).join();
    threads_ = ThreadCount();
    // Read when a module is created: no query of these tests waits long on a cache.
    setenv("EM_OIDMAP_CACHE_WAIT_MS", "5000", 1);
  }
  void TearDown() override {
    ModuleHostTest::TearDown();
    unsetenv("EM_OIDMAP_CACHE_WAIT_MS");
    EXPECT_EQ(threads_, ThreadCountSettled(threads_)) << "a thread outlived EM_Delete";
  }

  // Scans of 10 MB or 50,000 replies take minutes under ThreadSanitizer.
  void RescanAndWait() { ModuleHostTest::RescanAndWait(600); }

  // The opcodes that start, re-scan and a message log scan send to these modules.
  std::set<uint32_t> OpcodesSent() {
    SimHost host;
    AddWellFormedModules(host);
    StartOn(host);
    RescanAndWait();
    std::set<uint32_t> ocs;
    for (const auto& sent : host.SentRequests()) {
      SipJson msg;
      msg.Parse(sent.json);
      ocs.insert(msg.GetOpcode(sent.index));
    }
    Destroy();
    return ocs;
  }

  size_t threads_ = 0;
};

// Module B misbehaves on its own; A's entries are always kept, B's whenever it delivered
// them well formed, and the module answers every query.
TEST_F(FaultE2ETest, LowerModuleFaults_DefinedAnswersAndWellFormedEntriesKept) {
  const std::set<uint32_t> ocs = OpcodesSent();
  ASSERT_TRUE(ocs.count(0x0B16) && ocs.count(kFanCount) && ocs.count(0x0B18)) << ocs.size();
  auto onEvery = [&ocs](std::function<void(hostsim::ReplyRule&)> set) {
    return [&ocs, set](SimModule& b) {
      for (uint32_t oc : ocs) {
        hostsim::ReplyRule rule = Rule(oc, "");
        set(rule);
        b.AddFault(rule);
      }
    };
  };
  auto statusText = [&](const char* text) {
    return onEvery([text](hostsim::ReplyRule& r) { r.statusText = text; });
  };
  auto flood = [](uint32_t oc) {
    hostsim::ReplyRule rule = Rule(oc, "");
    rule.replies = 50000;
    return rule;
  };
  // 10 MB in records of about 64 KB, the most one unified record can hold.
  std::vector<hostsim::SimUnifiedRecord> big;
  for (uint32_t i = 0; i < 160; ++i) {
    big.push_back(Unified(0xB000 + i, 30 + i, {std::string(65400, 'x')}));
  }
  const std::vector<uint8_t> tenMegabytes = EncodeLog(big);
  ASSERT_GE(tenMegabytes.size(), 10u * 1000 * 1000);

  struct Case {
    const char* name;
    std::function<void(SimModule&)> fault;
    uint32_t entries;  // in cabinet 0's cache after the scan
    uint32_t lastFan;  // global index of B's last fan; 0: B's fans were not counted
  };
  const Case cases[] = {
      {"none", [](SimModule&) {}, 3, 4},
      {"times out on every opcode",
       onEvery([](hostsim::ReplyRule& r) { r.delayMs = hostsim::kNeverInTime; }), 2, 0},
      {"answers 20 ms late", onEvery([](hostsim::ReplyRule& r) { r.lateMs = 20; }), 3, 4},
      // Status text is read up to its first character that is no digit: these are 0.
      {"ST \" 7\"", statusText(" 7"), 3, 4},
      {"ST \"0x\"", statusText("0x"), 3, 4},
      {"ST \"-1\"", statusText("-1"), 3, 4},
      // Beyond 32 bits the value stays at 0xFFFFFFFF: no valid status, nothing taken.
      {"ST \"99999999999\"", statusText("99999999999"), 2, 0},
      {"count as text, log as a number",
       onEvery([](hostsim::ReplyRule& r) { r.wrongType = true; }), 2, 0},
      {"log as an object",
       [](SimModule& b) { b.AddFault(Rule(0x0B16, R"({"Speed":1})")); }, 2, 4},
      {"10 MB of log", [&](SimModule& b) { b.SetLog(0x0B16, std::nullopt, tenMegabytes); },
       2 + 160, 4},
      // Asked once for its old-style logs however often it says it has no unified one.
      {"50,000 refusals of one broadcast",
       [&](SimModule& b) {
         b.SetStatusOverride(0x0B16, 0x13);
         b.SetLog(0x0B00, 0u, EncodeLog({OldStyle(0x0401, 5)}));
         b.AddFault(flood(0x0B16));
       },
       3, 4},
      // Instances stay addressable by a 16-bit global index, and start goes on.
      {"50,000 answers of one count broadcast",
       [&](SimModule& b) { b.AddFault(flood(kFanCount)); }, 3, 0xFFFF},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Sink().Clear();
    SimHost host;
    AddWellFormedModules(host);
    c.fault(*host.FindModule(kMidB));
    StartOn(host);
    RescanAndWait();
    EXPECT_EQ(c.entries, AskValue(0x0B13));
    EXPECT_LE(SentWithOpcode(host, 0x0B00), 2u) << "one request per log and module";
    if (c.lastFan != 0) {
      EXPECT_EQ("B", DataText(Ask(kFanGet, 0, c.lastFan)));
      SipJson beyond(kFanGet, 0, c.lastFan + 1, 0);
      module_->OnRequest(beyond);
      EXPECT_EQ(0x01u, beyond.GetStatus(0)) << "no instance past the last";
    }
    Destroy();
    EXPECT_EQ(threads_, ThreadCountSettled(threads_));
  }
}

// Stop (slot 6) or the switch-shutdown notification arrives on another host thread while
// the module is in the middle of something; the request that is under way is answered.
TEST_F(FaultE2ETest, StopAndShutdownMidway_EndWithDefinedResults) {
  enum Phase { kStarting, kStart, kRescan, kScan };
  struct Case {
    const char* name;
    Phase phase;
    bool stop;  // else switch shutdown
  };
  const Case cases[] = {
      {"stop while start starts the worker", kStarting, true},
      {"stop during start", kStart, true},   {"shutdown during start", kStart, false},
      {"stop during re-scan", kRescan, true}, {"shutdown during re-scan", kRescan, false},
      {"stop during a scan", kScan, true},    {"shutdown during a scan", kScan, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Sink().Clear();
    SimHost host;
    AddWellFormedModules(host);
    Create();
    module_->SetServerCabinet(0);
    const uint64_t context = host.Attach(module_);

    std::atomic<bool> armed{c.phase == kStart};
    std::atomic<uint32_t> result{0xDEAD};
    std::thread action;
    host.SetRequestHook([&](const SipJson& request) {
      const bool scanRequest = request.GetOpcode(request.CurrentIndex()) == 0x0B16;
      if ((c.phase == kScan) != scanRequest || !armed.exchange(false)) return;
      CIExtensionModule* module = module_;
      action = std::thread([&result, module, &c] {
        result = c.stop ? CallSlot<uint32_t>(module, 6) : module->Notify(kSwitchShutdown, 0, 0);
      });
      if (c.phase == kScan && c.stop) {
        // Stop waits for this scan: let it begin, then finish the scan.
        EXPECT_TRUE(WaitForTrace("Disable all Tasks", 1));
      } else {
        action.join();
      }
    });
    if (c.phase == kStarting) {
      std::thread start([&] { EXPECT_EQ(1u, module_->Start(&host, context)); });
      EXPECT_TRUE(WaitForTrace("StartSerialization!", 1));
      result = CallSlot<uint32_t>(module_, 6);
      start.join();
    } else {
      ASSERT_EQ(1u, module_->Start(&host, context));
    }
    size_t broadcasts = 0;
    for (const auto& sent : host.SentRequests()) {
      if (sent.json.find("\"MI\":4294967295") != std::string::npos) ++broadcasts;
    }
    armed = c.phase == kRescan || c.phase == kScan;
    module_->Rescan();
    if (c.phase == kScan) {
      EXPECT_TRUE(WaitForTrace(kReadySet, 1));
      if (action.joinable()) action.join();
      EXPECT_EQ(3u, AskValue(0x0B13)) << "the running scan finished";
    }
    if (c.stop) {
      EXPECT_EQ(1u, result.load());
    }
    if (!c.stop && c.phase == kStart) {
      EXPECT_EQ(1u, broadcasts) << "start's checks end at the next row";
    }
    if (c.phase != kScan) {
      // Nothing runs any more: no scan was queued, or the worker is gone.
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      EXPECT_EQ(0u, SentWithOpcode(host, 0x0B16));
    }
    if (action.joinable()) action.join();
    host.SetRequestHook(nullptr);
    Destroy();
    EXPECT_EQ(threads_, ThreadCountSettled(threads_));
  }
}

// EM_Delete while one scan runs and four wait: it waits for the running one only, and the
// queued ones never run and are freed.
TEST_F(FaultE2ETest, DeleteWithScansQueuedAndOneRunning_WaitsForTheRunningOneOnly) {
  AddWellFormedModules(host_);
  hostsim::ReplyRule late = Rule(0x0B16, "");
  late.lateMs = 300;
  host_.FindModule(kMidA)->AddFault(late);
  StartWithCabinets(0, {1, 2, 3, 4});
  host_.ClearRecords();
  module_->Rescan();
  ASSERT_TRUE(host_.WaitForRequests(3, std::chrono::seconds(10)));  // probe, languages, scan
  const auto begin = std::chrono::steady_clock::now();
  Destroy();
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_EQ(1u, SentWithOpcode(host_, 0x0B16));
  EXPECT_LT(took, std::chrono::seconds(3));
}

// Create, start (and re-scan, or re-scan and stop) and delete, each pattern eight times: a
// thread left behind shows at the first cycle that leaves it. Races that need many more
// cycles are the soak's (its control thread cycles the module for the whole run).
TEST_F(FaultE2ETest, CreateStartDeleteCycles_LeaveNoThreadBehind) {
  AddWellFormedModules(host_);
  host_.SetSeCabinets({1, 2});
  for (int cycle = 0; cycle < 24; ++cycle) {
    SCOPED_TRACE(cycle);
    StartOn(host_);
    if (cycle % 3 != 0) module_->Rescan();
    if (cycle % 3 == 2) {
      EXPECT_EQ(1u, CallSlot<uint32_t>(module_, 6));
    }
    Destroy();
    ASSERT_EQ(threads_, ThreadCountSettled(threads_));
  }
}

// Log and fan events from host threads while start runs and while a scan stores: every
// event's entry is kept, each with its own sequence number.
TEST_F(FaultE2ETest, EventsOnHostThreadsDuringStartAndScan_EveryEntryKept) {
  AddWellFormedModules(host_);
  constexpr int kThreads = 3;
  constexpr int kEventsPerThread = 20;
  std::atomic<uint32_t> code{0x5000};
  auto deliverEvents = [&] {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&] {
        for (int e = 0; e < kEventsPerThread; ++e) {
          host_.DeliverEvent(kMidA, LogEvent(0x0B16, EncodeLog({Unified(code++, 1000)})));
          host_.DeliverEvent(kMidB, SipJson(kFanGet, 0, 1, 0));
        }
      });
    }
    for (auto& thread : threads) thread.join();
  };
  std::atomic<bool> duringScan{false};
  host_.SetRequestHook([&](const SipJson& request) {
    if (request.GetOpcode(request.CurrentIndex()) == 0x0B16 && duringScan.exchange(false)) {
      deliverEvents();
    }
  });
  Create();
  const uint64_t context = host_.Attach(module_);
  std::thread start([&] { EXPECT_EQ(1u, module_->Start(&host_, context)); });
  deliverEvents();
  start.join();
  duringScan = true;
  RescanAndWait();
  EXPECT_FALSE(duringScan.load());

  const uint32_t events = 2 * kThreads * kEventsPerThread;
  EXPECT_EQ(3 + events, AskValue(0x0B13)) << "the scan's three and every event's";
  const std::vector<uint32_t> fired = FiredSequenceNumbers(host_);
  EXPECT_EQ(fired.size(), std::set<uint32_t>(fired.begin(), fired.end()).size());
  EXPECT_EQ(3 + events, AskValue(0x0B12)) << "every number handed out once";
  host_.SetRequestHook(nullptr);
}

// Log events naming cabinets the module does not list: caches for them are made only up
// to a bound, while the listed cabinet and those already made go on taking entries.
TEST_F(FaultE2ETest, LogEventsForUnknownCabinets_CacheTableBounded) {
  StartWithCabinets(0, {});
  const std::vector<uint8_t> record = EncodeLog({Unified(0x77, 1)});
  for (uint32_t ca = 1000; ca < 1250; ++ca) host_.DeliverEvent(kMidA, LogEvent(0x0B16, record, ca));
  EXPECT_EQ(199u, FiredSequenceNumbers(host_).size()) << "200 caches with cabinet 0's";
  host_.DeliverEvent(kMidA, LogEvent(0x0B16, record, 1000));
  host_.DeliverEvent(kMidA, LogEvent(0x0B16, record, 0));
  const std::vector<uint32_t> fired = FiredSequenceNumbers(host_);
  ASSERT_EQ(201u, fired.size());
  EXPECT_EQ(2u, fired[199]) << "cabinet 1000's second entry";
  EXPECT_EQ(1u, fired[200]) << "the listed cabinet's first";
}

}  // namespace
}  // namespace em_oidmap::e2e
