// Message log queries and message text requests.
#include "oidmap/OidMapExtModule.h"
#include "sip/SipStatus.h"

uint32_t COidMapExtModule::HandleMessageLogRequest(SipJson& msg, uint32_t /*oc*/) {
  // Not answered yet: the host offers the request elsewhere.
  msg.SetStatus(ST_NOT_HANDLED);
  return 0;
}
