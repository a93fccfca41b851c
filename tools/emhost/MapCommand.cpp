// emhost map: starts the module and derives its OID map the only way a host can: it asks
// the module for each kind's count in each cabinet, then requests every global index and
// looks at where the module forwarded the request (module id and local id).
#include "MapCommand.h"

#include <memory>
#include <optional>

#include <fmt/format.h>

#include "Console.h"
#include "Explain.h"
#include "HostSession.h"
#include "Opcodes.h"
#include "Player.h"
#include "hostsim/SimModule.h"

namespace em_oidmap::emhost {

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

}  // namespace

void PrintMap(HostSession& session) {
  const hostsim::Scenario& scenario = session.scenario();
  std::string text = fmt::format("OID map of {}{}\n", session.moduleName(),
                                 scenario.name.empty() ? "" : " for scenario " + scenario.name);
  size_t kinds = 0;
  for (const uint32_t cabinet : session.Cabinets()) {
    for (const Kind& kind : kKinds) {
      const std::optional<uint32_t> count = CountOf(session, kind, cabinet);
      if (!count || *count == 0) continue;
      ++kinds;
      text += fmt::format("cabinet {} count OC 0x{:04X} OE 0x{:02X}: {} instances, item OC 0x{:04X}",
                          cabinet, kind.countOc, kind.countOe, *count, kind.itemOc);
      text += kind.itemOe != 0 ? fmt::format(" OE 0x{:04X}\n", kind.itemOe) : "\n";
      for (uint32_t index = 0; index < std::min(*count, kMaxInstances); ++index) {
        text += fmt::format("  {:>3} -> {}\n", index, Target(session, kind, cabinet, index));
      }
    }
  }
  if (kinds == 0) {
    text += LearnStartFacts(session.host(), 0).mappingNeeded
                ? "no kind of instance is mapped in these cabinets\n"
                : "OID mapping is not needed: no kind of instance is counted by more than one "
                  "module, so the module passes requests on unchanged\n";
  }
  console::Out(text);
}

void PrintOpcodes() {
  std::string text = "Opcodes (names as the request shorthand takes them):\n";
  for (const std::string& line : OpcodeTable()) text += "  " + line + "\n";
  text += "Other opcodes from 0x0B01 to 0x0B25, and all others, are declined (result 0).\n";
  text += "Statuses and results:\n";
  for (const std::string& line : StatusTable()) text += "  " + line + "\n";
  console::Out(text);
}

void AddMapCommand(CLI::App& app, int* exitCode) {
  auto options = std::make_shared<HostOptions>();
  CLI::App* map = app.add_subcommand(
      "map", "start the module and print its OID map: global index -> module id, local id");
  AddHostOptions(*map, *options);
  map->callback([options, exitCode] {
    HostSession session;
    *exitCode = session.Open(*options);
    if (*exitCode != kExitOk) return;
    session.Start({});
    PrintMap(session);
    *exitCode = session.Close();
  });
}

void AddOpcodesCommand(CLI::App& app, int* exitCode) {
  CLI::App* opcodes = app.add_subcommand(
      "opcodes", "list the opcodes the module maps, merges or answers, and the statuses");
  opcodes->callback([exitCode] {
    PrintOpcodes();
    *exitCode = kExitOk;
  });
}

}  // namespace em_oidmap::emhost
