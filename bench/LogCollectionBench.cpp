// Cost per entry of collecting the message logs of 1 and of 20 modules with 2000 entries
// each: the replies' records parsed (both forms), merged by order value and stored into a
// full cabinet cache, which evicts as many entries as it takes. Collect from message runs
// on the module object exactly as a scan or a log event runs it. The cost per entry must
// not grow with the number of entries collected at once (40,000 against 2,000).

#include <cstdio>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/BenchRatio.h"

#include "bench/LogReplies.h"
#include "trace/DebugClient.h"
#include "oidmap/OidMapExtModule.h"
#include "sip/SipJson.h"
#include "sip/SipStatus.h"

using namespace em_oidmap;  // a program of its own: its names are short

namespace {

constexpr uint32_t kEntriesPerModule = 2000;

// One reply per module, every reply interleaved with every other by order value.
SipJson Replies(int form, uint32_t modules) {
  SipJson msg;
  for (uint32_t m = 0; m < modules; ++m)
    AppendLogReply(msg, form, 0, m, modules, kEntriesPerModule);
  return msg;
}

void BM_CollectFromMessage(benchmark::State& state) {
  const int form = static_cast<int>(state.range(0));
  const uint32_t modules = static_cast<uint32_t>(state.range(1));
  SipJson msg = Replies(form, modules);
  COidMapExtModule module;
  module.Collector().CollectFromMessage(msg);  // the cache is full from here on
  const uint32_t entries = modules * kEntriesPerModule;
  for (auto _ : state) {
    benchmark::DoNotOptimize(module.Collector().CollectFromMessage(msg));
  }
  size_t held = 0;
  module.LogStore().Cache().ReadEntries(0, [&](const MsgLogEntryList& list, uint32_t) { held = list.size(); });
  if (held != kMaxMsgLogEntries) state.SkipWithError("the cache is not full");
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * entries);
  state.counters["entries"] = entries;
}

BENCHMARK(BM_CollectFromMessage)
    ->ArgsProduct({{kUnifiedForm, kOldStyleForm}, {1, 20}})
    ->ArgNames({"form", "modules"});

}  // namespace

int main(int argc, char** argv) {
  return RunBenchmarks(argc, argv, [](const RatioReporter& reporter) {
    // One iteration of 20 modules collects 20 times the entries of one module.
    const char* forms[] = {"unified", "old-style"};
    for (int form = 0; form < 2; ++form) {
      const std::string base = "BM_CollectFromMessage/form:" + std::to_string(form);
      const double one = reporter.Get(base + "/modules:1") / kEntriesPerModule;
      const double twenty = reporter.Get(base + "/modules:20") / (20.0 * kEntriesPerModule);
      if (one > 0 && twenty > 0) {
        std::printf("%s: %.1f ns per entry at 2,000 entries, %.1f ns at 40,000; ratio %.2f\n",
                    forms[form], one, twenty, twenty / one);
      }
    }
  });
}
