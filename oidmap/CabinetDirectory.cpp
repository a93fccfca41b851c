#include "oidmap/CabinetDirectory.h"

#include "module/CIModuleHost.h"
#include "msglog/Utf8.h"
#include "oidmap/ModuleTrace.h"
#include "oidmap/Opcodes.h"
#include "oidmap/Timeouts.h"
#include "sip/SipStatus.h"

namespace em_oidmap {

void CCabinetDirectory::BuildCabinetList() {
  const uint32_t server = CHostLink::ServerCabinet();
  std::array<uint32_t, kMaxCabinets> list{};
  int32_t count = 1;
  list[0] = server;

  const uint32_t* se = nullptr;
  uint8_t se_count = 0;
  CIModuleHost* host = host_.Host();
  if (host == nullptr || !host->EnumerateSeCabinets(server, &se, &se_count)) {
    OIDMAP_TRACE(3, "No SE cabinets found");
  } else {
    OIDMAP_TRACE(2, "%d SE cabinet(s) detected...", static_cast<int>(se_count));
    if (se == nullptr) {
      se_count = 0;  // a host that reports cabinets without an array reports none
    }
    for (int32_t i = 1; i <= se_count; ++i) {
      if (i >= kMaxCabinets) {
        EM_TRACE(1, "\n" EM_OIDMAP_LINE "## ERROR: cabinet list overflow; rest ignored!!\n");
        break;
      }
      list[static_cast<size_t>(i)] = se[i - 1];
      OIDMAP_TRACE(2, "      add cabinet %d", static_cast<int>(se[i - 1]));
      count = i + 1;
    }
  }
  CMutexLock lock(cabinet_mutex_);
  cabinets_ = list;
  cabinet_count_ = count;
}

std::vector<uint32_t> CCabinetDirectory::CabinetList() const {
  CMutexLock lock(cabinet_mutex_);
  return std::vector<uint32_t>(cabinets_.begin(), cabinets_.begin() + cabinet_count_);
}

bool CCabinetDirectory::IsKnownCabinet(uint32_t cabinet) const {
  CMutexLock lock(cabinet_mutex_);
  for (int32_t i = 0; i < cabinet_count_; ++i) {
    if (cabinets_[static_cast<size_t>(i)] == cabinet) {
      return true;
    }
  }
  return false;
}

void CCabinetDirectory::ReadHelpDeskMessage() {
  SipJson request(CM_ReadConfigurationSpace, CKT_ConfHelpDeskMessage, 0,
                  CHostLink::ServerCabinet());
  host_.SendRequest(request, kSingleRequestTimeoutMs);
  const int32_t i = request.CurrentIndex();
  if (!IsValidReplyStatus(request.GetStatus(i)) || request.GetDataForm(i) != SipDataForm::kText) {
    return;
  }
  std::string text;
  if (!request.GetDataString(i, text)) {
    return;
  }
  MakeValidUtf8(text);  // it is filled into the resolutions that clients get
  OIDMAP_TRACE(2, "SEL resolution help desk message: \"%s\" (from config space)", text.c_str());
  CMutexLock lock(help_desk_mutex_);
  help_desk_message_ = text;
}

std::string CCabinetDirectory::HelpDeskMessage() const {
  CMutexLock lock(help_desk_mutex_);
  return help_desk_message_;
}

SipJson CCabinetDirectory::AskServerCabinet(uint32_t oc) const {
  SipJson request(oc, 0, 0, CHostLink::ServerCabinet());
  request.RemoveKey("OE");
  request.RemoveKey("OI");
  host_.SendRequest(request, kSingleRequestTimeoutMs);
  return request;
}

void CCabinetDirectory::ProbeIdentModule() {
  const SipJson request = AskServerCabinet(CM_IdentProbe);
  const int32_t i = request.CurrentIndex();
  if (request.GetStatus(i) == ST_NOT_HANDLED) {
    OIDMAP_TRACE(2, "EM_IDENT not present using KTAS fallback logic");
    ktas_fallback_.store(true, std::memory_order_release);
    return;
  }
  uint32_t value = 0;
  const bool has_value = request.GetDataValue(i, value);
  ktas_fallback_.store(has_value && value == 1, std::memory_order_release);
}

void CCabinetDirectory::ReadSelLanguages() {
  const SipJson request = AskServerCabinet(CM_SupportedSelLanguages);
  const int32_t i = request.CurrentIndex();
  std::vector<uint8_t> bytes;
  if (IsValidReplyStatus(request.GetStatus(i)) && request.HasKey(i, "DA")) {
    request.GetDataBytes(i, bytes);
  }
  // The set is what this answer reports: a language no longer reported is gone.
  CMutexLock lock(language_mutex_);
  sel_languages_.clear();
  for (size_t b = 0; b + 1 < bytes.size(); b += 2) {  // an odd last byte is ignored
    const uint16_t id = static_cast<uint16_t>(bytes[b] | (bytes[b + 1] << 8));
    OIDMAP_TRACE(3, "Supported SEL language: LangId 0x%X", id);
    sel_languages_.insert(id);
  }
}

std::set<uint16_t> CCabinetDirectory::SupportedSelLanguages() const {
  CMutexLock lock(language_mutex_);
  return sel_languages_;
}

bool CCabinetDirectory::IsSupportedSelLanguage(uint16_t langId) const {
  CMutexLock lock(language_mutex_);
  return sel_languages_.count(langId) != 0;
}

}  // namespace em_oidmap
