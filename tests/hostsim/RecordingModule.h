// A bare extension module for host tests: it records every reply the host passes to it.
#ifndef EM_TESTS_HOSTSIM_RECORDINGMODULE_H
#define EM_TESTS_HOSTSIM_RECORDINGMODULE_H

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "hostsim/SimModule.h"
#include "module/CIExtensionModule.h"
#include "sip/SipJson.h"

namespace hostsim {

class RecordingModule : public CIExtensionModule {
 public:
  struct Reply {
    int32_t index;
    uint32_t commandCount;
    uint32_t mid;
    uint32_t status;
    std::thread::id thread;
  };

  std::vector<Reply> Replies() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return replies_;
  }

  void OnReply(SipJson& reply) override {
    const int32_t i = reply.CurrentIndex();
    Reply r{i, reply.CommandCount(), reply.GetKey(i, "MI"), reply.GetStatus(i),
            std::this_thread::get_id()};
    std::lock_guard<std::mutex> lock(mutex_);
    replies_.push_back(r);
  }

  uint32_t GetModuleInfo(void*) override { return 0; }
  uint32_t Query4() override { return 1; }
  uint32_t Start(CIModuleHost*, uint64_t) override { return 1; }
  uint32_t Stop() override { return 1; }
  void Rescan() override {}
  uint32_t OnRequest(SipJson&) override { return 0; }
  uint32_t Query10() override { return 0; }
  uint32_t SetServerCabinet(uint32_t) override { return 1; }
  uint32_t Query12() override { return 0; }
  uint32_t Query13() override { return 0; }
  uint32_t Notify(uint32_t, uint32_t, uintptr_t) override { return 0; }
  const char* GetModuleTag() override { return "EM_TEST"; }
  void Hook16() override {}
  void Hook17() override {}
  void Hook18() override {}
  void Hook19() override {}
  uint32_t Query20() override { return 0; }
  uint32_t Query21() override { return 0; }
  uint32_t Query22() override { return 0; }
  uint32_t Query23() override { return 0; }
  uint32_t OnModuleNotification(uint32_t, uint32_t, uintptr_t) override { return 0; }

 private:
  mutable std::mutex mutex_;
  std::vector<Reply> replies_;
};

}  // namespace hostsim

#endif  // EM_TESTS_HOSTSIM_RECORDINGMODULE_H
