// emhost: plays the agent host for one extension module, for an integrator. Subcommands:
// run (the default, on the built-in demo), shell, map, opcodes, check and decode; `emhost
// SUBCOMMAND --help` describes each. Exit code 0 on success, 1 when the module misbehaves,
// cannot be loaded or a run is not clean, 2 on a bad command line or input file.
#include <CLI/CLI.hpp>

#include "CheckCommand.h"
#include "DecodeCommand.h"
#include "HostSession.h"
#include "MapCommand.h"
#include "RunCommand.h"
#include "ShellCommand.h"

int main(int argc, char** argv) {
  using namespace em_oidmap::emhost;
  CLI::App app{"emhost: plays the agent host for an extension module.\n"
               "Without a subcommand it plays the built-in demo, as \"emhost run "
               "--format table\" does."};
  app.name("emhost");
  app.require_subcommand(0, 1);
  int exitCode = kExitOk;
  AddRunCommand(app, &exitCode);
  AddShellCommand(app, &exitCode);
  AddMapCommand(app, &exitCode);
  AddOpcodesCommand(app, &exitCode);
  AddCheckCommand(app, &exitCode);
  AddDecodeCommand(app, &exitCode);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // Help texts exit 0; every other parse error is a bad command line.
    const int code = app.exit(e);
    return code == 0 ? kExitOk : kExitInput;
  }
  if (app.get_subcommands().empty()) {
    RunOptions demo;
    CLI::App defaults;
    AddHostOptions(defaults, demo.host);
    return RunScenario(demo);
  }
  return exitCode;
}
