// Wall time of one start with 100 cabinets (the server's and 99 SE cabinets) and 16
// lower modules that answer every count request at once: the worker's settle pause, the
// count broadcasts that fill the OID map table, and the message log caches. The settle is
// a fixed pause; what start adds beyond it is the module's own cost.

#include <cstdio>
#include <memory>
#include <set>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/BenchRatio.h"
#include "hostsim/SimHost.h"
#include "oidmap/CountOpcodeTable.h"
#include "oidmap/OidMapExtModule.h"
#include "runtime/TaskSerializer.h"

using namespace em_oidmap;  // a program of its own: its names are short

namespace {

constexpr uint32_t kCabinets = 100;
constexpr uint32_t kModules = 16;

// Every module answers every count request of every cabinet with two instances, so that
// every count opcode has 16 valid replies and mapping is needed.
std::unique_ptr<hostsim::SimHost> MakeHost() {
  auto host = std::make_unique<hostsim::SimHost>();
  std::vector<uint32_t> se;
  for (uint32_t ca = 1; ca < kCabinets; ++ca) se.push_back(ca);
  host->SetSeCabinets(se);
  for (uint32_t m = 0; m < kModules; ++m) {
    hostsim::SimModule& module = host->AddModule(0x00010001 + (m << 16));
    std::set<uint32_t> added;
    for (const CountOpcodeRow* row = kCountOpcodeTable; row->countOc != 0; ++row) {
      if (!added.insert(CountOpcodeKey(*row)).second) continue;
      hostsim::ReplyRule count;  // any cabinet
      count.oc = row->countOc;
      count.oe = row->countOe;
      count.dataJson = "2";
      module.AddRule(count);
    }
  }
  return host;
}

void BM_StartUp(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    std::unique_ptr<hostsim::SimHost> host = MakeHost();
    auto module = std::make_unique<COidMapExtModule>();
    module->SetServerCabinet(0);
    const uint64_t context = host->Attach(module.get());
    state.ResumeTiming();
    module->Start(host.get(), context);
    state.PauseTiming();
    const bool complete = module->Mapper().IsMappingNeeded() &&
                          module->LogStore().Cache().CabinetCount() == kCabinets;
    module->Stop();
    module.reset();
    host.reset();
    state.ResumeTiming();
    if (!complete) {
      state.SkipWithError("start did not map every cabinet");
      break;
    }
  }
}
// Wall time: the settle is a sleep, which CPU time would not see.
BENCHMARK(BM_StartUp)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

}  // namespace

int main(int argc, char** argv) {
  return RunBenchmarks(argc, argv, [](const RatioReporter& reporter) {
    const double ms = reporter.GetRealTime("BM_StartUp/iterations:5/real_time") / 1e6;
    if (ms > 0)
      std::printf("start-up, %u cabinets x %u modules: %.1f ms, %.1f ms beyond the %u ms settle\n",
                  kCabinets, kModules, ms, ms - kTaskSettleMs, kTaskSettleMs);
  });
}
