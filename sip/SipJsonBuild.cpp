// SipJson: the builders, which act on the current command and create the envelope and
// the command when they are missing.
#include <string>
#include <utility>
#include <vector>

#include "sip/SipJson.h"
#include "sip/SipJsonValues.h"

using namespace sipjson_detail;  // the helpers shared by SipJson's sources

// ---- Current command ------------------------------------------------------------------

SipJson::Value* SipJson::CommandArrayForBuilding() {
  if (doc_.IsNull()) BuildEnvelope();
  if (!doc_.IsObject()) return nullptr;
  Allocator& a = doc_.GetAllocator();
  Value::MemberIterator sip = FindKey(doc_, "SIP");
  if (sip == doc_.MemberEnd()) {
    Value envelope(rapidjson::kObjectType);
    envelope.AddMember(rapidjson::StringRef("V"), Value(1u), a);
    doc_.AddMember(rapidjson::StringRef("SIP"), envelope, a);
    sip = FindKey(doc_, "SIP");
  }
  if (!sip->value.IsObject()) return nullptr;
  Value::MemberIterator cmd = FindKey(sip->value, "CMD");
  if (cmd == sip->value.MemberEnd()) {
    sip->value.AddMember(rapidjson::StringRef("CMD"), Value(rapidjson::kArrayType), a);
    cmd = FindKey(sip->value, "CMD");
  }
  return cmd->value.IsArray() ? &cmd->value : nullptr;
}

SipJson::Value& SipJson::CurrentCommand() {
  scratch_.SetNull();
  if (current_ < 0 || current_ > kMaxCommandIndex) return scratch_;
  Value* cmd = CommandArrayForBuilding();
  if (cmd == nullptr) return scratch_;
  Allocator& a = doc_.GetAllocator();
  while (cmd->Size() <= static_cast<rapidjson::SizeType>(current_))
    cmd->PushBack(Value(rapidjson::kObjectType), a);
  return (*cmd)[static_cast<rapidjson::SizeType>(current_)];
}

SipJson::Value* SipJson::ExistingCurrentObject() { return Command(current_); }

// ---- Builders ----------------------------------------------------------------------------

void SipJson::SetMember(Value& object, const char* key, Value&& value) {
  Value::MemberIterator it = FindKey(object, key);
  if (it != object.MemberEnd())
    it->value = value;
  else
    object.AddMember(rapidjson::StringRef(key), value, doc_.GetAllocator());
}

void SipJson::SetCommandHeader(uint32_t oc, uint32_t oe, uint32_t oi, uint32_t ca) {
  Value& cmd = CurrentCommand();
  if (!cmd.IsObject()) return;
  Allocator& a = doc_.GetAllocator();
  cmd.SetObject();
  cmd.AddMember(rapidjson::StringRef("OC"), Value(oc), a);
  if (oe != 0) cmd.AddMember(rapidjson::StringRef("OE"), Value(oe), a);
  if (oi != 0) cmd.AddMember(rapidjson::StringRef("OI"), Value(oi), a);
  cmd.AddMember(rapidjson::StringRef("CA"), Value(ca), a);
}

void SipJson::SetStatus(uint32_t status) { SetKey(CurrentCommand(), "ST", status, false); }

void SipJson::SetDataValue(uint32_t value, uint32_t status) {
  Value& cmd = CurrentCommand();
  if (!cmd.IsObject()) return;
  SetMember(cmd, "DA", Value(value));
  SetMember(cmd, "ST", Value(status));
}

void SipJson::SetModuleId(uint32_t mid) { SetKey(CurrentCommand(), "MI", mid, true); }

bool SipJson::SetKey(const char* key, uint32_t value, bool removeIfZero) {
  return SetKey(CurrentCommand(), key, value, removeIfZero);
}

bool SipJson::SetKey(Value& command, const char* key, uint32_t value, bool removeIfZero) {
  if (!command.IsObject()) return false;
  if (value == 0 && removeIfZero)
    RemoveKeyFrom(command, key);
  else
    SetMember(command, key, Value(value));
  return true;
}

