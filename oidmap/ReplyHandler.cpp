// The reply handler (slot 8).
#include "oidmap/OidMapExtModule.h"

void COidMapExtModule::OnReply(SipJson& /*reply*/) {}
