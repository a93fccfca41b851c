// A minimal agent host for em_oidmap, built against the installed development package.
// It loads the module with dlopen, starts it over two simulated lower modules that share
// the fans of cabinet 0 (two on the board, one in the power supply), and asks for fan 2
// by its global index: the module forwards the request to the power supply's fan 0.
//
// Usage: example_host [path of em_oidmap.so]  (default: the installed module)
#include <dlfcn.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "module/CIExtensionModule.h"
#include "module/CIModuleHost.h"
#include "sip/SipJson.h"
#include "sip/SipStatus.h"

namespace {

constexpr uint32_t kAll = 0xFFFFFFFF;  // MI or CA of a broadcast
constexpr uint32_t kFanCount = 0x0300;
constexpr uint32_t kFanGet = 0x0301;

struct LowerModule {
  uint32_t mid;
  uint32_t fans;
  const char* name;
};
constexpr LowerModule kLower[] = {{0x00010001, 2, "board"}, {0x00020001, 1, "psu"}};

bool Accepts(uint32_t oc) { return oc == kFanCount || oc == kFanGet; }

// Turns the current command of `msg` into the reply of `lower`: its MI, its ST and, when
// it answers with data, its DA.
void AnswerAs(const LowerModule& lower, SipJson& msg) {
  const int32_t at = msg.CurrentIndex();
  const uint32_t oi = msg.GetKey(at, "OI");
  msg.RemoveData();
  msg.SetModuleId(lower.mid);
  if (msg.GetOpcode(at) == kFanCount) {
    msg.SetDataValue(lower.fans, ST_SUCCESS);
  } else if (msg.GetOpcode(at) == kFanGet && oi < lower.fans) {
    msg.SetDataString(std::string(lower.name) + " fan " + std::to_string(oi), ST_SUCCESS);
  } else {
    msg.SetStatus(ST_NOT_HANDLED);
  }
}

class ExampleHost : public CIModuleHost {
 public:
  explicit ExampleHost(CIExtensionModule* module) : module_(module) {}

  uint32_t AlternateSend(CIExtensionModule*, SipJson& msg, uint32_t) override {
    msg.SetStatus(ST_NOT_HANDLED);
    return 1;
  }

  // Answers in `msg` and shows every reply to the module before returning.
  uint32_t SendRequest(uint64_t, SipJson& msg, uint32_t) override {
    const int32_t at = msg.CurrentIndex();
    const SipJson::Value* request = msg.Command(at);
    if (request == nullptr) return 1;
    if (msg.GetKey(at, "MI") == kAll || msg.GetKey(at, "CA") == kAll) {
      // One reply command per lower module, in the host's order, in place of the request.
      SipJson replies;
      for (const LowerModule& lower : kLower) {
        replies.SetCurrentIndex(replies.AppendCommand(*request));
        AnswerAs(lower, replies);
      }
      msg = replies;
      for (int32_t i = 0; i < static_cast<int32_t>(msg.CommandCount()); ++i) {
        msg.SetCurrentIndex(i);
        module_->OnReply(msg);
      }
      msg.SetCurrentIndex(0);
      return 1;
    }
    const LowerModule* target = nullptr;
    for (const LowerModule& lower : kLower) {
      const uint32_t mi = msg.GetKey(at, "MI");
      if (mi == lower.mid || (mi == 0 && target == nullptr && Accepts(msg.GetOpcode(at)))) {
        target = &lower;
      }
    }
    if (target == nullptr) {
      msg.RemoveData();
      msg.SetStatus(ST_NOT_HANDLED);
    } else {
      lastTarget_ = target->mid;
      lastLocalId_ = msg.GetKey(at, "OI");
      AnswerAs(*target, msg);
    }
    module_->OnReply(msg);
    msg.SetCurrentIndex(at);
    return 1;
  }

  uint32_t HandBack(CIExtensionModule*, SipJson&) override { return 1; }
  uint32_t GetHostKind() override { return 0; }
  bool EnumerateSeCabinets(uint32_t, const uint32_t**, uint8_t*) override { return false; }

  uint32_t lastTarget_ = 0;
  uint32_t lastLocalId_ = 0;

 private:
  CIExtensionModule* module_;
};

}  // namespace

int main(int argc, char** argv) {
  const char* path = argc > 1 ? argv[1] : EM_OIDMAP_MODULE;
  void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    std::fprintf(stderr, "cannot load %s: %s\n", path, dlerror());
    return 1;
  }
  using CreateFn = bool (*)(CIExtensionModule**, void*);
  using DeleteFn = unsigned int (*)();
  const auto create = reinterpret_cast<CreateFn>(dlsym(library, "EM_Create"));
  const auto destroy = reinterpret_cast<DeleteFn>(dlsym(library, "EM_Delete"));
  CIExtensionModule* module = nullptr;
  if (create == nullptr || destroy == nullptr || !create(&module, nullptr) || module == nullptr) {
    std::fprintf(stderr, "%s: no module created\n", path);
    return 1;
  }

  // Start counts the fans of every lower module and builds the OID map from the replies.
  ExampleHost host(module);
  module->SetServerCabinet(0);
  module->Start(&host, 1);

  SipJson request(kFanGet, 0, 2, 0);
  const uint32_t handled = module->OnRequest(request);
  std::string text;
  request.GetDataString(0, text);
  std::printf("fan 2 -> MID 0x%08X fan %u: result %u ST 0x%02X DA \"%s\" OI %u\n",
              host.lastTarget_, host.lastLocalId_, handled, request.GetStatus(0), text.c_str(),
              request.GetKey(0, "OI"));

  module->Stop();
  const unsigned int deleted = destroy();
  dlclose(library);
  return handled == 1 && deleted == 1 ? 0 : 1;
}
