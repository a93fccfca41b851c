// emhost map: starts the module and derives its OID map the only way a host can: it asks
// the module for each kind's count in each cabinet, then requests every global index and
// looks at where the module forwarded the request (module id and local id).
#include "MapCommand.h"

#include <memory>
#include <optional>

#include <fmt/format.h>

#include "HostSession.h"
#include "hostsim/SimModule.h"

using namespace em_oidmap;  // emhost is not in the project namespace yet

namespace {

// A counted kind: its count request and the item request that addresses one instance.
struct Kind {
  uint32_t countOc, countOe, itemOc, itemOe;
};
constexpr Kind kKinds[] = {
    {0x0300, 0x00, 0x0301, 0x0000}, {0x0400, 0x00, 0x0401, 0x0000},
    {0x0500, 0x00, 0x0501, 0x0000}, {0x0520, 0x00, 0x0521, 0x0000},
    {0xF041, 0x00, 0xF042, 0x0000}, {0x0C21, 0x05, 0x0C00, 0x0508},
    {0x0C21, 0x1C, 0x0C00, 0x1C06},
};
constexpr uint32_t kMaxInstances = 256;  // counts travel in 8 bits

bool IsAnswer(uint32_t status) {
  return status == 0x00 || status == 0x0C || status == 0x15 || status == 0xFF;
}

// The count the module answers for a kind in a cabinet, when it answers one.
std::optional<uint32_t> CountOf(HostSession& session, const Kind& kind, uint32_t cabinet) {
  SipJson request(kind.countOc, kind.countOe, 0, cabinet);
  session.module().OnRequest(request);
  uint32_t count = 0;
  if (!IsAnswer(request.GetStatus(request.CurrentIndex())) ||
      !request.GetDataValue(request.CurrentIndex(), count)) {
    return std::nullopt;
  }
  return count;
}

// Where the module sends the item request of global index `index`: "MI 0x.. OI n", or
// why it sends nothing.
std::string Target(HostSession& session, const Kind& kind, uint32_t cabinet, uint32_t index) {
  const size_t before = session.host().SentRequests().size();
  SipJson request(kind.itemOc, kind.itemOe, index, cabinet);
  const uint32_t result = session.module().OnRequest(request);
  const std::vector<hostsim::SentRequest> sent = session.host().SentRequests();
  for (size_t i = before; i < sent.size(); ++i) {
    SipJson forwarded;
    if (forwarded.Parse(sent[i].json) && forwarded.GetOpcode(sent[i].index) == kind.itemOc) {
      return fmt::format("MI 0x{:08X} OI {}", forwarded.GetKey(sent[i].index, "MI", 0),
                         forwarded.GetKey(sent[i].index, "OI", 0));
    }
  }
  return result == 0 ? "not mapped (declined, the host offers it to every module)"
                     : "answered without asking a module";
}

int PrintMap(const HostOptions& options) {
  HostSession session;
  if (const int code = session.Open(options); code != kExitOk) return code;
  session.Start({});
  const hostsim::Scenario& scenario = session.scenario();
  std::vector<uint32_t> cabinets{scenario.serverCabinet};
  if (scenario.seEnumerationSucceeds) {
    cabinets.insert(cabinets.end(), scenario.seCabinets.begin(), scenario.seCabinets.end());
  }
  fmt::print("OID map of {}{}\n", session.moduleName(),
             scenario.name.empty() ? "" : " for scenario " + scenario.name);
  size_t kinds = 0;
  for (const uint32_t cabinet : cabinets) {
    for (const Kind& kind : kKinds) {
      const std::optional<uint32_t> count = CountOf(session, kind, cabinet);
      if (!count || *count == 0) continue;
      ++kinds;
      fmt::print("cabinet {} count OC 0x{:04X} OE 0x{:02X}: {} instances, item OC 0x{:04X}", cabinet,
                 kind.countOc, kind.countOe, *count, kind.itemOc);
      fmt::print(kind.itemOe != 0 ? fmt::format(" OE 0x{:04X}\n", kind.itemOe) : "\n");
      for (uint32_t index = 0; index < std::min(*count, kMaxInstances); ++index) {
        fmt::print("  {:>3} -> {}\n", index, Target(session, kind, cabinet, index));
      }
    }
  }
  if (kinds == 0) fmt::print("no module counts any instances\n");
  return session.Close();
}

}  // namespace

void AddMapCommand(CLI::App& app, int* exitCode) {
  auto options = std::make_shared<HostOptions>();
  CLI::App* map = app.add_subcommand(
      "map", "start the module and print its OID map: global index -> module id, local id");
  AddHostOptions(*map, *options);
  map->callback([options, exitCode] { *exitCode = PrintMap(*options); });
}
