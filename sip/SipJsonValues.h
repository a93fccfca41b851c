// Internal to SipJson's sources (sip/SipJson*.cpp): how a message's JSON values are
// looked up and read. Not part of the interface that hosts use; shipped with the sources
// that hosts compile in.
#ifndef EM_SIP_SIPJSONVALUES_H
#define EM_SIP_SIPJSONVALUES_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "sip/SipJson.h"

namespace sipjson_detail {
// Internal linkage in each of the sources, as if each had them itself: the compiler then
// inlines them as it does a file's own helpers (the lookups are the request path's hot
// loop; as inline functions of external linkage, translation measured 10% slower). Not
// every source uses every helper.
namespace {

using Value = SipJson::Value;
using Document = SipJson::Document;

// Bits 0, 12 and 21: the data-bearing statuses below 22.
constexpr uint32_t kDataBearingMask = (1u << 0) | (1u << 12) | (1u << 21);
constexpr uint32_t kStatusUnread = 22;

// The addressing members in the order of the Header bits (OC = bit 0).
constexpr const char* kHeaderNames[7] = {"OC", "OE", "OI", "CA", "MI", "ST", "CI"};

// Every missing member resolves here, so a chain of lookups never follows a missing one.
// Built once on first use (thread-safe local static), destroyed at exit.
const Value& NullValue() {
  static const Value kNull;
  return kNull;
}

// The first member named `key` (as FindMember finds it). Every read of a message resolves
// its path member by member, so this is the hot loop of the whole request path. A name
// matches when it has the key's length and bytes. The command members have two letters:
// for such a key a member costs one length test and one two-byte compare, where a library
// compare per member cost several times the whole test. Always inlined, so that a literal
// key's length and letters are constants.
template <class Object>
[[gnu::always_inline]] inline auto FindKey(Object& object, const char* key)
    -> decltype(object.MemberBegin()) {
  auto it = object.MemberBegin();
  const auto end = object.MemberEnd();
  if (key[0] != '\0' && key[1] != '\0' && key[2] == '\0') {
    const char first = key[0];
    const char second = key[1];
    for (; it != end; ++it) {
      if (it->name.GetStringLength() != 2) continue;
      const char* name = it->name.GetString();
      if (name[0] == first && name[1] == second) break;
    }
    return it;
  }
  const size_t keyLength = std::strlen(key);
  for (; it != end; ++it) {
    if (it->name.GetStringLength() == keyLength &&
        std::memcmp(it->name.GetString(), key, keyLength) == 0)
      break;
  }
  return it;
}

[[gnu::always_inline]] inline const Value& FindIn(const Value& object, const char* key) {
  if (!object.IsObject()) return NullValue();
  Value::ConstMemberIterator it = FindKey(object, key);
  return it == object.MemberEnd() ? NullValue() : it->value;
}

[[maybe_unused]] bool HasKeyIn(const Value& object, const char* key) {
  return FindKey(object, key) != object.MemberEnd();
}

[[maybe_unused]] bool RemoveKeyFrom(Value& object, const char* key) {
  Value::MemberIterator it = FindKey(object, key);
  if (it == object.MemberEnd()) return false;
  object.RemoveMember(it);
  return true;
}

// Low 32 bits of any integer number; false for floating and non-numbers.
[[maybe_unused]] bool IntegerLow32(const Value& v, uint32_t& out) {
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
[[maybe_unused]] uint32_t LenientKey(const Value& v, uint32_t def) {
  uint32_t value = 0;
  if (IntegerLow32(v, value)) return value;
  if (v.IsString()) return SipJson::ParseLenientNumber(v.GetString());
  return def;
}

// Low byte of an integer element; anything else counts as 0.
[[maybe_unused]] uint8_t LowByte(const Value& v) {
  uint32_t n = 0;
  return IntegerLow32(v, n) ? static_cast<uint8_t>(n & 0xFFu) : 0;
}

// Width of an unsigned value in the fewest of 1, 2, 4 or 8 bytes.
[[maybe_unused]] uint32_t ByteWidth(uint64_t v) {
  if (v <= 0xFFu) return 1;
  if (v <= 0xFFFFu) return 2;
  if (v <= 0xFFFFFFFFu) return 4;
  return 8;
}

// "DA"."RAW" when it is an array, else nullptr.
[[maybe_unused]] const Value* RawArray(const Value& data) {
  const Value& raw = FindIn(data, "RAW");
  return raw.IsArray() ? &raw : nullptr;
}

[[maybe_unused]] SipDataForm FormOf(const Value& data) {
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

}  // namespace
}  // namespace sipjson_detail

#endif  // EM_SIP_SIPJSONVALUES_H
