// SipJson: readers, builders and the host API of the SIP message record.
#include "sip/SipJson.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstring>
#include <utility>

#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace {

using Value = SipJson::Value;
using Document = SipJson::Document;

// Bits 0, 12 and 21: the data-bearing statuses below 22.
constexpr uint32_t kDataBearingMask = (1u << 0) | (1u << 12) | (1u << 21);
constexpr uint32_t kStatusUnread = 22;

// Every missing member resolves here, so a chain of lookups never follows a missing one.
// Built once on first use (thread-safe local static), destroyed at exit.
const Value& NullValue() {
  static const Value kNull;
  return kNull;
}

// The first member named `key` (as FindMember finds it). Every read of a message resolves
// its path member by member, so this is the hot loop of the whole request path: names are
// compared inline, byte by byte up to the key's NUL, which for the two-letter command
// members costs a few compares instead of a length scan and a library compare per member.
template <class Object>
auto FindKey(Object& object, const char* key) -> decltype(object.MemberBegin()) {
  auto it = object.MemberBegin();
  const auto end = object.MemberEnd();
  for (; it != end; ++it) {
    const size_t length = it->name.GetStringLength();
    const char* name = it->name.GetString();
    size_t i = 0;
    while (i < length && key[i] != '\0' && name[i] == key[i]) ++i;
    if (i == length && key[i] == '\0') break;
  }
  return it;
}

const Value& FindIn(const Value& object, const char* key) {
  if (!object.IsObject()) return NullValue();
  Value::ConstMemberIterator it = FindKey(object, key);
  return it == object.MemberEnd() ? NullValue() : it->value;
}

bool HasKeyIn(const Value& object, const char* key) {
  return FindKey(object, key) != object.MemberEnd();
}

bool RemoveKeyFrom(Value& object, const char* key) {
  Value::MemberIterator it = FindKey(object, key);
  if (it == object.MemberEnd()) return false;
  object.RemoveMember(it);
  return true;
}

// Low 32 bits of any integer number; false for floating and non-numbers.
bool IntegerLow32(const Value& v, uint32_t& out) {
  if (v.IsUint64()) {
    out = static_cast<uint32_t>(v.GetUint64());
    return true;
  }
  if (v.IsInt64()) {
    out = static_cast<uint32_t>(static_cast<uint64_t>(v.GetInt64()));
    return true;
  }
  return false;
}

// A numeric member read leniently: integers by their low 32 bits, text as a number (some
// peers send numbers as text), `def` for anything else.
uint32_t LenientKey(const Value& v, uint32_t def) {
  uint32_t value = 0;
  if (IntegerLow32(v, value)) return value;
  if (v.IsString()) return SipJson::ParseLenientNumber(v.GetString());
  return def;
}

// Low byte of an integer element; anything else counts as 0.
uint8_t LowByte(const Value& v) {
  uint32_t n = 0;
  return IntegerLow32(v, n) ? static_cast<uint8_t>(n & 0xFFu) : 0;
}

// Width of an unsigned value in the fewest of 1, 2, 4 or 8 bytes.
uint32_t ByteWidth(uint64_t v) {
  if (v <= 0xFFu) return 1;
  if (v <= 0xFFFFu) return 2;
  if (v <= 0xFFFFFFFFu) return 4;
  return 8;
}

// "DA"."RAW" when it is an array, else nullptr.
const Value* RawArray(const Value& data) {
  const Value& raw = FindIn(data, "RAW");
  return raw.IsArray() ? &raw : nullptr;
}

SipDataForm FormOf(const Value& data) {
  if (data.IsNull()) return SipDataForm::kNone;
  if (data.IsBool()) return SipDataForm::kBoolean;
  if (data.IsNumber())
    return (data.IsInt64() || data.IsUint64()) ? SipDataForm::kInteger : SipDataForm::kFloat;
  if (data.IsString()) return SipDataForm::kText;
  if (data.IsArray()) {
    if (!data.Empty() && data[0].IsString()) return SipDataForm::kMultiString;
    return SipDataForm::kNumberList;
  }
  return HasKeyIn(data, "RAW") ? SipDataForm::kRawBytes : SipDataForm::kJsonStruct;
}

// Forwards SAX events to the document and stops the parse once objects and arrays nest
// deeper than the limit.
class DepthLimitedHandler {
 public:
  DepthLimitedHandler(Document& doc, unsigned maxDepth) : doc_(doc), max_depth_(maxDepth) {}

