// The host side shared by the subcommands that drive the module: the options that name
// the module, its message files and its trace, loading the scenario and the module, and
// starting the module over the scenario's simulated host.
#ifndef EM_TOOLS_EMHOST_HOSTSESSION_H
#define EM_TOOLS_EMHOST_HOSTSESSION_H

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "hostsim/Scenario.h"
#include "hostsim/SimHost.h"
#include "module/CIExtensionModule.h"

namespace em_oidmap::emhost {

// Exit codes of every subcommand.
constexpr int kExitOk = 0;
constexpr int kExitModule = 1;  // the module misbehaves, cannot be loaded, or the run is not clean
constexpr int kExitInput = 2;   // bad command line or input file

// The module keeps the server's cabinet and at most 99 SE cabinets.
constexpr size_t kMaxCabinets = 100;

struct HostOptions {
  std::string scenarioPath;  // empty: the built-in demo; "-": standard input
  std::string modulePath;
  std::string msgDir;
  int traceLevel = -1;  // -1: no trace lines shown
  std::string traceFile;
};

// Adds [SCENARIO], --module, --msgdir, --trace and --trace-file to a subcommand.
void AddHostOptions(CLI::App& command, HostOptions& options);

// Prints "emhost: MESSAGE" on standard error and gives `code` back.
int Fail(int code, const std::string& message);

// Reads a whole input file ("-": standard input). False, with a message, when it cannot
// be read; a directory is refused by name.
bool ReadInputFile(const std::string& path, std::string& bytes, std::string& error);

// One module loaded with dlopen, created and started over a simulated host. Every way out
// of its owner stops, detaches and deletes the module and unloads the shared object.
//
// The module reads its trace level when it is loaded. emhost always loads it at level 1 at
// least, so that it sees the module's error lines (a refused log scan is only told so),
// and shows them only when a level was asked for.
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
  // Stops and deletes the module and unloads it: kExitModule when EM_Delete fails.
  int Close();
  // Stops and deletes the module, the shared object stays loaded. Exit code.
  int Destroy();
  // Creates the module (after Destroy); not started. Exit code.
  int Create();
  // Unloads the module and loads it again at trace level `level` (0: no trace), created
  // and not started. Exit code.
  int Reload(int level);

  const hostsim::Scenario& scenario() const { return scenario_; }
  hostsim::SimHost& host() { return host_; }
  CIExtensionModule& module() { return *module_; }
  bool HasModule() const { return module_ != nullptr; }
  bool Started() const { return started_; }
  const std::string& moduleName() const { return moduleName_; }
  const HostOptions& options() const { return options_; }
  // The cabinets the module scans, as it lists them: the server's, then the SE cabinets.
  std::vector<uint32_t> Cabinets() const;
  // How many times the module's task queue refused a task so far (its trace says so).
  size_t QueueRefusals() const { return refusals_; }

 private:
  int Load();
  void Unload();
  void WatchTrace(bool echo);

  HostOptions options_;
  hostsim::Scenario scenario_;
  hostsim::SimHost host_;
  void* library_ = nullptr;
  bool (*create_)(CIExtensionModule**, void*) = nullptr;
  unsigned int (*delete_)() = nullptr;
  CIExtensionModule* module_ = nullptr;
  bool started_ = false;
  std::string moduleName_;
  std::FILE* traceFile_ = nullptr;
  std::atomic<size_t> refusals_{0};
};

}  // namespace em_oidmap::emhost

#endif  // EM_TOOLS_EMHOST_HOSTSESSION_H
