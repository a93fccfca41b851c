// The module object in-process over hostsim's modules: what start-up and re-scans decide,
// what the log scans leave in a cabinet's cache (read through ReadEntries), and log events
// stored from several threads while a scan runs and a reader takes snapshots.
#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "hostsim/DebugSink.h"
#include "hostsim/SimHost.h"
#include "hostsim/SimLog.h"
#include "trace/DebugClient.h"
#include "oidmap/OidMapExtModule.h"

namespace em_oidmap {

namespace {

using hostsim::EncodeLog;
using hostsim::OldStyle;
using hostsim::Unified;

constexpr uint32_t kMidA = 0x00010001;
constexpr uint32_t kMidB = 0x00020001;

hostsim::ReplyRule Answer(uint32_t oc, const char* da) {
  hostsim::ReplyRule rule;
  rule.oc = oc;
  rule.dataJson = da;
  return rule;
}

void Start(hostsim::SimHost& host, COidMapExtModule& module) {
  module.SetServerCabinet(0);
  ASSERT_EQ(1u, module.Start(&host, host.Attach(&module)));
}

void Scan(COidMapExtModule& module, uint32_t taskOc) {
  SipJson task(taskOc, 0, 0, 0);
  module.OnTaskExecution(task, 0);
}

std::vector<MsgLogEntry> Entries(COidMapExtModule& module) {
  std::vector<MsgLogEntry> copy;
  module.MsgLogCache().ReadEntries(0, [&](const MsgLogEntryList& entries, uint32_t) {
    copy.assign(entries.begin(), entries.end());
  });
  return copy;
}

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
};

TEST_F(OidMapExtModuleTest, StatusesGivenAsText_CountAsValid) {
  TextStatusHost host;
  host.AddModule(kMidA).SetInstanceCount(0x0300, 0, 0, 3);
  host.AddModule(kMidB).SetInstanceCount(0x0300, 0, 0, 2);
  COidMapExtModule module;
  Start(host, module);
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM_OIDMAP           : Got SIP status 0x0C"));
  EXPECT_TRUE(module.IsMappingNeeded());
  ASSERT_NE(nullptr, module.MapTable().Find(0x0300, 0, 0));
  EXPECT_EQ(5u, module.MapTable().Find(0x0300, 0, 0)->Count());
}

TEST_F(OidMapExtModuleTest, Rescan_FallbackAndLanguagesFollowTheLatestAnswers) {
  hostsim::SimHost host;
  hostsim::SimModule& ident = host.AddModule(kMidA);
  COidMapExtModule module;
  Start(host, module);
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
  for (const auto& c : cases) {
    ident.ClearRules();
    if (c.probe != nullptr) {
      ident.AddRule(Answer(0x0B18, c.probe));
      ident.AddRule(Answer(0x0B20, c.languages));
    }
    module.Rescan();
    EXPECT_EQ(c.fallback, module.IsKtasFallback()) << c.languages;
    EXPECT_EQ(c.supported, module.SupportedSelLanguages()) << c.languages;
  }
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

TEST_F(OidMapExtModuleTest, LogScans_StoreEveryModulesRecordsInOrder) {
  struct Log {
    uint32_t mid, oc;
    std::optional<uint32_t> oi;
    std::vector<uint8_t> records;
  };
  const struct {
    const char* name;
    uint32_t task;
    std::vector<Log> logs;
    std::vector<uint32_t> codes, mids;
  } cases[] = {
      {"unified replies merged: a 0 goes with the value after it",
       0x0B16,
       {{kMidA, 0x0B16, {}, EncodeLog({Unified(0x10, 5), Unified(0x11, 9)})},
        {kMidB, 0x0B16, {}, EncodeLog({Unified(0x20, 7), Unified(0x21, 0), Unified(0x22, 12)})}},
       {0x10, 0x20, 0x11, 0x21, 0x22},
       {kMidA, kMidB, kMidA, kMidB, kMidB}},
      // An inline-text record of 20 arguments (88 bytes) in B's error log, one short record
      // in its event log; A answered the broadcast and is not asked again.
      {"a module without unified log asked for its old-style logs after",
       0x0B16,
       {{kMidA, 0x0B16, {}, EncodeLog({Unified(0x10, 3)})},
        {kMidB, 0x0B00, 0u, EncodeLog({OldStyle(0x3F00, 2, 0, 0, std::vector<uint32_t>(19, 1))})},
        {kMidB, 0x0B00, 1u, EncodeLog({OldStyle(0x0C01, 1, 5)})}},
       {0x10, 0x3F00, 0x0C01},
       {kMidA, kMidB, kMidB}},
      {"the log scan: both logs of every module",
       0x0B10,
       {{kMidA, 0x0B00, 0u, EncodeLog({OldStyle(0x0401, 2), OldStyle(0x0402, 6)})},
        {kMidA, 0x0B00, 1u, EncodeLog({OldStyle(0x0403, 1)})},
        {kMidB, 0x0B00, 0u, EncodeLog({OldStyle(0x0501, 4)})}},
       {0x0401, 0x0501, 0x0402, 0x0403},
       {kMidA, kMidB, kMidA, kMidA}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    hostsim::SimHost host;
    for (const Log& log : c.logs) {
      hostsim::SimModule* module = host.FindModule(log.mid);
      (module != nullptr ? *module : host.AddModule(log.mid)).SetLog(log.oc, log.oi, log.records);
    }
    COidMapExtModule module;
    Start(host, module);
    Scan(module, c.task);
    std::vector<MsgLogEntry> entries = Entries(module);
    ASSERT_EQ(c.codes.size(), entries.size());
    for (uint32_t i = 0; i < entries.size(); ++i) {
      EXPECT_EQ(c.codes[i], entries[i].ErrorCode) << i;
      EXPECT_EQ(c.mids[i], entries[i].ModuleId) << i;
      EXPECT_EQ(i + 1, entries[i].SequenceNumber);
      if (entries[i].ErrorCode == 0x3F00) {
        EXPECT_EQ(88u, entries[i].RawRecord.size());
        EXPECT_EQ(1, entries[i].OldStyle);
      }
    }
    EXPECT_TRUE(module.IsLogDataSupported());
    EXPECT_TRUE(module.MsgLogCache().WaitForCacheReady(0, 0));
    for (const std::string& received : host.FindModule(kMidA)->Received()) {
      if (c.task == 0x0B16) {
        EXPECT_EQ(std::string::npos, received.find("\"OC\":2816"));  // 0x0B00
      }
    }
    Scan(module, c.task);
    entries = Entries(module);
    EXPECT_EQ(2 * c.codes.size(), entries.size()) << "a second scan appends";
    EXPECT_EQ(entries.size(), entries.back().SequenceNumber);
  }
}

TEST_F(OidMapExtModuleTest, MappingNeeded_LogRecordsGetGlobalIdsAndLookupsAskTheOwner) {
  // Fans: A has 3 (global 0..2), B has 2 (global 3..4); B logs about its fan 1.
  hostsim::SimHost host;
  host.AddModule(kMidA).SetInstanceCount(0x0300, 0, 0, 3);
  hostsim::SimModule& b = host.AddModule(kMidB);
  b.SetInstanceCount(0x0300, 0, 0, 2);
  b.SetLog(0x0B00, 0u, EncodeLog({OldStyle(0x0401, 1, 1)}));
  COidMapExtModule module;
  Start(host, module);
  ASSERT_TRUE(module.IsMappingNeeded());
  Scan(module, 0x0B16);
  const std::vector<MsgLogEntry> entries = Entries(module);
  ASSERT_EQ(1u, entries.size());
  EXPECT_EQ(4, entries[0].RawRecord.at(10) | entries[0].RawRecord.at(11) << 8);
  std::multiset<uint32_t> asked;  // CSS and designation requests
  for (const std::string& received : b.Received()) {
    SipJson msg;
    ASSERT_TRUE(msg.Parse("{\"SIP\":{\"V\":1,\"CMD\":[" + received + "]}}"));
    const uint32_t oc = msg.GetOpcode(0);
    if (oc != 0x0307 && oc != 0x0304) continue;
    EXPECT_EQ(1u, msg.GetKey(0, "OI")) << std::hex << oc;
    EXPECT_EQ(kMidB, msg.GetKey(0, "MI")) << std::hex << oc;
    asked.insert(oc);
  }
  EXPECT_EQ((std::multiset<uint32_t>{0x0304, 0x0307}), asked);
}

TEST_F(OidMapExtModuleTest, ConcurrentEventsScanAndReader_NoEntryLostOrRepeated) {
  TraceClient().SetTraceLevel(0);
  constexpr uint32_t kScans = 3;
  constexpr uint32_t kScanEntries = 200;
  constexpr uint32_t kEventsPerThread = 300;
  std::vector<hostsim::SimUnifiedRecord> scanned;
  for (uint32_t i = 0; i < kScanEntries; ++i) scanned.push_back(Unified(0x100000 + i, i + 1));
  hostsim::SimHost host;
  host.AddModule(kMidA).SetLog(0x0B16, std::nullopt, EncodeLog(scanned));
  COidMapExtModule module;
  Start(host, module);

  std::atomic<bool> done{false};
  std::atomic<int> bad_snapshots{0};
  std::atomic<int> snapshots{0};
  std::thread reader([&] {
    while (!done.load()) {
      module.MsgLogCache().ReadEntries(0, [&](const MsgLogEntryList& entries, uint32_t last) {
        bool ok = entries.size() <= kMaxMsgLogEntries &&
                  (entries.empty() || entries.back().SequenceNumber == last);
        for (size_t i = 1; i < entries.size(); ++i) {
          ok = ok && entries[i - 1].SequenceNumber < entries[i].SequenceNumber;
        }
        if (!ok) ++bad_snapshots;
        ++snapshots;
      });
    }
  });
  std::thread scanner([&] {
    for (uint32_t s = 0; s < kScans; ++s) Scan(module, 0x0B16);
  });
  auto events = [&](uint32_t thread) {
    for (uint32_t i = 0; i < kEventsPerThread; ++i) {
      SipJson event(0x0B16, 0, 0, 0);
      event.SetRawData(Unified(thread * 0x1000 + i, i + 1).Encode(), 0xFF);
      host.DeliverEvent(kMidB, event);
    }
  };
  std::thread events1(events, 1);
  std::thread events2(events, 2);
  events1.join();
  events2.join();
  scanner.join();
  done = true;
  reader.join();

  EXPECT_EQ(0, bad_snapshots.load());
  EXPECT_GT(snapshots.load(), 0);
  const std::vector<MsgLogEntry> entries = Entries(module);
  const uint32_t total = kScans * kScanEntries + 2 * kEventsPerThread;
  ASSERT_EQ(total, entries.size());
  std::multiset<uint32_t> codes;
  for (uint32_t i = 0; i < total; ++i) {
    EXPECT_EQ(i + 1, entries[i].SequenceNumber);
    codes.insert(entries[i].ErrorCode);
  }
  for (uint32_t i = 0; i < kEventsPerThread; ++i) {
    EXPECT_EQ(1u, codes.count(0x1000 + i));
    EXPECT_EQ(1u, codes.count(0x2000 + i));
  }
  for (uint32_t i = 0; i < kScanEntries; ++i) EXPECT_EQ(kScans, codes.count(0x100000 + i));
  module.Stop();
}

}  // namespace

}  // namespace em_oidmap
