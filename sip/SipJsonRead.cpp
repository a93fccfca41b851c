// SipJson: the cursor over the commands and the readers of their members.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "sip/SipJson.h"
#include "sip/SipJsonValues.h"

using namespace sipjson_detail;  // the helpers shared by SipJson's sources

// ---- Cursor and counts -------------------------------------------------------------------

const SipJson::Value* SipJson::CommandArray() const {
  const Value& cmd = FindIn(FindIn(doc_, "SIP"), "CMD");
  return cmd.IsArray() ? &cmd : nullptr;
}

bool SipJson::HasCommands() {
  current_ = 0;
  return CommandCount() > 0;
}

bool SipJson::NextCommand() {
  const Value* cmd = CommandArray();
  if (cmd == nullptr || static_cast<int64_t>(current_) + 1 >= static_cast<int64_t>(cmd->Size()))
    return false;
  ++current_;
  return true;
}

uint32_t SipJson::CommandCount() const {
  const Value* cmd = CommandArray();
  return cmd ? cmd->Size() : 0;
}

const SipJson::Value* SipJson::Command(int32_t index) const {
  const Value* cmd = CommandArray();
  if (cmd == nullptr || index < 0 || static_cast<rapidjson::SizeType>(index) >= cmd->Size())
    return nullptr;
  const Value& element = (*cmd)[static_cast<rapidjson::SizeType>(index)];
  return element.IsObject() ? &element : nullptr;
}

SipJson::Value* SipJson::Command(int32_t index) {
  return const_cast<Value*>(static_cast<const SipJson*>(this)->Command(index));
}

// ---- Readers -----------------------------------------------------------------------------

const SipJson::Value& SipJson::Member(int32_t index, const char* key) const {
  const Value* command = Command(index);
  return command ? FindIn(*command, key) : NullValue();
}

uint32_t SipJson::GetOpcode(int32_t index) const { return GetKey(index, "OC", 0); }

uint32_t SipJson::GetStatus(int32_t index) const { return GetKey(index, "ST", kStatusUnread); }

uint32_t SipJson::GetKey(int32_t index, const char* key) const {
  uint32_t value = 0;
  return IntegerLow32(Member(index, key), value) ? value : 0;
}

uint32_t SipJson::GetKey(int32_t index, const char* key, uint32_t def) const {
  return LenientKey(Member(index, key), def);
}

uint32_t SipJson::KeyOf(const Value& command, const char* key, uint32_t def) {
  return LenientKey(FindIn(command, key), def);
}

namespace {

// A two-letter name as one number: first letter in the high byte.
constexpr unsigned NameCode(const char* name) {
  return static_cast<unsigned>(static_cast<unsigned char>(name[0]) << 8) |
         static_cast<unsigned char>(name[1]);
}
// Sets the seven header members apart (checked below); another name falls on a free slot
// or on one whose code differs. One table look-up instead of a chain of compares.
constexpr unsigned CodeHash(unsigned code) { return (((code >> 8) + (code & 0xFFu)) >> 1) & 15u; }
struct SlotTable {
  uint16_t code[16];      // of the member in the slot; 0 where there is none
  unsigned char bit[16];  // its Header bit number
};
constexpr SlotTable MakeSlotTable() {
  SlotTable table{};
  for (unsigned i = 0; i < SipJson::Header::kCount; ++i) {
    const unsigned code = NameCode(kHeaderNames[i]);
    table.code[CodeHash(code)] = static_cast<uint16_t>(code);
    table.bit[CodeHash(code)] = static_cast<unsigned char>(i);
  }
  return table;
}
constexpr SlotTable kSlots = MakeSlotTable();
constexpr bool SlotsDistinct() {
  for (unsigned i = 0; i < SipJson::Header::kCount; ++i)
    if (kSlots.bit[CodeHash(NameCode(kHeaderNames[i]))] != i) return false;
  return true;
}
static_assert(SlotsDistinct(), "two header members share a hash slot");

}  // namespace

