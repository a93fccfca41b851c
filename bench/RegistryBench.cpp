// Cost of restoring the registry from a file of 200,000 values under one key, with the
// lines in name order and in reverse order; the two should cost about the same. The files
// are written into temporary directories at start.

#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include <benchmark/benchmark.h>

#include "bench/BenchRatio.h"
#include "platform/Registry.h"

using namespace em_oidmap;  // a program of its own: its names are short

namespace {

constexpr int kValues = 200000;

// A directory holding a "registry" file with kValues string values, in order or reversed.
std::string MakeDirectory(bool reversed) {
  char pattern[] = "/tmp/em_registry_bench_XXXXXX";
  if (mkdtemp(pattern) == nullptr) return std::string();
  std::ofstream out(std::string(pattern) + "/" + CRegistry::kTreeFile);
  out << "[HKEY_LOCAL_MACHINE]\n[Bench]\n";
  char line[64];
  for (int i = 0; i < kValues; ++i) {
    const int n = reversed ? kValues - 1 - i : i;
    snprintf(line, sizeof line, "v%06d=s=value %d\n", n, n);
    out << line;
  }
  out << "\n\n";
  return pattern;
}

void Restore(benchmark::State& state, const std::string& dir) {
  for (auto _ : state) {
    CRegistry registry(dir);
    registry.SetupTree(false);
    benchmark::DoNotOptimize(registry.Root());
  }
}

const std::string& SortedDir() {
  static const std::string dir = MakeDirectory(false);
  return dir;
}
const std::string& ReversedDir() {
  static const std::string dir = MakeDirectory(true);
  return dir;
}

void BM_RestoreSorted(benchmark::State& state) { Restore(state, SortedDir()); }
void BM_RestoreReversed(benchmark::State& state) { Restore(state, ReversedDir()); }

BENCHMARK(BM_RestoreSorted)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RestoreReversed)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  const int result = RunBenchmarks(argc, argv, [](const RatioReporter& reporter) {
    reporter.PrintRatio("reversed / sorted (200,000 values)", "BM_RestoreReversed",
                        "BM_RestoreSorted");
  });
  for (const std::string* dir : {&SortedDir(), &ReversedDir()})
    std::filesystem::remove_all(*dir);
  return result;
}
