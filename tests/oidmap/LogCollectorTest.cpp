// The log collector over hostsim: what the log scans leave in a cabinet's cache (read
// through ReadEntries), and snapshots taken while a scan and log events store.
#include "oidmap/LogCollector.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ComponentHost.h"
#include "hostsim/SimLog.h"
#include "tests/support/TestSupport.h"
#include "trace/DebugClient.h"

namespace em_oidmap {
namespace {

using hostsim::EncodeLog;
using hostsim::OldStyle;
using hostsim::Unified;

constexpr uint32_t kMidA = 0x00010001;
constexpr uint32_t kMidB = 0x00020001;

void Scan(CLogCollector& collector, uint32_t taskOc) {
  if (taskOc == 0x0B16) {
    collector.RunMessageLogScan(0);
  } else {
    collector.RunLogScan(0);
  }
}

class LogCollectorTest : public test_support::TracedTest<3> {};

// The commands a module received, each as a message of its own (none for no module).
std::vector<SipJson> Commands(const hostsim::SimModule* module) {
  std::vector<SipJson> commands;
  if (module == nullptr) return commands;
  for (const std::string& received : module->Received()) {
    commands.emplace_back();
    EXPECT_TRUE(commands.back().Parse("{\"SIP\":{\"V\":1,\"CMD\":[" + received + "]}}"));
  }
  return commands;
}

std::vector<MsgLogEntry> Entries(CLogStore& store) {
  std::vector<MsgLogEntry> copy;
  store.ReadEntries(0, [&](const MsgLogEntryList& entries, uint32_t) {
    copy.assign(entries.begin(), entries.end());
  });
  return copy;
}

TEST_F(LogCollectorTest, LogScans_StoreEveryModulesRecordsInOrder) {
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
    const char* line = nullptr;  // a trace line the scan writes
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
      // Of the old-style logs, only a refused error log's line tells the status.
      {"a module that keeps its event log only",
       0x0B16,
       {{kMidA, 0x0B16, {}, EncodeLog({Unified(0x10, 3)})},
        {kMidB, 0x0B00, 1u, EncodeLog({OldStyle(0x0C01, 1, 5)})}},
       {0x10, 0x0C01},
       {kMidA, kMidB},
       "MID 0x00020001: CM_LogEntry (CMOID_CriticalErrorLog) - not supported (Status: 0x1)"},
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
    ComponentHost<> h;
    for (const Log& log : c.logs) {
      hostsim::SimModule* module = h.host.FindModule(log.mid);
      (module != nullptr ? *module : h.host.AddModule(log.mid)).SetLog(log.oc, log.oi, log.records);
    }
    h.StartUp();
    Scan(h.collector, c.task);
    if (c.line != nullptr) {
      EXPECT_TRUE(hostsim::Sink().HasLine(std::string("\nEM_OIDMAP           : ") + c.line));
    }
    std::vector<MsgLogEntry> entries = Entries(h.store);
    ASSERT_EQ(c.codes.size(), entries.size());
    for (uint32_t i = 0; i < entries.size(); ++i) {
      EXPECT_EQ(c.codes[i], entries[i].ErrorCode) << i;
      EXPECT_EQ(c.mids[i], entries[i].ModuleId) << i;
      EXPECT_EQ(i + 1, entries[i].SequenceNumber);
      if (entries[i].ErrorCode == 0x3F00) {
        EXPECT_EQ(88u, entries[i].RawRecord().size());
        EXPECT_EQ(1, entries[i].OldStyle);
      }
    }
    EXPECT_TRUE(h.collector.IsLogDataSupported());
    EXPECT_TRUE(h.store.WaitForReady(0, 0));
    // Old-style logs are asked for with OE 0, and not of a module that answered the
    // broadcast.
    for (const uint32_t mid : {kMidA, kMidB}) {
      for (const SipJson& msg : Commands(h.host.FindModule(mid))) {
        if (msg.GetOpcode(0) != 0x0B00) continue;
        EXPECT_EQ(0u, msg.GetKey(0, "OE"));
        EXPECT_FALSE(c.task == 0x0B16 && mid == kMidA);
      }
    }
    Scan(h.collector, c.task);
    entries = Entries(h.store);
    EXPECT_EQ(2 * c.codes.size(), entries.size()) << "a second scan appends";
    EXPECT_EQ(entries.size(), entries.back().SequenceNumber);
  }
}

TEST_F(LogCollectorTest, MappingNeeded_LogRecordsGetGlobalIdsAndLookupsAskTheOwner) {
  // Fans: A has 3 (global 0..2), B has 2 (global 3..4); B logs about its fan 1.
  ComponentHost<> h;
  h.host.AddModule(kMidA).SetInstanceCount(0x0300, 0, 0, 3);
  hostsim::SimModule& b = h.host.AddModule(kMidB);
  b.SetInstanceCount(0x0300, 0, 0, 2);
  b.SetLog(0x0B00, 0u, EncodeLog({OldStyle(0x0401, 1, 1)}));
  h.StartUp();
  ASSERT_TRUE(h.mapper.IsMappingNeeded());
  Scan(h.collector, 0x0B16);
  const std::vector<MsgLogEntry> entries = Entries(h.store);
  ASSERT_EQ(1u, entries.size());
  EXPECT_EQ(4, entries[0].RawRecord().at(10) | entries[0].RawRecord().at(11) << 8);
  std::multiset<uint32_t> asked;  // CSS and designation requests
  for (const SipJson& msg : Commands(&b)) {
    const uint32_t oc = msg.GetOpcode(0);
    if (oc != 0x0307 && oc != 0x0304) continue;
    EXPECT_EQ(1u, msg.GetKey(0, "OI")) << std::hex << oc;
    EXPECT_EQ(kMidB, msg.GetKey(0, "MI")) << std::hex << oc;
    asked.insert(oc);
  }
  EXPECT_EQ((std::multiset<uint32_t>{0x0304, 0x0307}), asked);
}

// Snapshots taken while a scan and events on two threads store (ThreadSanitizer's case;
// that every entry is kept and numbered once is the end-to-end suite's): each is ordered,
// within the cap and ends at the last number handed out.
TEST_F(LogCollectorTest, ConcurrentEventsScanAndReader_SnapshotsWhole) {
  TraceClient().SetTraceLevel(0);
  std::vector<hostsim::SimUnifiedRecord> scanned;
  for (uint32_t i = 0; i < 200; ++i) scanned.push_back(Unified(0x100000 + i, i + 1));
  ComponentHost<> h;
  h.host.AddModule(kMidA).SetLog(0x0B16, std::nullopt, EncodeLog(scanned));
  h.StartUp();
  std::atomic<bool> done{false};
  std::atomic<int> bad_snapshots{0};
  std::thread reader([&] {
    while (!done.load()) {
      h.store.ReadEntries(0, [&](const MsgLogEntryList& entries, uint32_t last) {
        bool ok = entries.size() <= kMaxMsgLogEntries &&
                  (entries.empty() || entries.back().SequenceNumber == last);
        for (size_t i = 1; i < entries.size(); ++i) {
          ok = ok && entries[i - 1].SequenceNumber < entries[i].SequenceNumber;
        }
        if (!ok) ++bad_snapshots;
      });
    }
  });
  std::vector<std::thread> writers;
  writers.emplace_back([&] {
    for (int s = 0; s < 3; ++s) Scan(h.collector, 0x0B16);
  });
  for (uint32_t thread = 1; thread <= 2; ++thread) {
    writers.emplace_back([&, thread] {
      for (uint32_t i = 0; i < 300; ++i) {
        SipJson event(0x0B16, 0, 0, 0);  // a log event as the reply handler passes it on
        event.SetRawData(Unified(thread * 0x1000 + i, i + 1).Encode(), 0xFF);
        h.collector.CollectFromMessage(event);
      }
    });
  }
  for (std::thread& writer : writers) writer.join();
  done = true;
  reader.join();
  EXPECT_EQ(0, bad_snapshots.load());
  EXPECT_EQ(3 * 200 + 2 * 300u, Entries(h.store).size());
}

}  // namespace
}  // namespace em_oidmap
