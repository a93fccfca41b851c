// The four entry points of em_oidmap.so and the single module object they manage. This
// is the top of the shared object: it names the module to the trace client.
#include <cstdint>

#include "module/CIExtensionModule.h"
#include "oidmap/OidMapExtModule.h"
#include "trace/DebugClient.h"

#define EM_EXPORT extern "C" __attribute__((visibility("default")))

using em_oidmap::COidMapExtModule;
using em_oidmap::kModuleName;

namespace {

// The trace configuration is read when the shared object is loaded, under the module's
// name, not at the first trace line.
[[maybe_unused]] em_oidmap::CDebugClient& g_load_time_client =
    em_oidmap::StartTraceClient(kModuleName);

// The one module object of the process; the host calls the entry points from one thread.
COidMapExtModule* g_module = nullptr;

const char* SetupActionName(uint32_t action) {
  switch (action) {
    case 1:
      return "BACKUP";
    case 2:
      return "RESTORE";
    case 3:
      return "CONVERT";
    case 4:
      return "CLEANUP";
    default:
      return nullptr;
  }
}

}  // namespace

EM_EXPORT bool EM_Create(CIExtensionModule** module, void* /*unused*/) {
  if (g_module != nullptr) {
    EM_TRACE(1, "\nEM DLL (%-10s) : ## ERROR: Module already existing!\n", kModuleName);
    if (module != nullptr) *module = g_module;
    return module != nullptr;
  }
  EM_TRACE(2, "\nEM DLL (%-10s) : Create module", kModuleName);
  // A constructor that throws is the host's to see: new releases the memory and the
  // exception leaves EM_Create with the process-wide pointer still empty.
  g_module = new COidMapExtModule();
  if (g_module != nullptr) {
    if (module != nullptr) *module = g_module;
    return module != nullptr;
  }
  EM_TRACE(1, "\nEM DLL (%-10s) : ## ERROR: Module could not be created!\n", kModuleName);
  if (module != nullptr) *module = nullptr;
  return false;
}

EM_EXPORT unsigned int EM_Delete() {
  try {
    if (g_module == nullptr) {
      EM_TRACE(1, "\nEM DLL (%-10s) : Module already destroyed!", kModuleName);
      return 0;
    }
    EM_TRACE(1, "\nEM DLL (%-10s) : Destroy module...", kModuleName);
    CIExtensionModule* module = g_module;
    delete module;  // the interface's deleting destructor
    g_module = nullptr;
    EM_TRACE(1, "\nEM DLL (%-10s) : .. Module destroyed successfully!", kModuleName);
    return 1;
  } catch (...) {
    EM_TRACE(1, "\nEM DLL (%-10s) : ## ERROR! Exception while destroying module!", kModuleName);
    return 0;
  }
}

EM_EXPORT const char* EM_GetModuleName() { return kModuleName; }

EM_EXPORT unsigned int EM_SetupAction(uint32_t action) {
  const char* name = SetupActionName(action);
  if (name != nullptr) {
    EM_TRACE(1, "\n\n%-20s: ## Setup action \"%s\" call - no action function defined\n",
             kModuleName, name);
  } else {
    EM_TRACE(1,
             "\n\n%-20s: ## ERROR! Setup action call with unknown action type (%d) - no action "
             "defined!\n",
             kModuleName, static_cast<int>(action));
  }
  return 1;
}
