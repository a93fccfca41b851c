// Requests that concern all modules.
#include "oidmap/OidMapExtModule.h"

uint32_t COidMapExtModule::MultipleModuleRequest(SipJson& /*msg*/) { return 0; }
