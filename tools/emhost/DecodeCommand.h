// emhost decode: see DecodeCommand.cpp.
#ifndef EM_TOOLS_EMHOST_DECODECOMMAND_H
#define EM_TOOLS_EMHOST_DECODECOMMAND_H

#include <CLI/CLI.hpp>

namespace em_oidmap::emhost {

// Adds the "decode" subcommand to the tool; when it runs, its exit code goes to *exitCode.
void AddDecodeCommand(CLI::App& app, int* exitCode);

}  // namespace em_oidmap::emhost

#endif  // EM_TOOLS_EMHOST_DECODECOMMAND_H
