#include "Opcodes.h"

#include <cctype>
#include <utility>

#include <fmt/format.h>

namespace em_oidmap::emhost {

namespace {

constexpr std::pair<const char*, uint32_t> kOpcodeNames[] = {
    {"CM_WriteToAllModules", 0x0310},
    {"CM_LogEntry", 0x0B00},
    {"CM_MessageLogAvailable", 0x0B01},
    {"CM_MessageLogReply", 0x0B02},
    {"CM_LogClear", 0x0B03},
    {"CM_GetMsgLogCacheEntries", 0x0B10},
    {"CM_LogMessageEvent", 0x0B11},
    {"CM_MsgLogLastSequenceNumber", 0x0B12},
    {"CM_MsgLogNumberOfEntries", 0x0B13},
    {"CM_LogMessageArgumentsRead", 0x0B16},
    {"CM_LogMessageAllResolutions", 0x0B17},
    {"CM_IdentProbe", 0x0B18},
    {"CM_LogMessageRaw", 0x0B19},
    {"CM_LogMessageAllCauses", 0x0B1A},
    {"CM_SupportedSelLanguages", 0x0B20},
    {"CM_LogMessageLongText", 0x0B21},
    {"CM_LogMessageSummary", 0x0B23},
    {"CM_LogMessageCause", 0x0B24},
    {"CM_LogMessageResolution", 0x0B25},
    {"CM_ExtObjectGet", 0x0C00},
    {"CM_ExtObjectSet", 0x0C01},
    {"CM_ExtObjectCount", 0x0C21},
    {"CM_ReadConfigurationSpace", 0xE001},
    {"CM_WriteConfigurationSpace", 0xE002},
};

// What the module does with an opcode, in the order `emhost opcodes` lists them.
struct Role {
  const char* opcodes;  // one opcode or a range, as shown
  uint32_t oc;          // the one whose name is shown (0: none)
  const char* what;
};
constexpr Role kRoles[] = {
    {"0x0300 0x0400 0x0500 0x0520 0xF041", 0,
     "maps: a count of instances; answered with the total of all modules"},
    {"0x0301-0x0305 0x0313 0x0314", 0, "maps: an instance counted by 0x0300, by global index (OI)"},
    {"0x0401-0x0404", 0, "maps: an instance counted by 0x0400, by global index"},
    {"0x0501 0x0504", 0, "maps: an instance counted by 0x0500, by global index"},
    {"0x0521-0x0527", 0, "maps: an instance counted by 0x0520, by global index"},
    {"0xF042-0xF045", 0, "maps: an instance counted by 0xF041, by global index"},
    {"0x0C21 OE 0x05 0x1C", 0x0C21, "maps: a count of extended objects, as 0x0300"},
    {"0x0C00 0x0C01", 0x0C00,
     "maps: an extended object (OE 0x0508 0x0506 0x1C06 0x1C03 0x1C0A 0x1C08 0x1C0E 0x1C0F)"},
    {"0xE001 0xE002 OE 0x71-0x73 0x90 0x91", 0xE001, "maps: a configuration value per instance"},
    {"0xE001 OE 0x11 0x30 0x31 0x32 0x77", 0xE001,
     "merges: read from all modules, one answer by the value's rule"},
    {"0xE002", 0xE002,
     "merges: written to all modules (OE 0 answered 0x01; 0x70, 0x1Cxx, 0x1Dxx, 0x31x, "
     "0x32x declined)"},
    {"0x0310", 0x0310, "merges: sent to all modules (30 s), 0x00 when one accepts"},
    {"0x0B00", 0x0B00, "merges: log entries of all modules (150 s), object ids patched"},
    {"0x0B03", 0x0B03, "merges: clears the logs of all modules (15 s) and the cabinet's cache"},
    {"0x0B01", 0x0B01, "answers: whether a module answered a log scan"},
    {"0x0B10", 0x0B10, "answers: a page of the cabinet's log in a language (OE), from seq (DA)"},
    {"0x0B12", 0x0B12, "answers: the cabinet's last sequence number"},
    {"0x0B13", 0x0B13, "answers: the number of the cabinet's log entries"},
    {"0x0B17", 0x0B17, "answers: all resolutions of error code DA; else asks the modules (late)"},
    {"0x0B1A", 0x0B1A, "answers: all causes, as 0x0B17"},
    {"0x0B21", 0x0B21, "answers: the long text, as 0x0B17"},
    {"0x0B23", 0x0B23, "answers: the summary, as 0x0B17"},
    {"0x0B24", 0x0B24, "answers: cause paragraph OI, as 0x0B17"},
    {"0x0B25", 0x0B25, "answers: resolution paragraph OI, as 0x0B17"},
    {"0x0B19", 0x0B19, "answers: the raw record of log entry DA, from its module (late)"},
    {"0x0B20", 0x0B20, "answers: the languages a module reports"},
    {"0x0B11", 0x0B11, "sends up: a new log entry's sequence number (an event)"},
};

}  // namespace

std::optional<uint32_t> ParseNumber(const std::string& text) {
  size_t at = 0;
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    at = 2;
    base = 16;
  }
  if (at == text.size()) return std::nullopt;
  uint64_t value = 0;
  for (; at < text.size(); ++at) {
    const unsigned char c = static_cast<unsigned char>(text[at]);
    if (!(base == 16 ? std::isxdigit(c) : std::isdigit(c))) return std::nullopt;
    value = value * static_cast<unsigned>(base) +
            static_cast<unsigned>(std::isdigit(c) ? c - '0' : std::tolower(c) - 'a' + 10);
    if (value > 0xFFFFFFFFULL) return std::nullopt;
  }
  return static_cast<uint32_t>(value);
}

std::string OpcodeName(uint32_t oc) {
  for (const auto& [name, value] : kOpcodeNames) {
    if (value == oc) return name;
  }
  return "";
}

std::optional<uint32_t> OpcodeByName(const std::string& text) {
  for (const auto& [name, value] : kOpcodeNames) {
    if (text == name) return value;
  }
  return ParseNumber(text);
}

std::vector<std::string> OpcodeNames() {
  std::vector<std::string> names;
  for (const auto& entry : kOpcodeNames) names.emplace_back(entry.first);
  return names;
}

std::vector<std::string> OpcodeTable() {
  std::vector<std::string> lines;
  for (const Role& role : kRoles) {
    lines.push_back(fmt::format("{}{}", role.opcodes,
                                role.oc != 0 ? "  " + OpcodeName(role.oc) : ""));
    lines.push_back(fmt::format("    {}", role.what));
  }
  return lines;
}

}  // namespace em_oidmap::emhost