  bool Null() { return doc_.Null(); }
  bool Bool(bool b) { return doc_.Bool(b); }
  bool Int(int i) { return doc_.Int(i); }
  bool Uint(unsigned u) { return doc_.Uint(u); }
  bool Int64(int64_t i) { return doc_.Int64(i); }
  bool Uint64(uint64_t u) { return doc_.Uint64(u); }
  bool Double(double d) { return doc_.Double(d); }
  // Every number arrives as its text and is converted here (see NumberFromText).
  bool RawNumber(const char* s, rapidjson::SizeType n, bool /*copy*/) {
    return NumberFromText(s, s + n);
  }
  bool String(const char* s, rapidjson::SizeType n, bool copy) { return doc_.String(s, n, copy); }
  bool Key(const char* s, rapidjson::SizeType n, bool copy) { return doc_.Key(s, n, copy); }
  bool StartObject() { return Enter() && doc_.StartObject(); }
  bool EndObject(rapidjson::SizeType n) {
    --depth_;
    return doc_.EndObject(n);
  }
  bool StartArray() { return Enter() && doc_.StartArray(); }
  bool EndArray(rapidjson::SizeType n) {
    --depth_;
    return doc_.EndArray(n);
  }

 private:
  bool Enter() { return ++depth_ <= max_depth_; }

  // Integers as the reader gives them, exactly; other numbers correctly rounded, so that
  // the text Serialize writes reads back as the same double. The reader's own conversion
  // of fractions is off by some units in the last place, and its exact one reads outside
  // a table for long fractions. A number beyond the largest double is refused, one below
  // the smallest is 0.
  bool NumberFromText(const char* first, const char* last) {
    const bool minus = first != last && *first == '-';
    if (std::none_of(first, last, [](char c) { return c == '.' || c == 'e' || c == 'E'; })) {
      if (minus) {
        int64_t v = 0;
        if (std::from_chars(first, last, v).ec == std::errc()) {
          return v >= INT_MIN ? doc_.Int(static_cast<int>(v)) : doc_.Int64(v);
        }
      } else {
        uint64_t v = 0;
        if (std::from_chars(first, last, v).ec == std::errc()) {
          return v <= UINT_MAX ? doc_.Uint(static_cast<unsigned>(v)) : doc_.Uint64(v);
        }
      }
    }
    double d = 0;
    const std::from_chars_result result = std::from_chars(first, last, d);
    if (result.ec == std::errc::result_out_of_range) {
      long double wide = 0;  // the reader bounds exponents, so a too large one fits here
      if (std::from_chars(first, last, wide).ec == std::errc() && std::fabs(wide) >= 1) {
        return false;
      }
      d = minus ? -0.0 : 0.0;
    } else if (result.ec != std::errc() || result.ptr != last) {
      return false;
    }
    return doc_.Double(d);
  }

  Document& doc_;
  unsigned max_depth_;
  unsigned depth_ = 0;
};

}  // namespace

// ---- Construction, copies ---------------------------------------------------------------

SipJson::SipJson() { BuildEnvelope(); }

SipJson::SipJson(uint32_t oc, uint32_t oe, uint32_t oi, uint32_t ca) {
  BuildEnvelope();
  SetCommandHeader(oc, oe, oi, ca);
}

SipJson::SipJson(const SipJson& other) : current_(other.current_) {
  doc_.CopyFrom(other.doc_, doc_.GetAllocator());
}

SipJson& SipJson::operator=(const SipJson& other) {
  if (this != &other) {
    // Copy into a fresh document so that the old allocator's memory is released.
    Document fresh;
    fresh.CopyFrom(other.doc_, fresh.GetAllocator());
    doc_.Swap(fresh);
    current_ = other.current_;
  }
  return *this;
}

// The moved-from message keeps a null root: readers see no commands, and the first
// builder recreates the envelope.
SipJson::SipJson(SipJson&& other) noexcept : current_(other.current_) {
  doc_.Swap(other.doc_);
  other.current_ = 0;
}

SipJson& SipJson::operator=(SipJson&& other) noexcept {
  if (this != &other) {
    doc_.Swap(other.doc_);
    std::swap(current_, other.current_);
  }
  return *this;
}

SipJson::~SipJson() = default;

