// What the readable view says about an answer: the names of statuses, what a result
// means, which rule merged a value, and hints for the traps integrators fall into.
#ifndef EM_TOOLS_EMHOST_EXPLAIN_H
#define EM_TOOLS_EMHOST_EXPLAIN_H

#include <cstdint>
#include <string>
#include <vector>

#include <rapidjson/document.h>

namespace em_oidmap::emhost {

// "success", "time-out", ...; "" for a status without a name.
std::string StatusName(uint32_t status);
// "ST 0x13 not available", or, for a status sent as text or of another type, that value
// as sent and how the module reads it: ST " 7" (text, read as 0x00).
std::string StatusText(const rapidjson::Value& command);
// "answered" for 1, "declined: the host offers it to the other modules" for 0.
std::string ResultMeaning(uint32_t result);
// The rule a merged answer of (oc, oe) came from; "" when none applies.
std::string MergeRule(uint32_t oc, uint32_t oe);
// The statuses and results, one line each, for `emhost opcodes`.
std::vector<std::string> StatusTable();

// What emhost learnt of the module's start-up from the host's records.
struct StartFacts {
  bool mappingNeeded = false;     // some count was answered by more than one module
  bool languagesAnswered = false;  // a module answered the language request at re-scan
  std::vector<uint16_t> languages;
};

// A hint for an answer that is right but surprises: a log page or text refused for its
// language, an item request passed on because mapping is off. "" without one.
std::string Hint(const StartFacts& facts, const rapidjson::Value& request, uint32_t result,
                 const rapidjson::Value& answer);

}  // namespace em_oidmap::emhost

#endif  // EM_TOOLS_EMHOST_EXPLAIN_H
