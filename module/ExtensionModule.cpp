#include "module/ExtensionModule.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "sip/SipJson.h"
#include "sip/SipStatus.h"
#include "trace/DebugClient.h"

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
    EM_TRACE(4, "\n%-20s: ... event log source \"%s\" registered", GetModuleTag(), source.c_str());
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
      EM_TRACE(3, "\n%-20s: -> SWITCH start completed (all layers started) - requests enabled",
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

namespace {

// The members of a command that its trace line shows.
struct CommandTrace {
  const char* tag;
  uint32_t oc, oe, oi, miHigh, miLow, st;
  SipDataForm form;
  uint32_t value;    // the data as a number, when it is one
  std::string json;  // the data as JSON text, when it is a struct
  int length;        // the data's length, for other forms
};

CommandTrace ReadCommandTrace(const SipJson& msg, const char* tag) {
  const int32_t i = msg.CurrentIndex();
  CommandTrace t{};
  t.tag = tag;
  // Peers may send these as text numbers ("0x0310"): read them leniently.
  t.oc = msg.GetKey(i, "OC", 0);
  t.oe = msg.GetKey(i, "OE", 0);
  t.oi = msg.GetKey(i, "OI", 0);
  const uint32_t mi = msg.GetKey(i, "MI", 0);
  t.miHigh = MidHigh(mi);
  t.miLow = MidLow(mi);
  t.st = msg.GetStatus(i);
  t.form = msg.GetDataForm(i);
  if (t.form == SipDataForm::kBoolean || t.form == SipDataForm::kInteger) {
    msg.GetDataValue(i, t.value);
  } else if (t.form == SipDataForm::kJsonStruct) {
    t.json = msg.GetDataJsonText(i);
  } else if (t.form != SipDataForm::kNone) {
    t.length = static_cast<int>(msg.GetDataLength(i));
  }
  return t;
}

bool IsValueForm(SipDataForm form) {
  return form == SipDataForm::kBoolean || form == SipDataForm::kInteger;
}

void TraceWithoutCabinet(uint32_t level, const CommandTrace& t) {
  if (t.form == SipDataForm::kNone) {
    EM_TRACE(level, "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X MID 0x%04X%04X Stat 0x%02X", t.tag, t.oc,
             t.oe, t.oi, t.miHigh, t.miLow, t.st);
  } else if (IsValueForm(t.form)) {
    EM_TRACE(level, "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X MID 0x%04X%04X Stat 0x%02X Data %d",
             t.tag, t.oc, t.oe, t.oi, t.miHigh, t.miLow, t.st, static_cast<int>(t.value));
  } else if (t.form == SipDataForm::kJsonStruct) {
    EM_TRACE(level,
             "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X MID 0x%04X%04X Stat 0x%02X Data (JSON "
             "struct):\n%s",
             t.tag, t.oc, t.oe, t.oi, t.miHigh, t.miLow, t.st, t.json.c_str());
  } else {
    EM_TRACE(level, "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X MID 0x%04X%04X Stat 0x%02X Len %d", t.tag,
             t.oc, t.oe, t.oi, t.miHigh, t.miLow, t.st, t.length);
  }
}

void TraceWithCabinet(uint32_t level, const CommandTrace& t, int ca) {
  if (t.form == SipDataForm::kNone) {
    EM_TRACE(level, "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X CABID %04d MID 0x%04X%04X Stat 0x%02X",
             t.tag, t.oc, t.oe, t.oi, ca, t.miHigh, t.miLow, t.st);
  } else if (IsValueForm(t.form)) {
    EM_TRACE(level,
             "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X CABID %04d MID 0x%04X%04X Stat 0x%02X "
             "Data %d",
             t.tag, t.oc, t.oe, t.oi, ca, t.miHigh, t.miLow, t.st, static_cast<int>(t.value));
  } else if (t.form == SipDataForm::kJsonStruct) {
    EM_TRACE(level,
             "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X CABID %04d MID 0x%04X%04X Stat 0x%02X "
             "Data (JSON struct):\n%s",
             t.tag, t.oc, t.oe, t.oi, ca, t.miHigh, t.miLow, t.st, t.json.c_str());
  } else {
    EM_TRACE(level,
             "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X CABID %04d MID 0x%04X%04X Stat 0x%02X "
             "Len %d",
             t.tag, t.oc, t.oe, t.oi, ca, t.miHigh, t.miLow, t.st, t.length);
  }
}

}  // namespace

void CExtensionModule::TraceMessage(const SipJson& msg, uint32_t level, const char* suffix) {
  if (!TraceClient().IsTraceActive()) {
    return;
  }
  const std::string tag = std::string(GetModuleTag()) + suffix;
  const CommandTrace t = ReadCommandTrace(msg, tag.c_str());
  const int32_t i = msg.CurrentIndex();
  if (msg.HasKey(i, "CA")) {
    TraceWithCabinet(level, t, static_cast<int>(msg.GetKey(i, "CA", 0)));
  } else {
    TraceWithoutCabinet(level, t);
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