void SipJson::BuildEnvelope() {
  Allocator& a = doc_.GetAllocator();
  Value sip(rapidjson::kObjectType);
  sip.AddMember(rapidjson::StringRef("V"), Value(1u), a);
  sip.AddMember(rapidjson::StringRef("CMD"), Value(rapidjson::kArrayType), a);
  doc_.SetObject();
  doc_.AddMember(rapidjson::StringRef("SIP"), sip, a);
}

// ---- Host API ----------------------------------------------------------------------------

bool SipJson::Parse(const std::string& text) {
  current_ = 0;
  // Valid JSON never holds a raw NUL; the reader would take one as the end of the text.
  bool ok = std::memchr(text.data(), '\0', text.size()) == nullptr;
  Document parsed;
  if (ok) {
    rapidjson::MemoryStream ms(text.data(), text.size());
    rapidjson::Reader reader;
    rapidjson::ParseResult result;
    // Numbers as text, converted by the handler: not kParseFullPrecisionFlag, since in the
    // RapidJSON release we build with its decimal conversion reads outside a table for
    // numbers with long fractions, which any peer could send.
    auto generate = [&](Document& handler) {
      DepthLimitedHandler limited(handler, kMaxParseDepth);
      result = reader.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag>(
          ms, limited);
      return !result.IsError();
    };
    parsed.Populate(generate);
    ok = !result.IsError() && parsed.IsObject();
  }
  if (!ok) {
    Document empty;
    doc_.Swap(empty);
    BuildEnvelope();
    return false;
  }
  doc_.Swap(parsed);
  return true;
}

std::string SipJson::Serialize() const {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  doc_.Accept(writer);
  return std::string(buffer.GetString(), buffer.GetSize());
}

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

SipJson::Value* SipJson::ExistingCurrentObject() { return Command(current_); }

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

SipJson::Header SipJson::HeaderOf(const Value& command) {
  Header header;
  if (!command.IsObject()) return header;
  // Each member counts at its first occurrence only, as a look-up by name finds it.
  using H = Header;
  constexpr uint32_t kAll = H::kOc | H::kOe | H::kOi | H::kCa | H::kMi | H::kSt;
  for (const auto& member : command.GetObject()) {
    if (member.name.GetStringLength() != 2) continue;
    const char* name = member.name.GetString();
    uint32_t bit = 0;
    uint32_t* target = nullptr;
    uint32_t def = 0;
    switch ((static_cast<unsigned char>(name[0]) << 8) | static_cast<unsigned char>(name[1])) {
      case ('O' << 8) | 'C': bit = H::kOc; target = &header.oc; break;
      case ('O' << 8) | 'E': bit = H::kOe; target = &header.oe; break;
      case ('O' << 8) | 'I': bit = H::kOi; target = &header.oi; break;
      case ('C' << 8) | 'A': bit = H::kCa; target = &header.ca; break;
      case ('M' << 8) | 'I': bit = H::kMi; target = &header.mi; break;
      case ('S' << 8) | 'T': bit = H::kSt; target = &header.st; def = kStatusUnread; break;
      default: continue;
    }
    if ((header.present & bit) != 0) continue;
    header.present |= bit;
    *target = LenientKey(member.value, def);
    if (header.present == kAll) break;
  }
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
  SetMember(cmd, "DA",
            Value(text.data(), static_cast<rapidjson::SizeType>(text.size()), a));
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

// ---- Helpers -----------------------------------------------------------------------------

bool SipJson::IsDataBearingStatus(uint32_t status) {
  if (status < kStatusUnread) return ((kDataBearingMask >> status) & 1u) != 0;
  return status == 0xFF;
}

uint32_t SipJson::ParseLenientNumber(const char* text) {
  if (text == nullptr) return 0;
  const size_t length = std::strlen(text);
  uint32_t base = 10;
  const char* p = text;
  if (length >= 3 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    p = text + 2;
  } else if (length >= 2 && text[0] == '0') {
    base = 8;
    p = text + 1;
  }
  uint64_t value = 0;
  for (; *p != '\0'; ++p) {
    uint32_t digit;
    const char c = *p;
    if (c >= '0' && c <= '9')
      digit = static_cast<uint32_t>(c - '0');
    else if (c >= 'a' && c <= 'f')
      digit = static_cast<uint32_t>(c - 'a' + 10);
    else if (c >= 'A' && c <= 'F')
      digit = static_cast<uint32_t>(c - 'A' + 10);
    else
      break;
    if (digit >= base) break;
    value = value * base + digit;
    if (value > 0xFFFFFFFFu) return 0xFFFFFFFFu;
  }
  return static_cast<uint32_t>(value);
}
