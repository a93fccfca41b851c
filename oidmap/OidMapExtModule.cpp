#include "oidmap/OidMapExtModule.h"

#include <utility>

#include "oidmap/Opcodes.h"
#include "oidmap/Timeouts.h"

namespace em_oidmap {
namespace {

constexpr const char* kSeparator =
    "\n------------------------------------------------------------------------------------------\n";

}  // namespace

COidMapExtModule::COidMapExtModule(std::string messageFileDir)
    : CExtensionModule(),
      CTaskSerializer<SipJson>(1, kTaskQueueBytes),
      link_(*this, [this](const SipJson& task) { return InsertTask(task, 0, nullptr); }),
      cabinets_(link_),
      mapper_(link_),
      log_store_(cabinets_),
      collector_(link_, mapper_, log_store_),
      queries_(link_, cabinets_, log_store_, collector_, std::move(messageFileDir)),
      multiple_(link_, mapper_, log_store_) {
  OIDMAP_TRACE(5, "-> Constructor...");
  OIDMAP_TRACE(5, "<- Constructor");
}

COidMapExtModule::~COidMapExtModule() {
  // The pair only brackets the call: members are torn down after both lines.
  OIDMAP_TRACE(5, "-> Destructor...");
  OIDMAP_TRACE(5, "<- Destructor");
  // The worker must be gone before the components it uses are destroyed; the serializer
  // base would only stop it after them.
  TerminateSerialization();
}

uint32_t COidMapExtModule::GetModuleInfo(void* moduleInfo) {
  return FillModuleInfo(moduleInfo, kModuleName, kModuleDescription);
}

uint32_t COidMapExtModule::Start(CIModuleHost* host, uint64_t context) {
  EM_TRACE(2, "%s", kSeparator);
  OIDMAP_TRACE(2, "## Start");
  // Whatever way start ends, the requests held back meanwhile go on.
  CStartGate::ClosedScope closed(start_gate_);
  CExtensionModule::Start(host, context);
  StartSerialization();

  mapper_.BeginTable();
  OIDMAP_TRACE(2, "## Server's cabinet number = %d", static_cast<int>(ServerCabinet()));
  cabinets_.BuildCabinetList();
  for (uint32_t cabinet : cabinets_.CabinetList()) {
    if (IsSwitchShutdown()) {
      break;
    }
    mapper_.CheckCabinet(cabinet);
    log_store_.InitCabinet(cabinet);
  }
  mapper_.PublishTable();

  cabinets_.ReadHelpDeskMessage();
  OIDMAP_TRACE(2, "## Start completed! ##");
  EM_TRACE(2, "%s", kSeparator);
  return 1;
}

uint32_t COidMapExtModule::Stop() {
  TerminateSerialization();
  return 1;
}

void COidMapExtModule::Rescan() {
  cabinets_.ProbeIdentModule();
  cabinets_.BuildCabinetList();
  cabinets_.ReadSelLanguages();
  collector_.QueueMessageLogScans(cabinets_.CabinetList());
}

void COidMapExtModule::OnTaskExecution(SipJson& task, int32_t /*level*/) {
  const int32_t i = task.CurrentIndex();
  const uint32_t oc = task.GetOpcode(i);
  switch (oc) {
    case CM_TaskLogScan:
      collector_.RunLogScan(task.GetKey(i, "CA"));
      break;
    case CM_TaskMessageLogScan:
      collector_.RunMessageLogScan(task.GetKey(i, "CA"));
      break;
    case CM_LogMessageRaw:
      queries_.RunRawLogTask(task);
      break;
    case CM_TaskFetchLongTexts:
      queries_.RunLongTextTask();
      break;
    default:
      if (IsMessageTextOpcode(oc)) queries_.RunTextTask(task);
      break;
  }
}

}  // namespace em_oidmap
