// Cost of one translated request as a host sees it: offered to the module, forwarded
// through hostsim to the module that owns the instance, answered at once, and turned back
// to the global index; against the floor of the same message's round trip through the
// same host without the module.
#include <cstdio>

#include <benchmark/benchmark.h>

#include "bench/BenchRatio.h"
#include "hostsim/SimHost.h"
#include "trace/DebugClient.h"
#include "oidmap/OidMapExtModule.h"
#include "oidmap/Timeouts.h"
#include "sip/SipStatus.h"

using namespace em_oidmap;  // a program of its own: its names are short

namespace {

constexpr uint32_t kFanCount = 0x0300;
constexpr uint32_t kFanGet = 0x0301;
constexpr uint32_t kMidFirst = 0x00010001;
constexpr uint32_t kMidSecond = 0x00020001;
// The host keeps a record of every request; forget them now and then.
constexpr int kClearEvery = 4096;

// Two modules with 3 and 2 fans that answer every fan request at once.
void AddModules(hostsim::SimHost& host) {
  for (uint32_t mid : {kMidFirst, kMidSecond}) {
    hostsim::SimModule& module = host.AddModule(mid);
    module.SetInstanceCount(kFanCount, 0, 0, mid == kMidFirst ? 3 : 2);
    hostsim::ReplyRule fan;
    fan.oc = kFanGet;
    fan.dataJson = R"({"Speed":2900})";
    module.AddRule(fan);
  }
}

void ClearRecords(hostsim::SimHost& host) {
  host.ClearRecords();
  host.FindModule(kMidFirst)->ClearReceived();
  host.FindModule(kMidSecond)->ClearReceived();
}

void BM_TranslatedRequestThroughModule(benchmark::State& state) {
  hostsim::SimHost host;
  AddModules(host);
  COidMapExtModule module;
  module.SetServerCabinet(0);
  module.Start(&host, host.Attach(&module));
  int n = 0;
  for (auto _ : state) {
    SipJson request(kFanGet, 0, 3, 0);  // global index 3: the second module's first fan
    benchmark::DoNotOptimize(module.OnRequest(request));
    if (request.GetStatus(0) != ST_SUCCESS || request.GetKey(0, "OI") != 3) {
      state.SkipWithError("request was not answered");
      break;
    }
    if (++n % kClearEvery == 0) ClearRecords(host);
  }
  module.Stop();
}
BENCHMARK(BM_TranslatedRequestThroughModule);

// Floor: the request as the owning module sees it, sent through the same host: its
// local OI (0) and the owner's MI, member for member the message the module forwards, so
// that the host's own work (records, copies, the reply) is the same on both sides.
void BM_BareRoundTripThroughHost(benchmark::State& state) {
  hostsim::SimHost host;
  AddModules(host);
  const uint64_t context = host.Attach(nullptr);
  int n = 0;
  for (auto _ : state) {
    SipJson request(kFanGet, 0, 0, 0);
    request.SetKey("OI", 0, false);
    request.SetModuleId(kMidSecond);
    benchmark::DoNotOptimize(host.SendRequest(context, request, kSingleRequestTimeoutMs));
    if (request.GetStatus(0) != ST_SUCCESS) {
      state.SkipWithError("request was not answered");
      break;
    }
    if (++n % kClearEvery == 0) ClearRecords(host);
  }
}
BENCHMARK(BM_BareRoundTripThroughHost);

}  // namespace

int main(int argc, char** argv) {
  return RunBenchmarks(argc, argv, [](const RatioReporter& reporter) {
    reporter.PrintRatio("translated request through the module / bare round trip",
                        "BM_TranslatedRequestThroughModule", "BM_BareRoundTripThroughHost");
  });
}
