// Log collection in-process over hostsim's modules: what the scans and log events leave
// in a cabinet's cache (read through ReadEntries), and stores from several threads while
// a reader takes snapshots.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "hostsim/DebugSink.h"
#include "hostsim/SimHost.h"
#include "hostsim/SimLog.h"
#include "module/DebugClient.h"
#include "oidmap/OidMapExtModule.h"

namespace {

using hostsim::EncodeLog;
using hostsim::OldStyle;
using hostsim::SimOldStyleRecord;
using hostsim::SimUnifiedRecord;
using hostsim::Unified;

constexpr uint32_t kMidA = 0x00010001;
constexpr uint32_t kMidB = 0x00020001;

std::vector<SimUnifiedRecord> UnifiedLog(uint32_t firstCode, const std::vector<uint32_t>& orders) {
  std::vector<SimUnifiedRecord> records;
  for (uint32_t order : orders) records.push_back(Unified(firstCode++, order));
  return records;
}

class LogCollectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TraceClient().SetTraceLevel(3);
    hostsim::Sink().Clear();
  }
  void TearDown() override { TraceClient().SetTraceLevel(0); }

  void Start() {
    module_.SetServerCabinet(0);
    ASSERT_EQ(1u, module_.Start(&host_, host_.Attach(&module_)));
  }

  void Scan(uint32_t taskOc, uint32_t cabinet = 0) {
    SipJson task(taskOc, 0, 0, cabinet);
    module_.OnTaskExecution(task, 0);
  }

  std::vector<MsgLogEntry> Entries(uint32_t cabinet = 0) {
    std::vector<MsgLogEntry> copy;
    module_.MsgLogCache().ReadEntries(
        cabinet, [&](const MsgLogEntryList& entries, uint32_t) { copy.assign(entries.begin(), entries.end()); });
    return copy;
  }

  hostsim::SimHost host_;
  COidMapExtModule module_;
};

TEST_F(LogCollectionTest, MessageLogScan_MergesRepliesByOrderValue) {
  host_.AddModule(kMidA).SetLog(0x0B16, std::nullopt, EncodeLog(UnifiedLog(0x10, {5, 9})));
  host_.AddModule(kMidB).SetLog(0x0B16, std::nullopt, EncodeLog(UnifiedLog(0x20, {7, 0, 12})));
  Start();
  Scan(0x0B16);
  std::vector<MsgLogEntry> entries = Entries();
  ASSERT_EQ(5u, entries.size());
  const uint32_t codes[] = {0x10, 0x20, 0x11, 0x21, 0x22};
  for (uint32_t i = 0; i < 5; ++i) {
    EXPECT_EQ(codes[i], entries[i].ErrorCode) << i;
    EXPECT_EQ(i + 1, entries[i].SequenceNumber);
  }
  EXPECT_EQ(kMidB, entries[1].ModuleId);
  EXPECT_TRUE(module_.IsLogDataSupported());
  EXPECT_TRUE(module_.MsgLogCache().WaitForCacheReady(0, 0));

  // Equal values: the earlier reply's entry first; a second scan appends.
  host_.FindModule(kMidA)->SetLog(0x0B16, std::nullopt, EncodeLog(UnifiedLog(0x30, {4})));
  host_.FindModule(kMidB)->SetLog(0x0B16, std::nullopt, EncodeLog(UnifiedLog(0x40, {4})));
  Scan(0x0B16);
  entries = Entries();
  ASSERT_EQ(7u, entries.size());
  EXPECT_EQ(0x30u, entries[5].ErrorCode);
  EXPECT_EQ(0x40u, entries[6].ErrorCode);
  EXPECT_EQ(7u, entries[6].SequenceNumber);
}

TEST_F(LogCollectionTest, ModulesWithoutUnifiedLog_AskedForOldStyleLogsOneByOne) {
  host_.AddModule(kMidA).SetLog(0x0B16, std::nullopt, EncodeLog(UnifiedLog(0x10, {3})));
  hostsim::SimModule& old = host_.AddModule(kMidB);
  // An inline-text record of 20 arguments (88 bytes) in the error log, one short record
  // in the event log.
  old.SetLog(0x0B00, 0u, EncodeLog({OldStyle(0x3F00, 2, 0, 0, std::vector<uint32_t>(19, 1))}));
  old.SetLog(0x0B00, 1u, EncodeLog({OldStyle(0x0C01, 1, 5)}));
  Start();
  Scan(0x0B16);
  const std::vector<MsgLogEntry> entries = Entries();
  ASSERT_EQ(3u, entries.size());
  EXPECT_EQ(0x10u, entries[0].ErrorCode) << "each collection is stored in its turn";
  EXPECT_EQ(0x3F00u, entries[1].ErrorCode);
  EXPECT_EQ(88u, entries[1].RawRecord.size());
  EXPECT_EQ(1, entries[1].OldStyle);
  EXPECT_EQ(0x0C01u, entries[2].ErrorCode);
  EXPECT_EQ(kMidB, entries[2].ModuleId);
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           : MID 0x00020001: CM_LogMessageArgumentsRead not supported"));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           : MID 0x00020001: CM_LogEntry (CMOID_NonCriticalMessageLog)"));
  size_t asked = 0;
  for (const std::string& received : host_.FindModule(kMidA)->Received()) {
    if (received.find("\"OC\":2816") != std::string::npos) ++asked;  // 0x0B00
  }
  EXPECT_EQ(0u, asked) << "a module that answered the broadcast is not asked again";
}

