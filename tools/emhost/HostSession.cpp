#include "HostSession.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include <fmt/format.h>

#include "Console.h"
#include "DemoScenario.h"
#include "hostsim/DebugSink.h"

namespace em_oidmap::emhost {

namespace {

using CreateFn = bool (*)(CIExtensionModule**, void*);
using DeleteFn = unsigned int (*)();
using NameFn = const char* (*)();

#ifdef EM_EMHOST_INSTALLED
constexpr const char* kModuleOptionHelp = "extension module to load (default: the installed one)";
#else
constexpr const char* kModuleOptionHelp =
    "extension module to load (default: the one built beside emhost)";
#endif

// The module's line when its task queue refuses a task.
constexpr const char* kQueueFullTrace = "Task queue for priority 0 is full";

}  // namespace

void AddHostOptions(CLI::App& command, HostOptions& options) {
  options.modulePath = EM_OIDMAP_SO;
  options.msgDir = EM_SAMPLE_MSGFILES_DIR;
  command.add_option("SCENARIO", options.scenarioPath,
                     "scenario file, - for standard input (default: the built-in demo)")
      ->type_name("FILE");
  command.add_option("--module", options.modulePath, kModuleOptionHelp)
      ->type_name("PATH");
  command.add_option("--msgdir", options.msgDir,
                     "directory of EVENTMSG.XML and ERRMSG.XML, made the current one "
                     "(default: the sample files)")
      ->type_name("DIR");
  command.add_option("--trace", options.traceLevel,
                     "module trace level 0..5; trace lines go to standard error")
      ->type_name("N")
      ->check(CLI::Range(0, 5));
  command.add_option("--trace-file", options.traceFile,
                     "write the trace lines to FILE instead of standard error (level 3 "
                     "unless --trace says otherwise)")
      ->type_name("FILE");
}

int Fail(int code, const std::string& message) {
  console::Err(fmt::format("emhost: {}\n", message));
  return code;
}

bool ReadInputFile(const std::string& path, std::string& bytes, std::string& error) {
  if (path == "-") {
    bytes.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    return true;
  }
  struct stat info;
  if (stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
    error = path + " is a directory";
    return false;
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    error = "cannot open " + path;
    return false;
  }
  std::ostringstream all;
  all << file.rdbuf();
  bytes = all.str();
  if (file.bad()) {
    error = "cannot read " + path;
    return false;
  }
  return true;
}

HostSession::~HostSession() { Close(); }

void HostSession::WatchTrace(bool echo) {
  std::FILE* file = traceFile_;
  hostsim::Sink().SetKeepLines(false);  // a run may last all day
  hostsim::Sink().SetObserver([this, echo, file](const std::string& line) {
    if (line.find(kQueueFullTrace) != std::string::npos) ++refusals_;
    if (echo) console::Trace(line, file);
  });
}

int HostSession::Open(const HostOptions& options) {
  options_ = options;
  std::string error;
  bool parsed = false;
  if (options.scenarioPath.empty()) {
    parsed = scenario_.Parse(kDemoScenario, error);
  } else {
    std::string text;
    if (!ReadInputFile(options.scenarioPath, text, error)) return Fail(kExitInput, error);
    parsed = scenario_.Parse(text, error);
    if (!parsed) error = options.scenarioPath + ":" + error;
  }
  if (!parsed) return Fail(kExitInput, error);

  if (!options.traceFile.empty()) {
    traceFile_ = std::fopen(options.traceFile.c_str(), "w");
    if (traceFile_ == nullptr) return Fail(kExitInput, "cannot write " + options.traceFile);
  }
  // Loaded again later (shell), the module must be found from the message file directory.
  char resolved[PATH_MAX];
  if (realpath(options.modulePath.c_str(), resolved) != nullptr) options_.modulePath = resolved;
  if (realpath(options.msgDir.c_str(), resolved) != nullptr) options_.msgDir = resolved;
  const int level = options.traceLevel >= 0 ? options.traceLevel : (traceFile_ ? 3 : 0);
  if (const int code = Reload(level); code != kExitOk) return code;
  scenario_.ApplyTo(host_);
  return kExitOk;
}

int HostSession::Load() {
  library_ = dlopen(options_.modulePath.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library_ == nullptr) {
    const char* why = dlerror();
    return Fail(kExitModule, fmt::format("cannot load {}: {}", options_.modulePath,
                                         why ? why : "unknown error"));
  }
  create_ = reinterpret_cast<CreateFn>(dlsym(library_, "EM_Create"));
  delete_ = reinterpret_cast<DeleteFn>(dlsym(library_, "EM_Delete"));
  const auto name = reinterpret_cast<NameFn>(dlsym(library_, "EM_GetModuleName"));
  const void* setupAction = dlsym(library_, "EM_SetupAction");
  for (const auto& [entry, found] : {std::pair{"EM_Create", create_ != nullptr},
                                     std::pair{"EM_Delete", delete_ != nullptr},
                                     std::pair{"EM_GetModuleName", name != nullptr},
                                     std::pair{"EM_SetupAction", setupAction != nullptr}}) {
    if (!found) return Fail(kExitModule, options_.modulePath + " has no entry point " + entry);
  }
  // The module looks for its message files in the current directory first. Changed after
  // loading, so that a relative --module still names the right file.
  if (!options_.msgDir.empty() && chdir(options_.msgDir.c_str()) != 0) {
    return Fail(kExitInput, "cannot change to the message file directory " + options_.msgDir);
  }
  const char* moduleNameText = name();
  moduleName_ = moduleNameText != nullptr ? moduleNameText : "(unnamed)";
  return kExitOk;
}

int HostSession::Create() {
  if (module_ != nullptr) return kExitOk;
  try {
    if (!create_(&module_, nullptr) || module_ == nullptr) {
      module_ = nullptr;
      return Fail(kExitModule, "EM_Create failed");
    }
  } catch (const std::exception& e) {
    return Fail(kExitModule, std::string("EM_Create threw: ") + e.what());
  } catch (...) {
    return Fail(kExitModule, "EM_Create threw");
  }
  return kExitOk;
}

void HostSession::Start(const std::function<void()>& progress) {
  const uint64_t context = host_.Attach(module_);
  module_->SetServerCabinet(scenario_.serverCabinet);
  std::atomic<bool> done{false};
  std::thread reporter;
  if (progress) {
    reporter = std::thread([&] {
      while (!done) {
        progress();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
      }
    });
  }
  module_->Start(&host_, context);
  module_->Rescan();
  started_ = true;
  done = true;
  if (reporter.joinable()) reporter.join();
}

int HostSession::Destroy() {
  if (module_ == nullptr) return kExitOk;
  if (started_) module_->Stop();
  started_ = false;
  host_.Attach(nullptr);
  module_ = nullptr;
  return delete_() == 1 ? kExitOk : Fail(kExitModule, "EM_Delete failed");
}

int HostSession::Close() {
  const int code = Destroy();
  Unload();
  if (traceFile_ != nullptr) {
    std::fclose(traceFile_);
    traceFile_ = nullptr;
  }
  return code;
}

void HostSession::Unload() {
  if (library_ != nullptr) {
    dlclose(library_);
    library_ = nullptr;
  }
  hostsim::Sink().SetObserver(nullptr);
}

int HostSession::Reload(int level) {
  if (library_ != nullptr) {
    if (const int code = Close(); code != kExitOk) return code;
    if (!options_.traceFile.empty()) traceFile_ = std::fopen(options_.traceFile.c_str(), "a");
  }
  // The module's trace client reads its level from the environment when it is loaded.
  setenv("KT_LOG_DEBUG_LEVEL", std::to_string(level > 0 ? level : 1).c_str(), 1);
  WatchTrace(level > 0);
  if (const int code = Load(); code != kExitOk) return code;
  return Create();
}

std::vector<uint32_t> HostSession::Cabinets() const {
  std::vector<uint32_t> cabinets{scenario_.serverCabinet};
  if (!scenario_.seEnumerationSucceeds) return cabinets;
  for (size_t i = 0; i < scenario_.seCabinets.size() && i < hostsim::kMaxSeCabinets &&
                     cabinets.size() < kMaxCabinets;
       ++i) {
    cabinets.push_back(scenario_.seCabinets[i]);
  }
  return cabinets;
}

}  // namespace em_oidmap::emhost
