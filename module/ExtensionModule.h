// CExtensionModule: the defaults of the host's module interface, the host notifications,
// and the operations by which a module sends SIP messages through the host and traces
// them. Concrete modules derive from it and override what they implement.
//
// Thread safety: the base takes no lock. Sends may be made from any thread (host threads
// and a module's worker); the host is expected to accept concurrent sends. The host
// pointer is set by Start; events that arrive before it is set are not handed back.
#ifndef EM_MODULE_EXTENSIONMODULE_H
#define EM_MODULE_EXTENSIONMODULE_H

#include <atomic>
#include <cstdint>
#include <string>

#include "module/CIExtensionModule.h"
#include "module/CIModuleHost.h"

class SipJson;

namespace em_oidmap {

// Host notification codes.
constexpr uint32_t SCN_SWITCH_SHUTDOWN = 0x20000;
constexpr uint32_t SCN_SWITCH_REQUEST_ENABLED = 0x20001;
constexpr uint32_t SCN_SYSTEM_SHUTDOWN = 0x30000;
constexpr uint32_t SCN_POWERSTATE_SUSPEND = 0x40000;
constexpr uint32_t SCN_POWERSTATE_STANDBY = 0x40001;
constexpr uint32_t SCN_POWERSTATE_RESUME = 0x40002;
constexpr uint32_t SCN_POWERSTATE_AC_OFFLINE = 0x40003;
constexpr uint32_t SCN_POWERSTATE_AC_ONLINE = 0x40004;

// A module id is traced as its upper and lower 16 bits, high half first
// ("MID 0x%04X%04X").
constexpr uint32_t MidHigh(uint32_t mid) { return mid >> 16; }
constexpr uint32_t MidLow(uint32_t mid) { return mid & 0xFFFF; }

// The module information record is at least this long; shorter records are refused.
constexpr uint32_t kModuleInfoMinSize = 246;

// Event-log source names, chosen by the host's kind.
constexpr const char* kEventSourceAgentless = "Halvoran Agentless Service";
constexpr const char* kEventSourceNodeSteward = "Halvoran Node Steward";

class CExtensionModule : public CIExtensionModule {
 public:
  CExtensionModule() = default;
  ~CExtensionModule() override = default;
  CExtensionModule(const CExtensionModule&) = delete;
  CExtensionModule& operator=(const CExtensionModule&) = delete;

  // ---- The host's interface, with the base's defaults ----------------------------------
  uint32_t GetModuleInfo(void* moduleInfo) override {
    (void)moduleInfo;
    return 0;
  }
  uint32_t Query4() override { return 1; }
  // Stores the host and its context value and announces the event-log source. Returns 1.
  uint32_t Start(CIModuleHost* host, uint64_t context) override;
  uint32_t Stop() override { return 1; }
  void Rescan() override {}
  void OnReply(SipJson& reply) override { (void)reply; }
  // Marks the current command as not supported (ST 1) and returns 0.
  uint32_t OnRequest(SipJson& request) override;
  uint32_t Query10() override { return 0; }
  // Stores the process-wide server cabinet number. Returns 1.
  uint32_t SetServerCabinet(uint32_t serverCabinet) override;
  uint32_t Query12() override { return 0; }
  uint32_t Query13() override { return 0; }
  // Traces the notification, acts on the codes it knows, then passes every notification
  // on to OnModuleNotification and returns its result.
  uint32_t Notify(uint32_t code, uint32_t param, uintptr_t extra) override;
  const char* GetModuleTag() override { return "EM_XXX"; }
  void Hook16() override {}
  void Hook17() override {}
  void Hook18() override {}
  void Hook19() override {}
  uint32_t Query20() override { return 0; }
  uint32_t Query21() override { return 0; }
  uint32_t Query22() override { return 0; }
  uint32_t Query23() override { return 0; }
  uint32_t OnModuleNotification(uint32_t code, uint32_t param, uintptr_t extra) override {
    (void)code;
    (void)param;
    (void)extra;
    return 0;
  }

  // ---- State ------------------------------------------------------------------------
  CIModuleHost* Host() const { return host_.load(std::memory_order_acquire); }
  uint64_t Context() const { return context_.load(std::memory_order_relaxed); }
  // Set by SCN_SWITCH_SHUTDOWN and never cleared: long loops end when it is set.
  bool IsSwitchShutdown() const { return switch_shutdown_.load(std::memory_order_relaxed); }
  // The event-log source name for the attached host (or for no host).
  std::string EventLogSourceName() const;
  static uint32_t ServerCabinet();
  static bool IsServerCabinetSet();

  // ---- Sending (act on the message's current command; answers come back in it) ----------
  // Without a host: "ST" 6 and nothing is called.
  void SendRequest(SipJson& msg, uint32_t timeoutMs);
  // Sets "MI" 0xFFFFFFFF, then SendRequest.
  void SendToAllModules(SipJson& msg, uint32_t timeoutMs);
  // Sets "CA" 0xFFFFFFFF, then SendRequest.
  void SendToAllCabinets(SipJson& msg, uint32_t timeoutMs);
  // The host's second send path. Without a host: "ST" 6.
  void AlternateSend(SipJson& msg);
  // Hands the message up to the host with "ST" 255 during the call; the caller's status
  // is restored afterwards. Used to forward events and to fire the module's own events.
  void HandBack(SipJson& msg);

  // ---- Message traces (current command; only when tracing is active) -------------------
  void TraceRequest(const SipJson& msg, uint32_t level);  // tag + " (REQ)"
  void TraceReturn(const SipJson& msg, uint32_t level);   // tag + " (RET)"
  void TraceReply(const SipJson& msg, uint32_t level);    // tag + " (RPL)"

 protected:
  // Writes the module's fields into the host's information record. Returns 0 (nothing
  // written) for a record shorter than kModuleInfoMinSize, else 1.
  static uint32_t FillModuleInfo(void* moduleInfo, const char* name, const char* description);

 private:
  void TraceMessage(const SipJson& msg, uint32_t level, const char* suffix);

  // Atomic: events can arrive on host threads while Start attaches the host.
  std::atomic<CIModuleHost*> host_{nullptr};
  std::atomic<uint64_t> context_{0};
  std::atomic<bool> switch_shutdown_{false};
};

}  // namespace em_oidmap

#endif  // EM_MODULE_EXTENSIONMODULE_H
