#include "oidmap/OidMapTable.h"

#include "module/ExtensionModule.h"
#include "msglog/OldStyleRecord.h"
#include "oidmap/CountOpcodeTable.h"
#include "oidmap/ModuleTrace.h"
#include "oidmap/Opcodes.h"
#include "sip/SipStatus.h"

namespace em_oidmap {

namespace {

// Table entries start with room for this many OID entries.
constexpr size_t kInitialOidCapacity = 16;

uint64_t OcCaKey(uint32_t oc, uint32_t ca) { return (static_cast<uint64_t>(oc) << 32) | ca; }

// The "RAW" byte array of a command's data, or nullptr when the data is not raw bytes.
// Log records only ever travel as raw bytes; other data forms hold no records.
SipJson::Value* RawBytesOf(SipJson::Value& command) {
  auto da = command.FindMember("DA");
  if (da == command.MemberEnd() || !da->value.IsObject()) return nullptr;
  auto raw = da->value.FindMember("RAW");
  if (raw == da->value.MemberEnd() || !raw->value.IsArray()) return nullptr;
  // Same rule as the message's byte reader: no bytes unless the first one is a number.
  if (raw->value.Empty() || !raw->value[0].IsUint()) return nullptr;
  return &raw->value;
}

uint8_t ByteAt(const SipJson::Value& raw, size_t i) {
  const SipJson::Value& v = raw[static_cast<rapidjson::SizeType>(i)];
  return v.IsUint() ? static_cast<uint8_t>(v.GetUint()) : 0;
}

uint32_t ReadOid(const SipJson::Value& raw, size_t record) {
  return ByteAt(raw, record + kOldStyleRecordOidOffset) |
         (static_cast<uint32_t>(ByteAt(raw, record + kOldStyleRecordOidOffset + 1)) << 8);
}

void WriteOid(SipJson::Value& raw, size_t record, uint32_t oid) {
  raw[static_cast<rapidjson::SizeType>(record + kOldStyleRecordOidOffset)].SetUint(oid & 0xFF);
  raw[static_cast<rapidjson::SizeType>(record + kOldStyleRecordOidOffset + 1)].SetUint((oid >> 8) &
                                                                                       0xFF);
}

}  // namespace

size_t COidMapTable::Hash(const Key& k) {
  uint64_t h = ((static_cast<uint64_t>(k.oc) << 32) | k.oe) * 0x9E3779B97F4A7C15ULL;
  h ^= (static_cast<uint64_t>(k.ca) + 0x7F4A7C15ULL) * 0xC2B2AE3D27D4EB4FULL;
  return static_cast<size_t>(h ^ (h >> 29));
}

void COidMapTable::IndexInsert(const Key& key, size_t position) {
  if (2 * (entries_.size() + 1) > index_.size()) {
    // Grow to keep the index at most half full; every entry is entered again.
    std::vector<Slot> old;
    old.swap(index_);
    index_.assign(old.empty() ? 64 : 2 * old.size(), Slot{Key{0, 0, 0}, 0});
    for (const Slot& slot : old)
      if (slot.position != 0) IndexInsert(slot.key, slot.position - 1);
  }
  const size_t mask = index_.size() - 1;
  size_t i = Hash(key) & mask;
  while (index_[i].position != 0) i = (i + 1) & mask;
  index_[i] = Slot{key, static_cast<uint32_t>(position + 1)};
}

void COidMapTable::AddInstances(uint32_t countOc, uint32_t countOe, uint32_t ca, uint32_t mid,
                                uint32_t n) {
  const TableEntry* existing = Find(countOc, countOe, ca);
  const bool newEntry = existing == nullptr;
  const size_t position =
      newEntry ? entries_.size() : static_cast<size_t>(existing - entries_.data());
  // The bound holds for one reply and for all replies of the entry together: a host that
  // repeats a reply (or many modules) would otherwise grow one entry without end.
  const uint32_t room = kMaxInstancesPerReply - (newEntry ? 0 : entries_[position].Count());
  if (n > room) {
    OIDMAP_TRACE(1,
                 "WARNING! MID 0x%04X%04X reports %u instances for "
                 "opcode 0x%04X-0x%04X; only %u are mapped",
                 MidHigh(mid), MidLow(mid), n, countOc, countOe, room);
    n = room;
  }
  if (newEntry) {
    IndexInsert(Key{countOc, countOe, ca}, position);
    count_ocs_ |= CountOcBit(countOc);
    TableEntry entry;
    entry.oids.reserve(kInitialOidCapacity);
    entry.countOc = countOc;
    entry.countOe = countOe;
    entry.ca = ca;
    entries_.push_back(std::move(entry));
    byOcAndCa_[OcCaKey(countOc, ca)].push_back(position);
    OIDMAP_TRACE(3, "Add map table entry %d for opcode 0x%04X-0x%04X", static_cast<int>(position),
                 countOc, countOe);
  } else {
    const uint32_t count = entries_[position].Count();
    OIDMAP_TRACE(2, "Increment map count (%d->%d) for opcode 0x%04X-0x%04X", count, count + n,
                 countOc, countOe);
  }

  TableEntry& entry = entries_[position];
  if (n != 0) entry.runs.push_back(ModuleRun{mid, entry.Count(), n});
  std::vector<OidEntry>& oids = entry.oids;
  for (uint32_t i = 0; i < n; ++i) {
    oids.push_back(OidEntry{i, mid});
    if (newEntry) {
      OIDMAP_TRACE(2,
                   "Counter OC 0x%04X: Map instance id 0x%04X to MID "
                   "0x%04X%04X (added OID entry to new table entry)",
                   countOc, i, MidHigh(mid), MidLow(mid));
    } else {
      OIDMAP_TRACE(2,
                   "Counter OC 0x%04X: Map instance id 0x%04X to MID "
                   "0x%04X%04X (added OID entry)",
                   countOc, i, MidHigh(mid), MidLow(mid));
    }
  }
}

void COidMapTable::Clear() {
  entries_.clear();
  index_.clear();
  count_ocs_ = 0;
  byOcAndCa_.clear();
}

const COidMapTable::TableEntry* COidMapTable::Find(uint32_t countOc, uint32_t countOe,
                                                   uint32_t ca) const {
  if (index_.empty()) return nullptr;
  const Key key{countOc, countOe, ca};
  const size_t mask = index_.size() - 1;
  for (size_t i = Hash(key) & mask;; i = (i + 1) & mask) {
    const Slot& slot = index_[i];
    if (slot.position == 0) return nullptr;
    if (slot.key == key) return &entries_[slot.position - 1];
  }
}

const std::vector<size_t>* COidMapTable::PositionsOf(uint32_t countOc, uint32_t ca) const {
  const auto it = byOcAndCa_.find(OcCaKey(countOc, ca));
  return it == byOcAndCa_.end() ? nullptr : &it->second;
}

uint32_t COidMapTable::TranslateMessage(SipJson& msg, int32_t index) const {
  // The command is resolved once and its addressing members read in one walk: a read by
  // index walks the envelope and the members again each time. Without a command object
  // there is nothing to translate.
  SipJson::Value* command = msg.Command(index);
  if (!command) return 0;
  return TranslateCommand(msg, index, *command, SipJson::HeaderOf(*command));
}

uint32_t COidMapTable::TranslateCommand(SipJson& msg, int32_t index, SipJson::Value& command,
                                        const SipJson::Header& header) const {
  if (!command.IsObject()) return 0;
  const uint32_t oc = header.oc;
  const uint32_t oe = header.oe;
  if (oc == CM_MessageLogReply) return PatchMessageLogReply(msg, index);

  if (oc == CM_ExtObjectCount) return AnswerCountReply(msg, command, header);

  if (oc == CM_ReadConfigurationSpace || oc == CM_WriteConfigurationSpace) {
    const CountOpcodeRow* row = FindFirstRowOfKind(kCountKindConfigValue, oe);
    return row ? TranslateByStatus(msg, command, header, row->countOc, row->countOe) : 0;
  }

  if (oc == CM_ExtObjectGet || oc == CM_ExtObjectSet) {
    const CountOpcodeRow* row = FindFirstRowOfKind(kCountKindExtObject, oe);
    return row ? TranslateByStatus(msg, command, header, row->countOc, (oe >> 8) & 0xFF) : 0;
  }

  if (AnswerCountReply(msg, command, header)) return 1;
  const CountOpcodeRow* row = FindFirstItemRow(oc, oe);
  return row ? TranslateByStatus(msg, command, header, row->countOc, row->countOe) : 0;
}

uint32_t COidMapTable::AnswerCountReply(SipJson& msg, SipJson::Value& command,
                                        const SipJson::Header& header) const {
  if ((count_ocs_ & CountOcBit(header.oc)) == 0) return 0;
  const TableEntry* entry = Find(header.oc, header.oe, header.ca);
  if (!entry) return 0;
  // Callers have always read this count as one byte; keep reporting 256 as 0.
  msg.SetKey(command, "DA", entry->Count() & 0xFF, false);
  return 1;
}

uint32_t COidMapTable::TranslateByStatus(SipJson& msg, SipJson::Value& command,
                                         const SipJson::Header& header, uint32_t countOc,
                                         uint32_t countOe) const {
  // A missing ST also reads as 0x16: a request that nobody has answered yet.
  return header.st == ST_PENDING ? ToModule(msg, command, header, countOc, countOe)
                                 : ToGlobal(msg, command, header, countOc, countOe);
}

uint32_t COidMapTable::TranslateToModule(SipJson& msg, int32_t index, uint32_t countOc,
                                         uint32_t countOe) const {
  SipJson::Value* command = msg.Command(index);
  return command ? ToModule(msg, *command, SipJson::HeaderOf(*command), countOc, countOe) : 0;
}

uint32_t COidMapTable::TranslateToGlobal(SipJson& msg, int32_t index, uint32_t countOc,
                                         uint32_t countOe) const {
  SipJson::Value* command = msg.Command(index);
  return command ? ToGlobal(msg, *command, SipJson::HeaderOf(*command), countOc, countOe) : 0;
}

uint32_t COidMapTable::ToModule(SipJson& msg, SipJson::Value& command,
                                const SipJson::Header& header, uint32_t countOc,
                                uint32_t countOe) const {
  const TableEntry* entry = Find(countOc, countOe, header.ca);
  if (!entry || header.oi >= entry->Count()) return 0;
  const OidEntry& target = entry->oids[header.oi];
  msg.SetHeaderKey(command, header, SipJson::Header::kMi, target.mid);
  msg.SetHeaderKey(command, header, SipJson::Header::kOi, target.localId);
  return 1;
}

uint32_t COidMapTable::ToGlobal(SipJson& msg, SipJson::Value& command,
                                const SipJson::Header& header, uint32_t countOc,
                                uint32_t countOe) const {
  const TableEntry* entry = Find(countOc, countOe, header.ca);
  if (!entry) return 0;
  // The first position holding (MI, OI): runs are in position order and a run's local
  // ids are 0..count-1, so the first run of this module that is long enough holds it.
  for (const ModuleRun& run : entry->runs) {
    if (run.mid == header.mi && header.oi < run.count) {
      msg.SetHeaderKey(command, header, SipJson::Header::kOi, run.first + header.oi);
      return 1;
    }
  }
  return 0;
}

uint32_t COidMapTable::PatchMessageLogReply(SipJson& msg, int32_t index) const {
  const uint32_t status = msg.GetStatus(index);
  const SipJson::Value* command = msg.Command(index);
  if (!IsValidReplyStatus(status) || !command) return 0;
  const auto da = command->FindMember("DA");
  if (da == command->MemberEnd() || da->value.IsNull()) return 0;
  return PatchLogRecords(msg, index, status == ST_PENDING);
}

uint32_t COidMapTable::PatchLogRecords(SipJson& msg, int32_t index, bool toModule) const {
  SipJson::Value* command = msg.Command(index);
  if (!command) return 0;
  SipJson::Value* raw = RawBytesOf(*command);
  if (!raw) return 0;

  const size_t size = raw->Size();
  const uint32_t ca = msg.GetKey(index, "CA", 0);
  const uint32_t mid = msg.GetKey(index, "MI", 0);
  uint32_t mi = mid;
  uint32_t patched = 0;

  for (size_t record = 0; record + kOldStyleRecordHeaderBytes <= size;) {
    const uint8_t byte1 = ByteAt(*raw, record + 1);
    const uint32_t entity = byte1 & 0x3F;
    const size_t length =
        OldStyleRecordLength(ByteAt(*raw, record), byte1, ByteAt(*raw, record + 3));
    if (entity != kOldStyleInlineTextClass && record + kOldStyleRecordMinBytes <= size) {
      for (const CountOpcodeRow* row : FindRowsOfKind(kCountKindLogEntity, entity)) {
        patched += toModule ? PatchRecordToModule(*raw, record, ca, row->countOc, mi)
                            : PatchRecordToGlobal(*raw, record, ca, row->countOc, mi);
      }
    }
    record += length;
  }
  // Removed last: removing a member moves the command's other members.
  if (mi != mid) msg.SetKey(*command, "MI", 0, true);
  return patched != 0 ? 1 : 0;
}

uint32_t COidMapTable::PatchRecordToGlobal(SipJson::Value& raw, size_t record, uint32_t ca,
                                           uint32_t countOc, uint32_t mi) const {
  const std::vector<size_t>* positions = PositionsOf(countOc, ca);
  if (!positions) return 0;
  const TableEntry& entry = entries_[positions->front()];
  OIDMAP_TRACE(3, "OID map table entry for CABID 0x%04X OC 0x%04X found!", ca, countOc);
  const uint32_t oid = ReadOid(raw, record);
  for (uint32_t position = 0; position < entry.Count(); ++position) {
    const OidEntry& candidate = entry.oids[position];
    OIDMAP_TRACE(3, "Compare map table values:");
    OIDMAP_TRACE(3, "  MsgLog OID 0x%04X <-> MAP OID 0x%04X", oid, candidate.localId);
    OIDMAP_TRACE(3, "  SIP MID 0x%04X%04X <-> MAP MID 0x%08X%08X", MidHigh(mi), MidLow(mi),
                 MidHigh(candidate.mid), MidLow(candidate.mid));
    if (candidate.localId == oid && candidate.mid == mi) {
      OIDMAP_TRACE(2, "Messag log reply OID patched from 0x%04X to 0x%04X", oid, position);
      WriteOid(raw, record, position);
      return 1;
    }
  }
  return 0;
}

uint32_t COidMapTable::PatchRecordToModule(SipJson::Value& raw, size_t record, uint32_t ca,
                                           uint32_t countOc, uint32_t& mi) const {
  const std::vector<size_t>* positions = PositionsOf(countOc, ca);
  if (!positions) return 0;
  const uint32_t oid = ReadOid(raw, record);
  for (size_t at : *positions) {
    const TableEntry& entry = entries_[at];
    if (entry.Count() == 0) continue;
    for (uint32_t position = 0; position < entry.Count(); ++position) {
      if (entry.oids[position].mid == mi && entry.oids[position].localId == oid) {
        // The record now names the instance globally; no single module owns the message.
        mi = 0;
        WriteOid(raw, record, position);
        return 1;
      }
    }
    if (oid < entry.Count()) {
      WriteOid(raw, record, entry.oids[oid].localId);
      return 1;
    }
  }
  return 0;
}

}  // namespace em_oidmap
