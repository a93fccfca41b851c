#include "oidmap/HostLink.h"

namespace em_oidmap {

SipJson CopyOfCurrentCommand(const SipJson& msg) {
  SipJson copy;
  if (const SipJson::Value* command = msg.Command(msg.CurrentIndex())) {
    copy.CurrentCommand().CopyFrom(*command, copy.GetAllocator());
  }
  return copy;
}

}  // namespace em_oidmap
