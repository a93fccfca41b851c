#include "RequestShorthand.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <sstream>
#include <utility>

#include <rapidjson/document.h>

#include "Opcodes.h"

namespace em_oidmap::emhost {

namespace {

// A raw SIP message in JSON.
bool ParseRaw(const std::string& line, SipJson& request, std::string& error) {
  SipJson raw;
  if (!raw.Parse(line) || raw.CommandCount() == 0) {
    error = "is not a SIP message in JSON";
    return false;
  }
  if (raw.CurrentIndex() < 0) raw.SetCurrentIndex(0);
  request = std::move(raw);
  return true;
}

// The number of KEY=VALUE; an opcode may be named.
std::optional<uint32_t> KeyNumber(const std::string& word, const std::string& key,
                                  const std::string& value, std::string& error) {
  const std::optional<uint32_t> number = key == "OC" ? OpcodeByName(value) : ParseNumber(value);
  if (!number && key == "OC" && !value.empty() &&
      !std::isdigit(static_cast<unsigned char>(value[0]))) {
    error = "has the unknown opcode name \"" + value + "\" (emhost opcodes lists the names)";
  } else if (!number) {
    error = "has \"" + word + "\" where KEY=NUMBER is expected (keys OC OE OI CA MI ST DA)";
  }
  return number;
}

bool AddData(const std::string& data, SipJson& request, std::string& error) {
  rapidjson::Document value;
  value.Parse(data.c_str(), data.size());
  if (value.HasParseError()) {
    error = "has DA=" + data + ", which is not JSON";
    return false;
  }
  request.CurrentCommand().AddMember(
      "DA", rapidjson::Value(static_cast<const rapidjson::Value&>(value), request.GetAllocator()),
      request.GetAllocator());
  return true;
}

}  // namespace

bool ParseRequestLine(const std::string& line, SipJson& request, std::string& error) {
  const size_t first = line.find_first_not_of(" \t\r");
  if (first != std::string::npos && line[first] == '{') return ParseRaw(line, request, error);
  std::istringstream words(line);
  std::optional<uint32_t> keys[6];  // OC OE OI CA MI ST
  constexpr const char* kNames[] = {"OC", "OE", "OI", "CA", "MI", "ST"};
  std::string data, word;
  while (words >> word) {
    const size_t equals = word.find('=');
    const std::string key = word.substr(0, equals);
    const std::string value = equals == std::string::npos ? "" : word.substr(equals + 1);
    if (key == "DA") {  // JSON may hold blanks: the data is the rest of the line
      data = value + std::string(std::istreambuf_iterator<char>(words), {});
      break;
    }
    const auto named = std::find(std::begin(kNames), std::end(kNames), key);
    if (named == std::end(kNames)) {
      error = "has the unknown key \"" + key + "\" (keys OC OE OI CA MI ST DA)";
      return false;
    }
    std::optional<uint32_t>& slot = keys[named - std::begin(kNames)];
    slot = KeyNumber(word, key, value, error);
    if (!slot) return false;
  }
  const auto& [oc, oe, oi, ca, mi, st] = keys;
  if (!oc) {
    error = "lacks OC=";
    return false;
  }
  request = SipJson(*oc, oe.value_or(0), oi.value_or(0), ca.value_or(0));
  // The message leaves a zero OE and OI out; one that was written is sent.
  if (oe == 0u) request.SetKey("OE", 0, false);
  if (oi == 0u) request.SetKey("OI", 0, false);
  if (mi) request.SetKey("MI", *mi, false);
  if (st) request.SetKey("ST", *st, false);
  return data.empty() || AddData(data, request, error);
}

}  // namespace em_oidmap::emhost
