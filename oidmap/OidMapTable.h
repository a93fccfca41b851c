// COidMapTable: the OID map table and the translation of object ids between the global
// index that clients see and the module-local instance id that the owning module sees.
//
// At start, every module's answer to a count request (count OC, count OE) for a cabinet
// is entered with AddInstances; the instances of all modules are concatenated in reply
// order, so an instance's position in its table entry is its global index. A first module
// with 3 instances gets global indexes 0..2, a second with 2 gets 3..4.
//
// Translation (TranslateMessage) turns a request on its way down (ST 0x16, or no ST) into
// the owning module's MI and local OI, and a reply or event on its way up back into the
// global OI. The module calls it only while its mapping-needed flag is set, that is, when
// some count request had more than one valid reply; with the flag clear nothing is
// translated and this class is not consulted.
//
// Look-ups go through an index on (count OC, count OE, CA) -- there is at most one table
// entry per key -- so the cost of a translation does not grow with the number of cabinets.
//
// Thread safety: not thread-safe for writes. The table is written (AddInstances, Clear)
// only during start, before any translation; afterwards it is read without a lock, and
// concurrent calls of the const members are safe. The SipJson passed in must not be used
// by another thread during the call.
#ifndef EM_OIDMAP_OIDMAPTABLE_H
#define EM_OIDMAP_OIDMAPTABLE_H

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "sip/SipJson.h"

namespace em_oidmap {

class COidMapTable {
 public:
  struct OidEntry {
    uint32_t localId;  // the module's own instance id
    uint32_t mid;      // the module that owns the instance
  };

  // The instances that one AddInstances entered: local ids 0..count-1 of `mid` at
  // positions first..first+count-1.
  struct ModuleRun {
    uint32_t mid;
    uint32_t first;
    uint32_t count;
  };

  struct TableEntry {
    std::vector<OidEntry> oids;  // position = global index
    // The same instances by module, in position order: a reply finds its global index in
    // as many steps as there are modules, however many instances they hold.
    std::vector<ModuleRun> runs;
    uint32_t countOc = 0;
    uint32_t countOe = 0;
    uint32_t ca = 0;
    // Number of instances over all modules, i.e. OID entries in use.
    uint32_t Count() const { return static_cast<uint32_t>(oids.size()); }
  };

  // A module's count is taken from its reply data; more instances than a 16-bit global
  // index can address (log records carry it in 16 bits) are not entered, neither for one
  // reply nor for all replies of one count opcode and cabinet together.
  static constexpr uint32_t kMaxInstancesPerReply = 0x10000;

  COidMapTable() = default;

  // Enters the `n` instances (local ids 0..n-1) of module `mid` that answered count
  // request (countOc, countOe) for cabinet `ca`, after those already entered for that
  // key; opens the key's table entry first when it has none. Traces each step. The start
  // code calls it only for valid replies with n != 0. May throw std::bad_alloc.
  void AddInstances(uint32_t countOc, uint32_t countOe, uint32_t ca, uint32_t mid, uint32_t n);

  // Translates the command at `index` of `msg` according to its OC. Returns 1 when the
  // message was changed, 0 when it passes unchanged (no matching row or table entry):
  //  - OC 0x0C21: count reply; DA := the key's total count, deliberately truncated to 8
  //    bits (256 instances report 0).
  //  - OC 0xE001/0xE002: configuration value rows (kind 1) by OE.
  //  - OC 0x0B02: PatchMessageLogReply.
  //  - OC 0x0C00/0x0C01: extended object rows (kind 2) by OE; count OE = OE bits 8..15.
  //  - any other OC: the count-reply check as for 0x0C21, then the first row of any kind
  //    with this item OC and item OE.
  // Direction: ST 0x16 (also a missing ST) goes to the module, any other ST to global.
  uint32_t TranslateMessage(SipJson& msg, int32_t index) const;
  // The same for the command object at `index` whose addressing members the caller has
  // already read (header = SipJson::HeaderOf(command)): a request handler reads them
  // anyway. Returns 0 when `command` is not an object.
  uint32_t TranslateCommand(SipJson& msg, int32_t index, SipJson::Value& command,
                            const SipJson::Header& header) const;

