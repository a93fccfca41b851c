#include "RequestShorthand.h"

#include <cctype>
#include <iterator>
#include <sstream>
#include <utility>

#include <rapidjson/document.h>

#include "Opcodes.h"

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
  std::optional<uint32_t> oc, oe, oi, mi, st;
  uint32_t ca = 0;
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
    if (!number && key == "OC" && !value.empty() &&
        !std::isdigit(static_cast<unsigned char>(value[0]))) {
      error = "has the unknown opcode name \"" + value + "\" (emhost opcodes lists the names)";
      return false;
    }
    if (!number) {
      error = "has \"" + word + "\" where KEY=NUMBER is expected (keys OC OE OI CA MI ST DA)";
      return false;
    }
    if (key == "OC") {
      oc = number;
    } else if (key == "OE") {
      oe = number;
    } else if (key == "OI") {
      oi = number;
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
  request = SipJson(*oc, oe.value_or(0), oi.value_or(0), ca);
  // The message leaves a zero OE and OI out; one that was written is sent.
  if (oe == 0u) request.SetKey("OE", 0, false);
  if (oi == 0u) request.SetKey("OI", 0, false);
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
