// emhost map prints the module's OID map as a host sees it; emhost opcodes lists what the
// module does with each opcode (see MapCommand.cpp).
#ifndef EM_TOOLS_EMHOST_MAPCOMMAND_H
#define EM_TOOLS_EMHOST_MAPCOMMAND_H

#include <CLI/CLI.hpp>

#include "HostSession.h"

namespace em_oidmap::emhost {

// Adds the "map" and "opcodes" subcommands; when one runs, its exit code goes to *exitCode.
void AddMapCommand(CLI::App& app, int* exitCode);
void AddOpcodesCommand(CLI::App& app, int* exitCode);

// Prints the OID map of a started module (emhost map, the shell's map).
void PrintMap(HostSession& session);
// Prints the opcode and status tables.
void PrintOpcodes();

}  // namespace em_oidmap::emhost

#endif  // EM_TOOLS_EMHOST_MAPCOMMAND_H
