// MsgLogEntry: one cached message log entry, kept small. A full cache holds 2000 of them
// per cabinet, for up to 200 cabinets, so an entry holds its fixed fields and one packed
// buffer of what varies: the old-style record's bytes and the argument strings. The buffer
// lives inside the entry when it is short (an old-style record with its arguments, or a
// unified record's few short strings) and in one heap block otherwise.
//
// Entry size and bytes: sizeof(MsgLogEntry) plus HeapBytes(), both known without a walk.
//
// Thread safety: a plain value; the cache guards the entries it holds.
#ifndef EM_MSGLOG_MSGLOGENTRY_H
#define EM_MSGLOG_MSGLOGENTRY_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace em_oidmap {

// A read-only view of bytes that an entry holds; valid until the entry changes.
class MsgLogBytes {
 public:
  MsgLogBytes() = default;
  MsgLogBytes(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  const uint8_t* data() const { return data_; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  const uint8_t* begin() const { return data_; }
  const uint8_t* end() const { return data_ + size_; }
  uint8_t operator[](size_t i) const { return data_[i]; }
  // The byte at i; throws std::out_of_range beyond the end.
  uint8_t at(size_t i) const;
  std::vector<uint8_t> ToVector() const { return std::vector<uint8_t>(begin(), end()); }

 private:
  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

// One argument string of an entry and its number.
struct MsgLogArgument {
  int32_t number = 0;
  std::string_view text;
};

class MsgLogEntry {
 public:
  uint32_t ModuleId = 0;  // MI of the module whose reply delivered it
  uint32_t ErrorCode = 0;
  uint32_t Flags = 0;           // bit 0: customer self service (CSS)
  uint32_t OrderValue = 0;      // merge order; 0 = none
  uint32_t SequenceNumber = 0;  // 0 until stored
  int32_t RecordId = -1;        // record number at the source; -1 = none

 private:
  // The packed buffer comes here, at an offset a pointer is aligned to: a heap block's
  // address stored unaligned would be invisible to leak checkers, which scan memory for
  // aligned pointers only.
  static constexpr size_t kInlineBytes = 20;
  alignas(void*) uint8_t bytes_[kInlineBytes] = {};  // inline: the buffer; heap: pointer, size

 public:
  uint8_t AuxByte = 0;
  uint8_t OldStyle = 0;  // 1: decode RawRecord; 0: unified
  uint8_t CodeBits = 0;

  MsgLogEntry() = default;
  MsgLogEntry(const MsgLogEntry& other);
  MsgLogEntry& operator=(const MsgLogEntry& other);
  MsgLogEntry(MsgLogEntry&& other) noexcept;
  MsgLogEntry& operator=(MsgLogEntry&& other) noexcept;
  ~MsgLogEntry() { Free(); }

  // The old-style record's bytes; empty for a unified entry.
  MsgLogBytes RawRecord() const;
  // The argument strings, by number: unified 1..m, old style 0 = the designation.
  // Argument `number` into `text`; false when the entry has none of that number.
  bool FindArgument(int32_t number, std::string_view* text) const;
  // Calls fn(const MsgLogArgument&) for each argument, by ascending number.
  template <class F>
  void ForEachArgument(F&& fn) const {
    ArgumentReader reader(*this);
    MsgLogArgument argument;
    while (reader.Next(&argument)) fn(static_cast<const MsgLogArgument&>(argument));
  }
  size_t ArgumentCount() const;
  // The arguments as a map (tools and tests).
  std::map<int32_t, std::string> Arguments() const;

  // Replaces the record and the arguments at once (at most one allocation). REQUIRES: the
  // arguments' numbers ascend strictly.
  void Assign(MsgLogBytes record, const MsgLogArgument* arguments, size_t count);
  // Replace one part and keep the other.
  void SetRawRecord(MsgLogBytes record);
  void SetRawRecord(const std::vector<uint8_t>& record) {
    SetRawRecord(MsgLogBytes{record.data(), record.size()});
  }
  void SetArguments(const std::map<int32_t, std::string>& arguments);
  // Adds argument `number`, or replaces its text.
  void SetArgument(int32_t number, std::string_view text);

  // Bytes of the heap block the entry owns; 0 while record and arguments fit inside.
  size_t HeapBytes() const { return IsOnHeap() ? HeapSize() : 0; }

 private:
  // The packed buffer: the record's bytes alone when there are no arguments; else the
  // record's length (a varint), the record, then per argument its number (zig-zag varint),
  // its length (varint) and its bytes.
  static constexpr uint8_t kOnHeap = 0x80;
  static constexpr uint8_t kHasArguments = 0x40;
  static constexpr uint8_t kInlineSizeMask = 0x1F;

  class ArgumentReader {
   public:
    explicit ArgumentReader(const MsgLogEntry& entry);
    bool Next(MsgLogArgument* argument);

   private:
    const uint8_t* at_;
    const uint8_t* end_;
  };

  void CopyFields(const MsgLogEntry& other);
  bool IsOnHeap() const { return (tag_ & kOnHeap) != 0; }
  bool HasArguments() const { return (tag_ & kHasArguments) != 0; }
  const uint8_t* HeapData() const;
  size_t HeapSize() const;
  // The whole packed buffer.
  MsgLogBytes Packed() const;
  void Free();
  // Makes room for `size` packed bytes (what was there is gone) and returns it.
  uint8_t* Reserve(size_t size);

  uint8_t tag_ = 0;  // kOnHeap, kHasArguments, inline size
};

}  // namespace em_oidmap

#endif  // EM_MSGLOG_MSGLOGENTRY_H
