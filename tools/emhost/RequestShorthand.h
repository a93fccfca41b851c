// Requests as an integrator types them: a raw SIP message in JSON, or a shorthand such as
// "OC=0x0301 OI=3 CA=0" whose opcode may be a name ("OC=CM_LogEntry"). Also the names of
// the opcodes the tool prints.
#ifndef EM_TOOLS_EMHOST_REQUESTSHORTHAND_H
#define EM_TOOLS_EMHOST_REQUESTSHORTHAND_H

#include <cstdint>
#include <optional>
#include <string>

#include "sip/SipJson.h"

// The request on one line: true and the message, or false and what is wrong with it.
// Keys of the shorthand: OC (required), OE, OI, CA, MI, ST and DA (any JSON, the rest of
// the line).
bool ParseRequestLine(const std::string& line, SipJson& request, std::string& error);

// The opcode's name, or "" for an opcode without one.
std::string OpcodeName(uint32_t oc);
// An opcode named or written as a number ("0x0B00", "2816").
std::optional<uint32_t> OpcodeByName(const std::string& text);

#endif  // EM_TOOLS_EMHOST_REQUESTSHORTHAND_H
