#include "hostsim/ScenarioReader.h"

#include <cctype>

#include "hostsim/SimModule.h"

namespace em_oidmap::hostsim {

using rapidjson::Value;

ObjectReader::ObjectReader(const Value& object, std::string where,
                           std::vector<std::string>& errors)
    : object_(object), where_(std::move(where)), errors_(errors) {
  if (!object_.IsObject()) Fail("must be an object");
}

void ObjectReader::AllowOnly(std::initializer_list<const char*> known) {
  if (!ok()) return;
  for (auto it = object_.MemberBegin(); it != object_.MemberEnd(); ++it) {
    bool found = false;
    for (const char* key : known) {
      if (it->name == key) found = true;
    }
    if (!found) {
      Fail(std::string("has unknown member \"") + it->name.GetString() + "\"");
      return;
    }
  }
}

const Value* ObjectReader::Find(const char* key) const {
  if (!ok()) return nullptr;
  auto it = object_.FindMember(key);
  return it == object_.MemberEnd() ? nullptr : &it->value;
}

std::optional<uint32_t> ObjectReader::OptionalNumber(const char* key) {
  const Value* value = Find(key);
  if (value == nullptr) return std::nullopt;
  uint32_t number = 0;
  if (!ToNumber(*value, number)) {
    Fail(std::string("member \"") + key + "\" is not an unsigned 32-bit number");
    return std::nullopt;
  }
  return number;
}

uint32_t ObjectReader::RequiredNumber(const char* key) {
  if (ok() && Find(key) == nullptr) Fail(std::string("lacks member \"") + key + "\"");
  return Number(key, 0);
}

uint32_t ObjectReader::NarrowNumber(const char* key, uint32_t def, int bits) {
  const uint32_t value = Number(key, def);
  if (bits < 32 && value >> bits != 0) {
    Fail(std::string("member \"") + key + "\" does not fit " + std::to_string(bits) + " bits");
  }
  return value;
}

const Value* ObjectReader::Array(const char* key) {
  const Value* value = Find(key);
  if (value != nullptr && !value->IsArray()) {
    Fail(std::string("member \"") + key + "\" is not an array");
    return nullptr;
  }
  return value;
}

bool ObjectReader::Bool(const char* key, bool def) {
  const Value* value = Find(key);
  if (value == nullptr) return def;
  if (!value->IsBool()) {
    Fail(std::string("member \"") + key + "\" is not a boolean");
    return def;
  }
  return value->GetBool();
}

std::string ObjectReader::Json(const char* key) {
  const Value* value = Find(key);
  return value == nullptr ? std::string() : ToJsonText(*value);
}

void ObjectReader::Fail(const std::string& what) {
  if (failed_) return;
  failed_ = true;
  errors_.push_back(where_ + " " + what);
}

bool ObjectReader::ToNumber(const Value& value, uint32_t& out) {
  if (value.IsUint()) {
    out = value.GetUint();
    return true;
  }
  if (!value.IsString() || value.GetStringLength() == 0) return false;
  const char* text = value.GetString();
  const char* const end = text + value.GetStringLength();
  int base = 10;
  if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text += 2;
  }
  if (text == end) return false;
  uint64_t number = 0;
  for (; text != end; ++text) {
    const unsigned char c = static_cast<unsigned char>(*text);
    uint32_t digit = 0;
    if (std::isdigit(c)) {
      digit = c - '0';
    } else if (base == 16 && std::isxdigit(c)) {
      digit = static_cast<uint32_t>(std::tolower(c) - 'a' + 10);
    } else {
      return false;
    }
    number = number * static_cast<uint32_t>(base) + digit;
    if (number > 0xFFFFFFFFULL) return false;
  }
  out = static_cast<uint32_t>(number);
  return true;
}

std::string Where(const char* list, rapidjson::SizeType i) {
  return std::string(list) + "[" + std::to_string(i) + "]";
}

bool ReadOldStyleRecord(ObjectReader& item, SimOldStyleRecord& record) {
  item.AllowOnly({"code", "codeBits", "cabinet", "oid", "order", "args", "argCount"});
  record.code = item.NarrowNumber("code", 0, 14);
  if (item.ok() && item.Find("code") == nullptr) item.Fail("lacks member \"code\"");
  record.codeBits = static_cast<uint8_t>(item.NarrowNumber("codeBits", 0, 2));
  record.cabinet = static_cast<uint16_t>(item.NarrowNumber("cabinet", 0, 16));
  record.objectId = static_cast<uint16_t>(item.NarrowNumber("oid", 0, 16));
  record.order = item.Number("order", 0);
  if (const Value* args = item.Array("args")) {
    for (const Value& arg : args->GetArray()) {
      uint32_t value = 0;
      if (!ObjectReader::ToNumber(arg, value)) {
        item.Fail("member \"args\" holds something other than numbers");
        break;
      }
      record.args.push_back(value);
    }
  }
  if (item.Find("argCount") != nullptr) {
    record.argCount = static_cast<uint8_t>(item.NarrowNumber("argCount", 0, 8));
  }
  return item.ok();
}

bool ReadUnifiedRecord(ObjectReader& item, SimUnifiedRecord& record) {
  item.AllowOnly({"code", "css", "flags", "order", "recordId", "aux", "codeBits", "strings"});
  if (item.ok() && item.Find("code") == nullptr) item.Fail("lacks member \"code\"");
  record.code = item.Number("code", 0);
  record.flags = item.Number("flags", 0);
  if (item.Find("css") != nullptr) {
    const bool css = item.Bool("css", false);
    record.flags = css ? (record.flags | 1u) : (record.flags & ~1u);
  }
  record.order = item.Number("order", 0);
  record.recordId = static_cast<int32_t>(item.Number("recordId", 0xFFFFFFFF));
  record.aux = static_cast<uint8_t>(item.NarrowNumber("aux", 0, 8));
  record.codeBits = static_cast<uint8_t>(item.NarrowNumber("codeBits", 0, 8));
  if (const Value* strings = item.Array("strings")) {
    for (const Value& text : strings->GetArray()) {
      if (!text.IsString()) {
        item.Fail("member \"strings\" holds something other than strings");
        break;
      }
      record.strings.emplace_back(text.GetString(), text.GetStringLength());
    }
  }
  return item.ok();
}

}  // namespace em_oidmap::hostsim
