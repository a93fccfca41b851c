// What every end-to-end test shares: em_oidmap.so loaded once per process through dlopen,
// its entry points, calls by vtable slot, and a fixture that plays the host over
// hostsim's simulated modules.
#ifndef EM_TESTS_E2E_E2EHOST_H
#define EM_TESTS_E2E_E2EHOST_H

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "hostsim/DebugSink.h"
#include "hostsim/SimHost.h"
#include "hostsim/SimLog.h"
#include "module/CIExtensionModule.h"
#include "sip/SipJson.h"

namespace em_oidmap {

namespace e2e {

using hostsim::EncodeLog;
using hostsim::OldStyle;
using hostsim::SimHost;
using hostsim::SimModule;
using hostsim::Sink;
using hostsim::Unified;

using CreateFn = bool (*)(CIExtensionModule**, void*);
using DeleteFn = unsigned int (*)();
using NameFn = const char* (*)();
using SetupFn = unsigned int (*)(uint32_t);

struct Library {
  void* handle = nullptr;
  CreateFn create = nullptr;
  DeleteFn destroy = nullptr;
  NameFn name = nullptr;
  SetupFn setup = nullptr;
};

inline Library& Lib() {
  static Library lib;
  return lib;
}

// Loads the module once per process, with tracing on: its trace client reads the level
// from the environment when it is loaded.
class ModuleEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    setenv("KT_LOG_DEBUG_LEVEL", "5", 1);
    Library& lib = Lib();
    lib.handle = dlopen(EM_OIDMAP_SO, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, lib.handle) << dlerror();
    lib.create = reinterpret_cast<CreateFn>(dlsym(lib.handle, "EM_Create"));
    lib.destroy = reinterpret_cast<DeleteFn>(dlsym(lib.handle, "EM_Delete"));
    lib.name = reinterpret_cast<NameFn>(dlsym(lib.handle, "EM_GetModuleName"));
    lib.setup = reinterpret_cast<SetupFn>(dlsym(lib.handle, "EM_SetupAction"));
    ASSERT_TRUE(lib.create && lib.destroy && lib.name && lib.setup);
  }
  void TearDown() override {
    if (Lib().handle != nullptr) dlclose(Lib().handle);
  }
};

inline const auto* const kEnvironment =
    ::testing::AddGlobalTestEnvironment(new ModuleEnvironment);

// Calls vtable slot `slot` (1-based) as a host binary does.
template <typename R, typename... Args>
R CallSlot(void* obj, int slot, Args... args) {
  void** vtable = *reinterpret_cast<void***>(obj);
  using Fn = R (*)(void*, Args...);
  return reinterpret_cast<Fn>(vtable[slot - 1])(obj, args...);
}

// Requests with this opcode that the module sent through the host.
inline size_t SentWithOpcode(const hostsim::SimHost& host, uint32_t oc) {
  size_t n = 0;
  for (const auto& sent : host.SentRequests()) {
    SipJson msg;
    msg.Parse(sent.json);
    if (msg.GetOpcode(sent.index) == oc) ++n;
  }
  return n;
}

// A rule of a simulated module: it answers `oc` with status `st` and the JSON data `da`.
inline hostsim::ReplyRule Rule(uint32_t oc, std::string da, uint32_t st = 0, uint32_t delayMs = 0) {
  hostsim::ReplyRule rule;
  rule.oc = oc;
  rule.dataJson = std::move(da);
  rule.status = st;
  rule.delayMs = delayMs;
  return rule;
}

// The text in a command's data.
inline std::string DataText(const SipJson& msg, int32_t i = 0) {
  std::string text;
  msg.GetDataString(i, text);
  return text;
}

// True when the module traced this line after its tag.
inline bool Traced(const std::string& line) {
  return hostsim::Sink().HasLine("\nEM_OIDMAP           : " + line);
}

