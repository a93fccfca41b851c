// CIExtensionModule: the interface through which the agent host drives an extension
// module. The host calls it by vtable slot (Itanium ABI, 1-based, destructor = slots 1
// and 2); the order below is the binary contract and must never change.
#ifndef EM_MODULE_CIEXTENSIONMODULE_H
#define EM_MODULE_CIEXTENSIONMODULE_H

#include <cstdint>

class CIModuleHost;
class SipJson;

class CIExtensionModule {
 public:
  virtual ~CIExtensionModule() = default;                                  // 1, 2
  // Fills the host's module information record (at least 246 bytes, first 4 = size).
  virtual uint32_t GetModuleInfo(void* moduleInfo) = 0;                    // 3
  virtual uint32_t Query4() = 0;                                           // 4
  virtual uint32_t Start(CIModuleHost* host, uint64_t context) = 0;        // 5
  virtual uint32_t Stop() = 0;                                             // 6
  virtual void Rescan() = 0;                                               // 7
  virtual void OnReply(SipJson& reply) = 0;                                // 8
  virtual uint32_t OnRequest(SipJson& request) = 0;                        // 9
  virtual uint32_t Query10() = 0;                                          // 10
  virtual uint32_t SetServerCabinet(uint32_t serverCabinet) = 0;           // 11
  virtual uint32_t Query12() = 0;                                          // 12
  virtual uint32_t Query13() = 0;                                          // 13
  virtual uint32_t Notify(uint32_t code, uint32_t param, uintptr_t extra) = 0;  // 14
  virtual const char* GetModuleTag() = 0;                                  // 15
  virtual void Hook16() = 0;                                               // 16
  virtual void Hook17() = 0;                                               // 17
  virtual void Hook18() = 0;                                               // 18
  virtual void Hook19() = 0;                                               // 19
  virtual uint32_t Query20() = 0;                                          // 20
  virtual uint32_t Query21() = 0;                                          // 21
  virtual uint32_t Query22() = 0;                                          // 22
  virtual uint32_t Query23() = 0;                                          // 23
  virtual uint32_t OnModuleNotification(uint32_t code, uint32_t param,
                                        uintptr_t extra) = 0;              // 24
};

// The four entry points of an extension module's shared object.
extern "C" {
bool EM_Create(CIExtensionModule** module, void* unused);
unsigned int EM_Delete();
const char* EM_GetModuleName();
unsigned int EM_SetupAction(uint32_t action);
}

#endif  // EM_MODULE_CIEXTENSIONMODULE_H
