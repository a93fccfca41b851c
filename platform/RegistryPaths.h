// Where the agent's installation says its message text files are.
#ifndef EM_PLATFORM_REGISTRYPATHS_H
#define EM_PLATFORM_REGISTRYPATHS_H

#include <string>

namespace em_oidmap {

class CRegistry;

// Key of the agent's installation, below HKEY_LOCAL_MACHINE.
constexpr const char* kNodeStewardKey = "SOFTWARE\\Trelmont\\Management\\Node Steward";
// Key under which the installation registers itself by its UUID, below HKEY_LOCAL_MACHINE.
constexpr const char* kNodeStewardUuidKey =
    "SYSTEM\\CurrentControlSet\\Control\\UUID\\C3681B60-0D26-11D3-8319-00A0C9B61E25";
constexpr const char* kBinDirectoryName = "Bin";

// The directory of the message text files, from the first of these that is a non-empty
// string value (trailing '/' removed before "/Bin" is added):
//   1. "BinRoot" under kNodeStewardKey: the Bin directory itself, taken as it is;
//   2. "FileRoot" under kNodeStewardKey, + "/Bin";
//   3. "Setup" under kNodeStewardKey, + "/Bin";
//   4. "Node Steward" under kNodeStewardUuidKey (the installation root), + "/Bin".
// The empty string when none is set.
std::string MessageFileDirectoryFromRegistry(CRegistry& registry);

}  // namespace em_oidmap

#endif  // EM_PLATFORM_REGISTRYPATHS_H
