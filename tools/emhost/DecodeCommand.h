// emhost decode: see DecodeCommand.cpp.
#ifndef EM_TOOLS_EMHOST_DECODECOMMAND_H
#define EM_TOOLS_EMHOST_DECODECOMMAND_H

#include <CLI/CLI.hpp>

// Adds the "decode" subcommand to the tool; when it runs, its exit code goes to *exitCode.
void AddDecodeCommand(CLI::App& app, int* exitCode);

#endif  // EM_TOOLS_EMHOST_DECODECOMMAND_H