int SipJson::HeaderSlotOf(const Value& name) {
  if (!name.IsString() || name.GetStringLength() != 2) return -1;
  const unsigned code = NameCode(name.GetString());
  const unsigned hash = CodeHash(code);
  return kSlots.code[hash] == code ? kSlots.bit[hash] : -1;
}

SipJson::Header SipJson::HeaderOf(const Value& command) {
  Header header;
  if (!command.IsObject()) return header;
  // Each member counts at its first occurrence only, as a look-up by name finds it.
  constexpr uint32_t kAll = (1u << Header::kCount) - 1;
  uint32_t values[Header::kCount] = {0, 0, 0, 0, 0, kStatusUnread, 0};
  uint32_t present = 0;
  const auto begin = command.MemberBegin();
  const auto end = command.MemberEnd();
  for (auto member = begin; member != end; ++member) {
    if (member->name.GetStringLength() != 2) continue;
    const unsigned code = NameCode(member->name.GetString());
    const unsigned hash = CodeHash(code);
    if (kSlots.code[hash] != code) continue;
    const unsigned slot = kSlots.bit[hash];
    const uint32_t bit = 1u << slot;
    if ((present & bit) != 0) continue;
    present |= bit;
    const Value& value = member->value;
    values[slot] = value.IsUint() ? value.GetUint() : LenientKey(value, values[slot]);
    const auto at = member - begin;
    if (at < Header::kFar) header.position[slot] = static_cast<uint16_t>(at);
    if (present == kAll) break;
  }
  header.present = present;
  header.oc = values[0];
  header.oe = values[1];
  header.oi = values[2];
  header.ca = values[3];
  header.mi = values[4];
  header.st = values[5];
  header.ci = values[6];
  return header;
}

bool SipJson::HasKeyOf(const Value& command, const char* key) {
  return command.IsObject() && HasKeyIn(command, key);
}

bool SipJson::GetDataValue(int32_t index, uint32_t& value) const {
  const Value& data = Member(index, "DA");
  if (data.IsBool()) {
    value = data.GetBool() ? 1 : 0;
    return true;
  }
  if (data.IsInt()) {
    value = static_cast<uint32_t>(data.GetInt());
    return true;
  }
  if (FormOf(data) != SipDataForm::kRawBytes) return false;
  const Value* raw = RawArray(data);
  if (raw == nullptr || raw->Empty()) return false;
  const rapidjson::SizeType n = raw->Size();
  uint32_t b[4] = {0, 0, 0, 0};  // a missing fourth byte reads as 0
  for (rapidjson::SizeType i = 0; i < n && i < 4; ++i) {
    if (!(*raw)[i].IsUint()) return false;
    b[i] = (*raw)[i].GetUint();
  }
  if (n == 1)
    value = b[0];
  else if (n == 2)
    value = (b[0] | (b[1] << 8)) & 0xFFFFu;
  else
    value = b[0] + (b[1] << 8) + (b[2] << 16) + (b[3] << 24);
  return true;
}

uint32_t SipJson::GetDataLength(int32_t index) const {
  const Value& data = Member(index, "DA");
  switch (FormOf(data)) {
    case SipDataForm::kBoolean:
      return 1;
    case SipDataForm::kInteger:
      // The 64-bit test comes first and every integer passes it.
      if (data.IsInt64() || data.IsUint64()) return 8;
      return 4;
    case SipDataForm::kText:
      return data.GetStringLength() + 1;
    case SipDataForm::kMultiString: {
      uint32_t length = 1;  // the list's final NUL
      for (const Value& s : data.GetArray())
        if (s.IsString()) length += s.GetStringLength() + 1;
      return length;
    }
    case SipDataForm::kNumberList: {
      uint32_t length = 0;
      for (const Value& n : data.GetArray()) {
        if (n.IsUint64())
          length += ByteWidth(n.GetUint64());
        else if (n.IsNumber())
          length += 8;
      }
      return length;
    }
    case SipDataForm::kRawBytes: {
      const Value* raw = RawArray(data);
      return raw ? raw->Size() : 0;
    }
    case SipDataForm::kNone:
    case SipDataForm::kFloat:
    case SipDataForm::kJsonStruct:
      break;
  }
  return 0;
}

