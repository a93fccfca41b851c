// emhost run: plays a scenario through the module and prints every answer, late answer and
// event (see RunCommand.cpp).
#ifndef EM_TOOLS_EMHOST_RUNCOMMAND_H
#define EM_TOOLS_EMHOST_RUNCOMMAND_H

#include <string>

#include <CLI/CLI.hpp>

#include "HostSession.h"
#include "Output.h"

// Adds the "run" subcommand; when it runs, its exit code goes to *exitCode.
void AddRunCommand(CLI::App& app, int* exitCode);

// Plays the scenario of `host`, then the requests of `requestsPath` ("" none, "-"
// standard input). Returns the exit code.
int RunScenario(const HostOptions& host, const std::string& requestsPath, OutputFormat format);

#endif  // EM_TOOLS_EMHOST_RUNCOMMAND_H
