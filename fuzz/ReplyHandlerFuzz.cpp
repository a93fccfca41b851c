// Arbitrary bytes (after byte 0) parsed as a SIP message and passed to a started module's
// reply handler. Byte 0: bit 0 picks the module (mapped or single, ModuleFuzzHost.h); bit
// 1 set delivers the message as a host delivers an event of the lower module picked by
// bits 2-3 (its MI, ST 0xFF), clear passes it as it is (a reply, or an unsolicited one);
// bits 4-5 give the current command index. A log event's entries are then read back as a
// page of the cabinet's log, so that its records go through the message texts as well.
// Nothing may crash, leak or block, and the message must still serialise to text that
// parses.
#include <cstddef>
#include <cstdint>

#include "fuzz/ModuleFuzzHost.h"
#include "oidmap/Opcodes.h"

using namespace em_oidmap;  // a program of its own: its names are short
using namespace em_oidmap::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SipJson msg;
  Instance* in = nullptr;
  if (!Pick(data, size, msg, &in)) return 0;
  CIExtensionModule& module = in->module;
  msg.SetCurrentIndex((data[0] >> 4) & 3);
  if (data[0] & 2) {
    msg = in->host.DeliverEvent(in->mids[((data[0] >> 2) & 3) % in->mids.size()], std::move(msg));
  } else {
    module.OnReply(msg);
  }
  CheckWellFormed(msg);

  const int32_t i = msg.CurrentIndex();
  const uint32_t oc = msg.GetOpcode(i);
  if (msg.GetStatus(i) == 0xFF && (oc == CM_LogEntry || oc == CM_LogMessageArgumentsRead)) {
    SipJson page(CM_GetMsgLogCacheEntries, 0x409, 0, msg.GetKey(i, "CA", 0));
    Check(module.OnRequest(page) == 1);
    CheckWellFormed(page);
  }
  Settle(*in);
  return 0;
}
