// CIModuleHost: the agent host's interface, as extension modules call it. Only the slots
// named here are called by modules; the others are reserved and a host fills them with
// anything. Slot positions (Itanium ABI, 1-based, destructor = slots 1 and 2) are part of
// the binary contract and must not move.
#ifndef EM_MODULE_CIMODULEHOST_H
#define EM_MODULE_CIMODULEHOST_H

#include <cstdint>

class CIExtensionModule;
class SipJson;

constexpr uint32_t kHostKindAgentless = 5;  // the agentless management service

class CIModuleHost {
 public:
  virtual ~CIModuleHost() = default;  // slots 1, 2
  virtual void HostReserved3() {}
  virtual void HostReserved4() {}
  virtual void HostReserved5() {}
  virtual void HostReserved6() {}
  virtual void HostReserved7() {}
  virtual void HostReserved8() {}
  // Slot 9: a second send path (never called by em_oidmap).
  virtual uint32_t AlternateSend(CIExtensionModule* module, SipJson& msg, uint32_t zero) = 0;
  // Slot 10: send the message's current command and wait; answers come back in `msg`.
  // MI 0xFFFFFFFF or CA 0xFFFFFFFF makes it a broadcast (one reply command per module).
  // Every reply is passed to the sender's reply handler before this returns.
  virtual uint32_t SendRequest(uint64_t context, SipJson& msg, uint32_t timeoutMs) = 0;
  // Slot 11: hand a message (reply, event) back up to the host.
  virtual uint32_t HandBack(CIExtensionModule* module, SipJson& msg) = 0;
  virtual void HostReserved12() {}
  virtual void HostReserved13() {}
  virtual void HostReserved14() {}
  virtual void HostReserved15() {}
  virtual void HostReserved16() {}
  virtual void HostReserved17() {}
  virtual void HostReserved18() {}
  virtual void HostReserved19() {}
  virtual void HostReserved20() {}
  virtual void HostReserved21() {}
  virtual void HostReserved22() {}
  virtual void HostReserved23() {}
  virtual void HostReserved24() {}
  virtual void HostReserved25() {}
  virtual void HostReserved26() {}
  virtual void HostReserved27() {}
  // Slot 28: the host's kind (kHostKindAgentless = 5).
  virtual uint32_t GetHostKind() = 0;
  // Slot 29: the SE cabinets of a server cabinet. The array belongs to the host and stays
  // valid until the next call.
  virtual bool EnumerateSeCabinets(uint32_t serverCabinet, const uint32_t** seCabinets,
                                   uint8_t* count) = 0;
};

#endif  // EM_MODULE_CIMODULEHOST_H
