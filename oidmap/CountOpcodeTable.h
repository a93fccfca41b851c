// The count opcode table: which count request (count OC, count OE) tells how many
// instances of a kind each module holds, and which requests address those instances.
//
// Start-up walks the table row by row, sending each count request once per cabinet.
// Translation looks rows up by item opcode / item OE through precomputed indexes that give
// the same answer as a first-match walk from row 0 that stops at the first row whose count
// OC is 0.
//
// Thread safety: the table is constant; the indexes are built once, on first use, under
// the language's thread-safe static initialisation. All functions may be called from any
// thread.
#ifndef EM_OIDMAP_COUNTOPCODETABLE_H
#define EM_OIDMAP_COUNTOPCODETABLE_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace em_oidmap {

// What the item columns of a row name.
constexpr uint32_t kCountKindItemOpcode = 0;    // item OC whose requests carry an instance in OI
constexpr uint32_t kCountKindConfigValue = 1;   // item OE = configuration value id (0xE001/0xE002)
constexpr uint32_t kCountKindExtObject = 2;     // item OE = OE of 0x0C00/0x0C01 requests
constexpr uint32_t kCountKindLogEntity = 3;     // item OE = 6-bit entity code of log entries
constexpr uint32_t kCountKindEnd = 0xFFFFFFFF;  // the end row

struct CountOpcodeRow {
  uint32_t kind;
  uint32_t countOc;
  uint32_t countOe;
  uint32_t itemOc;
  uint32_t itemOe;
};

// Rows in use, and the table with its end row (count OC 0) at kCountOpcodeTable[kCountOpcodeRows].
constexpr size_t kCountOpcodeRows = 42;
extern const CountOpcodeRow kCountOpcodeTable[kCountOpcodeRows + 1];

// The key under which start-up remembers that a count request was already sent.
inline uint32_t CountOpcodeKey(const CountOpcodeRow& row) {
  return (row.countOc << 16) + row.countOe;
}

// First row of `kind` whose item OE equals `itemOe`, or nullptr.
const CountOpcodeRow* FindFirstRowOfKind(uint32_t kind, uint32_t itemOe);

// Every row of `kind` whose item OE equals `itemOe`, in table order (empty when none).
const std::vector<const CountOpcodeRow*>& FindRowsOfKind(uint32_t kind, uint32_t itemOe);

// First row of any kind whose item OC equals `itemOc` and item OE equals `itemOe`, or
// nullptr.
const CountOpcodeRow* FindFirstItemRow(uint32_t itemOc, uint32_t itemOe);

}  // namespace em_oidmap

#endif  // EM_OIDMAP_COUNTOPCODETABLE_H
