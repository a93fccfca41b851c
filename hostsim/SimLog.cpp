#include "hostsim/SimLog.h"

namespace em_oidmap::hostsim {
namespace {

void Put16(std::vector<uint8_t>& out, uint32_t v) {
  out.push_back(static_cast<uint8_t>(v));
  out.push_back(static_cast<uint8_t>(v >> 8));
}

void Put32(std::vector<uint8_t>& out, uint32_t v) {
  Put16(out, v);
  Put16(out, v >> 16);
}

template <class Record>
std::vector<uint8_t> EncodeAll(const std::vector<Record>& records) {
  std::vector<uint8_t> out;
  for (const Record& record : records) {
    const std::vector<uint8_t> bytes = record.Encode();
    out.insert(out.end(), bytes.begin(), bytes.end());
  }
  return out;
}

}  // namespace

std::vector<uint8_t> SimOldStyleRecord::Encode() const {
  std::vector<uint8_t> out;
  out.push_back(static_cast<uint8_t>(code));
  out.push_back(static_cast<uint8_t>(((code >> 8) & 0x3F) | (codeBits << 6)));
  out.push_back(0);
  out.push_back(argCount ? *argCount : static_cast<uint8_t>(args.empty() ? 0 : args.size() + 1));
  Put32(out, order);
  Put16(out, cabinet);
  Put16(out, objectId);
  for (uint32_t arg : args) Put32(out, arg);
  return out;
}

std::vector<uint8_t> SimUnifiedRecord::Encode() const {
  std::vector<uint8_t> out;
  Put16(out, 0);  // length, filled in below
  out.push_back(0);
  out.push_back(aux);
  Put32(out, code);
  Put32(out, flags);
  Put32(out, order);
  Put32(out, static_cast<uint32_t>(recordId));
  Put32(out, 0);
  out.push_back(codeBits);
  out.push_back(static_cast<uint8_t>(strings.size()));
  for (const std::string& text : strings) {
    out.insert(out.end(), text.begin(), text.end());
    out.push_back(0);
  }
  const uint32_t written = length ? *length : static_cast<uint32_t>(out.size());
  out[0] = static_cast<uint8_t>(written);
  out[1] = static_cast<uint8_t>(written >> 8);
  return out;
}

SimOldStyleRecord OldStyle(uint32_t code, uint32_t order, uint16_t objectId, uint16_t cabinet,
                           std::vector<uint32_t> args) {
  SimOldStyleRecord record;
  record.code = code;
  record.order = order;
  record.objectId = objectId;
  record.cabinet = cabinet;
  record.args = std::move(args);
  return record;
}

SimUnifiedRecord Unified(uint32_t code, uint32_t order, std::vector<std::string> strings) {
  SimUnifiedRecord record;
  record.code = code;
  record.order = order;
  record.strings = std::move(strings);
  return record;
}

std::vector<uint8_t> EncodeLog(const std::vector<SimOldStyleRecord>& records) {
  return EncodeAll(records);
}

std::vector<uint8_t> EncodeLog(const std::vector<SimUnifiedRecord>& records) {
  return EncodeAll(records);
}

std::string RawDataJson(const std::vector<uint8_t>& bytes) {
  std::string json = "{\"RAW\":[";
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i != 0) json += ',';
    json += std::to_string(bytes[i]);
  }
  return json + "]}";
}

bool RawBytesOf(const rapidjson::Value& data, std::vector<uint8_t>& bytes) {
  if (!data.IsObject()) return false;
  const auto raw = data.FindMember("RAW");
  if (raw == data.MemberEnd() || !raw->value.IsArray()) return false;
  std::vector<uint8_t> read;
  for (const rapidjson::Value& byte : raw->value.GetArray()) {
    if (!byte.IsUint() || byte.GetUint() > 0xFF) return false;
    read.push_back(static_cast<uint8_t>(byte.GetUint()));
  }
  bytes = std::move(read);
  return true;
}

}  // namespace em_oidmap::hostsim
