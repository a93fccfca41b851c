// The opcodes emhost knows: their names as the request shorthand accepts them, and what
// the module does with each (emhost opcodes lists them; the readable view names them).
#ifndef EM_TOOLS_EMHOST_OPCODES_H
#define EM_TOOLS_EMHOST_OPCODES_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace em_oidmap::emhost {

// The opcode's name, or "" for an opcode without one.
std::string OpcodeName(uint32_t oc);
// An opcode named or written as a number ("0x0B00", "2816").
std::optional<uint32_t> OpcodeByName(const std::string& text);
// Every name, for completion.
std::vector<std::string> OpcodeNames();

// "0x" and hexadecimal digits, or decimal digits, fitting 32 bits.
std::optional<uint32_t> ParseNumber(const std::string& text);

// Two lines per opcode: number and name, then what the module does with it.
std::vector<std::string> OpcodeTable();

}  // namespace em_oidmap::emhost

#endif  // EM_TOOLS_EMHOST_OPCODES_H
