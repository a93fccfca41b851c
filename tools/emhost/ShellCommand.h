// emhost shell: the module loaded once and kept running, driven from a prompt (see
// ShellCommand.cpp).
#ifndef EM_TOOLS_EMHOST_SHELLCOMMAND_H
#define EM_TOOLS_EMHOST_SHELLCOMMAND_H

#include <CLI/CLI.hpp>

namespace em_oidmap::emhost {

// Adds the "shell" subcommand; when it runs, its exit code goes to *exitCode.
void AddShellCommand(CLI::App& app, int* exitCode);

}  // namespace em_oidmap::emhost

#endif  // EM_TOOLS_EMHOST_SHELLCOMMAND_H
