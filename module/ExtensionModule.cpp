#include "module/ExtensionModule.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "trace/DebugClient.h"
#include "sip/SipJson.h"
#include "sip/SipStatus.h"

namespace em_oidmap {

namespace {

// Process-wide: the host sets it once for all modules and it outlives module objects.
std::atomic<uint32_t> g_server_cabinet{0};
std::atomic<bool> g_server_cabinet_set{false};

constexpr uint32_t kAllModules = 0xFFFFFFFF;
constexpr uint32_t kAllCabinets = 0xFFFFFFFF;

}  // namespace

uint32_t CExtensionModule::ServerCabinet() {
  return g_server_cabinet.load(std::memory_order_relaxed);
}

bool CExtensionModule::IsServerCabinetSet() {
  return g_server_cabinet_set.load(std::memory_order_relaxed);
}

std::string CExtensionModule::EventLogSourceName() const {
  CIModuleHost* host = Host();
  if (host != nullptr && host->GetHostKind() == kHostKindAgentless) {
    return kEventSourceAgentless;
  }
  return kEventSourceNodeSteward;
}

uint32_t CExtensionModule::Start(CIModuleHost* host, uint64_t context) {
  // Events may reach the reply handler on host threads while start runs: the context is
  // published before the host, and senders read the host first.
  context_.store(context, std::memory_order_relaxed);
  host_.store(host, std::memory_order_release);
  if (TraceClient().IsTraceActive()) {
    const std::string source = EventLogSourceName();
    EM_TRACE(4, "\n%-20s: Register event log source \"%s\" ...", GetModuleTag(), source.c_str());
    EM_TRACE(4, "\n%-20s: ... event log source \"%s\" registered", GetModuleTag(),
             source.c_str());
  }
  return 1;
}

uint32_t CExtensionModule::OnRequest(SipJson& request) {
  request.CurrentCommand();
  request.SetStatus(ST_NOT_HANDLED);
  return 0;
}

uint32_t CExtensionModule::SetServerCabinet(uint32_t serverCabinet) {
  g_server_cabinet.store(serverCabinet, std::memory_order_relaxed);
  g_server_cabinet_set.store(true, std::memory_order_relaxed);
  EM_TRACE(2, "\n\n%-20s: ## Server cabinet number = %d ##\n", GetModuleTag(),
           static_cast<int>(serverCabinet));
  return 1;
}

uint32_t CExtensionModule::Notify(uint32_t code, uint32_t param, uintptr_t extra) {
  const bool tracing = TraceClient().IsTraceActive();
  const char* tag = GetModuleTag();
  // The "0Xx" prefix is what the agent's tools have always matched on.
  EM_TRACE(2, "\n\n%-20s: ## NOTIFY: Code = 0Xx%02X, param = 0x%08X", tag, code, param);
  switch (code) {
    case SCN_SWITCH_SHUTDOWN:
      EM_TRACE(1, "\n%-20s: *** SCN_SWITCH_SHUTDOWN *** \n", tag);
      EM_TRACE(3, "\n%-20s: -> SWITCH shutdown notification, set SwitchShutdown flag", tag);
      switch_shutdown_.store(true, std::memory_order_relaxed);
      break;
    case SCN_SWITCH_REQUEST_ENABLED:
      EM_TRACE(1, "\n%-20s: *** SCN_SWITCH_REQUEST_ENABLED *** \n", tag);
      EM_TRACE(3,
               "\n%-20s: -> SWITCH start completed (all layers started) - requests enabled",
               tag);
      break;
    case SCN_SYSTEM_SHUTDOWN:
      EM_TRACE(1, "\n%-20s: *** SCN_SYSTEM_SHUTDOWN *** \n", tag);
      EM_TRACE(2, "\n%-20s: -> System shutdown", tag);
      break;
    case SCN_POWERSTATE_SUSPEND:
      EM_TRACE(1, "\n%-20s: *** SCN_POWERSTATE_SUSPEND *** \n", tag);
      break;
    case SCN_POWERSTATE_STANDBY:
      EM_TRACE(1, "\n%-20s: *** SCN_POWERSTATE_STANDBY *** \n", tag);
      break;
    case SCN_POWERSTATE_RESUME:
      EM_TRACE(1, "\n%-20s: *** SCN_POWERSTATE_RESUME *** \n", tag);
      break;
    case SCN_POWERSTATE_AC_OFFLINE:
      EM_TRACE(1, "\n%-20s: *** SCN_POWERSTATE_AC_OFFLINE *** \n", tag);
      break;
    case SCN_POWERSTATE_AC_ONLINE:
      EM_TRACE(1, "\n%-20s: *** SCN_POWERSTATE_AC_ONLINE *** \n", tag);
      break;
    default:
      break;
  }
  if (tracing) {
    EM_TRACE(4, "\n%-20s:   call OnModuleNotification()...", tag);
  }
  const uint32_t result = OnModuleNotification(code, param, extra);
  if (tracing) {
    EM_TRACE(4, "\n%-20s:   ... OnModuleNotification() completed", tag);
  }
  return result;
}

void CExtensionModule::SendRequest(SipJson& msg, uint32_t timeoutMs) {
  CIModuleHost* host = Host();
  if (host == nullptr) {
    msg.SetStatus(ST_NO_HOST);
    return;
  }
  host->SendRequest(Context(), msg, timeoutMs);
}

void CExtensionModule::SendToAllModules(SipJson& msg, uint32_t timeoutMs) {
  msg.SetKey("MI", kAllModules, false);
  SendRequest(msg, timeoutMs);
}

void CExtensionModule::SendToAllCabinets(SipJson& msg, uint32_t timeoutMs) {
  msg.SetKey("CA", kAllCabinets, false);
  SendRequest(msg, timeoutMs);
}

void CExtensionModule::AlternateSend(SipJson& msg) {
  CIModuleHost* host = Host();
  if (host == nullptr) {
    msg.SetStatus(ST_NO_HOST);
    return;
  }
  host->AlternateSend(this, msg, 0);
}

void CExtensionModule::HandBack(SipJson& msg) {
  CIModuleHost* host = Host();
  if (host == nullptr) {
    return;
  }
  const uint32_t saved = msg.GetStatus(msg.CurrentIndex());
  msg.SetStatus(ST_EVENT);
  host->HandBack(this, msg);
  msg.SetStatus(saved);
}

void CExtensionModule::TraceRequest(const SipJson& msg, uint32_t level) {
  TraceMessage(msg, level, " (REQ)");
}

void CExtensionModule::TraceReturn(const SipJson& msg, uint32_t level) {
  TraceMessage(msg, level, " (RET)");
}

void CExtensionModule::TraceReply(const SipJson& msg, uint32_t level) {
  TraceMessage(msg, level, " (RPL)");
}

void CExtensionModule::TraceMessage(const SipJson& msg, uint32_t level, const char* suffix) {
  if (!TraceClient().IsTraceActive()) {
    return;
  }
  const int32_t i = msg.CurrentIndex();
  const std::string tag = std::string(GetModuleTag()) + suffix;
  // Peers may send these as text numbers ("0x0310"): read them leniently.
  const uint32_t oc = msg.GetKey(i, "OC", 0);
  const uint32_t oe = msg.GetKey(i, "OE", 0);
  const uint32_t oi = msg.GetKey(i, "OI", 0);
  const uint32_t mi = msg.GetKey(i, "MI", 0);
  const uint32_t st = msg.GetStatus(i);
  const uint32_t mi_hi = MidHigh(mi);
  const uint32_t mi_lo = MidLow(mi);
  const SipDataForm form = msg.GetDataForm(i);
  const bool is_value = form == SipDataForm::kBoolean || form == SipDataForm::kInteger;
  const bool is_struct = form == SipDataForm::kJsonStruct;

  if (!msg.HasKey(i, "CA")) {
    if (form == SipDataForm::kNone) {
      EM_TRACE(level, "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X MID 0x%04X%04X Stat 0x%02X",
               tag.c_str(), oc, oe, oi, mi_hi, mi_lo, st);
    } else if (is_value) {
      uint32_t value = 0;
      msg.GetDataValue(i, value);
      EM_TRACE(level, "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X MID 0x%04X%04X Stat 0x%02X Data %d",
               tag.c_str(), oc, oe, oi, mi_hi, mi_lo, st, static_cast<int>(value));
    } else if (is_struct) {
      const std::string json = msg.GetDataJsonText(i);
      EM_TRACE(level,
               "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X MID 0x%04X%04X Stat 0x%02X Data (JSON "
               "struct):\n%s",
               tag.c_str(), oc, oe, oi, mi_hi, mi_lo, st, json.c_str());
    } else {
      EM_TRACE(level, "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X MID 0x%04X%04X Stat 0x%02X Len %d",
               tag.c_str(), oc, oe, oi, mi_hi, mi_lo, st,
               static_cast<int>(msg.GetDataLength(i)));
    }
    return;
  }
  const int ca = static_cast<int>(msg.GetKey(i, "CA", 0));
  if (form == SipDataForm::kNone) {
    EM_TRACE(level,
             "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X CABID %04d MID 0x%04X%04X Stat 0x%02X",
             tag.c_str(), oc, oe, oi, ca, mi_hi, mi_lo, st);
  } else if (is_value) {
    uint32_t value = 0;
    msg.GetDataValue(i, value);
    EM_TRACE(level,
             "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X CABID %04d MID 0x%04X%04X Stat 0x%02X "
             "Data %d",
             tag.c_str(), oc, oe, oi, ca, mi_hi, mi_lo, st, static_cast<int>(value));
  } else if (is_struct) {
    const std::string json = msg.GetDataJsonText(i);
    EM_TRACE(level,
             "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X CABID %04d MID 0x%04X%04X Stat 0x%02X "
             "Data (JSON struct):\n%s",
             tag.c_str(), oc, oe, oi, ca, mi_hi, mi_lo, st, json.c_str());
  } else {
    EM_TRACE(level,
             "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X CABID %04d MID 0x%04X%04X Stat 0x%02X "
             "Len %d",
             tag.c_str(), oc, oe, oi, ca, mi_hi, mi_lo, st,
             static_cast<int>(msg.GetDataLength(i)));
  }
}

uint32_t CExtensionModule::FillModuleInfo(void* moduleInfo, const char* name,
                                          const char* description) {
  if (moduleInfo == nullptr) {
    return 0;
  }
  auto* rec = static_cast<unsigned char*>(moduleInfo);
  uint32_t size = 0;
  std::memcpy(&size, rec, sizeof size);
  if (size < kModuleInfoMinSize) {
    return 0;
  }
  auto put32 = [rec](size_t offset, uint32_t value) {
    // The record is packed little-endian; x86-64 is little-endian.
    std::memcpy(rec + offset, &value, sizeof value);
  };
  auto put_text = [rec](size_t offset, size_t width, const char* text) {
    std::memset(rec + offset, 0, width);
    const size_t n = std::min(std::strlen(text), width);
    std::memcpy(rec + offset, text, n);
  };
  rec[8] = static_cast<unsigned char>(rec[8] | 0x03);
  rec[21] = static_cast<unsigned char>((rec[21] & ~0x07) | 0x05);
  put32(26, 100);
  put32(42, 1);
  put_text(46, 16, name);
  std::memset(rec + 62, 0, 80);
  std::memset(rec + 142, 0, 2);
  rec[144] = 0;
  rec[145] = 0;
  put_text(146, 96, description);
  std::memset(rec + 242, 0, 2);
  rec[244] = 0;
  rec[245] = 0;
  return 1;
}

}  // namespace em_oidmap
