// CMultipleModuleRequests: the requests that concern all modules. A copy of the client's
// command (the working copy) is broadcast and the replies are merged into the client's
// command by a fixed rule per request; the client's message never carries the reply
// commands of the broadcast. One function per kind of request:
//   OC 0x0310  write to all modules           OC 0x0B03  clear the cabinet's logs
//   OC 0x0B00  read the old-style logs        OC 0xE002  configuration-space write
//   OC 0xE001  configuration-space read of a value with a merge rule
//
// Threads: the request thread that calls Handle, blocked for up to the broadcast's
// time-out (5000, 15000, 30000 or 150000 ms).
// Locks: none of its own; clearing a cabinet's cache takes the log store's.
#ifndef EM_OIDMAP_MULTIPLEMODULEREQUESTS_H
#define EM_OIDMAP_MULTIPLEMODULEREQUESTS_H

#include <cstdint>

#include "oidmap/HostLink.h"
#include "oidmap/LogStore.h"
#include "oidmap/OidMapper.h"
#include "sip/SipJson.h"

namespace em_oidmap {

class CMultipleModuleRequests {
 public:
  CMultipleModuleRequests(const CHostLink& host, const COidMapper& mapper, CLogStore& store)
      : host_(host), mapper_(mapper), store_(store) {}
  CMultipleModuleRequests(const CMultipleModuleRequests&) = delete;
  CMultipleModuleRequests& operator=(const CMultipleModuleRequests&) = delete;

  // Answers the client's request when it is one of the above: returns 1 with the answer
  // and ST in the client's command (the request handler's result), 0 when the request is
  // not for all modules (a configuration write may still have set ST 0x01).
  uint32_t Handle(SipJson& msg);

 private:
  uint32_t WriteToAllModules(SipJson& msg);
  uint32_t ReadLogEntries(SipJson& msg);
  uint32_t ClearLogs(SipJson& msg);
  uint32_t WriteConfiguration(SipJson& msg, uint32_t oe);
  uint32_t ReadConfiguration(SipJson& msg, uint32_t oe);

  const CHostLink& host_;
  const COidMapper& mapper_;
  CLogStore& store_;
};

}  // namespace em_oidmap

#endif  // EM_OIDMAP_MULTIPLEMODULEREQUESTS_H
