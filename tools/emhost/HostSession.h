// The host side shared by the subcommands that drive the module: the options that name
// the module, its message files and its trace, loading the scenario and the module, and
// starting the module over the scenario's simulated host.
#ifndef EM_TOOLS_EMHOST_HOSTSESSION_H
#define EM_TOOLS_EMHOST_HOSTSESSION_H

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

#include <CLI/CLI.hpp>

#include "hostsim/Scenario.h"
#include "hostsim/SimHost.h"
#include "module/CIExtensionModule.h"

using namespace em_oidmap;  // emhost is not in the project namespace yet

// Exit codes of every subcommand.
constexpr int kExitOk = 0;
constexpr int kExitModule = 1;  // the module misbehaves or cannot be loaded
constexpr int kExitInput = 2;   // bad command line or input file

struct HostOptions {
  std::string scenarioPath;  // empty: the built-in demo; "-": standard input
  std::string modulePath;
  std::string msgDir;
  int traceLevel = -1;  // -1: leave the module's own trace configuration alone
  std::string traceFile;
};

// Adds [SCENARIO], --module, --msgdir, --trace and --trace-file to a subcommand.
void AddHostOptions(CLI::App& command, HostOptions& options);

// Prints "emhost: MESSAGE" on standard error and gives `code` back.
int Fail(int code, const std::string& message);

// One module loaded with dlopen, created and started over a simulated host. Every way out
// of its owner stops, detaches and deletes the module and unloads the shared object.
class HostSession {
 public:
  HostSession() = default;
  HostSession(const HostSession&) = delete;
  HostSession& operator=(const HostSession&) = delete;
  ~HostSession();

  // Reads the scenario, loads and creates the module (changing into the message file
  // directory on the way) and sets the host up. Returns an exit code; messages are printed.
  int Open(const HostOptions& options);
  // Starts and re-scans the module; `progress` (may be empty) is called now and then from
  // another thread until they are done.
  void Start(const std::function<void()>& progress);
  // Stops and deletes the module: kExitModule when EM_Delete fails.
  int Close();

  const hostsim::Scenario& scenario() const { return scenario_; }
  hostsim::SimHost& host() { return host_; }
  CIExtensionModule& module() { return *module_; }
  const std::string& moduleName() const { return moduleName_; }

 private:
  hostsim::Scenario scenario_;
  hostsim::SimHost host_;
  void* library_ = nullptr;
  unsigned int (*delete_)() = nullptr;
  CIExtensionModule* module_ = nullptr;
  bool started_ = false;
  std::string moduleName_;
  std::FILE* traceFile_ = nullptr;
};

#endif  // EM_TOOLS_EMHOST_HOSTSESSION_H