bool SipJson::SetHeaderKey(Value& command, const Header& header, uint32_t which, uint32_t value) {
  if (!command.IsObject() || which == 0) return false;
  const unsigned slot = static_cast<unsigned>(__builtin_ctz(which)) % Header::kCount;
  const char* name = kHeaderNames[slot];
  if ((header.present & which) == 0) {
    command.AddMember(rapidjson::StringRef(name), Value(value), doc_.GetAllocator());
  } else if (header.position[slot] != Header::kFar) {
    (command.MemberBegin() + header.position[slot])->value.SetUint(value);
  } else {
    SetMember(command, name, Value(value));
  }
  return true;
}

bool SipJson::RemoveHeaderKey(Value& command, Header& header, uint32_t which) {
  if (!command.IsObject() || which == 0 || (header.present & which) == 0) return false;
  const unsigned slot = static_cast<unsigned>(__builtin_ctz(which)) % Header::kCount;
  const uint16_t at = header.position[slot];
  header.present &= ~which;
  header.position[slot] = Header::kFar;
  // Far members are looked up by name, and a far member moved into the gap stays far.
  if (at == Header::kFar) return RemoveKeyFrom(command, kHeaderNames[slot]);
  const auto gap = command.MemberBegin() + at;
  const auto last = command.MemberEnd() - 1;
  if (gap != last) {
    // The last member takes the gap: a header member, even a repeated name, is then the
    // first of its name when no earlier one was recorded.
    const int moved = HeaderSlotOf(last->name);
    if (moved >= 0 && header.position[moved] > at) {
      header.position[moved] = at;
      header.present |= 1u << moved;
    }
  }
  command.RemoveMember(gap);
  return true;
}

void SipJson::SetRawData(const std::vector<uint8_t>& bytes, uint32_t status) {
  Value& cmd = CurrentCommand();
  if (!cmd.IsObject()) return;
  if (bytes.empty()) {
    RemoveKeyFrom(cmd, "DA");
  } else {
    Allocator& a = doc_.GetAllocator();
    Value raw(rapidjson::kArrayType);
    raw.Reserve(static_cast<rapidjson::SizeType>(bytes.size()), a);
    for (uint8_t b : bytes) raw.PushBack(Value(static_cast<unsigned>(b)), a);
    Value data(rapidjson::kObjectType);
    data.AddMember(rapidjson::StringRef("RAW"), raw, a);
    SetMember(cmd, "DA", std::move(data));
  }
  SetMember(cmd, "ST", Value(status));
}

void SipJson::SetDataString(const std::string& text, uint32_t status) {
  Value& cmd = CurrentCommand();
  if (!cmd.IsObject()) return;
  Allocator& a = doc_.GetAllocator();
  SetMember(cmd, "DA", Value(text.data(), static_cast<rapidjson::SizeType>(text.size()), a));
  SetMember(cmd, "ST", Value(status));
}

void SipJson::SetDataStrings(const std::vector<std::string>& strings, uint32_t status) {
  Value& cmd = CurrentCommand();
  if (!cmd.IsObject()) return;
  Allocator& a = doc_.GetAllocator();
  Value list(rapidjson::kArrayType);
  list.Reserve(static_cast<rapidjson::SizeType>(strings.size()), a);
  for (const std::string& s : strings)
    list.PushBack(Value(s.data(), static_cast<rapidjson::SizeType>(s.size()), a), a);
  SetMember(cmd, "DA", std::move(list));
  SetMember(cmd, "ST", Value(status));
}

bool SipJson::RemoveKey(const char* key) {
  Value* cmd = ExistingCurrentObject();
  return cmd != nullptr && RemoveKeyFrom(*cmd, key);
}

int32_t SipJson::AppendCommand(const Value& command) {
  Value* cmd = CommandArrayForBuilding();
  if (cmd == nullptr) return -1;
  Allocator& a = doc_.GetAllocator();
  Value copy(command, a);
  cmd->PushBack(copy, a);
  return static_cast<int32_t>(cmd->Size() - 1);
}
