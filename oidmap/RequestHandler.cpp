// The request handler (slot 9).
#include "oidmap/OidMapExtModule.h"

uint32_t COidMapExtModule::OnRequest(SipJson& request) {
  return CExtensionModule::OnRequest(request);
}
