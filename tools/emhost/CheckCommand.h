// emhost check: see CheckCommand.cpp.
#ifndef EM_TOOLS_EMHOST_CHECKCOMMAND_H
#define EM_TOOLS_EMHOST_CHECKCOMMAND_H

#include <CLI/CLI.hpp>

// Adds the "check" subcommand to the tool; when it runs, its exit code goes to *exitCode.
void AddCheckCommand(CLI::App& app, int* exitCode);

#endif  // EM_TOOLS_EMHOST_CHECKCOMMAND_H
