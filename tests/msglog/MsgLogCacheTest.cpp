#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "hostsim/DebugSink.h"
#include "module/DebugClient.h"
#include "msglog/MsgLogCache.h"

namespace {

std::vector<MsgLogEntry> MakeEntries(size_t n, uint32_t firstOrder = 1) {
  std::vector<MsgLogEntry> entries(n);
  for (size_t i = 0; i < n; ++i) {
    entries[i].OrderValue = firstOrder + static_cast<uint32_t>(i);
    entries[i].ErrorCode = 0x1900 + static_cast<uint32_t>(i % 7);
  }
  return entries;
}

// The cabinet's sequence numbers in cache order, and its last sequence number.
std::pair<std::vector<uint32_t>, uint32_t> Snapshot(CMsgLogCache& cache, uint32_t cabinet) {
  std::pair<std::vector<uint32_t>, uint32_t> snapshot;
  cache.ReadEntries(cabinet, [&](const MsgLogEntryList& entries, uint32_t last) {
    for (const MsgLogEntry& entry : entries) snapshot.first.push_back(entry.SequenceNumber);
    snapshot.second = last;
  });
  return snapshot;
}

class MsgLogCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TraceClient().SetTraceLevel(5);
    hostsim::Sink().Clear();
  }
  void TearDown() override { TraceClient().SetTraceLevel(0); }
};

TEST_F(MsgLogCacheTest, Store_NumbersEntriesAndEvictsOldestBeyondCap) {
  CMsgLogCache cache;
  MsgLogCabinetCache* cab = cache.FindOrCreateCabinetCache(3);
  ASSERT_NE(nullptr, cab);
  EXPECT_EQ(cab, cache.FindOrCreateCabinetCache(3)) << "one cache per cabinet";

  EXPECT_EQ(1u, CMsgLogCache::StoreEntries(*cab, MakeEntries(2001)));
  cache.ReadEntries(3, [](const MsgLogEntryList& entries, uint32_t last) {
    ASSERT_EQ(2000u, entries.size());
    EXPECT_EQ(2u, entries.front().SequenceNumber);
    EXPECT_EQ(2001u, entries.back().SequenceNumber);
    EXPECT_EQ(2001u, last);
    EXPECT_EQ(2u, entries.front().OrderValue) << "the entry itself moved up, not a copy of seq";
  });
  EXPECT_EQ(1u, hostsim::Sink().Count("Remove entry"));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           : Remove entry 1 from beginning of message log list"));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           :     2001 entries stored to messag log cache"));
}

TEST_F(MsgLogCacheTest, Store_SecondRunAppendsAndKeepsNewest) {
  CMsgLogCache cache;
  MsgLogCabinetCache* cab = cache.FindOrCreateCabinetCache(0);
  EXPECT_EQ(1u, CMsgLogCache::StoreEntries(*cab, MakeEntries(1500)));
  EXPECT_EQ(0u, hostsim::Sink().Count("Remove entry"));
  EXPECT_EQ(1501u, CMsgLogCache::StoreEntries(*cab, MakeEntries(1000)));
  EXPECT_EQ(500u, hostsim::Sink().Count("Remove entry"));
  auto snapshot = Snapshot(cache, 0);
  ASSERT_EQ(2000u, snapshot.first.size());
  for (size_t i = 0; i < snapshot.first.size(); ++i) {
    ASSERT_EQ(501u + i, snapshot.first[i]);
  }
  EXPECT_EQ(2500u, snapshot.second);

  // A run larger than the cache: the held entries and the run's oldest are evicted, in
  // order, without the numbering skipping any.
  hostsim::Sink().Clear();
  EXPECT_EQ(2501u, CMsgLogCache::StoreEntries(*cab, MakeEntries(2003)));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           :     4003 entries stored to messag log cache"));
  const auto removed = hostsim::Sink().Lines();
  EXPECT_EQ(2003u, hostsim::Sink().Count("Remove entry"));
  EXPECT_EQ("\nEM_OIDMAP           : Remove entry 2503 from beginning of message log list",
            removed.back());
  snapshot = Snapshot(cache, 0);
  EXPECT_EQ(2504u, snapshot.first.front());
  EXPECT_EQ(4503u, snapshot.first.back());

  // An empty run stores nothing and returns 0; numbering goes on from where it was.
  hostsim::Sink().Clear();
  EXPECT_EQ(0u, CMsgLogCache::StoreEntries(*cab, {}));
  EXPECT_FALSE(hostsim::Sink().Contains("entries stored"));
  EXPECT_EQ(4504u, CMsgLogCache::StoreEntries(*cab, MakeEntries(1)));
}

