#include "msglog/MsgLogEntry.h"

#include <cstring>
#include <stdexcept>
#include <utility>

namespace em_oidmap {

// A full cabinet of entries is what the memory ceiling counts on.
static_assert(sizeof(MsgLogEntry) == 48, "a cached entry grew");

namespace {

size_t VarintSize(uint64_t value) {
  size_t size = 1;
  while (value >= 0x80) {
    value >>= 7;
    ++size;
  }
  return size;
}

uint8_t* PutVarint(uint8_t* at, uint64_t value) {
  while (value >= 0x80) {
    *at++ = static_cast<uint8_t>(value | 0x80);
    value >>= 7;
  }
  *at++ = static_cast<uint8_t>(value);
  return at;
}

// Reads what PutVarint wrote; the buffer is the entry's own, so it is whole.
const uint8_t* GetVarint(const uint8_t* at, uint64_t* value) {
  uint64_t result = 0;
  for (unsigned shift = 0;; shift += 7) {
    const uint8_t byte = *at++;
    result |= static_cast<uint64_t>(byte & 0x7F) << shift;
    if ((byte & 0x80) == 0) break;
  }
  *value = result;
  return at;
}

// Small numbers of either sign in one byte.
uint64_t ZigZag(int32_t number) {
  const uint32_t bits = static_cast<uint32_t>(number);
  return (bits << 1) ^ (0u - (bits >> 31));
}

int32_t UnZigZag(uint64_t value) {
  return static_cast<int32_t>(static_cast<uint32_t>(value >> 1) ^
                              (0u - static_cast<uint32_t>(value & 1)));
}

}  // namespace

uint8_t MsgLogBytes::at(size_t i) const {
  if (i >= size_) throw std::out_of_range("MsgLogBytes::at");
  return data_[i];
}

// ---- Copies -------------------------------------------------------------------------------

void MsgLogEntry::CopyFields(const MsgLogEntry& other) {
  ModuleId = other.ModuleId;
  ErrorCode = other.ErrorCode;
  Flags = other.Flags;
  OrderValue = other.OrderValue;
  SequenceNumber = other.SequenceNumber;
  RecordId = other.RecordId;
  AuxByte = other.AuxByte;
  OldStyle = other.OldStyle;
  CodeBits = other.CodeBits;
}

MsgLogEntry::MsgLogEntry(const MsgLogEntry& other) {
  CopyFields(other);
  const MsgLogBytes packed = other.Packed();
  std::memcpy(Reserve(packed.size()), packed.data(), packed.size());
  tag_ = static_cast<uint8_t>(tag_ | (other.tag_ & kHasArguments));
}

MsgLogEntry& MsgLogEntry::operator=(const MsgLogEntry& other) {
  if (this != &other) *this = MsgLogEntry(other);
  return *this;
}

MsgLogEntry::MsgLogEntry(MsgLogEntry&& other) noexcept { *this = std::move(other); }

MsgLogEntry& MsgLogEntry::operator=(MsgLogEntry&& other) noexcept {
  if (this != &other) {
    Free();
    CopyFields(other);
    std::memcpy(bytes_, other.bytes_, kInlineBytes);
    tag_ = other.tag_;
    other.tag_ = 0;  // the heap block, if any, is this entry's now
  }
  return *this;
}

// ---- The packed buffer ----------------------------------------------------------------------

const uint8_t* MsgLogEntry::HeapData() const {
  const uint8_t* data = nullptr;
  std::memcpy(&data, bytes_, sizeof(data));
  return data;
}

size_t MsgLogEntry::HeapSize() const {
  uint32_t size = 0;
  std::memcpy(&size, bytes_ + sizeof(uint8_t*), sizeof(size));
  return size;
}

MsgLogBytes MsgLogEntry::Packed() const {
  if (IsOnHeap()) return MsgLogBytes{HeapData(), HeapSize()};
  return MsgLogBytes{bytes_, static_cast<size_t>(tag_ & kInlineSizeMask)};
}

void MsgLogEntry::Free() {
  if (IsOnHeap()) delete[] HeapData();
  tag_ = 0;
}

uint8_t* MsgLogEntry::Reserve(size_t size) {
  Free();
  if (size <= kInlineBytes) {
    tag_ = static_cast<uint8_t>(size);
    return bytes_;
  }
  if (size > UINT32_MAX) throw std::length_error("MsgLogEntry: too many bytes");
  uint8_t* data = new uint8_t[size];
  const uint32_t size32 = static_cast<uint32_t>(size);
  std::memcpy(bytes_, &data, sizeof(data));
  std::memcpy(bytes_ + sizeof(data), &size32, sizeof(size32));
  tag_ = kOnHeap;
  return data;
}

void MsgLogEntry::Assign(MsgLogBytes record, const MsgLogArgument* arguments, size_t count) {
  size_t size = record.size();
  if (count != 0) {
    size += VarintSize(record.size());
    for (size_t i = 0; i < count; ++i) {
      const size_t length = arguments[i].text.size();
      size += VarintSize(ZigZag(arguments[i].number)) + VarintSize(length) + length;
    }
  }
  // The parts may lie in this entry's own buffer: they are packed into a new one first.
  MsgLogEntry packed;
  uint8_t* at = packed.Reserve(size);
  if (count != 0) at = PutVarint(at, record.size());
  if (!record.empty()) std::memcpy(at, record.data(), record.size());
  at += record.size();
  for (size_t i = 0; i < count; ++i) {
    const std::string_view text = arguments[i].text;
    at = PutVarint(at, ZigZag(arguments[i].number));
    at = PutVarint(at, text.size());
    if (!text.empty()) std::memcpy(at, text.data(), text.size());
    at += text.size();
  }
  if (count != 0) packed.tag_ = static_cast<uint8_t>(packed.tag_ | kHasArguments);
  Free();
  std::memcpy(bytes_, packed.bytes_, kInlineBytes);
  tag_ = packed.tag_;
  packed.tag_ = 0;
}

// ---- Readers --------------------------------------------------------------------------------

MsgLogBytes MsgLogEntry::RawRecord() const {
  const MsgLogBytes packed = Packed();
  if (!HasArguments()) return packed;
  uint64_t size = 0;
  const uint8_t* record = GetVarint(packed.data(), &size);
  return MsgLogBytes{record, static_cast<size_t>(size)};
}

MsgLogEntry::ArgumentReader::ArgumentReader(const MsgLogEntry& entry) {
  const MsgLogBytes packed = entry.Packed();
  end_ = packed.end();
  if (!entry.HasArguments()) {
    at_ = end_;
    return;
  }
  const MsgLogBytes record = entry.RawRecord();
  at_ = record.end();
}

bool MsgLogEntry::ArgumentReader::Next(MsgLogArgument* argument) {
  if (at_ >= end_) return false;
  uint64_t number = 0;
  uint64_t length = 0;
  at_ = GetVarint(at_, &number);
  at_ = GetVarint(at_, &length);
  argument->number = UnZigZag(number);
  argument->text = std::string_view(reinterpret_cast<const char*>(at_), length);
  at_ += length;
  return true;
}

bool MsgLogEntry::FindArgument(int32_t number, std::string_view* text) const {
  ArgumentReader reader(*this);
  MsgLogArgument argument;
  while (reader.Next(&argument)) {
    if (argument.number == number) {
      *text = argument.text;
      return true;
    }
    if (argument.number > number) break;  // they ascend
  }
  return false;
}

size_t MsgLogEntry::ArgumentCount() const {
  size_t count = 0;
  ForEachArgument([&count](const MsgLogArgument&) { ++count; });
  return count;
}

std::map<int32_t, std::string> MsgLogEntry::Arguments() const {
  std::map<int32_t, std::string> arguments;
  ForEachArgument([&arguments](const MsgLogArgument& argument) {
    arguments.emplace(argument.number, std::string(argument.text));
  });
  return arguments;
}

// ---- Writers of one part ------------------------------------------------------------------------

void MsgLogEntry::SetRawRecord(MsgLogBytes record) {
  std::vector<MsgLogArgument> arguments;
  ForEachArgument([&arguments](const MsgLogArgument& argument) { arguments.push_back(argument); });
  Assign(record, arguments.data(), arguments.size());
}

void MsgLogEntry::SetArguments(const std::map<int32_t, std::string>& arguments) {
  std::vector<MsgLogArgument> list;
  list.reserve(arguments.size());
  for (const auto& argument : arguments) list.push_back({argument.first, argument.second});
  Assign(RawRecord(), list.data(), list.size());
}

void MsgLogEntry::SetArgument(int32_t number, std::string_view text) {
  std::vector<MsgLogArgument> arguments;
  bool placed = false;
  ForEachArgument([&](const MsgLogArgument& argument) {
    if (!placed && argument.number >= number) {
      arguments.push_back({number, text});
      placed = true;
      if (argument.number == number) return;  // replaced
    }
    arguments.push_back(argument);
  });
  if (!placed) arguments.push_back({number, text});
  Assign(RawRecord(), arguments.data(), arguments.size());
}

}  // namespace em_oidmap
