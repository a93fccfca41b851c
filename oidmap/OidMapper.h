// COidMapper: decides at start whether object ids must be mapped, builds the OID map table
// (COidMapTable) from the lower modules' counts, and translates with it: requests to the
// owning module's id and local id, replies and events back to the global index, log
// records to global ids, look-up requests about a log record to the owner's local id.
//
// Start: BeginTable(), CheckCabinet() for each cabinet in list order, PublishTable(). Only
// a finished table of a start that found mapping needed is published, through an atomic
// pointer; until then, and while mapping is not needed, nothing is translated. Every
// table is kept until the mapper ends, so a translation still reading an earlier start's
// table never reads a freed one.
//
// Threads: BeginTable, CheckCabinet and PublishTable on the start thread; the translations
// on any thread (host request and reply threads, the worker).
// Locks: none. The table being built belongs to the start thread alone (tables_ and
// building_ are written by it only); a published table is never written again and is read
// without a lock (the pointer's release/acquire orders its contents).
#ifndef EM_OIDMAP_OIDMAPPER_H
#define EM_OIDMAP_OIDMAPPER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "oidmap/HostLink.h"
#include "oidmap/OidMapTable.h"
#include "sip/SipJson.h"

namespace em_oidmap {

class COidMapper {
 public:
  explicit COidMapper(const CHostLink& host) : host_(host) {}
  COidMapper(const COidMapper&) = delete;
  COidMapper& operator=(const COidMapper&) = delete;

  // Start: mapping is not needed and nothing is translated until PublishTable; a new
  // empty table is begun.
  void BeginTable();
  // Start: sends every distinct count request of the count opcode table to all modules
  // for `cabinet` (5000 ms each) and enters the valid replies' instances into the table.
  // Mapping becomes needed when a count request has more than one valid reply. Ends early
  // when the module is stopping.
  void CheckCabinet(uint32_t cabinet);
  // Start: traces whether mapping is needed and, when it is, publishes the table.
  void PublishTable();

  bool IsMappingNeeded() const { return mapping_needed_.load(std::memory_order_acquire); }
  // Translates the command at `index` through the published table (see
  // COidMapTable::TranslateMessage). Returns 1 when the message was changed.
  uint32_t TranslateMessage(SipJson& msg, int32_t index) const;
  // The same on the command object at `index` whose addressing members the caller has
  // read (header = SipJson::HeaderOf(command)).
  uint32_t TranslateCommand(SipJson& msg, int32_t index, SipJson::Value& command,
                            const SipJson::Header& header) const {
    const COidMapTable* table = Published();
    return table == nullptr ? 0 : table->TranslateCommand(msg, index, command, header);
  }
  // Turns the object ids inside the records of a valid log reply into global ones.
  void PatchLogReply(SipJson& msg, int32_t index) const;
  // A CSS or designation request about the object of a log record of entity class
  // `entityClass`: its object id, global once the record was patched, becomes the local
  // id of the module it is sent to. The look-up opcodes have no row of their own, so the
  // entity's row, which patched the record, translates it back.
  void TranslateLookupRequest(SipJson& request, uint8_t entityClass) const;

  // The table the last start built (empty before the first start), for tests and tools.
  const COidMapTable& MapTable() const;

 private:
  const COidMapTable* Published() const { return active_table_.load(std::memory_order_acquire); }

  const CHostLink& host_;
  std::atomic<bool> mapping_needed_{false};
  std::vector<std::unique_ptr<COidMapTable>> tables_;  // the start thread's
  COidMapTable* building_ = nullptr;                   // the start thread's
  std::atomic<const COidMapTable*> active_table_{nullptr};
};

}  // namespace em_oidmap

#endif  // EM_OIDMAP_OIDMAPPER_H
