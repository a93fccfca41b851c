// The reply handler (slot 8): every reply and event from a lower module is turned back to
// the global view and traced; events go on to the host, a cleared log empties its
// cabinet's cache, and a new log entry is announced with its sequence number.
#include "oidmap/ModuleTrace.h"
#include "oidmap/OidMapExtModule.h"
#include "oidmap/Opcodes.h"
#include "sip/SipStatus.h"

namespace em_oidmap {
namespace {

constexpr const char* kBannerStars =
    "************************************************************************************************";

}  // namespace

void COidMapExtModule::OnReply(SipJson& msg) {
  const int32_t i = msg.CurrentIndex();
  try {
    // One walk reads the members for the translation and the status, which no
    // translation changes.
    SipJson::Value* command = msg.Command(i);
    const SipJson::Header header = command ? SipJson::HeaderOf(*command) : SipJson::Header();
    const uint32_t members = command ? command->MemberCount() : 0;
    if (command) mapper_.TranslateCommand(msg, i, *command, header);
    const uint32_t st = header.st;
    if (TraceClient().IsTraceActive()) {
      const uint32_t mi = msg.GetKey(i, "MI", 0);
      REPLY_TRACE(2, "CABID %04d: OC 0x%04X-0x%04X OID 0x%04X MID 0x%04X%04X Stat 0x%02X",
                  static_cast<int>(msg.GetKey(i, "CA", 0)), msg.GetOpcode(i),
                  msg.GetKey(i, "OE", 0), msg.GetKey(i, "OI", 0), MidHigh(mi), MidLow(mi), st);
    }
    if (st != ST_EVENT) {
      // A translation writes values in place, or adds or removes one member: with the
      // count unchanged every member is where the walk found it. (An event goes up to the
      // host below, which may change it.)
      ForwardedReply* forwarded = Forwarded();
      if (forwarded != nullptr && forwarded->msg == &msg && forwarded->index == i && command &&
          command->MemberCount() == members) {
        forwarded->command = command;
        forwarded->members = members;
        forwarded->header = header;
      }
      return;
    }
    if (TraceClient().IsTraceActive()) {
      const uint32_t mi = msg.GetKey(i, "MI", 0);
      REPLY_TRACE(2, "Forward translated event from MID 0x%04X%04X", MidHigh(mi), MidLow(mi));
    }
    HandBack(msg);
    HandleLogEvent(msg, i);
  } catch (...) {
    // The host's delivery thread must survive whatever went wrong; the locks of the cache
    // were released on the way out.
    try {
      EM_TRACE(1, "\n\n%s", kBannerStars);
      OIDMAP_TRACE(1, "CAB %04d: FATAL ERROR! EXCEPTION in Reply Handler at OpCode 0x%04X!",
                   static_cast<int>(msg.GetKey(i, "CA", 0)), msg.GetOpcode(i));
      EM_TRACE(1, "\n%s\n", kBannerStars);
    } catch (...) {
    }
  }
}

void COidMapExtModule::HandleLogEvent(SipJson& msg, int32_t i) {
  const uint32_t oc = msg.GetOpcode(i);
  if (oc == CM_LogClear) {
    log_store_.ClearCabinet(msg.GetKey(i, "CA", 0));
    return;
  }
  if (oc != CM_LogMessageArgumentsRead && oc != CM_LogEntry) {
    return;
  }
  const uint32_t sequence = collector_.CollectFromMessage(msg);
  if (sequence == 0) {
    return;
  }
  SipJson event(CM_LogMessageEvent, msg.GetKey(i, "OE", 0), msg.GetKey(i, "OI", 0),
                msg.GetKey(i, "CA", 0));
  event.SetDataValue(sequence, ST_SUCCESS);
  REPLY_TRACE(2, "FireEvent CM_LogMessageEvent (Sequence Number: %d)", static_cast<int>(sequence));
  HandBack(event);
}

}  // namespace em_oidmap
