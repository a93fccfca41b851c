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
#include <string>

#include "fuzz/ModuleFuzzHost.h"
#include "oidmap/Opcodes.h"

using namespace em_oidmap;  // a program of its own: its names are short

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  SipJson msg;
  if (!msg.Parse(std::string(reinterpret_cast<const char*>(data) + 1, size - 1))) return 0;
  fuzzhost::Instance& in = fuzzhost::Pick(data[0]);
  msg.SetCurrentIndex((data[0] >> 4) & 3);
  if (data[0] & 2) {
    const uint32_t mid = in.mids[((data[0] >> 2) & 3) % in.mids.size()];
    msg = in.host.DeliverEvent(mid, std::move(msg));
  } else {
    CIExtensionModule& module = in.module;
    module.OnReply(msg);
  }
  fuzzhost::CheckWellFormed(msg);

  const int32_t i = msg.CurrentIndex();
  const uint32_t oc = msg.GetOpcode(i);
  if (msg.GetStatus(i) == 0xFF && (oc == CM_LogEntry || oc == CM_LogMessageArgumentsRead)) {
    SipJson page(CM_GetMsgLogCacheEntries, 0x409, 0, msg.GetKey(i, "CA", 0));
    CIExtensionModule& module = in.module;
    fuzzhost::Check(module.OnRequest(page) == 1);
    fuzzhost::CheckWellFormed(page);
  }
  fuzzhost::Settle(in);
  return 0;
}
