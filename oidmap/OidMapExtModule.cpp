#include "oidmap/OidMapExtModule.h"

#include <cstdlib>
#include <utility>

#include "trace/DebugClient.h"
#include "oidmap/Opcodes.h"
#include "sip/SipJson.h"

namespace em_oidmap {

namespace {

// How long log queries wait for a cabinet's cache: EM_OIDMAP_CACHE_WAIT_MS when it is set
// to a number (tests and diagnosis), else the standard wait.
uint32_t CacheWaitMs() {
  const char* text = std::getenv("EM_OIDMAP_CACHE_WAIT_MS");
  if (text == nullptr || *text == '\0') return kCacheWaitMs;
  return SipJson::ParseLenientNumber(text);
}

}  // namespace

COidMapExtModule::COidMapExtModule(std::string messageFileDir)
    : CExtensionModule(),
      CTaskSerializer<SipJson>(1, kTaskQueueBytes),
      message_files_(std::move(messageFileDir)),
      cache_wait_ms_(CacheWaitMs()) {
  EM_TRACE(5, "\nEM_OIDMAP           : -> Constructor...");
  EM_TRACE(5, "\nEM_OIDMAP           : <- Constructor");
}

COidMapExtModule::~COidMapExtModule() {
  // The pair only brackets the call: members are torn down after both lines.
  EM_TRACE(5, "\nEM_OIDMAP           : -> Destructor...");
  EM_TRACE(5, "\nEM_OIDMAP           : <- Destructor");
  // The worker must be gone before the members it uses are destroyed; the serializer
  // base would only stop it after them.
  TerminateSerialization();
}

uint32_t COidMapExtModule::GetModuleInfo(void* moduleInfo) {
  return FillModuleInfo(moduleInfo, kModuleName, kModuleDescription);
}

uint32_t COidMapExtModule::Stop() {
  TerminateSerialization();
  return 1;
}

uint32_t COidMapExtModule::TranslateMessage(SipJson& msg, int32_t index) {
  const COidMapTable* table = active_table_.load(std::memory_order_acquire);
  if (table == nullptr) {
    return 0;  // mapping not needed, or start has not finished the table yet
  }
  return table->TranslateMessage(msg, index);
}

const COidMapTable& COidMapExtModule::MapTable() const {
  static const COidMapTable kEmpty;
  return tables_.empty() ? kEmpty : *tables_.back();
}

std::vector<uint32_t> COidMapExtModule::CabinetList() const {
  CMutexLock guard(cabinet_mutex_);
  return std::vector<uint32_t>(cabinets_.begin(), cabinets_.begin() + cabinet_count_);
}

bool COidMapExtModule::IsKnownCabinet(uint32_t cabinet) const {
  CMutexLock guard(cabinet_mutex_);
  for (int32_t i = 0; i < cabinet_count_; ++i) {
    if (cabinets_[static_cast<size_t>(i)] == cabinet) {
      return true;
    }
  }
  return false;
}

std::set<uint16_t> COidMapExtModule::SupportedSelLanguages() const {
  CMutexLock guard(language_mutex_);
  std::set<uint16_t> ids;
  for (const auto& lang : sel_languages_) {
    ids.insert(lang.first);
  }
  return ids;
}

std::string COidMapExtModule::HelpDeskMessage() const {
  CMutexLock guard(help_desk_mutex_);
  return help_desk_message_;
}

}  // namespace em_oidmap