// Waits up to `seconds` until `n` trace lines hold `text`; true when they do.
inline bool WaitForTrace(const std::string& text, size_t n, int seconds = 30) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (hostsim::Sink().Count(text) < n && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return hostsim::Sink().Count(text) >= n;
}

constexpr uint32_t kMidA = 0x00010001;
constexpr uint32_t kMidB = 0x00020001;
constexpr uint32_t kFanCount = 0x0300;
constexpr uint32_t kFanGet = 0x0301;
constexpr const char* kReadySet = "Ready event SET for message log cache cabinet";

// A log event of a lower module carrying `records`.
inline SipJson LogEvent(uint32_t oc, const std::vector<uint8_t>& records, uint32_t ca = 0) {
  SipJson event(oc, 0, 0, ca);
  event.SetRawData(records, 0xFF);
  return event;
}

// The sequence numbers of the CM_LogMessageEvent messages handed up, in order.
inline std::vector<uint32_t> FiredSequenceNumbers(const hostsim::SimHost& host) {
  std::vector<uint32_t> numbers;
  for (const auto& handed : host.HandedBackMessages()) {
    const SipJson& msg = handed.message;
    uint32_t value = 0;
    if (msg.GetOpcode(msg.CurrentIndex()) == 0x0B11 &&
        msg.GetDataValue(msg.CurrentIndex(), value)) {
      numbers.push_back(value);
    }
  }
  return numbers;
}

// A host with simulated modules; the module is created, started and deleted as a host
// does it.
class ModuleHostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(nullptr, Lib().handle);
    hostsim::Sink().Clear();
  }
  void TearDown() override {
    if (module_ != nullptr) Destroy();
  }

  CIExtensionModule* Create() {
    EXPECT_TRUE(Lib().create(&module_, nullptr));
    return module_;
  }

  // Deletes the module; tests that create one per case call it before their host goes.
  void Destroy() {
    EXPECT_EQ(1u, Lib().destroy());
    module_ = nullptr;
  }

  // Creates the module and starts it on `host` with `server` as the server's cabinet.
  void StartOn(hostsim::SimHost& host, uint32_t server = 0) {
    Create();
    module_->SetServerCabinet(server);
    ASSERT_EQ(1u, module_->Start(&host, host.Attach(module_)));
  }

  void StartWithCabinets(uint32_t server, const std::vector<uint32_t>& se, bool enumOk = true) {
    host_.SetSeCabinets(se, enumOk);
    StartOn(host_, server);
  }

  // Sends the module a request as a client does; `da` goes as a value, `ci` when not 0.
  SipJson Ask(uint32_t oc, uint32_t oe = 0, uint32_t oi = 0,
              std::optional<uint32_t> da = std::nullopt, uint32_t ca = 0, uint32_t ci = 0) {
    SipJson msg(oc, oe, oi, ca);
    if (da) msg.SetDataValue(*da, 0x16);
    if (ci != 0) msg.SetKey("CI", ci, true);
    EXPECT_EQ(1u, module_->OnRequest(msg));
    return msg;
  }

  // The value a request is answered with (0 when none); the answer must be a success.
  uint32_t AskValue(uint32_t oc) {
    const SipJson msg = Ask(oc);
    EXPECT_EQ(0u, msg.GetStatus(0)) << std::hex << "OC 0x" << oc;
    uint32_t value = 0;
    msg.GetDataValue(0, value);
    return value;
  }

  // Re-scans and waits up to `seconds` until the scan has made a cache ready.
  void RescanAndWait(int seconds = 30) {
    const size_t before = hostsim::Sink().Count(kReadySet);
    module_->Rescan();
    ASSERT_TRUE(WaitForTrace(kReadySet, before + 1, seconds));
  }

  hostsim::SimHost host_;
  CIExtensionModule* module_ = nullptr;
};

}  // namespace e2e

}  // namespace em_oidmap

#endif  // EM_TESTS_E2E_E2EHOST_H
