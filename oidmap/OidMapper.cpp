#include "oidmap/OidMapper.h"

#include <set>

#include "module/ExtensionModule.h"
#include "oidmap/CountOpcodeTable.h"
#include "oidmap/ModuleTrace.h"
#include "oidmap/Timeouts.h"
#include "sip/SipStatus.h"

namespace em_oidmap {

void COidMapper::BeginTable() {
  mapping_needed_.store(false, std::memory_order_release);
  active_table_.store(nullptr, std::memory_order_release);
  tables_.push_back(std::make_unique<COidMapTable>());
  building_ = tables_.back().get();
}

void COidMapper::CheckCabinet(uint32_t cabinet) {
  EM_TRACE(2, "\n                    :      Check OID mapping for cabinet %d",
           static_cast<int>(cabinet));
  std::set<uint32_t> requested;  // the count requests already sent for this cabinet
  for (const CountOpcodeRow* row = kCountOpcodeTable; row->countOc != 0; ++row) {
    if (host_.IsStopping()) {
      break;
    }
    if (!requested.insert(CountOpcodeKey(*row)).second) {
      OIDMAP_TRACE(3, "Mapping for opcode 0x%04X-0x%04X was already requested", row->countOc,
                   row->countOe);
      continue;
    }
    SipJson request(row->countOc, row->countOe, 0, cabinet);
    OIDMAP_TRACE(2, "Checking mapping for opcode 0x%04X", row->countOc);
    host_.SendToAllModules(request, kSingleRequestTimeoutMs);

    int valid = 0;
    const uint32_t replies = request.CommandCount();
    for (uint32_t r = 0; r < replies; ++r) {
      const int32_t i = static_cast<int32_t>(r);
      const uint32_t st = request.GetStatus(i);
      OIDMAP_TRACE(2, "Got SIP status 0x%02X", st);
      if (!IsValidReplyStatus(st)) {
        continue;
      }
      ++valid;
      uint32_t n = 0;
      if (request.GetDataValue(i, n) && n != 0) {
        building_->AddInstances(row->countOc, row->countOe, cabinet, request.GetKey(i, "MI"), n);
      }
    }
    OIDMAP_TRACE(3, "%d valid replies received for count opcode 0x%04X-0x%04X", valid, row->countOc,
                 row->countOe);
    if (valid > 1) {
      mapping_needed_.store(true, std::memory_order_release);
      OIDMAP_TRACE(2, "Mapping for OC 0x%04X required!", row->countOc);
    }
  }
}

void COidMapper::PublishTable() {
  OIDMAP_TRACE(2, "OID mapping %sneeded!", IsMappingNeeded() ? "" : "NOT ");
  // Only a finished table is ever read by a translation.
  if (IsMappingNeeded()) {
    active_table_.store(building_, std::memory_order_release);
  }
}

uint32_t COidMapper::TranslateMessage(SipJson& msg, int32_t index) const {
  const COidMapTable* table = Published();
  if (table == nullptr) {
    return 0;  // mapping not needed, or start has not finished the table yet
  }
  return table->TranslateMessage(msg, index);
}

void COidMapper::PatchLogReply(SipJson& msg, int32_t index) const {
  if (const COidMapTable* table = Published()) {
    table->PatchMessageLogReply(msg, index);
  }
}

void COidMapper::TranslateLookupRequest(SipJson& request, uint8_t entityClass) const {
  if (TranslateMessage(request, 0) != 0) {
    return;
  }
  const COidMapTable* table = Published();
  const CountOpcodeRow* row = FindFirstRowOfKind(kCountKindLogEntity, entityClass);
  if (table != nullptr && row != nullptr) {
    table->TranslateToModule(request, 0, row->countOc, row->countOe);
  }
}

const COidMapTable& COidMapper::MapTable() const {
  static const COidMapTable kEmpty;
  return tables_.empty() ? kEmpty : *tables_.back();
}

}  // namespace em_oidmap
