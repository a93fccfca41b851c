// emhost: plays the agent host for one extension module. It loads the module's shared
// object, creates and starts the module over a scenario of simulated lower modules, sends
// it the scenario's requests and prints each request with its answer.
//
//   emhost [--module PATH] [--scenario FILE] [--msgdir DIR] [--trace N]
//
// Log pages (OC 0x0B10) are printed as readable text, one line per entry. A request that
// the module answers later (ST 0x16) is followed by its late answer, matched by the "CI"
// that emhost gives every request.
//
// Exit code 0 on success; 1 when the module cannot be loaded or created; 2 on a bad
// command line or scenario.
#include <dlfcn.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "DemoScenario.h"
#include "hostsim/DebugSink.h"
#include "hostsim/Scenario.h"
#include "hostsim/SimHost.h"
#include "module/CIExtensionModule.h"
#include "sip/SipJson.h"

namespace {

constexpr const char* kUsage =
    "usage: emhost [--module PATH] [--scenario FILE] [--msgdir DIR] [--trace N]\n"
    "  --module PATH    extension module to load (default: " EM_OIDMAP_SO ")\n"
    "  --scenario FILE  scenario to play (default: the built-in demo)\n"
    "  --msgdir DIR     directory of EVENTMSG.XML and ERRMSG.XML, made the current one\n"
    "                   (default: " EM_SAMPLE_MSGFILES_DIR ")\n"
    "  --trace N        module trace level 0..5, trace lines go to standard error\n";

using CreateFn = bool (*)(CIExtensionModule**, void*);
using DeleteFn = unsigned int (*)();
using NameFn = const char* (*)();
using SetupActionFn = unsigned int (*)(uint32_t);

struct Options {
  std::string modulePath = EM_OIDMAP_SO;
  std::string scenarioPath;
  std::string msgDir = EM_SAMPLE_MSGFILES_DIR;
  int traceLevel = -1;  // -1: leave the module's own trace configuration alone
  bool help = false;
};

bool ParseTraceLevel(const std::string& text, int& level) {
  if (text.empty() || text.size() > 2) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  level = std::stoi(text);
  return true;
}

bool ParseArguments(int argc, char** argv, Options& options, std::string& error) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      options.help = true;
      continue;
    }
    if (arg != "--module" && arg != "--scenario" && arg != "--msgdir" && arg != "--trace") {
      error = "unknown argument \"" + arg + "\"";
      return false;
    }
    if (i + 1 >= argc) {
      error = arg + " needs a value";
      return false;
    }
    const std::string value = argv[++i];
    if (arg == "--module") {
      options.modulePath = value;
    } else if (arg == "--scenario") {
      options.scenarioPath = value;
    } else if (arg == "--msgdir") {
      options.msgDir = value;
    } else if (!ParseTraceLevel(value, options.traceLevel)) {
      error = "--trace needs a level number, not \"" + value + "\"";
      return false;
    }
  }
  return true;
}

