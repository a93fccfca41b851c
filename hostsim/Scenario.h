// Scenario: a simulated host set-up read from JSON (format: docs/scenario-format.md):
// the host kind, the server cabinet, the SE cabinets, the simulated modules with their
// reply rules, and the requests a tool sends to the module under test.
//
// Loading never throws: malformed text or members of the wrong type give false and an
// error text naming the offending member. Check lists every error and the warnings of a
// scenario that would play, but not as its writer likely meant.
#ifndef EM_HOSTSIM_SCENARIO_H
#define EM_HOSTSIM_SCENARIO_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "hostsim/SimModule.h"
#include "sip/SipJson.h"

namespace em_oidmap::hostsim {

class SimHost;

struct ScenarioModule {
  uint32_t mid = 0;
  std::vector<ReplyRule> rules;  // in matching order, convenience entries expanded
  bool keepsConfigWrites = false;
};

struct ScenarioRequest {
  uint32_t oc = 0;
  uint32_t oe = 0;
  uint32_t oi = 0;
  uint32_t ca = 0;
  std::optional<uint32_t> mi;
  std::string dataJson;  // empty: no DA
  // OE and OI are left out of the message when 0, unless they were written.
  bool writesOe = false;
  bool writesOi = false;

  // The request as a message: one command {"OC", ["OE"], ["OI"], "CA", ["MI"], ["DA"]}.
  SipJson ToMessage() const;
};

// An event a simulated module sends up at a time after the module's start.
struct ScenarioEvent {
  uint32_t atMs = 0;
  uint32_t mid = 0;
  ScenarioRequest command;  // OC, OE, OI, CA and DA of the event
  // The reporting module answers afterwards what the event says (SimModule::ApplyEvent).
  bool updatesModule = false;
  size_t entry = 0;  // its place in the file's "events" (they are played in order of time)

  SipJson ToMessage() const { return command.ToMessage(); }
};

// An error or a warning about a scenario file.
struct ScenarioFinding {
  size_t line = 0;  // 0: not known
  bool warning = false;
  std::string what;  // "modules[0].rules[2] has unknown member \"delay\""
};

struct Scenario {
  std::string name;
  uint32_t hostKind = 0;
  uint32_t serverCabinet = 0;
  std::vector<uint32_t> seCabinets;
  bool seEnumerationSucceeds = true;
  std::vector<ScenarioModule> modules;
  std::vector<ScenarioRequest> requests;
  std::vector<ScenarioEvent> events;  // in order of time

  // Replaces this scenario with the one in `text`. On failure returns false, sets
  // `error` ("LINE: PATH what is wrong", the first error in line order) and leaves this
  // scenario unchanged.
  bool Parse(const std::string& text, std::string& error);
  // As Parse, listing every error and warning in line order (at most kMaxFindings).
  // True, and the scenario replaced, when there is no error.
  bool Check(const std::string& text, std::vector<ScenarioFinding>& findings);
  static constexpr size_t kMaxFindings = 100;
  // Reads the file at `path` and parses it; errors start with "PATH:".
  bool Load(const std::string& path, std::string& error);
  // Configures the host: kind, SE cabinets and one simulated module per entry (added
  // after the host's existing modules).
  void ApplyTo(SimHost& host) const;
};

}  // namespace em_oidmap::hostsim

#endif  // EM_HOSTSIM_SCENARIO_H
