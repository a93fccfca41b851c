#include "platform/RegistryPaths.h"

#include "platform/Registry.h"

namespace em_oidmap {

namespace {

std::string WithBin(std::string root) {
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  if (root != "/") root += '/';
  return root + kBinDirectoryName;
}

}  // namespace

std::string MessageFileDirectoryFromRegistry(CRegistry& registry) {
  std::string value;
  if (registry.GetString(HKEY_LOCAL_MACHINE, kNodeStewardKey, "BinRoot", &value) &&
      !value.empty()) {
    return value;
  }
  for (const char* name : {"FileRoot", "Setup"}) {
    if (registry.GetString(HKEY_LOCAL_MACHINE, kNodeStewardKey, name, &value) && !value.empty()) {
      return WithBin(value);
    }
  }
  if (registry.GetString(HKEY_LOCAL_MACHINE, kNodeStewardUuidKey, "Node Steward", &value) &&
      !value.empty()) {
    return WithBin(value);
  }
  return std::string();
}

}  // namespace em_oidmap
