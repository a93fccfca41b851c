// Start and re-scan: the cabinet list, the count opcode checks that fill the OID map
// table and decide whether mapping is needed, the message log caches, the help-desk
// text, the EM_IDENT probe, the SEL languages and the message-log scan tasks.
#include <chrono>
#include <string>
#include <vector>

#include "trace/DebugClient.h"
#include "oidmap/CountOpcodeTable.h"
#include "oidmap/OidMapExtModule.h"
#include "oidmap/Opcodes.h"
#include "sip/SipStatus.h"

namespace em_oidmap {

namespace {

constexpr const char* kSeparator =
    "\n------------------------------------------------------------------------------------------\n";

}  // namespace

uint32_t COidMapExtModule::Start(CIModuleHost* host, uint64_t context) {
  EM_TRACE(2, "%s", kSeparator);
  EM_TRACE(2, "\nEM_OIDMAP           : ## Start");
  {
    CMutexLock guard(start_mutex_);
    start_running_ = true;
    start_thread_ = std::this_thread::get_id();
    start_running_flag_.store(true, std::memory_order_release);
  }
  // Whatever way start ends, waiting requests go on.
  struct StartDone {
    COidMapExtModule* self;
    ~StartDone() {
      CMutexLock guard(self->start_mutex_);
      self->start_running_ = false;
      self->start_running_flag_.store(false, std::memory_order_release);
      self->start_done_.notify_all();
    }
  } start_done{this};

  CExtensionModule::Start(host, context);
  StartSerialization();

  mapping_needed_.store(false, std::memory_order_release);
  active_table_.store(nullptr, std::memory_order_release);
  EM_TRACE(2, "\nEM_OIDMAP           : ## Server's cabinet number = %d",
           static_cast<int>(ServerCabinet()));
  BuildCabinetList();

  tables_.push_back(std::make_unique<COidMapTable>());
  COidMapTable& table = *tables_.back();
  const std::vector<uint32_t> cabinets = CabinetList();
  for (uint32_t cabinet : cabinets) {
    if (IsSwitchShutdown()) {
      break;
    }
    CheckOidMapping(table, cabinet);
    InitMessageLogCache(cabinet);
  }
  EM_TRACE(2, "\nEM_OIDMAP           : OID mapping %sneeded!", IsMappingNeeded() ? "" : "NOT ");
  // Only a finished table is ever read by a translation.
  if (IsMappingNeeded()) {
    active_table_.store(&table, std::memory_order_release);
  }

  ReadHelpDeskMessage();
  EM_TRACE(2, "\nEM_OIDMAP           : ## Start completed! ##");
  EM_TRACE(2, "%s", kSeparator);
  return 1;
}

void COidMapExtModule::BuildCabinetList() {
  const uint32_t server = ServerCabinet();
  std::array<uint32_t, kMaxCabinets> list{};
  int32_t count = 1;
  list[0] = server;

  const uint32_t* se = nullptr;
  uint8_t se_count = 0;
  CIModuleHost* host = Host();
  if (host == nullptr || !host->EnumerateSeCabinets(server, &se, &se_count)) {
    EM_TRACE(3, "\nEM_OIDMAP           : No SE cabinets found");
  } else {
    EM_TRACE(2, "\nEM_OIDMAP           : %d SE cabinet(s) detected...", static_cast<int>(se_count));
    if (se == nullptr) {
      se_count = 0;  // a host that reports cabinets without an array reports none
    }
    for (int32_t i = 1; i <= se_count; ++i) {
      if (i >= kMaxCabinets) {
        EM_TRACE(1, "\n\nEM_OIDMAP           : ## ERROR: cabinet list overflow; rest ignored!!\n");
        break;
      }
      list[static_cast<size_t>(i)] = se[i - 1];
      EM_TRACE(2, "\nEM_OIDMAP           :       add cabinet %d", static_cast<int>(se[i - 1]));
      count = i + 1;
    }
  }
  CMutexLock guard(cabinet_mutex_);
  cabinets_ = list;
  cabinet_count_ = count;
}

bool COidMapExtModule::WaitForStartCompleted() {
  if (!start_running_flag_.load(std::memory_order_acquire)) {
    return true;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStartWaitMs);
  CMutexUniqueLock lock(start_mutex_);
  if (start_thread_ == std::this_thread::get_id()) {
    return true;  // a host that offers requests on the starting thread itself
  }
  while (start_running_) {
    if (!lock.WaitUntil(start_done_, deadline)) return !start_running_;
  }
  return true;
}

void COidMapExtModule::CheckOidMapping(COidMapTable& table, uint32_t cabinet) {
  EM_TRACE(2, "\n                    :      Check OID mapping for cabinet %d",
           static_cast<int>(cabinet));
  already_requested_.clear();
  for (const CountOpcodeRow* row = kCountOpcodeTable; row->countOc != 0; ++row) {
    if (IsSwitchShutdown()) {
      break;
    }
    const uint32_t key = (row->countOc << 16) + row->countOe;
    if (!already_requested_.insert(key).second) {
      EM_TRACE(3, "\nEM_OIDMAP           : Mapping for opcode 0x%04X-0x%04X was already requested",
               row->countOc, row->countOe);
      continue;
    }
    SipJson request(row->countOc, row->countOe, 0, cabinet);
    EM_TRACE(2, "\nEM_OIDMAP           : Checking mapping for opcode 0x%04X", row->countOc);
    SendToAllModules(request, kSingleRequestTimeoutMs);

    int valid = 0;
    const uint32_t replies = request.CommandCount();
    for (uint32_t r = 0; r < replies; ++r) {
      const int32_t i = static_cast<int32_t>(r);
      const uint32_t st = request.GetStatus(i);
      EM_TRACE(2, "\nEM_OIDMAP           : Got SIP status 0x%02X", st);
      if (!IsValidReplyStatus(st)) {
        continue;
      }
      ++valid;
      uint32_t n = 0;
      if (request.GetDataValue(i, n) && n != 0) {
        table.AddInstances(row->countOc, row->countOe, cabinet, request.GetKey(i, "MI"), n);
      }
    }
    EM_TRACE(3, "\nEM_OIDMAP           : %d valid replies received for count opcode 0x%04X-0x%04X",
             valid, row->countOc, row->countOe);
    if (valid > 1) {
      mapping_needed_.store(true, std::memory_order_release);
      EM_TRACE(2, "\nEM_OIDMAP           : Mapping for OC 0x%04X required!", row->countOc);
    }
  }
}

void COidMapExtModule::InitMessageLogCache(uint32_t cabinet) {
  CRecursiveLockGuard guard(cache_lock_);
  EM_TRACE(3, "\nEM_OIDMAP           : Init message log cache cabinet %d", static_cast<int>(cabinet));
  msg_log_cache_.FindOrCreateCabinetCache(cabinet);
}

void COidMapExtModule::ReadHelpDeskMessage() {
  SipJson request(CM_ReadConfigurationSpace, CKT_ConfHelpDeskMessage, 0, ServerCabinet());
  SendRequest(request, kSingleRequestTimeoutMs);
  const int32_t i = request.CurrentIndex();
  if (!IsValidReplyStatus(request.GetStatus(i)) ||
      request.GetDataForm(i) != SipDataForm::kText) {
    return;
  }
  std::string text;
  if (!request.GetDataString(i, text)) {
    return;
  }
  EM_TRACE(2, "\nEM_OIDMAP           : SEL resolution help desk message: \"%s\" (from config space)",
           text.c_str());
  CMutexLock guard(help_desk_mutex_);
  help_desk_message_ = text;
}

void COidMapExtModule::Rescan() {
  ProbeIdentModule();
  BuildCabinetList();
  ReadSelLanguages();
  QueueMessageLogScans();
}

void COidMapExtModule::ProbeIdentModule() {
  SipJson request(CM_IdentProbe, 0, 0, ServerCabinet());
  request.RemoveKey("OE");
  request.RemoveKey("OI");
  SendRequest(request, kSingleRequestTimeoutMs);
  const int32_t i = request.CurrentIndex();
  if (request.GetStatus(i) == ST_NOT_HANDLED) {
    EM_TRACE(2, "\nEM_OIDMAP           : EM_IDENT not present using KTAS fallback logic");
    ktas_fallback_.store(true, std::memory_order_release);
    return;
  }
  uint32_t value = 0;
  const bool has_value = request.GetDataValue(i, value);
  ktas_fallback_.store(has_value && value == 1, std::memory_order_release);
}

void COidMapExtModule::ReadSelLanguages() {
  SipJson request(CM_SupportedSelLanguages, 0, 0, ServerCabinet());
  request.RemoveKey("OE");
  request.RemoveKey("OI");
  SendRequest(request, kSingleRequestTimeoutMs);
  const int32_t i = request.CurrentIndex();
  std::vector<uint8_t> bytes;
  if (IsValidReplyStatus(request.GetStatus(i)) && request.HasKey(i, "DA")) {
    request.GetDataBytes(i, bytes);
  }
  // The set is what this answer reports: a language no longer reported is gone.
  CMutexLock guard(language_mutex_);
  sel_languages_.clear();
  for (size_t b = 0; b + 1 < bytes.size(); b += 2) {  // an odd last byte is ignored
    const uint16_t id = static_cast<uint16_t>(bytes[b] | (bytes[b + 1] << 8));
    EM_TRACE(3, "\nEM_OIDMAP           : Supported SEL language: LangId 0x%X", id);
    sel_languages_.emplace(id, id);
  }
}

void COidMapExtModule::QueueMessageLogScans() {
  for (uint32_t cabinet : CabinetList()) {
    if (IsSwitchShutdown()) {
      break;
    }
    SipJson task(CM_LogMessageArgumentsRead, 0, 0, cabinet);
    InsertTask(task, 0, nullptr);
  }
}

}  // namespace em_oidmap
