// emhost map: prints the module's OID map as a host sees it (see MapCommand.cpp).
#ifndef EM_TOOLS_EMHOST_MAPCOMMAND_H
#define EM_TOOLS_EMHOST_MAPCOMMAND_H

#include <CLI/CLI.hpp>

// Adds the "map" subcommand; when it runs, its exit code goes to *exitCode.
void AddMapCommand(CLI::App& app, int* exitCode);

#endif  // EM_TOOLS_EMHOST_MAPCOMMAND_H
