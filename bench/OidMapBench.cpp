// Cost of translating one request through the OID map table, with a table of 1 and of
// 100 cabinets, against the floor of touching the same members with RapidJSON alone.
// The cost must not grow with the number of cabinets.

#include <atomic>
#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/BenchRatio.h"

#include "trace/DebugClient.h"
#include "oidmap/CountOpcodeTable.h"
#include "oidmap/OidMapTable.h"
#include "sip/SipJson.h"
#include "sip/SipStatus.h"

using namespace em_oidmap;  // a program of its own: its names are short

namespace {

constexpr uint32_t kItemOc = 0x0301;
constexpr uint32_t kGlobalOi = 3;  // the second module's first instance
constexpr uint32_t kMidFirst = 0x00010001;
constexpr uint32_t kMidSecond = 0x00020001;

// As start-up leaves it: every count request of every cabinet answered by two modules
// with `first` and `second` instances (a module with none gives no entry).
void FillTable(COidMapTable& table, uint32_t cabinets, uint32_t first = 3, uint32_t second = 2) {
  for (uint32_t ca = 0; ca < cabinets; ++ca) {
    std::set<uint32_t> requested;
    for (const CountOpcodeRow* row = kCountOpcodeTable; row->countOc != 0; ++row) {
      if (!requested.insert(CountOpcodeKey(*row)).second) continue;
      if (first != 0) table.AddInstances(row->countOc, row->countOe, ca, kMidFirst, first);
      table.AddInstances(row->countOc, row->countOe, ca, kMidSecond, second);
    }
  }
}

SipJson MakeRequest(uint32_t ca) {
  SipJson msg(kItemOc, 0, kGlobalOi, ca);
  msg.SetStatus(ST_PENDING);
  return msg;
}

void BM_TranslateRequest(benchmark::State& state) {
  const uint32_t cabinets = static_cast<uint32_t>(state.range(0));
  COidMapTable table;
  FillTable(table, cabinets);
  // The last cabinet: the one a walk over the table would reach last.
  SipJson msg = MakeRequest(cabinets - 1);
  SipJson::Value& command = *msg.Command(0);
  for (auto _ : state) {
    command["OI"].SetUint(kGlobalOi);  // back to the client's view
    benchmark::DoNotOptimize(table.TranslateMessage(msg, 0));
  }
  if (msg.GetKey(0, "MI") != kMidSecond || msg.GetKey(0, "OI") != 0)
    state.SkipWithError("request was not translated");
  state.counters["table_entries"] = static_cast<double>(table.Size());
}
BENCHMARK(BM_TranslateRequest)->Arg(1)->Arg(100);

// Floor: resolve the command, read OC and OI, write MI and OI.
void BM_BareRapidJson(benchmark::State& state) {
  SipJson msg = MakeRequest(0);
  SipJson::Document& doc = msg.Doc();
  for (auto _ : state) {
    SipJson::Value& command = doc["SIP"]["CMD"][0];
    command["OI"].SetUint(kGlobalOi);
    const uint32_t oc = command["OC"].GetUint();
    const uint32_t oi = command["OI"].GetUint();
    benchmark::DoNotOptimize(oc);
    auto mi = command.FindMember("MI");
    if (mi == command.MemberEnd())
      command.AddMember("MI", kMidSecond, doc.GetAllocator());
    else
      mi->value.SetUint(kMidSecond);
    command["OI"].SetUint(oi - kGlobalOi);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_BareRapidJson);

// A reply on its way back up: (MI, local OI) of the kind's last instance turned into its
// global index, the kind holding `instances` instances (all but one in the first module).
// The cost must not grow with the number of instances.
void BM_TranslateReply(benchmark::State& state) {
  const uint32_t instances = static_cast<uint32_t>(state.range(0));
  COidMapTable table;
  FillTable(table, 100, instances - 1, 1);
  SipJson msg(kItemOc, 0, 0, 99);
  msg.SetModuleId(kMidSecond);
  msg.SetKey("OI", 0, false);
  msg.SetStatus(ST_SUCCESS);
  SipJson::Value& command = *msg.Command(0);
  for (auto _ : state) {
    command["OI"].SetUint(0);  // back to the module's view
    benchmark::DoNotOptimize(table.TranslateMessage(msg, 0));
  }
  if (msg.GetKey(0, "OI") != instances - 1) state.SkipWithError("reply was not translated");
}
BENCHMARK(BM_TranslateReply)->Arg(1)->Arg(8)->Arg(64);

// A trace site whose level is off, against the same loop without it: the site must cost
// no more than its one test of the trace-active flag.
// The three loops below start on the same 64-byte boundary, so that where their code
// happens to lie cannot make one look dearer than another (a hot loop that straddles a
// fetch boundary runs a cycle slower on some cores).
#define EM_BENCH_LOOP_ALIGN __attribute__((aligned(64)))

EM_BENCH_LOOP_ALIGN void BM_TraceSiteOff(benchmark::State& state) {
  uint32_t value = 0;
  for (auto _ : state) {
    EM_TRACE(3, "\nEM_OIDMAP           : bench value 0x%04X", value);
    benchmark::DoNotOptimize(++value);
  }
}
BENCHMARK(BM_TraceSiteOff);

// What one test of a flag that is never set costs in the same loop: the least a trace
// site whose level is decided at run time can cost.
std::atomic<bool> g_neverSet{false};

EM_BENCH_LOOP_ALIGN void BM_OneBranch(benchmark::State& state) {
  uint32_t value = 0;
  for (auto _ : state) {
    if (g_neverSet.load(std::memory_order_relaxed)) std::printf("%u", value);
    benchmark::DoNotOptimize(++value);
  }
}
BENCHMARK(BM_OneBranch);

EM_BENCH_LOOP_ALIGN void BM_EmptyLoop(benchmark::State& state) {
  uint32_t value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(++value);
  }
}
BENCHMARK(BM_EmptyLoop);

}  // namespace

int main(int argc, char** argv) {
  return RunBenchmarks(argc, argv, [](const RatioReporter& reporter) {
    const struct {
      const char* label;
      const char* numerator;
      const char* denominator;
    } ratios[] = {
        {"translate(1 cabinet) / bare RapidJSON   ", "BM_TranslateRequest/1", "BM_BareRapidJson"},
        {"translate(100 cabinets) / bare RapidJSON", "BM_TranslateRequest/100", "BM_BareRapidJson"},
        {"translate(100 cabinets) / (1 cabinet)   ", "BM_TranslateRequest/100",
         "BM_TranslateRequest/1"},
        {"reply(64 instances) / bare RapidJSON     ", "BM_TranslateReply/64", "BM_BareRapidJson"},
        {"reply(64 instances) / (1 instance)       ", "BM_TranslateReply/64",
         "BM_TranslateReply/1"},
        {"trace site off / empty loop              ", "BM_TraceSiteOff", "BM_EmptyLoop"},
        {"trace site off / one branch              ", "BM_TraceSiteOff", "BM_OneBranch"},
    };
    for (const auto& r : ratios) reporter.PrintRatio(r.label, r.numerator, r.denominator);
    const double extra = reporter.Get("BM_TraceSiteOff") - reporter.Get("BM_EmptyLoop");
    std::printf("trace site off, beyond an empty loop: %.2f ns\n", extra);
  });
}
