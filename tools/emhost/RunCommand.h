// emhost run: plays a scenario through the module and prints every answer, late answer and
// event (see RunCommand.cpp).
#ifndef EM_TOOLS_EMHOST_RUNCOMMAND_H
#define EM_TOOLS_EMHOST_RUNCOMMAND_H

#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "HostSession.h"
#include "Output.h"

namespace em_oidmap::emhost {

struct RunOptions {
  HostOptions host;
  std::string requestsPath;  // "" none, "-" standard input
  OutputFormat format = OutputFormat::kTable;
  std::string expectPath;    // "": print the output; else compare it with this file
  std::optional<long long> lateWaitMs;
};

// Adds the "run" subcommand; when it runs, its exit code goes to *exitCode.
void AddRunCommand(CLI::App& app, int* exitCode);

// Plays the scenario of `options.host`, then the requests of the requests file. Returns
// the exit code.
int RunScenario(const RunOptions& options);

// Reads one request a line (blank lines and "#" comments skipped) and checks each; false,
// with a message printed, on a bad line or a file that cannot be read.
bool ReadRequests(const std::string& path, std::vector<std::string>& requests);

}  // namespace em_oidmap::emhost

#endif  // EM_TOOLS_EMHOST_RUNCOMMAND_H
