// Heap bytes that cached message log entries hold, from the allocator's own counters
// (mallinfo2: bytes in use in the main arena plus mapped blocks) before and after a
// collect on the module object: per entry for unified and for old-style records (a full
// cabinet of 2000), and for 100 full cabinets of both forms mixed. The records are those
// of log_collection_bench. Collection runs on the calling thread, so every allocation it
// keeps is in the main arena.
//
// The worst case: every cache that peers can fill, filled to its ceiling by hostile ones,
// in resident memory (the process's resident set before and after, once the allocator
// gave back what it could): 200 cabinet caches (the most the cache table makes) of unified
// entries that carry the most argument bytes an entry keeps, as 64 strings of 16 bytes
// (the shape that costs the allocator most per byte kept); the CSS and designation caches
// full, with designations of the longest kept length; the text cache full of short texts.

#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/BenchRatio.h"
#include "bench/LogReplies.h"
#include "msglog/CollectionTables.h"
#include "msglog/LogRecords.h"
#include "msglog/MsgTextCache.h"
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

// The resident set of the process, after the allocator returned its free memory.
size_t ResidentBytes() {
  malloc_trim(0);
  long pages = 0;
  long resident = 0;
  if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(statm);
  }
  return static_cast<size_t>(resident) * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

double g_bytes_per_entry[2] = {0, 0};
double g_full_caches_bytes = 0;
double g_worst_case_bytes = 0;

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

// A peer's reply of 2000 unified records whose strings fill what an entry keeps.
SipJson HostileReply() {
  const size_t strings = kMaxEntryArgumentBytes / 16;
  const std::vector<std::string> arguments(strings, std::string(16, 'h'));
  std::vector<uint8_t> bytes;
  for (uint32_t i = 0; i < kMaxMsgLogEntries; ++i) {
    const std::vector<uint8_t> record = hostsim::Unified(0x3E0000 + i, i + 1, arguments).Encode();
    bytes.insert(bytes.end(), record.begin(), record.end());
  }
  SipJson reply(0x0B16, 0, 0, 0);
  reply.SetModuleId(0x00010001);
  reply.SetRawData(bytes, ST_SUCCESS);
  return reply;
}

void BM_WorstCaseCaches(benchmark::State& state) {
  SipJson reply = HostileReply();
  for (auto _ : state) {
    const size_t before = ResidentBytes();
    COidMapExtModule module;
    for (uint32_t ca = 0; ca < kMaxCabinetCaches; ++ca) {
      reply.SetKey("CA", ca, false);
      module.Collector().CollectFromMessage(reply);
    }
    // The module's look-up and text caches are its components' own; these are the same
    // classes, filled as peers and clients would fill them.
    CLogLookupCache lookups;
    for (uint32_t k = 0; k < kMaxLookupCacheEntries; ++k) {
      const std::string key = LogLookupKey(k >> 8, k & 0xFF, 0xFFFF, 0xFFFF);
      lookups.StoreCss(key, true);
      lookups.StoreDesignation(key, std::string(kMaxDesignationBytes, 'd'));
    }
    CMsgTextCache texts;
    const std::string text(16, 't');
    const size_t puts = kMaxTextCacheBytes / CMsgTextCache::TextBytes({text}) + 1000;
    for (uint32_t code = 0; code < puts; ++code) {
      texts.PutText(MsgTextKind::kLongText, code, 0x409, text);
    }
    if (module.LogStore().Cache().CabinetCount() != kMaxCabinetCaches ||
        texts.Bytes() + CMsgTextCache::TextBytes({text}) <= kMaxTextCacheBytes) {
      state.SkipWithError("a cache is not full");
      break;
    }
    g_worst_case_bytes = static_cast<double>(ResidentBytes() - before);
  }
  state.counters["MiB"] = g_worst_case_bytes / (1024.0 * 1024.0);
}
BENCHMARK(BM_WorstCaseCaches)->Iterations(1)->Unit(benchmark::kMillisecond);

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
    if (g_worst_case_bytes > 0)
      std::printf("worst case, every cache filled by hostile peers to its ceiling: %.1f MiB "
                  "resident\n",
                  g_worst_case_bytes / (1024.0 * 1024.0));
  });
}
