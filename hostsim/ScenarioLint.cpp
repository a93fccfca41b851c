// The warnings of a scenario: what plays, but hardly as its writer meant. Each names the
// member it is about in quotes, so that it can be given its line.
#include <algorithm>
#include <cstdio>
#include <map>

#include "hostsim/Scenario.h"
#include "hostsim/SimHost.h"

namespace em_oidmap::hostsim {
namespace {

// The cabinets the module keeps (its own and 99 SE cabinets), and how many log scans
// its task queue holds at once.
constexpr size_t kModuleCabinets = 100;
constexpr size_t kScanQueue = 19;

std::string Hex(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", value);
  return text;
}

void LintCabinets(const Scenario& scenario, std::vector<std::string>& warnings) {
  if (!scenario.seEnumerationSucceeds) return;
  const size_t reported = std::min(scenario.seCabinets.size(), kMaxSeCabinets);
  if (scenario.seCabinets.size() > kMaxSeCabinets) {
    warnings.push_back("scenario member \"seCabinets\" lists " +
                       std::to_string(scenario.seCabinets.size()) +
                       " cabinets; the host reports the first " +
                       std::to_string(kMaxSeCabinets));
  }
  const size_t cabinets = 1 + reported;
  if (cabinets > kModuleCabinets) {
    warnings.push_back("scenario member \"seCabinets\" makes " + std::to_string(cabinets) +
                       " cabinets with the server's; the module keeps the first " +
                       std::to_string(kModuleCabinets) + " and ignores the rest");
  }
  if (std::min(cabinets, kModuleCabinets) > kScanQueue) {
    warnings.push_back("scenario member \"seCabinets\" makes " +
                       std::to_string(std::min(cabinets, kModuleCabinets)) +
                       " cabinets; the module queues one log scan per cabinet and its queue "
                       "holds " + std::to_string(kScanQueue) +
                       ", so while the first scans are slow the others are refused");
  }
}

}  // namespace

std::vector<std::string> LintScenario(const Scenario& scenario) {
  std::vector<std::string> warnings;
  LintCabinets(scenario, warnings);
  std::map<uint32_t, size_t> first;  // module id -> its first entry
  for (size_t i = 0; i < scenario.modules.size(); ++i) {
    const auto [at, added] = first.emplace(scenario.modules[i].mid, i);
    if (!added) {
      warnings.push_back("modules[" + std::to_string(i) + "] has the \"mid\" " +
                         Hex(scenario.modules[i].mid) + " of modules[" +
                         std::to_string(at->second) +
                         "]; requests to it reach only the first");
    }
  }
  for (const ScenarioEvent& event : scenario.events) {
    if (first.count(event.mid) != 0) continue;
    warnings.push_back("events[" + std::to_string(event.entry) + "] comes from the \"mid\" " +
                       Hex(event.mid) + ", a module the scenario does not have");
  }
  return warnings;
}

}  // namespace em_oidmap::hostsim
