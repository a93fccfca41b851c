#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "hostsim/DebugSink.h"
#include "msglog/MsgLogCache.h"
#include "tests/support/TestSupport.h"
#include "trace/DebugClient.h"

namespace em_oidmap {

namespace {

std::vector<MsgLogEntry> MakeEntries(size_t n) {
  std::vector<MsgLogEntry> entries(n);
  for (size_t i = 0; i < n; ++i) entries[i].OrderValue = 1 + static_cast<uint32_t>(i);
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

// Runs stored one after the other into one cabinet: numbered on from the last, the oldest
// evicted beyond the cap, the entries themselves moving up.
TEST(MsgLogCacheTest, StoreRuns_NumberedOnAndOldestEvicted) {
  CMsgLogCache cache;
  MsgLogCabinetCache* cab = cache.FindOrCreateCabinetCache(3);
  ASSERT_NE(nullptr, cab);
  EXPECT_EQ(cab, cache.FindOrCreateCabinetCache(3)) << "one cache per cabinet";
  const struct {
    size_t run;
    uint32_t first, front, back, frontOrder;
  } cases[] = {
      {2001, 1, 2, 2001, 2},
      {1000, 2002, 1002, 3001, 1002},
      {2003, 3002, 3005, 5004, 4},  // larger than the cache: the run's oldest go too
      {0, 0, 3005, 5004, 4},        // an empty run stores nothing
      {1, 5005, 3006, 5005, 5},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.run);
    EXPECT_EQ(c.first, CMsgLogCache::StoreEntries(*cab, MakeEntries(c.run)));
    cache.ReadEntries(3, [&](const MsgLogEntryList& entries, uint32_t last) {
      ASSERT_EQ(c.back - c.front + 1, entries.size());
      EXPECT_EQ(c.front, entries.front().SequenceNumber);
      EXPECT_EQ(c.back, entries.back().SequenceNumber);
      EXPECT_EQ(c.back, last);
      EXPECT_EQ(c.frontOrder, entries.front().OrderValue);
    });
  }
  EXPECT_TRUE(cache.ClearCabinet(3));
  EXPECT_TRUE(Snapshot(cache, 3).first.empty());
  EXPECT_FALSE(cache.ClearCabinet(9));
  EXPECT_EQ(5006u, CMsgLogCache::StoreEntries(*cab, MakeEntries(1))) << "numbering kept";
}

TEST(MsgLogCacheTest, Store_OneAtATimeIntoFullCache_IsAmortisedConstant) {
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

// Entries whose strings are large: the oldest go once the cabinet's bytes pass the
// ceiling, each traced as an eviction by count is, after the entry lock was released (a
// reader is not kept waiting by the traces). The entries' size divides the ceiling, so
// that the rest meet it exactly: that many stay, not one fewer.
TEST(MsgLogCacheTest, Store_PastTheByteCeiling_OldestGoTracedWithoutTheEntryLock) {
  CMsgLogCache cache;
  MsgLogCabinetCache* cab = cache.FindOrCreateCabinetCache(2);
  std::vector<MsgLogEntry> run = MakeEntries(kMaxMsgLogEntries);
  size_t length = 900, entryBytes = 0;
  for (; length < 1200; ++length) {
    run[0].SetArgument(1, std::string(length, 'a'));
    entryBytes = MsgLogEntryBytes(run[0]);
    if (kMaxCabinetCacheBytes % entryBytes == 0) break;
  }
  ASSERT_LT(length, 1200u) << "no entry size divides the ceiling";
  for (MsgLogEntry& entry : run) entry.SetArgument(1, std::string(length, 'a'));

  std::future<size_t> reader;
  bool readerWaited = true;
  hostsim::Sink().Clear();
  hostsim::Sink().SetObserver([&](const std::string& line) {
    if (reader.valid() || line.find("Remove entry") == std::string::npos) return;
    reader = std::async(std::launch::async, [&] {
      return Snapshot(cache, 2).first.size();
    });
    readerWaited = reader.wait_for(std::chrono::seconds(10)) != std::future_status::ready;
  });
  TraceClient().SetTraceLevel(4);
  EXPECT_EQ(1u, CMsgLogCache::StoreEntries(*cab, std::move(run)));
  TraceClient().SetTraceLevel(0);
  hostsim::Sink().SetObserver(nullptr);
  EXPECT_FALSE(readerWaited);

  size_t bytes = 0;
  cache.ReadEntries(2, [&](const MsgLogEntryList& entries, uint32_t) { bytes = entries.bytes(); });
  EXPECT_LE(bytes, kMaxCabinetCacheBytes);
  const auto snapshot = Snapshot(cache, 2);
  const size_t evicted = kMaxMsgLogEntries - snapshot.first.size();
  ASSERT_GT(evicted, 0u);
  EXPECT_EQ(kMaxCabinetCacheBytes / entryBytes, snapshot.first.size());
  EXPECT_EQ(evicted + 1, snapshot.first.front());
  EXPECT_EQ(kMaxMsgLogEntries, snapshot.first.back());
  std::vector<std::string> expected = {"    2000 entries stored to messag log cache"};
  for (size_t n = 1; n <= evicted; ++n) {
    expected.push_back("Remove entry " + std::to_string(n) + " from beginning of message log list");
  }
  std::vector<std::string> lines = hostsim::Sink().Lines();
  for (std::string& line : lines) line = line.substr(line.find(": ") + 2);
  EXPECT_EQ(expected, lines);
}

TEST(MsgLogCacheTest, ReadyEvent_ManualResetAndUnknownCabinet) {
  CMsgLogCache cache;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(cache.WaitForCacheReady(42, kCacheWaitMs));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_FALSE(cache.SetCacheReady(42, true));
  cache.FindOrCreateCabinetCache(1);
  EXPECT_FALSE(cache.WaitForCacheReady(1, 10)) << "created not ready";
  EXPECT_TRUE(cache.SetCacheReady(1, true));
  EXPECT_TRUE(cache.WaitForCacheReady(1, 0));
  EXPECT_TRUE(cache.WaitForCacheReady(1, 0)) << "manual reset: stays ready";
  EXPECT_TRUE(cache.SetCacheReady(1, false));
  EXPECT_FALSE(cache.WaitForCacheReady(1, 0));
}

TEST(MsgLogCacheTest, WaitingReader_SeesCompleteResultOfRun) {
  CMsgLogCache cache;
  MsgLogCabinetCache* cab = cache.FindOrCreateCabinetCache(5);
  cache.SetCacheReady(5, true);  // the end of an earlier run
  // The writer's run: reset, store in two parts, set.
  cache.SetCacheReady(5, false);
  std::atomic<bool> done{false};
  std::pair<std::vector<uint32_t>, uint32_t> seen;
  std::thread reader([&] {
    if (cache.WaitForCacheReady(5, 60000)) seen = Snapshot(cache, 5);
    done = true;
  });
  // The stores start only once the reader waits on the event (a waiter makes
  // ChangeAttributes refuse; on an unsignalled manual event it changes nothing) or has
  // already returned without waiting, which the snapshot then shows.
  EXPECT_TRUE(test_support::WaitUntil([&] {
    return done || (!cab->ReadyEvent.Check() && !cab->ReadyEvent.ChangeAttributes(false, true));
  })) << "the reader never waited";
  CMsgLogCache::StoreEntries(*cab, MakeEntries(700));
  CMsgLogCache::StoreEntries(*cab, MakeEntries(800));
  cache.SetCacheReady(5, true);
  reader.join();
  EXPECT_EQ(1500u, seen.first.size());
  EXPECT_EQ(1500u, seen.second);
}

}  // namespace

}  // namespace em_oidmap
