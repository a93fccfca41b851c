// Requests as an integrator types them: a raw SIP message in JSON, or a shorthand such as
// "OC=0x0301 OI=3 CA=0" whose opcode may be a name ("OC=CM_LogEntry"). The keys written
// are the members sent, OI=0 included.
#ifndef EM_TOOLS_EMHOST_REQUESTSHORTHAND_H
#define EM_TOOLS_EMHOST_REQUESTSHORTHAND_H

#include <cstdint>
#include <string>

#include "sip/SipJson.h"

namespace em_oidmap::emhost {

// The request on one line: true and the message, or false and what is wrong with it.
// Keys of the shorthand: OC (required), OE, OI, CA, MI, ST and DA (any JSON, the rest of
// the line).
bool ParseRequestLine(const std::string& line, SipJson& request, std::string& error);

}  // namespace em_oidmap::emhost

#endif  // EM_TOOLS_EMHOST_REQUESTSHORTHAND_H
