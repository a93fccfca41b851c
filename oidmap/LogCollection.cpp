// Task execution and log collection: the log scans, collect from message.
#include "module/DebugClient.h"
#include "oidmap/OidMapExtModule.h"
#include "oidmap/Opcodes.h"

void COidMapExtModule::OnTaskExecution(SipJson& task, int32_t level) {
  const int32_t i = task.CurrentIndex();
  // The log collection runs here; until it does, a task only reports that it ran.
  EM_TRACE(3, "\nEM_OIDMAP           : Task OC 0x%04X for CABID %04d at level %d executed",
           task.GetOpcode(i), static_cast<int>(task.GetKey(i, "CA")), level);
}

uint32_t COidMapExtModule::CollectFromMessage(SipJson& /*msg*/) {
  return 0;  // log records are not collected yet
}