// Unloads the shared object on every way out of main.
class LoadedLibrary {
 public:
  explicit LoadedLibrary(const std::string& path)
      : handle_(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {}
  ~LoadedLibrary() {
    if (handle_ != nullptr) dlclose(handle_);
  }
  LoadedLibrary(const LoadedLibrary&) = delete;
  LoadedLibrary& operator=(const LoadedLibrary&) = delete;

  bool loaded() const { return handle_ != nullptr; }
  template <typename Fn>
  Fn Find(const char* name) const {
    return reinterpret_cast<Fn>(dlsym(handle_, name));
  }

 private:
  void* handle_;
};

constexpr uint32_t kOcLogPage = 0x0B10;
constexpr uint32_t kStatusPending = 0x16;
// How long emhost waits for a late answer.
constexpr auto kLateAnswerWait = std::chrono::seconds(30);

// Prints the answer records of a log page, one line per entry.
void PrintLogPage(const SipJson& answer) {
  std::vector<uint8_t> data;
  answer.GetDataBytes(answer.CurrentIndex(), data);
  size_t entries = 0;
  for (size_t at = 0; data.size() - at >= 17;) {
    const size_t length = data[at] | data[at + 1] << 8;
    if (length < 17 || length > data.size() - at) break;
    const uint32_t code = data[at + 4] | data[at + 5] << 8;
    const uint32_t sequence = data[at + 12] | data[at + 13] << 8 | data[at + 14] << 16 |
                              static_cast<uint32_t>(data[at + 15]) << 24;
    const std::string text(reinterpret_cast<const char*>(&data[at + 16]), length - 17);
    std::printf("         #%-4u %04X %s%s\n", sequence, code, text.c_str(),
                (data[at + 6] & 1) != 0 ? "  [CSS]" : "");
    at += length;
    ++entries;
  }
  std::printf("         (%zu log entries)\n", entries);
}

// The message the module handed up with this CI, waiting for it at most kLateAnswerWait.
bool WaitForLateAnswer(const hostsim::SimHost& host, uint32_t ci, SipJson& late) {
  const auto deadline = std::chrono::steady_clock::now() + kLateAnswerWait;
  for (;;) {
    for (const hostsim::HandedBack& handed : host.HandedBackMessages()) {
      const SipJson& msg = handed.message;
      if (msg.GetKey(msg.CurrentIndex(), "CI") == ci) {
        late = msg;
        return true;
      }
    }
    if (std::chrono::steady_clock::now() >= deadline) return false;
    host.WaitForHandBacks(host.HandedBackMessages().size() + 1, std::chrono::milliseconds(100));
  }
}

int Fail(int code, const std::string& message) {
  std::fprintf(stderr, "emhost: %s\n", message.c_str());
  return code;
}

int Run(const Options& options) {
  hostsim::Scenario scenario;
  std::string error;
  const bool parsed = options.scenarioPath.empty()
                          ? scenario.Parse(kDemoScenario, error)
                          : scenario.Load(options.scenarioPath, error);
  if (!parsed) return Fail(2, error);

  if (options.traceLevel >= 0) {
    // The module's trace client reads its level from the environment when it is loaded.
    setenv("KT_LOG_DEBUG_LEVEL", std::to_string(options.traceLevel).c_str(), 1);
    hostsim::Sink().SetEcho(true);
  }

  LoadedLibrary library(options.modulePath);
  if (!library.loaded()) {
    const char* why = dlerror();
    return Fail(1, "cannot load " + options.modulePath + ": " + (why ? why : "unknown error"));
  }
  const auto create = library.Find<CreateFn>("EM_Create");
  const auto destroy = library.Find<DeleteFn>("EM_Delete");
  const auto name = library.Find<NameFn>("EM_GetModuleName");
  const auto setupAction = library.Find<SetupActionFn>("EM_SetupAction");
  for (const auto& entry : {std::make_pair("EM_Create", create != nullptr),
                            std::make_pair("EM_Delete", destroy != nullptr),
                            std::make_pair("EM_GetModuleName", name != nullptr),
                            std::make_pair("EM_SetupAction", setupAction != nullptr)}) {
    if (!entry.second) {
      return Fail(1, options.modulePath + " has no entry point " + entry.first);
    }
  }
  // The module looks for its message files in the current directory first. Changed after
  // loading, so that a relative --module still names the right file.
  if (!options.msgDir.empty() && chdir(options.msgDir.c_str()) != 0) {
    return Fail(2, "cannot change to the message file directory " + options.msgDir);
  }
  const char* moduleName = name();
  std::printf("emhost: module %s loaded from %s\n", moduleName ? moduleName : "(unnamed)",
              options.modulePath.c_str());
  if (!scenario.name.empty()) std::printf("emhost: scenario %s\n", scenario.name.c_str());

  hostsim::SimHost host;
  scenario.ApplyTo(host);

  CIExtensionModule* module = nullptr;
  try {
    if (!create(&module, nullptr) || module == nullptr) {
      return Fail(1, "EM_Create failed");
    }
  } catch (const std::exception& e) {
    return Fail(1, std::string("EM_Create threw: ") + e.what());
  } catch (...) {
    return Fail(1, "EM_Create threw");
  }

  const uint64_t context = host.Attach(module);
  module->SetServerCabinet(scenario.serverCabinet);
  module->Start(&host, context);
  module->Rescan();

  size_t number = 0;
  for (const hostsim::ScenarioRequest& request : scenario.requests) {
    ++number;
    SipJson msg = request.ToMessage();
    msg.SetKey("CI", static_cast<uint32_t>(number), true);  // matches a late answer
    std::printf("request %zu: %s\n", number, msg.Serialize().c_str());
    const uint32_t result = module->OnRequest(msg);
    const int32_t i = msg.CurrentIndex();
    if (msg.GetOpcode(i) == kOcLogPage && msg.GetStatus(i) == 0) {
      std::printf("answer  %zu: result %u ST 0x00, log page:\n", number, result);
      PrintLogPage(msg);
    } else {
      std::printf("answer  %zu: result %u %s\n", number, result, msg.Serialize().c_str());
    }
    if (msg.GetStatus(i) == kStatusPending) {
      SipJson late;
      if (WaitForLateAnswer(host, static_cast<uint32_t>(number), late)) {
        std::printf("late    %zu: %s\n", number, late.Serialize().c_str());
      } else {
        std::printf("late    %zu: no answer within %lld s\n", number,
                    static_cast<long long>(kLateAnswerWait.count()));
      }
    }
    std::fflush(stdout);
  }

  module->Stop();
  std::printf("emhost: the module sent %zu requests and handed back %zu messages\n",
              host.SentRequests().size(), host.HandedBackMessages().size());
  host.Attach(nullptr);
  if (destroy() != 1) return Fail(1, "EM_Delete failed");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  std::string error;
  if (!ParseArguments(argc, argv, options, error)) {
    std::fprintf(stderr, "emhost: %s\n%s", error.c_str(), kUsage);
    return 2;
  }
  if (options.help) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  return Run(options);
}