TEST_F(MsgLogCacheTest, Store_OneAtATimeIntoFullCache_IsAmortisedConstant) {
  TraceClient().SetTraceLevel(0);
  CMsgLogCache cache;
  MsgLogCabinetCache* cab = cache.FindOrCreateCabinetCache(1);
  CMsgLogCache::StoreEntries(*cab, MakeEntries(kMaxMsgLogEntries));
  size_t capacity = 0;
  size_t growths = 0;
  for (uint32_t i = 0; i < 4 * kMaxMsgLogEntries; ++i) {
    CMsgLogCache::StoreEntries(*cab, MakeEntries(1));
    cache.ReadEntries(1, [&](const MsgLogEntryList& entries, uint32_t) {
      if (entries.capacity() != capacity) ++growths;
      capacity = entries.capacity();
    });
  }
  EXPECT_LE(growths, 2u) << "the array reaches a steady size";
  const auto snapshot = Snapshot(cache, 1);
  ASSERT_EQ(kMaxMsgLogEntries, snapshot.first.size());
  EXPECT_EQ(4u * kMaxMsgLogEntries + 1, snapshot.first.front());
  EXPECT_EQ(5u * kMaxMsgLogEntries, snapshot.second);
}

TEST_F(MsgLogCacheTest, ReadyEvent_UnknownCabinetFailsAtOnce_KnownTimesOut) {
  CMsgLogCache cache;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(cache.WaitForCacheReady(42, kCacheWaitMs));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           : ERROR! Cabinet 42 not found in message log cache table!"));
  EXPECT_FALSE(cache.SetCacheReady(42, true));

  cache.FindOrCreateCabinetCache(1);
  EXPECT_FALSE(cache.WaitForCacheReady(1, 10)) << "created not ready";
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           : Wait on event for message log cache cabinet 1 (Timeout: 0)"));
  EXPECT_TRUE(cache.SetCacheReady(1, true));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           : SET event for message log cache cabinet 1"));
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nEM_OIDMAP           : Ready event SET for message log cache cabinet 1"));
  EXPECT_TRUE(cache.WaitForCacheReady(1, 0));
  EXPECT_TRUE(cache.WaitForCacheReady(1, 0)) << "manual reset: stays ready";
  EXPECT_TRUE(cache.SetCacheReady(1, false));
  EXPECT_FALSE(cache.WaitForCacheReady(1, 0));
}

TEST_F(MsgLogCacheTest, WaitingReader_SeesCompleteResultOfRun) {
  TraceClient().SetTraceLevel(0);
  CMsgLogCache cache;
  MsgLogCabinetCache* cab = cache.FindOrCreateCabinetCache(5);
  std::atomic<bool> waiting{false};
  size_t seen = 0;
  uint32_t last_seq = 0;
  std::thread reader([&] {
    waiting = true;
    if (cache.WaitForCacheReady(5, 60000)) {
      cache.ReadEntries(5, [&](const MsgLogEntryList& entries, uint32_t) {
        seen = entries.size();
        last_seq = entries.back().SequenceNumber;
      });
    }
  });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!waiting && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  // The writer's run: reset, store in two parts, set.
  cache.SetCacheReady(5, false);
  CMsgLogCache::StoreEntries(*cab, MakeEntries(700));
  CMsgLogCache::StoreEntries(*cab, MakeEntries(800));
  cache.SetCacheReady(5, true);
  reader.join();
  EXPECT_EQ(1500u, seen);
  EXPECT_EQ(1500u, last_seq);
}

TEST_F(MsgLogCacheTest, ClearCabinet_EmptiesEntriesButKeepsNumbering) {
  CMsgLogCache cache;
  MsgLogCabinetCache* cab = cache.FindOrCreateCabinetCache(2);
  CMsgLogCache::StoreEntries(*cab, MakeEntries(10));
  EXPECT_TRUE(cache.ClearCabinet(2));
  EXPECT_TRUE(Snapshot(cache, 2).first.empty());
  EXPECT_FALSE(cache.ClearCabinet(9));
  EXPECT_EQ(11u, CMsgLogCache::StoreEntries(*cab, MakeEntries(1)));
}

TEST_F(MsgLogCacheTest, Destructor_Traces) {
  {
    CMsgLogCache cache;
    cache.FindOrCreateCabinetCache(0);
  }
  const auto lines = hostsim::Sink().Lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_TRUE(hostsim::Sink().HasLine("\nCMsgLogCache        : -> Destructor..."));
  EXPECT_EQ("\nCMsgLogCache        : <- Destructor", lines.back());
}

}  // namespace
