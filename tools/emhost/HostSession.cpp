#include "HostSession.h"

#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <thread>

#include <fmt/format.h>

#include "DemoScenario.h"
#include "hostsim/DebugSink.h"

using namespace em_oidmap;  // emhost is not in the project namespace yet

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
  fmt::print(stderr, "emhost: {}\n", message);
  return code;
}

HostSession::~HostSession() { Close(); }

int HostSession::Open(const HostOptions& options) {
  std::string error;
  bool parsed = false;
  if (options.scenarioPath.empty()) {
    parsed = scenario_.Parse(kDemoScenario, error);
  } else if (options.scenarioPath == "-") {
    std::string text((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
    parsed = scenario_.Parse(text, error);
    if (!parsed) error = "-:" + error;
  } else {
    parsed = scenario_.Load(options.scenarioPath, error);
  }
  if (!parsed) return Fail(kExitInput, error);

  if (!options.traceFile.empty()) {
    traceFile_ = std::fopen(options.traceFile.c_str(), "w");
    if (traceFile_ == nullptr) return Fail(kExitInput, "cannot write " + options.traceFile);
  }
  if (options.traceLevel >= 0 || traceFile_ != nullptr) {
    // The module's trace client reads its level from the environment when it is loaded.
    const int level = options.traceLevel >= 0 ? options.traceLevel : 3;
    setenv("KT_LOG_DEBUG_LEVEL", std::to_string(level).c_str(), 1);
    hostsim::Sink().SetEcho(true, traceFile_);
  }

  library_ = dlopen(options.modulePath.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library_ == nullptr) {
    const char* why = dlerror();
    return Fail(kExitModule,
                fmt::format("cannot load {}: {}", options.modulePath, why ? why : "unknown error"));
  }
  const auto create = reinterpret_cast<CreateFn>(dlsym(library_, "EM_Create"));
  delete_ = reinterpret_cast<DeleteFn>(dlsym(library_, "EM_Delete"));
  const auto name = reinterpret_cast<NameFn>(dlsym(library_, "EM_GetModuleName"));
  const void* setupAction = dlsym(library_, "EM_SetupAction");
  for (const auto& [entry, found] : {std::pair{"EM_Create", create != nullptr},
                                     std::pair{"EM_Delete", delete_ != nullptr},
                                     std::pair{"EM_GetModuleName", name != nullptr},
                                     std::pair{"EM_SetupAction", setupAction != nullptr}}) {
    if (!found) return Fail(kExitModule, options.modulePath + " has no entry point " + entry);
  }
  // The module looks for its message files in the current directory first. Changed after
  // loading, so that a relative --module still names the right file.
  if (!options.msgDir.empty() && chdir(options.msgDir.c_str()) != 0) {
    return Fail(kExitInput, "cannot change to the message file directory " + options.msgDir);
  }
  const char* moduleNameText = name();
  moduleName_ = moduleNameText != nullptr ? moduleNameText : "(unnamed)";

  scenario_.ApplyTo(host_);
  try {
    if (!create(&module_, nullptr) || module_ == nullptr) {
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

int HostSession::Close() {
  int code = kExitOk;
  if (module_ != nullptr) {
    if (started_) module_->Stop();
    host_.Attach(nullptr);
    module_ = nullptr;
    if (delete_() != 1) code = Fail(kExitModule, "EM_Delete failed");
  }
  if (library_ != nullptr) {
    dlclose(library_);
    library_ = nullptr;
  }
  if (traceFile_ != nullptr) {
    hostsim::Sink().SetEcho(false);
    std::fclose(traceFile_);
    traceFile_ = nullptr;
  }
  return code;
}
