#include "oidmap/CountOpcodeTable.h"

#include <unordered_map>

// Rows 26 and 27 are the same on purpose: start-up skips a count request it already sent,
// and look-ups take the first match, so the duplicate never changes a result.
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

namespace {

uint64_t PairKey(uint32_t a, uint32_t b) { return (static_cast<uint64_t>(a) << 32) | b; }

// Built by the same walk the look-ups stand for: from row 0 to the first row whose count
// OC is 0, keeping the first row for each key (later rows only join the per-kind lists).
struct RowIndexes {
  std::unordered_map<uint64_t, std::vector<const CountOpcodeRow*>> byKindAndItemOe;
  std::unordered_map<uint64_t, const CountOpcodeRow*> byItemOcAndOe;

  RowIndexes() {
    for (const CountOpcodeRow* row = kCountOpcodeTable; row->countOc != 0; ++row) {
      byKindAndItemOe[PairKey(row->kind, row->itemOe)].push_back(row);
      byItemOcAndOe.emplace(PairKey(row->itemOc, row->itemOe), row);
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
  const auto& map = Indexes().byKindAndItemOe;
  auto it = map.find(PairKey(kind, itemOe));
  return it == map.end() ? kNone : it->second;
}

const CountOpcodeRow* FindFirstRowOfKind(uint32_t kind, uint32_t itemOe) {
  const auto& rows = FindRowsOfKind(kind, itemOe);
  return rows.empty() ? nullptr : rows.front();
}

const CountOpcodeRow* FindFirstItemRow(uint32_t itemOc, uint32_t itemOe) {
  const auto& map = Indexes().byItemOcAndOe;
  auto it = map.find(PairKey(itemOc, itemOe));
  return it == map.end() ? nullptr : it->second;
}
