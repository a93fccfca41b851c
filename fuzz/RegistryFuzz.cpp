// Arbitrary bytes as the registry file: the tree set up from it is walked through handles
// (every key opened, every value queried with no, a tiny and an exact buffer), then saved.
// The saved file must load back into a tree that saves to the same bytes, and a value the
// registry accepted must be carried by the file.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/FuzzHarness.h"
#include "platform/Registry.h"

using namespace em_oidmap;  // a program of its own: its names are short
using fuzz::Check;

namespace {

// Bounds the walk on inputs that describe wide or deep trees.
constexpr int kMaxOpenedKeys = 200;
constexpr uint8_t kGuard = 0xA5;

void ClearDirectory(const std::string& dir) {
  for (const char* name : {CRegistry::kTreeFile, CRegistry::kBackupFile, CRegistry::kTempFile,
                           CRegistry::kDefaultsFile}) {
    unlink((dir + "/" + name).c_str());
  }
}

void QueryAll(CRegistry& registry, HKEY key, const std::string& name) {
  uint32_t type = 0;
  uint32_t needed = 0;
  Check(registry.QueryValue(key, name.c_str(), &type, nullptr, &needed) == ERROR_SUCCESS);

  uint8_t tiny[2] = {kGuard, kGuard};
  uint32_t count = 1;
  const LSTATUS small = registry.QueryValue(key, name.c_str(), nullptr, tiny, &count);
  Check(count == needed && tiny[1] == kGuard);
  Check(small == (needed > 1 ? ERROR_MORE_DATA : ERROR_SUCCESS));
  if (small == ERROR_MORE_DATA) Check(tiny[0] == kGuard);  // nothing copied

  std::vector<uint8_t> exact(needed + 1, kGuard);
  count = needed;
  Check(registry.QueryValue(key, name.c_str(), nullptr, exact.data(), &count) == ERROR_SUCCESS);
  Check(count == needed && exact[needed] == kGuard);
  if (type == REG_SZ || type == REG_EXPAND_SZ) Check(needed > 0 && exact[needed - 1] == '\0');
  if (type == REG_DWORD) Check(needed == 4);
}

void Walk(CRegistry& registry, HKEY key, const std::shared_ptr<CRegistryNode>& node, int* opened) {
  for (const std::string& name : node->ValueNames()) QueryAll(registry, key, name);
  for (const std::string& name : node->KeyNames()) {
    if (++*opened > kMaxOpenedKeys) return;
    HKEY child = 0;
    // A name with '\' is a path to the handle API; only plain names are opened here.
    if (name.empty() || name.find('\\') != std::string::npos) continue;
    Check(registry.OpenKey(key, name.c_str(), &child) == ERROR_SUCCESS);
    Walk(registry, child, node->FindKey(name), opened);
    Check(registry.CloseKey(child) == ERROR_SUCCESS);
  }
}

const char* const kPredefinedNames[] = {"HKEY_LOCAL_MACHINE", "HKEY_CURRENT_USER", "HKEY_USERS",
                                        "HKEY_CLASSES_ROOT", "HKEY_CURRENT_CONFIG"};
const HKEY kPredefinedKeys[] = {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER, HKEY_USERS,
                                HKEY_CLASSES_ROOT, HKEY_CURRENT_CONFIG};

// A key path and a string value taken from the input's last bytes: what SetValue and
// CreateKey accept must survive the file.
void AddFromInput(CRegistry& registry, const uint8_t* data, size_t size) {
  fuzz::Quiet();
  const size_t tail = size < 48 ? size : 48;
  const std::string bytes(reinterpret_cast<const char*>(data + size - tail), tail);
  const size_t cut = bytes.find('|');
  const std::string path = bytes.substr(0, cut == std::string::npos ? 16 : cut);
  const std::string text = cut == std::string::npos ? bytes : bytes.substr(cut + 1);
  HKEY key = 0;
  if (registry.CreateKey(HKEY_LOCAL_MACHINE, path.c_str(), &key) != ERROR_SUCCESS) return;
  registry.SetValue(key, text.c_str(), REG_SZ, reinterpret_cast<const uint8_t*>(text.data()),
                    static_cast<uint32_t>(text.size()));
  registry.SetValue(key, path.c_str(), REG_BINARY, data, static_cast<uint32_t>(tail));
  registry.CloseKey(key);

  // What was set reads back as a string, and what is deleted is gone.
  std::string read;
  if (registry.GetString(HKEY_LOCAL_MACHINE, path.c_str(), text.c_str(), &read)) {
    Check(read == text.substr(0, text.find('\0')));
  }
  if (registry.OpenKey(HKEY_LOCAL_MACHINE, path.c_str(), &key) == ERROR_SUCCESS) {
    if (registry.DeleteValue(key, path.c_str()) == ERROR_SUCCESS) {
      uint32_t count = 0;
      Check(registry.QueryValue(key, path.c_str(), nullptr, nullptr, &count) ==
            ERROR_FILE_NOT_FOUND);
    }
    registry.CloseKey(key);
  }
  const LSTATUS deleted = registry.DeleteKey(HKEY_LOCAL_MACHINE, path.c_str());
  if (deleted == ERROR_SUCCESS)
    Check(!registry.GetString(HKEY_LOCAL_MACHINE, path.c_str(), text.c_str(), &read));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string& dir = fuzz::TempDir("registry");
  const std::string copyDir = dir + "/copy";
  static const bool made = mkdir(copyDir.c_str(), 0700) == 0;
  (void)made;
  ClearDirectory(dir);
  ClearDirectory(copyDir);
  fuzz::WriteFile(dir + "/" + CRegistry::kTreeFile, data, size);

  CRegistry registry(dir);
  registry.SetupTree(false);
  int opened = 0;
  for (size_t i = 0; i < sizeof kPredefinedKeys / sizeof kPredefinedKeys[0]; ++i) {
    const auto node = registry.Root()->FindKey(kPredefinedNames[i]);
    Check(node != nullptr);
    Walk(registry, kPredefinedKeys[i], node, &opened);
  }
  if (size > 0) AddFromInput(registry, data, size);

  // A change of fixed content makes both trees dirty, so that both are written.
  const uint8_t mark[4] = {1, 2, 3, 4};
  Check(registry.SetValue(HKEY_LOCAL_MACHINE, "fuzz", REG_DWORD, mark, 4) == ERROR_SUCCESS);
  Check(!registry.IsDirty());
  const std::string saved = fuzz::ReadFile(dir + "/" + CRegistry::kTreeFile);
  Check(!saved.empty());

  fuzz::WriteFile(copyDir + "/" + CRegistry::kTreeFile,
                  reinterpret_cast<const uint8_t*>(saved.data()), saved.size());
  CRegistry copy(copyDir);
  copy.SetupTree(false);
  Check(copy.SetValue(HKEY_LOCAL_MACHINE, "fuzz", REG_DWORD, mark, 4) == ERROR_SUCCESS);
  Check(fuzz::ReadFile(copyDir + "/" + CRegistry::kTreeFile) == saved);
  return 0;
}
