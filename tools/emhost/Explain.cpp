#include "Explain.h"

#include <fmt/format.h>

#include "Opcodes.h"
#include "hostsim/SimModule.h"
#include "sip/SipJson.h"

namespace em_oidmap::emhost {

namespace {

struct Named {
  uint32_t status;
  const char* name;
  const char* meaning;
};
constexpr Named kStatuses[] = {
    {0x00, "success", "answered"},
    {0x01, "not handled", "not handled here, or declined"},
    {0x02, "no such paragraph", "paragraph number too high"},
    {0x06, "no host", "no host to send through"},
    {0x0C, "valid reply", "a valid reply that carries data"},
    {0x0F, "time-out", "a module did not answer in time, or the log cache was not ready"},
    {0x12, "invalid arguments", "invalid arguments (a text request without an error code)"},
    {0x13, "not available", "the lower request failed, the item is not there, or the "
                            "language is not supported"},
    {0x14, "log invalid", "the message log is invalid for the cabinet, or the request was "
                          "not accepted (task queue full)"},
    {0x15, "valid reply", "a valid reply that carries data"},
    {0x16, "pending", "not yet answered: the answer comes later with the same CI"},
    {0xFF, "event", "an event; also the status of a message handed up"},
};

constexpr uint32_t kOcCount[] = {0x0300, 0x0400, 0x0500, 0x0520, 0xF041, 0x0C21};
constexpr uint32_t kOcLogPage = 0x0B10;
constexpr uint32_t kStatusPending = 0x16;

bool IsCountOrItem(uint32_t oc) {
  for (uint32_t count : kOcCount) {
    if (oc == count) return true;
  }
  return (oc >= 0x0301 && oc <= 0x0305) || oc == 0x0313 || oc == 0x0314 ||
         (oc >= 0x0401 && oc <= 0x0404) || oc == 0x0501 || oc == 0x0504 ||
         (oc >= 0x0521 && oc <= 0x0527) || (oc >= 0xF042 && oc <= 0xF045) || oc == 0x0C00 ||
         oc == 0x0C01;
}

bool IsTextRequest(uint32_t oc) {
  return oc == 0x0B17 || oc == 0x0B1A || oc == 0x0B21 || oc == 0x0B23 || oc == 0x0B24 ||
         oc == 0x0B25;
}

}  // namespace

std::string StatusName(uint32_t status) {
  for (const Named& named : kStatuses) {
    if (named.status == status) return named.name;
  }
  return "";
}

std::string StatusText(const rapidjson::Value& command) {
  const auto st = command.IsObject() ? command.FindMember("ST") : command.MemberEnd();
  if (!command.IsObject() || st == command.MemberEnd()) return "no ST";
  const uint32_t read = hostsim::CommandKey(command, "ST", kStatusPending);
  if (!st->value.IsUint()) {
    // What the peer sent, not the number it stands for: " 7" is not 0x07 to the module.
    const bool text = st->value.IsString();
    return fmt::format("ST {} ({}, read as 0x{:02X})", hostsim::ToJsonText(st->value),
                       text ? "text" : "not a number", text ? read : kStatusPending);
  }
  const std::string name = StatusName(read);
  return fmt::format("ST 0x{:02X}{}", read, name.empty() ? "" : " " + name);
}

std::string ResultMeaning(uint32_t result) {
  return result == 1 ? "answered" : "declined: the host offers it to the other modules";
}

std::string MergeRule(uint32_t oc, uint32_t oe) {
  switch (oc) {
    case 0xE001:
      switch (oe) {
        case 0x11: return "CKT_ConfNextBootSource: one reply's value; of more, 1 if any is 1";
        case 0x30: return "CKT_ConfRebootRetryCounter: the smallest value, as one byte";
        case 0x31:
          return "CKT_ConfRetryZeroAction: one reply's value; of more, the first of 5, 4, 3, "
                 "1, 0 that a module answers, else 2";
        case 0x32: return "CKT_ConfErrorOffRestartTime: the smallest value, as 16 bits";
        case 0x77: return "CKT_ConfTempCriticalBiosOff: one reply's value; of more, 1 if any is 1";
        default: return "";
      }
    case 0xE002:
      return "ST 0x00 when a module takes the value, else the first of 0x04, 0x18, 0x06 "
             "that a module answers, else 0x13";
    case 0x0310: return "ST 0x00 when a module accepts, else 0x0F when one timed out, else 0x01";
    case 0x0B00: return "the log entries of all modules, object ids patched";
    case 0x0B03: return "cleared when a module accepts, else 0x13";
    default: return "";
  }
}

std::vector<std::string> StatusTable() {
  std::vector<std::string> lines;
  for (const Named& named : kStatuses) {
    lines.push_back(fmt::format("ST 0x{:02X}  {:<18} {}", named.status, named.name,
                                named.meaning));
  }
  lines.push_back("result 1  the module answered (the answer is in the message)");
  lines.push_back("result 0  " + ResultMeaning(0));
  return lines;
}

std::string Hint(const StartFacts& facts, const rapidjson::Value& request, uint32_t result,
                 const rapidjson::Value& answer) {
  const uint32_t oc = hostsim::CommandKey(request, "OC", 0);
  const uint32_t st = hostsim::CommandKey(answer, "ST", kStatusPending);
  if ((oc == kOcLogPage || IsTextRequest(oc) || oc == 0x0B12 || oc == 0x0B13) && st == 0x13) {
    const uint32_t lang = hostsim::CommandKey(request, "OE", 0) & 0xFFFF;
    if (!facts.languagesAnswered) {
      return "no module answered the language request (OC 0x0B20 CM_SupportedSelLanguages) "
             "at re-scan, so the module supports no language: give a module a rule for "
             "0x0B20 with the language ids as raw bytes, e.g. {\"oc\": \"0x0B20\", \"da\": "
             "{\"RAW\": [9, 4]}} for 0x409";
    }
    std::string known;
    for (uint16_t id : facts.languages) known += fmt::format(" 0x{:X}", id);
    if (oc == kOcLogPage) {
      return fmt::format("language 0x{:X} is not among those the modules reported:{}", lang,
                         known.empty() ? " none" : known);
    }
  }
  if (result == 0 && st == 0x01 && !facts.mappingNeeded && IsCountOrItem(oc)) {
    return "OID mapping is off: no count was answered by more than one module at start, so "
           "the module passes this on unchanged (result 0) for the host to offer to the "
           "module that holds the instances";
  }
  return "";
}

}  // namespace em_oidmap::emhost