  // Rewrites the object ids (16 bits at offset 10) inside the old-style log records of a
  // log reply's raw data, for entries whose entity code has a log-entity row (kind 3);
  // entity code 63 is never touched. Only a reply with a valid status (0x00, 0x0C, 0x15,
  // 0xFF) and data is considered, so this always maps module ids to global ones. The
  // walk is bounded by the data: it ends at the last whole 4-byte header, and a record
  // whose object id would lie past the end is not read. Returns 1 when some record was
  // patched, 0 otherwise.
  uint32_t PatchMessageLogReply(SipJson& msg, int32_t index) const;

  // The record walk of PatchMessageLogReply without its status gate, for a given
  // direction. toModule: a record whose (MI, object id) is a known instance gets its
  // global index and the command's MI is removed; otherwise an object id below the
  // entry's count becomes that position's local id. !toModule: as PatchMessageLogReply.
  uint32_t PatchLogRecords(SipJson& msg, int32_t index, bool toModule) const;

  // Global OI -> (MI, local OI) of the table entry (countOc, countOe, command's CA),
  // when OI is below its count. Returns 1 when translated.
  uint32_t TranslateToModule(SipJson& msg, int32_t index, uint32_t countOc, uint32_t countOe) const;
  // (MI, local OI) -> global OI within the table entry (countOc, countOe, command's CA).
  // Returns 1 when translated.
  uint32_t TranslateToGlobal(SipJson& msg, int32_t index, uint32_t countOc, uint32_t countOe) const;

  // The table entry of the key, or nullptr. The pointer stays valid until the next write.
  const TableEntry* Find(uint32_t countOc, uint32_t countOe, uint32_t ca) const;
  size_t Size() const { return entries_.size(); }
  bool Empty() const { return entries_.empty(); }
  // REQUIRES: position < Size().
  const TableEntry& At(size_t position) const { return entries_[position]; }
  // Forgets every entry (a new start rebuilds the table).
  void Clear();

 private:
  struct Key {
    uint32_t oc;
    uint32_t oe;
    uint32_t ca;
    bool operator==(const Key& o) const { return oc == o.oc && oe == o.oe && ca == o.ca; }
  };
  // A slot of the key index: open addressing with linear probing over a power-of-two
  // array kept at most half full, so that a look-up is one hash and, almost always, one
  // compare in one cache line (a node-based map costs a division and a pointer chase).
  struct Slot {
    Key key;
    uint32_t position;  // of the table entry, plus one; 0 marks a free slot
  };
  static size_t Hash(const Key& k);
  // One bit per count OC that has an entry (several OCs may share a bit): most messages
  // are no count reply, and a clear bit says so without a look-up.
  static uint64_t CountOcBit(uint32_t oc) { return uint64_t{1} << ((oc * 0x9E3779B1u) >> 26); }
  // Enters a key that the index does not hold yet.
  void IndexInsert(const Key& key, size_t position);

  // Count-reply check: DA := count of the command's own (OC, OE, CA) entry.
  // `command` is a command object of `msg` and `header` its addressing members.
  uint32_t AnswerCountReply(SipJson& msg, SipJson::Value& command,
                            const SipJson::Header& header) const;
  uint32_t TranslateByStatus(SipJson& msg, SipJson::Value& command, const SipJson::Header& header,
                             uint32_t countOc, uint32_t countOe) const;
  uint32_t ToModule(SipJson& msg, SipJson::Value& command, const SipJson::Header& header,
                    uint32_t countOc, uint32_t countOe) const;
  uint32_t ToGlobal(SipJson& msg, SipJson::Value& command, const SipJson::Header& header,
                    uint32_t countOc, uint32_t countOe) const;
  // One log record at offset `record` of the raw bytes, for one log-entity row.
  uint32_t PatchRecordToGlobal(SipJson::Value& raw, size_t record, uint32_t ca, uint32_t countOc,
                               uint32_t mi) const;
  // May clear `mi`: the caller then removes the command's MI.
  uint32_t PatchRecordToModule(SipJson::Value& raw, size_t record, uint32_t ca, uint32_t countOc,
                               uint32_t& mi) const;
  // Table entry positions with this count OC and cabinet, any count OE, in table order.
  const std::vector<size_t>* PositionsOf(uint32_t countOc, uint32_t ca) const;

  std::vector<TableEntry> entries_;
  std::vector<Slot> index_;
  uint64_t count_ocs_ = 0;  // CountOcBit of every entry's count OC
  std::unordered_map<uint64_t, std::vector<size_t>> byOcAndCa_;
};

}  // namespace em_oidmap

#endif  // EM_OIDMAP_OIDMAPTABLE_H
