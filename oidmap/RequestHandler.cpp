// The request handler (slot 9): threshold writes declined, translated requests forwarded
// to the module that owns the instance, the multiple-module requests, then the message
// log opcodes. Every way out is traced with " (RET)".
#include <exception>

#include "oidmap/ModuleTrace.h"
#include "oidmap/OidMapExtModule.h"
#include "oidmap/Opcodes.h"
#include "oidmap/Timeouts.h"
#include "sip/SipStatus.h"

namespace em_oidmap {

namespace {

// What the client sent in the members that a forward changes: the reply the client gets
// back speaks of the client's view again (see FinaliseReply).
struct ClientView {
  bool hasOi = false;
  uint32_t oi = 0;
  bool hasMi = false;
  uint32_t mi = 0;
  uint32_t ci = 0;
};

ClientView SaveClientView(const SipJson::Header& header) {
  ClientView view;
  view.hasOi = (header.present & SipJson::Header::kOi) != 0;
  view.oi = header.oi;
  view.hasMi = (header.present & SipJson::Header::kMi) != 0;
  view.mi = header.mi;
  view.ci = header.ci;
  return view;
}

// Finalises the reply to a request this module handled by sending it down: the command
// keeps the answering module's ST and DA, and gets back the client's OI (the global
// index), MI and CI. The reply handler has already turned the OI back; restoring it here
// also covers a send that never reached a module (no host, a reply without MI).
// `command` is the message's current command (null: nothing to finalise); `reply` what the
// reply handler read of it, when it did and it has not changed since (null otherwise).
void FinaliseReply(SipJson& msg, SipJson::Value* command, const ClientView& view,
                   const SipJson::Header* reply) {
  if (command == nullptr) {
    return;
  }
  // Values are replaced and members removed where one walk found them; a removal moves
  // the last member into the gap, and the header follows it.
  SipJson::Header now = reply != nullptr ? *reply : SipJson::HeaderOf(*command);
  using H = SipJson::Header;
  if (view.hasOi) {
    msg.SetHeaderKey(*command, now, H::kOi, view.oi);
  } else {
    msg.RemoveHeaderKey(*command, now, H::kOi);
  }
  if (view.hasMi) {
    msg.SetHeaderKey(*command, now, H::kMi, view.mi);
  } else {
    msg.RemoveHeaderKey(*command, now, H::kMi);
  }
  if (view.ci != 0) {
    msg.SetHeaderKey(*command, now, H::kCi, view.ci);
  } else {
    msg.RemoveHeaderKey(*command, now, H::kCi);
  }
}

bool IsThresholdWrite(uint32_t oc, uint32_t oe) {
  const uint32_t group = oe & ~0xFu;
  return oc == CM_WriteConfigurationSpace &&
         (group == CKT_ConfThresholdGroupA || group == CKT_ConfThresholdGroupB);
}

}  // namespace

COidMapExtModule::ForwardedReply*& COidMapExtModule::Forwarded() {
  static thread_local ForwardedReply* forwarded = nullptr;
  return forwarded;
}

COidMapExtModule::ForwardedScope::ForwardedScope(ForwardedReply* reply) : outer_(Forwarded()) {
  Forwarded() = reply;
}

COidMapExtModule::ForwardedScope::~ForwardedScope() { Forwarded() = outer_; }

uint32_t COidMapExtModule::OnRequest(SipJson& msg) {
  uint32_t result = 0;
  try {
    result = HandleRequest(msg);
  } catch (const std::exception& e) {
    // Nothing may reach the host; the client learns that its request failed.
    OIDMAP_TRACE(1, "## ERROR! Exception in request handler at OpCode 0x%04X: %s",
                 msg.GetOpcode(msg.CurrentIndex()), e.what());
    msg.SetStatus(ST_NOT_AVAILABLE);
    result = 1;
  } catch (...) {
    OIDMAP_TRACE(1, "## ERROR! Exception in request handler at OpCode 0x%04X",
                 msg.GetOpcode(msg.CurrentIndex()));
    msg.SetStatus(ST_NOT_AVAILABLE);
    result = 1;
  }
  TraceReturn(msg, 2);
  return result;
}

uint32_t COidMapExtModule::HandleRequest(SipJson& msg) {
  TraceRequest(msg, 2);
  // A message without commands gets the one it is answered in. The command's members are
  // read here once, and the translation uses what was read; the reference is not used
  // once the message has been changed.
  SipJson::Value& command = msg.CurrentCommand();
  const SipJson::Header header = SipJson::HeaderOf(command);
  const int32_t i = msg.CurrentIndex();
  const uint32_t oc = header.oc;

  if (IsThresholdWrite(oc, header.oe)) {
    MMR_TRACE(3, "no broadcast - always handled by EM_THRESH");
    msg.SetStatus(ST_NOT_HANDLED);
    return 0;
  }
  // A request that overtakes start would otherwise pass untranslated, and a lower module
  // would take its global index for a local one.
  if (!start_gate_.WaitUntilOpen(kStartWaitMs)) {
    OIDMAP_TRACE(1, "ERROR! Timeout (%u sec) waiting for start to complete", kStartWaitMs / 1000);
    msg.SetStatus(ST_TIMEOUT);
    return 1;
  }

  const ClientView view = SaveClientView(header);
  if (mapper_.TranslateCommand(msg, i, command, header) != 0) {
    if (IsValidReplyStatus(header.st)) {  // translation never changes ST
      return 1;                           // the client sent an answer, not a question
    }
    if (TraceClient().IsTraceActive()) {
      const uint32_t mi = msg.GetKey(i, "MI", 0);
      EM_TRACE(3, EM_OIDMAP_TRANSLAT_LINE "CABID %04d: OC 0x%04X-0x%04X OID 0x%04X MID 0x%04X%04X",
               static_cast<int>(msg.GetKey(i, "CA", 0)), oc, msg.GetKey(i, "OE", 0),
               msg.GetKey(i, "OI", 0), MidHigh(mi), MidLow(mi));
    }
    ForwardedReply forwarded;
    forwarded.msg = &msg;
    forwarded.index = i;
    {
      const ForwardedScope scope(&forwarded);
      link_.SendRequest(msg, kSingleRequestTimeoutMs);
    }
    // Read by the reply handler, and still the same command with the same members.
    SipJson::Value* now = msg.Command(msg.CurrentIndex());
    const bool read =
        now != nullptr && forwarded.command == now && now->MemberCount() == forwarded.members;
    FinaliseReply(msg, now, view, read ? &forwarded.header : nullptr);
    return 1;
  }

  if (multiple_.Handle(msg) != 0) {
    OIDMAP_TRACE(3, "MultipleModuleRequest handled");
    FinaliseReply(msg, msg.Command(msg.CurrentIndex()), view, nullptr);
    return 1;
  }
  if (oc < CM_MessageLogFirst || oc > CM_MessageLogLast) {
    msg.SetStatus(ST_NOT_HANDLED);
    return 0;
  }
  return queries_.Answer(msg, oc);
}

}  // namespace em_oidmap
