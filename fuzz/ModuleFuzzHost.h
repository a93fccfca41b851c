// What the request and reply handler targets share: two started modules, each on its own
// simulated host that answers every request at once, built once per process.
//   mapped: the demo scenario (two modules counting the same kind, three cabinets), so
//           mapping is needed and every cabinet translates;
//   single: one lower module (fuzz/single-module.json), so mapping is not needed.
// Both have scanned their logs before the first input, so every listed cabinet's cache is
// ready, and queries of other cabinets give up after 1 ms. Tracing is on at the highest
// level, so every trace site formats its arguments. The hosts' send and hand-back throw for
// a message whose current command has CI kThrowingCi (a std::exception) or kThrowingCi + 1
// (anything else), as a faulty host might: the module must catch it, answer, and keep no
// lock held.
#ifndef EM_FUZZ_MODULEFUZZHOST_H
#define EM_FUZZ_MODULEFUZZHOST_H

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "fuzz/FuzzHarness.h"
#include "hostsim/DebugSink.h"
#include "hostsim/Scenario.h"
#include "hostsim/SimHost.h"
#include "oidmap/OidMapExtModule.h"
#include "runtime/Event.h"

namespace em_oidmap::fuzz {

constexpr uint32_t kThrowingCi = 0xE0E0;

class ThrowingHost : public hostsim::SimHost {
 public:
  uint32_t SendRequest(uint64_t context, SipJson& msg, uint32_t timeoutMs) override {
    ThrowFor(msg);
    return SimHost::SendRequest(context, msg, timeoutMs);
  }
  uint32_t HandBack(CIExtensionModule* module, SipJson& msg) override {
    ThrowFor(msg);
    return SimHost::HandBack(module, msg);
  }

 private:
  static void ThrowFor(const SipJson& msg) {
    const uint32_t ci = msg.GetKey(msg.CurrentIndex(), "CI", 0);
    if (ci == kThrowingCi) throw std::runtime_error("the host failed");
    if (ci == kThrowingCi + 1) throw ci;
  }
};

struct Instance {
  ThrowingHost host;
  COidMapExtModule module{EM_SAMPLE_MSGFILES_DIR};
  std::vector<uint32_t> mids;
  std::vector<uint32_t> cabinets;
  CEvent drained;
};

// Starts a module on a host set up from the scenario file, with `seCounts` more instances
// of the fans per module in every SE cabinet, and lets the re-scan fill every cabinet's
// cache.
inline Instance* Make(const char* path, uint32_t seCounts) {
  hostsim::Scenario scenario;
  std::string error;
  Check(scenario.Load(path, error));
  auto* in = new Instance;  // never destroyed: the worker may outlive any exit order
  scenario.ApplyTo(in->host);
  for (const auto& module : scenario.modules) {
    in->mids.push_back(module.mid);
    for (uint32_t ca : scenario.seCabinets) {
      if (seCounts != 0) in->host.FindModule(module.mid)->SetInstanceCount(0x0300, 0, ca, seCounts);
    }
  }
  in->module.SetServerCabinet(scenario.serverCabinet);
  Check(in->module.Start(&in->host, in->host.Attach(&in->module)) == 1);
  in->module.Rescan();
  in->cabinets = in->module.Cabinets().CabinetList();
  for (uint32_t ca : in->cabinets) Check(in->module.LogStore().Cache().WaitForCacheReady(ca, 60000));
  in->drained.Create(false, false, nullptr);
  return in;
}

// The message after a selector byte, and the instance that bit 0 of the selector picks (0
// mapped, 1 single); false when the rest does not parse.
inline bool Pick(const uint8_t* data, size_t size, SipJson& msg, Instance** picked) {
  static Instance* const* const instances = [] {
    setenv("EM_OIDMAP_CACHE_WAIT_MS", "1", 1);  // read when a module is created
    TraceClient().SetTraceLevel(5);
    static Instance* made[2] = {Make(EM_SAMPLE_SCENARIO, 2), Make(EM_FUZZ_SINGLE_MODULE, 0)};
    Check(made[0]->module.Mapper().IsMappingNeeded() && made[0]->cabinets.size() == 3 &&
          !made[1]->module.Mapper().IsMappingNeeded());
    // The workers must be gone before exit destroys the trace client they write to (a host
    // stops and deletes its modules before it ends).
    std::atexit([] {
      for (Instance* in : made) in->module.Stop();
    });
    return made;
  }();
  if (size == 0 || !msg.Parse(Text(data + 1, size - 1))) return false;
  *picked = instances[data[0] & 1];
  return true;
}

// Waits until the worker has run every task queued so far (text and raw record fetches,
// which the host answers at once), then drops what host and trace sink recorded, so that
// nothing piles up from one input to the next.
inline void Settle(Instance& in) {
  const SipJson marker(0, 0, 0, 0);  // an opcode the worker does nothing for
  while (!in.module.InsertTask(marker, 0, &in.drained)) {
    std::this_thread::sleep_for(std::chrono::microseconds(100));  // queue full: draining
  }
  Check(in.drained.Wait(60000, false) == EVENT_WAIT_SIGNAL);
  in.host.ClearRecords();
  hostsim::Sink().Clear();
}

}  // namespace em_oidmap::fuzz

#endif  // EM_FUZZ_MODULEFUZZHOST_H
