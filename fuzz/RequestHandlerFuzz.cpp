// Arbitrary bytes (after byte 0) parsed as a SIP message and offered to a started module's
// request handler, as a host offers a client's request. Byte 0: bit 0 picks the module
// (mapped or single, ModuleFuzzHost.h), bits 1-2 the current command index. Nothing may
// crash, leak or block; the handler returns 0 or 1 and leaves a message that still
// serialises to text that parses. Text and raw record fetches it queues run before the
// next input.
#include <cstddef>
#include <cstdint>

#include "fuzz/ModuleFuzzHost.h"

using namespace em_oidmap;  // a program of its own: its names are short
using namespace em_oidmap::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SipJson msg;
  Instance* in = nullptr;
  if (!Pick(data, size, msg, &in)) return 0;
  msg.SetCurrentIndex((data[0] >> 1) & 3);
  CIExtensionModule& module = in->module;
  Check(module.OnRequest(msg) <= 1);
  CheckWellFormed(msg);
  Settle(*in);
  return 0;
}