TEST_F(LogCollectionTest, LogScan_CollectsBothLogsOfEveryModule) {
  hostsim::SimModule& a = host_.AddModule(kMidA);
  a.SetLog(0x0B00, 0u, EncodeLog({OldStyle(0x0401, 2), OldStyle(0x0402, 6)}));
  a.SetLog(0x0B00, 1u, EncodeLog({OldStyle(0x0403, 1)}));
  host_.AddModule(kMidB).SetLog(0x0B00, 0u, EncodeLog({OldStyle(0x0501, 4)}));
  Start();
  Scan(0x0B10);
  std::vector<uint32_t> codes;
  for (const MsgLogEntry& e : Entries()) codes.push_back(e.ErrorCode);
  EXPECT_EQ((std::vector<uint32_t>{0x0401, 0x0501, 0x0402, 0x0403}), codes);
  EXPECT_FALSE(hostsim::Sink().Contains("No event log entries found"));
  EXPECT_TRUE(module_.IsLogDataSupported());
}

TEST_F(LogCollectionTest, MappingNeeded_RecordsGetGlobalIdsAndLookupsAskTheOwner) {
  // Fans: A has 3 (global 0..2), B has 2 (global 3..4); B logs about its fan 1.
  host_.AddModule(kMidA).SetInstanceCount(0x0300, 0, 0, 3);
  hostsim::SimModule& b = host_.AddModule(kMidB);
  b.SetInstanceCount(0x0300, 0, 0, 2);
  b.SetLog(0x0B00, 0u, EncodeLog({OldStyle(0x0401, 1, 1)}));
  Start();
  ASSERT_TRUE(module_.IsMappingNeeded());
  Scan(0x0B16);
  const std::vector<MsgLogEntry> entries = Entries();
  ASSERT_EQ(1u, entries.size());
  EXPECT_EQ(4, entries[0].RawRecord.at(10) | entries[0].RawRecord.at(11) << 8);
  size_t css = 0;
  size_t designation = 0;
  for (const std::string& received : b.Received()) {
    SipJson msg;
    ASSERT_TRUE(msg.Parse("{\"SIP\":{\"V\":1,\"CMD\":[" + received + "]}}"));
    const uint32_t oc = msg.GetOpcode(0);
    if (oc != 0x0307 && oc != 0x0304) continue;
    EXPECT_EQ(1u, msg.GetKey(0, "OI")) << std::hex << oc;
    EXPECT_EQ(kMidB, msg.GetKey(0, "MI")) << std::hex << oc;
    ++(oc == 0x0307 ? css : designation);
  }
  EXPECT_EQ(1u, css);
  EXPECT_EQ(1u, designation);
}

TEST_F(LogCollectionTest, ConcurrentEventsScanAndReader_NoEntryLostOrRepeated) {
  TraceClient().SetTraceLevel(0);
  constexpr uint32_t kScans = 3;
  constexpr uint32_t kScanEntries = 200;
  constexpr uint32_t kEventsPerThread = 300;
  std::vector<uint32_t> orders(kScanEntries);
  for (uint32_t i = 0; i < kScanEntries; ++i) orders[i] = i + 1;
  host_.AddModule(kMidA).SetLog(0x0B16, std::nullopt, EncodeLog(UnifiedLog(0x100000, orders)));
  Start();

  std::atomic<bool> done{false};
  std::atomic<int> bad_snapshots{0};
  std::atomic<int> snapshots{0};
  std::thread reader([&] {
    while (!done.load()) {
      module_.MsgLogCache().ReadEntries(0, [&](const MsgLogEntryList& entries, uint32_t last) {
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
    for (uint32_t s = 0; s < kScans; ++s) Scan(0x0B16);
  });
  auto events = [&](uint32_t thread) {
    for (uint32_t i = 0; i < kEventsPerThread; ++i) {
      SipJson event(0x0B16, 0, 0, 0);
      event.SetRawData(Unified(thread * 0x1000 + i, i + 1).Encode(), 0xFF);
      host_.DeliverEvent(kMidB, event);
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
  const std::vector<MsgLogEntry> entries = Entries();
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
  module_.Stop();
}

}  // namespace
