// How long a page read waits while a cabinet stores a 10 MB log reply with tracing on. The
// reply is 873,813 old-style records of 12 bytes; the cabinet keeps the newest 2000 and
// evicts the rest, each eviction traced ("Remove entry", level 3) into the host's sink,
// which formats every line and keeps none (as a host that writes them away does). The
// store is the one collect from message makes after its merge: the newest 2000 entries
// moved in, the others numbered and evicted at once. Meanwhile a reader copies a page of
// 2000 entries under the module's cache lock and the cabinet's entry lock, as the log-entry
// query does, over and over; the longest copy is what a client's page waits at most.
// Baseline: the same copy with no store running. Wall times.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/BenchRatio.h"
#include "hostsim/DebugSink.h"
#include "oidmap/OidMapExtModule.h"
#include "trace/DebugClient.h"

using namespace em_oidmap;  // a program of its own: its names are short

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kReplyBytes = 10u << 20;
constexpr size_t kRecordBytes = 12;
constexpr size_t kRecords = kReplyBytes / kRecordBytes;  // 873,813

std::vector<MsgLogEntry> OldStyleEntries(size_t n) {
  std::vector<MsgLogEntry> entries(n);
  for (size_t i = 0; i < n; ++i) {
    entries[i].SetRawRecord(std::vector<uint8_t>(kRecordBytes, static_cast<uint8_t>(i)));
    entries[i].OldStyle = 1;
    entries[i].OrderValue = static_cast<uint32_t>(i + 1);
  }
  return entries;
}

// One page copy as the log-entry query makes it; its wall time.
Clock::duration CopyPage(COidMapExtModule& module, std::vector<MsgLogEntry>& page) {
  const Clock::time_point begin = Clock::now();
  module.LogStore().ReadEntriesWhole(0, [&](const MsgLogEntryList& entries, uint32_t) {
    page.assign(entries.begin(), entries.end());
  });
  return Clock::now() - begin;
}

double Milliseconds(Clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

double g_idle_ms = 0;
double g_longest_ms = 0;
double g_median_ms = 0;
double g_p99_ms = 0;
double g_store_ms = 0;

void BM_PageCopyIdle(benchmark::State& state) {
  COidMapExtModule module;
  CMsgLogCache::StoreEntries(*module.LogStore().CacheForStore(0), OldStyleEntries(2000));
  std::vector<MsgLogEntry> page;
  for (auto _ : state) benchmark::DoNotOptimize(CopyPage(module, page));
}
BENCHMARK(BM_PageCopyIdle)->Unit(benchmark::kMicrosecond);

void BM_PageCopyDuringStore(benchmark::State& state) {
  hostsim::Sink().SetKeepLines(false);
  for (auto _ : state) {
    COidMapExtModule module;
    MsgLogCabinetCache& cache = *module.LogStore().CacheForStore(0);
    CMsgLogCache::StoreEntries(cache, OldStyleEntries(2000));
    std::vector<MsgLogEntry> newest = OldStyleEntries(kMaxMsgLogEntries);
    std::vector<MsgLogEntry> page;
    std::vector<double> copies;
    std::atomic<bool> storing{true};
    TraceClient().SetTraceLevel(3);
    const Clock::time_point begin = Clock::now();
    std::thread store([&] {
      CMsgLogCache::StoreEntries(cache, std::move(newest), kRecords - kMaxMsgLogEntries);
      storing = false;
    });
    do {
      copies.push_back(Milliseconds(CopyPage(module, page)));
    } while (storing);
    store.join();
    g_store_ms = Milliseconds(Clock::now() - begin);
    TraceClient().SetTraceLevel(0);
    std::sort(copies.begin(), copies.end());
    g_longest_ms = copies.back();
    g_median_ms = copies[copies.size() / 2];
    g_p99_ms = copies[copies.size() * 99 / 100];
    state.counters["copies"] = static_cast<double>(copies.size());
  }
  state.counters["longest_ms"] = g_longest_ms;
  state.counters["store_ms"] = g_store_ms;
}
BENCHMARK(BM_PageCopyDuringStore)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  return RunBenchmarks(argc, argv, [](const RatioReporter& reporter) {
    g_idle_ms = reporter.GetRealTime("BM_PageCopyIdle") / 1e6;
    if (g_idle_ms > 0 && g_longest_ms > 0) {
      std::printf(
          "page copy during a 10 MB store (%.0f ms, %zu lines traced): longest %.3f ms, 99th "
          "percentile %.3f ms, median %.3f ms; idle %.3f ms; longest / idle: %.1f\n",
          g_store_ms, kRecords, g_longest_ms, g_p99_ms, g_median_ms, g_idle_ms,
          g_longest_ms / g_idle_ms);
    }
  });
}
