// emhost check: see CheckCommand.cpp.
#ifndef EM_TOOLS_EMHOST_CHECKCOMMAND_H
#define EM_TOOLS_EMHOST_CHECKCOMMAND_H

#include <CLI/CLI.hpp>

namespace em_oidmap::emhost {

// Adds the "check" subcommand to the tool; when it runs, its exit code goes to *exitCode.
void AddCheckCommand(CLI::App& app, int* exitCode);

}  // namespace em_oidmap::emhost

#endif  // EM_TOOLS_EMHOST_CHECKCOMMAND_H
