// Heap bytes that cached message log entries hold, from the allocator's own counters
// (mallinfo2: bytes in use in the main arena plus mapped blocks) before and after a
// collect on the module object: per entry for unified and for old-style records (a full
// cabinet of 2000), and for 100 full cabinets of both forms mixed. The records are those
// of log_collection_bench. Collection runs on the calling thread, so every allocation it
// keeps is in the main arena.

#include <malloc.h>

#include <cstdio>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/BenchRatio.h"
#include "bench/LogReplies.h"
#include "oidmap/OidMapExtModule.h"

using namespace em_oidmap;  // a program of its own: its names are short

namespace {

constexpr uint32_t kCabinets = 100;

size_t HeapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

size_t EntriesHeld(COidMapExtModule& module, uint32_t ca) {
  size_t held = 0;
  module.LogStore().Cache().ReadEntries(ca, [&](const MsgLogEntryList& list, uint32_t) {
    held = list.size();
  });
  return held;
}

double g_bytes_per_entry[2] = {0, 0};
double g_full_caches_bytes = 0;

// One full cabinet of one form.
void BM_BytesPerEntry(benchmark::State& state) {
  const int form = static_cast<int>(state.range(0));
  SipJson msg;
  AppendLogReply(msg, form, 0, 0, 1, kMaxMsgLogEntries);
  for (auto _ : state) {
    COidMapExtModule module;
    const size_t before = HeapInUse();
    module.Collector().CollectFromMessage(msg);
    const size_t after = HeapInUse();
    if (EntriesHeld(module, 0) != kMaxMsgLogEntries) {
      state.SkipWithError("the cache is not full");
      break;
    }
    g_bytes_per_entry[form] = static_cast<double>(after - before) / kMaxMsgLogEntries;
  }
  state.counters["bytes_per_entry"] = g_bytes_per_entry[form];
}
BENCHMARK(BM_BytesPerEntry)->Arg(kUnifiedForm)->Arg(kOldStyleForm)->Iterations(1);

// 100 cabinets, each full with 1000 unified and 1000 old-style entries.
void BM_FullCaches(benchmark::State& state) {
  std::vector<SipJson> messages(kCabinets);
  for (uint32_t ca = 0; ca < kCabinets; ++ca) {
    AppendLogReply(messages[ca], kUnifiedForm, ca, 0, 2, kMaxMsgLogEntries / 2);
    AppendLogReply(messages[ca], kOldStyleForm, ca, 1, 2, kMaxMsgLogEntries / 2);
  }
  for (auto _ : state) {
    COidMapExtModule module;
    const size_t before = HeapInUse();
    size_t held = 0;
    for (uint32_t ca = 0; ca < kCabinets; ++ca) {
      module.Collector().CollectFromMessage(messages[ca]);
      held += EntriesHeld(module, ca);
    }
    const size_t after = HeapInUse();
    if (held != kCabinets * kMaxMsgLogEntries) {
      state.SkipWithError("the caches are not full");
      break;
    }
    g_full_caches_bytes = static_cast<double>(after - before);
  }
  state.counters["MiB"] = g_full_caches_bytes / (1024.0 * 1024.0);
}
BENCHMARK(BM_FullCaches)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  return RunBenchmarks(argc, argv, [](const RatioReporter&) {
    if (g_bytes_per_entry[kUnifiedForm] > 0 && g_bytes_per_entry[kOldStyleForm] > 0) {
      std::printf("bytes per cached entry: unified %.0f, old-style %.0f\n",
                  g_bytes_per_entry[kUnifiedForm], g_bytes_per_entry[kOldStyleForm]);
      // Against the least an entry can take: the record as it came, and 16 bytes for what
      // the cache knows of it beside the record (sequence number, module, flags).
      double ratio[2];
      for (int form : {kUnifiedForm, kOldStyleForm}) {
        const size_t record = LogRecord(form, 1, 0, 0).size();
        ratio[form] = g_bytes_per_entry[form] / static_cast<double>(record + 16);
        std::printf("%s record: %zu bytes\n", form == kUnifiedForm ? "unified" : "old-style",
                    record);
      }
      std::printf("bytes per cached entry / (record + 16): unified %.2f, old-style %.2f\n",
                  ratio[kUnifiedForm], ratio[kOldStyleForm]);
    }
    if (g_full_caches_bytes > 0)
      std::printf("%u full caches (%u entries): %.1f MiB\n", kCabinets,
                  kCabinets * kMaxMsgLogEntries, g_full_caches_bytes / (1024.0 * 1024.0));
  });
}
