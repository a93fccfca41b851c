#include "RequestShorthand.h"

#include <cctype>
#include <iterator>
#include <sstream>
#include <utility>

#include <rapidjson/document.h>

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

// "0x" and hexadecimal digits, or decimal digits, fitting 32 bits.
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

}  // namespace

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

bool ParseRequestLine(const std::string& line, SipJson& request, std::string& error) {
  const size_t first = line.find_first_not_of(" \t\r");
  if (first != std::string::npos && line[first] == '{') {
    SipJson raw;
    if (!raw.Parse(line) || raw.CommandCount() == 0) {
      error = "is not a SIP message in JSON";
      return false;
    }
    if (raw.CurrentIndex() < 0) raw.SetCurrentIndex(0);
    request = std::move(raw);
    return true;
  }
  std::istringstream words(line);
  std::optional<uint32_t> oc;
  uint32_t oe = 0, oi = 0, ca = 0;
  std::optional<uint32_t> mi, st;
  std::string data;
  std::string word;
  while (words >> word) {
    const size_t equals = word.find('=');
    const std::string key = word.substr(0, equals);
    std::string value = equals == std::string::npos ? "" : word.substr(equals + 1);
    if (key == "DA") {  // JSON may hold blanks: the data is the rest of the line
      data = value + std::string(std::istreambuf_iterator<char>(words), {});
      break;
    }
    const std::optional<uint32_t> number = key == "OC" ? OpcodeByName(value) : ParseNumber(value);
    if (!number) {
      error = "has \"" + word + "\" where KEY=NUMBER is expected (keys OC OE OI CA MI ST DA)";
      return false;
    }
    if (key == "OC") {
      oc = number;
    } else if (key == "OE") {
      oe = *number;
    } else if (key == "OI") {
      oi = *number;
    } else if (key == "CA") {
      ca = *number;
    } else if (key == "MI") {
      mi = number;
    } else if (key == "ST") {
      st = number;
    } else {
      error = "has the unknown key \"" + key + "\" (keys OC OE OI CA MI ST DA)";
      return false;
    }
  }
  if (!oc) {
    error = "lacks OC=";
    return false;
  }
  request = SipJson(*oc, oe, oi, ca);
  if (mi) request.SetKey("MI", *mi, false);
  if (st) request.SetKey("ST", *st, false);
  if (!data.empty()) {
    rapidjson::Document value;
    value.Parse(data.c_str(), data.size());
    if (value.HasParseError()) {
      error = "has DA=" + data + ", which is not JSON";
      return false;
    }
    request.CurrentCommand().AddMember(
        "DA", rapidjson::Value(static_cast<const rapidjson::Value&>(value), request.GetAllocator()),
        request.GetAllocator());
  }
  return true;
}
