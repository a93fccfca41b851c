#include "oidmap/CountOpcodeTable.h"

#include <array>
#include <cstddef>

namespace em_oidmap {

// Rows 26 and 27 are the same on purpose: start-up skips a count request it already sent,
// and look-ups take the first match, so the duplicate never changes a result.
// clang-format off
const CountOpcodeRow kCountOpcodeTable[kCountOpcodeRows + 1] = {
    {0, 0x0300, 0x00, 0x0301, 0x0000},  // 0
    {0, 0x0300, 0x00, 0x0302, 0x0000},
    {0, 0x0300, 0x00, 0x0303, 0x0000},
    {0, 0x0300, 0x00, 0x0313, 0x0000},
    {0, 0x0300, 0x00, 0x0314, 0x0000},
    {0, 0x0300, 0x00, 0x0304, 0x0000},
    {0, 0x0300, 0x00, 0x0305, 0x0000},
    {0, 0x0400, 0x00, 0x0401, 0x0000},  // 7
    {0, 0x0400, 0x00, 0x0402, 0x0000},
    {0, 0x0400, 0x00, 0x0403, 0x0000},
    {0, 0x0400, 0x00, 0x0404, 0x0000},
    {0, 0x0500, 0x00, 0x0501, 0x0000},  // 11
    {0, 0x0500, 0x00, 0x0504, 0x0000},
    {0, 0x0520, 0x00, 0x0521, 0x0000},  // 13
    {0, 0x0520, 0x00, 0x0522, 0x0000},
    {0, 0x0520, 0x00, 0x0523, 0x0000},
    {0, 0x0520, 0x00, 0x0524, 0x0000},
    {0, 0x0520, 0x00, 0x0525, 0x0000},
    {0, 0x0520, 0x00, 0x0526, 0x0000},
    {0, 0x0520, 0x00, 0x0527, 0x0000},
    {0, 0xF041, 0x00, 0xF042, 0x0000},  // 20
    {0, 0xF041, 0x00, 0xF043, 0x0000},
    {0, 0xF041, 0x00, 0xF044, 0x0000},
    {0, 0xF041, 0x00, 0xF045, 0x0000},
    {2, 0x0C21, 0x05, 0, 0x0508},       // 24
    {2, 0x0C21, 0x05, 0, 0x0506},
    {2, 0x0C21, 0x1C, 0, 0x1C06},
    {2, 0x0C21, 0x1C, 0, 0x1C06},
    {2, 0x0C21, 0x1C, 0, 0x1C03},
    {2, 0x0C21, 0x1C, 0, 0x1C0A},
    {2, 0x0C21, 0x1C, 0, 0x1C08},
    {2, 0x0C21, 0x1C, 0, 0x1C0E},
    {2, 0x0C21, 0x1C, 0, 0x1C0F},
    {1, 0x0300, 0x00, 0, 0x0071},       // 33
    {1, 0x0300, 0x00, 0, 0x0072},
    {1, 0x0400, 0x00, 0, 0x0073},
    {1, 0x0400, 0x00, 0, 0x0090},
    {1, 0x0400, 0x00, 0, 0x0091},
    {3, 0x0300, 0x00, 0, 0x0004},       // 38
    {3, 0x0400, 0x00, 0, 0x0005},
    {3, 0x0400, 0x00, 0, 0x0010},
    {3, 0x0520, 0x00, 0, 0x0015},
    {kCountKindEnd, 0, 0, 0, 0},        // end
};
// clang-format on

namespace {

uint64_t PairKey(uint32_t a, uint32_t b) { return (static_cast<uint64_t>(a) << 32) | b; }

// A map from a 64-bit key, built once and then only read: open addressing over a fixed
// array kept under half full, so that a look-up (one per translated message) is one
// multiply-hash and almost always one compare, where a node-based map costs a division
// and a pointer chase.
template <class V>
class FlatIndex {
 public:
  // The value of `key`, value-initialised when the key is new.
  V& Insert(uint64_t key) {
    size_t i = Home(key);
    while (slots_[i].used && slots_[i].key != key) i = (i + 1) % kSlots;
    slots_[i].used = true;
    slots_[i].key = key;
    return slots_[i].value;
  }
  const V* Find(uint64_t key) const {
    for (size_t i = Home(key); slots_[i].used; i = (i + 1) % kSlots)
      if (slots_[i].key == key) return &slots_[i].value;
    return nullptr;
  }

 private:
  static constexpr size_t kSlots = 256;
  static_assert(2 * kCountOpcodeRows < kSlots, "the index must stay under half full");
  static size_t Home(uint64_t key) { return (key * 0x9E3779B97F4A7C15ULL) >> 56; }
  struct Slot {
    uint64_t key = 0;
    bool used = false;
    V value{};
  };
  std::array<Slot, kSlots> slots_;
};

// Built by the same walk the look-ups stand for: from row 0 to the first row whose count
// OC is 0, keeping the first row for each key (later rows only join the per-kind lists).
struct RowIndexes {
  FlatIndex<std::vector<const CountOpcodeRow*>> byKindAndItemOe;
  FlatIndex<const CountOpcodeRow*> byItemOcAndOe;

  RowIndexes() {
    for (const CountOpcodeRow* row = kCountOpcodeTable; row->countOc != 0; ++row) {
      byKindAndItemOe.Insert(PairKey(row->kind, row->itemOe)).push_back(row);
      const CountOpcodeRow*& first = byItemOcAndOe.Insert(PairKey(row->itemOc, row->itemOe));
      if (first == nullptr) first = row;
    }
  }
};

const RowIndexes& Indexes() {
  static const RowIndexes indexes;
  return indexes;
}

}  // namespace

const std::vector<const CountOpcodeRow*>& FindRowsOfKind(uint32_t kind, uint32_t itemOe) {
  static const std::vector<const CountOpcodeRow*> kNone;
  const auto* rows = Indexes().byKindAndItemOe.Find(PairKey(kind, itemOe));
  return rows == nullptr ? kNone : *rows;
}

const CountOpcodeRow* FindFirstRowOfKind(uint32_t kind, uint32_t itemOe) {
  const auto& rows = FindRowsOfKind(kind, itemOe);
  return rows.empty() ? nullptr : rows.front();
}

const CountOpcodeRow* FindFirstItemRow(uint32_t itemOc, uint32_t itemOe) {
  const CountOpcodeRow* const* row = Indexes().byItemOcAndOe.Find(PairKey(itemOc, itemOe));
  return row == nullptr ? nullptr : *row;
}

}  // namespace em_oidmap