bool SipJson::GetDataString(int32_t index, std::string& out, uint32_t start) const {
  const Value& data = Member(index, "DA");
  switch (FormOf(data)) {
    case SipDataForm::kNone:
      out.clear();
      return true;
    case SipDataForm::kText:
      if (start != 0) return false;
      out.assign(data.GetString(), data.GetStringLength());
      return true;
    case SipDataForm::kRawBytes: {
      const Value* raw = RawArray(data);
      if (raw == nullptr || start >= raw->Size() || !(*raw)[0].IsUint()) return false;
      std::string text;
      for (rapidjson::SizeType i = start; i < raw->Size(); ++i) {
        const char c = static_cast<char>(LowByte((*raw)[i]));
        if (c == '\0') break;
        text.push_back(c);
      }
      out.swap(text);
      return true;
    }
    default:
      return false;
  }
}

bool SipJson::GetDataBytes(int32_t index, std::vector<uint8_t>& out) const {
  out.clear();
  const Value& data = Member(index, "DA");
  switch (FormOf(data)) {
    case SipDataForm::kRawBytes: {
      const Value* raw = RawArray(data);
      if (raw == nullptr || raw->Empty() || !(*raw)[0].IsUint()) return true;
      out.reserve(raw->Size());
      for (const Value& b : raw->GetArray()) out.push_back(LowByte(b));
      return true;
    }
    case SipDataForm::kMultiString:
      for (const Value& s : data.GetArray()) {
        if (!s.IsString()) continue;
        out.insert(out.end(), s.GetString(), s.GetString() + s.GetStringLength());
        out.push_back(0);
      }
      out.push_back(0);
      return true;
    case SipDataForm::kNumberList:
      return true;  // number lists are not turned into bytes
    case SipDataForm::kText:
      out.assign(data.GetString(), data.GetString() + data.GetStringLength());
      out.push_back(0);
      return true;
    case SipDataForm::kInteger: {
      if (!data.IsUint64()) return false;  // negative
      const uint64_t v = data.GetUint64();
      const uint32_t width = ByteWidth(v);
      for (uint32_t i = 0; i < width; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
      return true;
    }
    default:
      return false;
  }
}

bool SipJson::GetDataStrings(int32_t index, std::vector<std::string>& out) const {
  out.clear();
  const Value& data = Member(index, "DA");
  if (FormOf(data) != SipDataForm::kMultiString) return false;
  for (const Value& s : data.GetArray())
    if (s.IsString()) out.emplace_back(s.GetString(), s.GetStringLength());
  return true;
}

SipDataForm SipJson::GetDataForm(int32_t index) const { return FormOf(Member(index, "DA")); }

std::string SipJson::GetDataJsonText(int32_t index) const {
  const Value& data = Member(index, "DA");
  if (FormOf(data) != SipDataForm::kJsonStruct) return std::string();
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  data.Accept(writer);
  return std::string(buffer.GetString(), buffer.GetSize());
}

uint32_t SipJson::CountCommandsWithData() const {
  const Value* cmd = CommandArray();
  if (cmd == nullptr) return 0;
  uint32_t count = 0;
  for (const Value& command : cmd->GetArray()) {
    const Value& st = FindIn(command, "ST");
    if (st.IsUint() && IsDataBearingStatus(st.GetUint()) && HasKeyIn(command, "DA")) ++count;
  }
  return count;
}

bool SipJson::HasData() const {
  return IsDataBearingStatus(GetStatus(current_)) && !Member(current_, "DA").IsNull();
}

bool SipJson::HasKey(int32_t index, const char* key) const {
  const Value* command = Command(index);
  return command != nullptr && HasKeyIn(*command, key);
}
