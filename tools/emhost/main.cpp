// emhost: plays the agent host for one extension module, for an integrator. Subcommands:
// run (the default, on the built-in demo), map, check and decode; `emhost SUBCOMMAND
// --help` describes each. Exit code 0 on success, 1 when the module misbehaves or cannot
// be loaded, 2 on a bad command line or input file.
#include <CLI/CLI.hpp>

#include "CheckCommand.h"
#include "DecodeCommand.h"
#include "HostSession.h"
#include "MapCommand.h"
#include "RunCommand.h"

int main(int argc, char** argv) {
  CLI::App app{"emhost: plays the agent host for an extension module.\n"
               "Without a subcommand it plays the built-in demo, as \"emhost run "
               "--format table\" does."};
  app.name("emhost");
  app.require_subcommand(0, 1);
  int exitCode = kExitOk;
  AddRunCommand(app, &exitCode);
  AddMapCommand(app, &exitCode);
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
    HostOptions demo;
    CLI::App defaults;
    AddHostOptions(defaults, demo);
    return RunScenario(demo, "", OutputFormat::kTable);
  }
  return exitCode;
}
