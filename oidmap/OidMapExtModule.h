// COidMapExtModule: the em_oidmap module object. It receives the host's slots and hands
// each to the component that does the job; the components own their state and meet only
// through their public functions (docs/architecture.md):
//   CCabinetDirectory        cabinet list, SEL languages, help-desk text, KTAS probe
//   CStartGate               holds requests back while start runs on another thread
//   COidMapper               the OID map table: built at start, translation both ways
//   CLogStore                the message log caches behind the module's cache lock
//   CLogCollector            log scans, collect from message, CSS and designations
//   CLogQueryService         log queries, raw records, message texts
//   CMultipleModuleRequests  broadcasts to all modules and the merges of their replies
// They reach the host and the task serializer through one CHostLink.
//
// The object derives from CExtensionModule and CTaskSerializer<SipJson>, in this order,
// and adds OnTaskExecution as vtable slot 25 (the host's binary contract).
//
// Threads: start and re-scan run on a host thread; requests and replies on host threads;
// tasks on the serializer's worker ("_TaskHandler"). The destructor stops the worker
// before any component goes away.
#ifndef EM_OIDMAP_OIDMAPEXTMODULE_H
#define EM_OIDMAP_OIDMAPEXTMODULE_H

#include <cstdint>
#include <string>

#include "module/ExtensionModule.h"
#include "oidmap/CabinetDirectory.h"
#include "oidmap/HostLink.h"
#include "oidmap/LogCollector.h"
#include "oidmap/LogQueryService.h"
#include "oidmap/LogStore.h"
#include "oidmap/ModuleTrace.h"
#include "oidmap/MultipleModuleRequests.h"
#include "oidmap/OidMapper.h"
#include "oidmap/StartGate.h"
#include "runtime/TaskSerializer.h"
#include "sip/SipJson.h"

namespace em_oidmap {

class COidMapExtModule : public CExtensionModule, public CTaskSerializer<SipJson> {
 public:
  // `messageFileDir` is where the message files are looked for first: the process's
  // current directory, unless a harness that must not move it names another.
  explicit COidMapExtModule(std::string messageFileDir = ".");
  ~COidMapExtModule() override;

  // ---- The host's slots -----------------------------------------------------------------
  uint32_t GetModuleInfo(void* moduleInfo) override;
  // Base start, worker start, cabinet list, count opcode checks, caches, help-desk text.
  uint32_t Start(CIModuleHost* host, uint64_t context) override;
  // Ends task serialization. Returns 1.
  uint32_t Stop() override;
  // EM_IDENT probe, cabinet list, SEL languages, one message-log scan task per cabinet.
  void Rescan() override;
  const char* GetModuleTag() override { return kModuleName; }
  // Slot 8: translates a reply or event back to the global view, traces it, forwards
  // events and keeps the message log caches in step with log events. Never throws.
  void OnReply(SipJson& reply) override;
  // Slot 9: declines threshold writes, forwards translated requests to their owner,
  // handles the multiple-module requests and the message log opcodes. Returns 1 when the
  // message holds the answer, 0 when the host should offer the request elsewhere.
  uint32_t OnRequest(SipJson& request) override;
  // Slot 25: the serializer's task handler.
  void OnTaskExecution(SipJson& task, int32_t level) override;

  // ---- The components, for tests and tools ------------------------------------------------
  const CCabinetDirectory& Cabinets() const { return cabinets_; }
  const COidMapper& Mapper() const { return mapper_; }
  CLogStore& LogStore() { return log_store_; }
  CLogCollector& Collector() { return collector_; }

 private:
  // What the reply handler read of the reply to a request this thread forwards. The host
  // hands that reply to the reply handler on the sending thread before the send returns,
  // so finalising it starts from the same walk over its members instead of a new one.
  struct ForwardedReply {
    const SipJson* msg = nullptr;
    int32_t index = 0;
    const SipJson::Value* command = nullptr;  // null until the reply handler read it
    uint32_t members = 0;                     // the command's member count then
    SipJson::Header header;
  };
  // The send in progress on this thread, null outside one; a nested send keeps its own.
  // (A function, so that no other file refers to the thread-local variable itself.)
  static ForwardedReply*& Forwarded();
  // Makes `reply` the send in progress for its lifetime, whatever leaves the scope.
  class ForwardedScope {
   public:
    explicit ForwardedScope(ForwardedReply* reply);
    ~ForwardedScope();
    ForwardedScope(const ForwardedScope&) = delete;
    ForwardedScope& operator=(const ForwardedScope&) = delete;

   private:
    ForwardedReply* const outer_;
  };

  uint32_t HandleRequest(SipJson& msg);
  // After the reply handler forwarded an event: a cleared log empties its cabinet's cache,
  // a new log entry is stored and announced with its sequence number.
  void HandleLogEvent(SipJson& msg, int32_t index);

  CHostLink link_;
  CCabinetDirectory cabinets_;
  CStartGate start_gate_;
  COidMapper mapper_;
  CLogStore log_store_;
  CLogCollector collector_;
  CLogQueryService queries_;
  CMultipleModuleRequests multiple_;
};

}  // namespace em_oidmap

#endif  // EM_OIDMAP_OIDMAPEXTMODULE_H
