// CHostLink: what a component of the module needs of the host and of the module's task
// serializer: sending requests and waiting for the answers, handing messages back up, the
// host's cabinet enumeration, the server's cabinet number, whether the module is stopping,
// and queueing a task for the worker thread.
//
// It is a plain handle over the module's CExtensionModule base (whose sends it uses) and a
// task callback, so the module object keeps the host's vtable and a component can be built
// alone in a test: over a bare CExtensionModule started on a hostsim::SimHost.
//
// Thread safety: every member may be called from any thread. The base takes no lock and
// the host accepts concurrent sends; the task callback must be callable from any thread
// (CTaskSerializer::InsertTask is).
#ifndef EM_OIDMAP_HOSTLINK_H
#define EM_OIDMAP_HOSTLINK_H

#include <cstdint>
#include <functional>
#include <utility>

#include "module/ExtensionModule.h"
#include "sip/SipJson.h"

class CIModuleHost;

namespace em_oidmap {

class CHostLink {
 public:
  // Queues a copy of the task for the worker; false when it was refused (queue full,
  // serializer stopped).
  using TaskQueue = std::function<bool(const SipJson& task)>;

  // `module` and the callback's target must outlive the link.
  CHostLink(CExtensionModule& module, TaskQueue queueTask)
      : module_(module), queue_task_(std::move(queueTask)) {}
  CHostLink(const CHostLink&) = delete;
  CHostLink& operator=(const CHostLink&) = delete;

  // Sends the current command and waits; the answers come back in `msg` (without a host:
  // ST 6).
  void SendRequest(SipJson& msg, uint32_t timeoutMs) const { module_.SendRequest(msg, timeoutMs); }
  // The same to all modules: one reply command per module comes back.
  void SendToAllModules(SipJson& msg, uint32_t timeoutMs) const {
    module_.SendToAllModules(msg, timeoutMs);
  }
  // Hands a reply or event up to the host (ST 255 during the call).
  void HandBack(SipJson& msg) const { module_.HandBack(msg); }
  // The attached host; nullptr before start.
  CIModuleHost* Host() const { return module_.Host(); }
  static uint32_t ServerCabinet() { return CExtensionModule::ServerCabinet(); }
  // True once the host announced a switch shutdown: long loops end at their next step.
  bool IsStopping() const { return module_.IsSwitchShutdown(); }
  bool QueueTask(const SipJson& task) const { return queue_task_(task); }

 private:
  CExtensionModule& module_;
  const TaskQueue queue_task_;
};

// A new message holding a copy of the current command of `msg` (its "CI" included) as its
// only command: the working copy a broadcast sends, and a queued task.
SipJson CopyOfCurrentCommand(const SipJson& msg);

}  // namespace em_oidmap

#endif  // EM_OIDMAP_HOSTLINK_H
