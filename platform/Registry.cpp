#include "platform/Registry.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <vector>

#include "runtime/NeverDestroyed.h"
#include "trace/DebugClient.h"

namespace em_oidmap {

namespace {

struct PredefinedKey {
  HKEY handle;
  const char* name;
};

constexpr PredefinedKey kPredefinedKeys[] = {
    {HKEY_LOCAL_MACHINE, "HKEY_LOCAL_MACHINE"},
    {HKEY_CURRENT_USER, "HKEY_CURRENT_USER"},
    {HKEY_USERS, "HKEY_USERS"},
    {HKEY_CLASSES_ROOT, "HKEY_CLASSES_ROOT"},
    {HKEY_CURRENT_CONFIG, "HKEY_CURRENT_CONFIG"},
};

const char* PredefinedName(HKEY hKey) {
  for (const PredefinedKey& k : kPredefinedKeys) {
    if (k.handle == hKey) return k.name;
  }
  return nullptr;
}

bool IsPredefined(HKEY hKey) { return PredefinedName(hKey) != nullptr; }

const char* OrNull(const char* s) { return s ? s : "<null>"; }

std::vector<std::string> SplitPath(const char* path) {
  std::vector<std::string> parts;
  if (path == nullptr) return parts;
  std::string part;
  for (const char* p = path;; ++p) {
    if (*p == '\\' || *p == '\0') {
      if (!part.empty()) parts.push_back(part);
      part.clear();
      if (*p == '\0') break;
    } else {
      part.push_back(*p);
    }
  }
  return parts;
}

std::string JoinPath(const std::string& dir, const char* file) {
  if (dir.empty()) return std::string();
  if (dir.back() == '/') return dir + file;
  return dir + "/" + file;
}

// Bytes of the longest line the file reader keeps whole, line feed included.
constexpr size_t kMaxWrittenLine = kRegistryLineBytes - 1;

// A key name that the file can carry as "[name]" and read back whole.
bool IsWritableKeyName(const std::string& name) {
  return name.find_first_of("]\n") == std::string::npos && name.size() + 3 <= kMaxWrittenLine;
}

}  // namespace

CRegistry::CRegistry(std::string directory, FileIo* io)
    : directory_(std::move(directory)), io_(io ? io : &FileIo::System()) {}

CRegistry::~CRegistry() = default;

CRegistry& CRegistry::Default() {
  // Deliberately never destroyed: other static objects may use it while the process ends.
  static NeverDestroyed<CRegistry> instance;
  return instance.Get();
}

bool CRegistry::IsSetup() const {
  CRecursiveLockGuard guard(lock_);
  return is_setup_;
}

bool CRegistry::IsDirty() const {
  CRecursiveLockGuard guard(lock_);
  return is_dirty_;
}

std::shared_ptr<CRegistryNode> CRegistry::Root() const {
  CRecursiveLockGuard guard(lock_);
  return root_;
}

bool CRegistry::RestoreFrom(const std::string& path, std::shared_ptr<CRegistryNode>* root) {
  if (path.empty()) {
    EM_TRACE(1, "CRegistry: ERROR: Empty file path");
    return false;
  }
  FILE* file = fopen(path.c_str(), "r");
  if (file == nullptr) {
    EM_TRACE(1, "CRegistry: WARNING: Could not open \"%s\"\n", path.c_str());
    return false;
  }
  struct stat st {};
  if (fstat(fileno(file), &st) != 0 || st.st_size <= 0) {
    fclose(file);
    EM_TRACE(1, "CRegistry: WARNING: The length of \"%s\" is not sufficient\n", path.c_str());
    return false;
  }
  auto node = std::make_shared<CRegistryNode>();
  size_t entries = node->Read(file);
  fclose(file);
  if (entries == 0) {
    EM_TRACE(
        1,
        "CRegistry: WARNING: Node restoring from \"%s\" failed - check the content of this file\n",
        path.c_str());
    return false;
  }
  *root = std::move(node);
  return true;
}

void CRegistry::SetupTree(bool force) {
  CRecursiveLockGuard guard(lock_);
  SetupTreeLocked(force);
}

void CRegistry::SetupTreeLocked(bool force) {
  EM_TRACE(2, "CRegistry: SetupTree(): ForceSetup=%d, MIsSetup=%d, MIsDirty=%d\n", force ? 1 : 0,
           is_setup_ ? 1 : 0, is_dirty_ ? 1 : 0);
  if (is_setup_ && !force) return;
  try {
    tree_path_ = JoinPath(directory_, kTreeFile);
    backup_path_ = JoinPath(directory_, kBackupFile);
    temp_path_ = JoinPath(directory_, kTempFile);
    defaults_path_ = JoinPath(directory_, kDefaultsFile);

    std::shared_ptr<CRegistryNode> root;
    if (!RestoreFrom(tree_path_, &root)) {
      EM_TRACE(1, "CRegistry: WARNING: Could not restore tree from \"%s\", trying backup\n",
               tree_path_.c_str());
      if (!RestoreFrom(backup_path_, &root)) {
        EM_TRACE(1, "CRegistry: WARNING: Could not restore tree from \"%s\", trying default\n",
                 backup_path_.c_str());
        if (!RestoreFrom(defaults_path_, &root)) {
          EM_TRACE(1, "CRegistry: ERROR: Could not restore tree from \"%s\", restoring failed\n",
                   defaults_path_.c_str());
        }
      }
    }
    if (!root) root = std::make_shared<CRegistryNode>();
    bool added = false;
    for (const PredefinedKey& k : kPredefinedKeys) {
      bool created = false;
      root->AddKey(k.name, &created);
      added = added || created;
    }
    root_ = std::move(root);
    handles_.clear();
    is_dirty_ = added;
    is_setup_ = true;
  } catch (const std::exception&) {
    EM_TRACE(2, "CRegistry: SetupTree(): ## ERROR during Setup\n");
  }
}

void CRegistry::InitClass() {
  EM_TRACE(2, "\nCRegistry::InitClass");
  EM_TRACE(2, "CRegistry::InitClass() : re-initialize the registry-tree\n");
  SetupTree(true);
}

void CRegistry::EnsureSetupLocked() {
  if (!is_setup_) SetupTreeLocked(false);
}

void CRegistry::Changed() {
  is_dirty_ = true;
  SaveTreeLocked();
}

std::shared_ptr<CRegistryNode> CRegistry::NodeOf(HKEY hKey) const {
  if (!root_) return nullptr;
  if (const char* name = PredefinedName(hKey)) return root_->FindKey(name);
  auto it = handles_.find(hKey);
  if (it == handles_.end()) return nullptr;
  return it->second.lock();
}

HKEY CRegistry::NewHandle(const std::shared_ptr<CRegistryNode>& node) {
  // Handles are counted up and reused only after a wrap, so a stale handle value is
  // unlikely to name another key.
  for (;;) {
    HKEY h = next_handle_++;
    if (next_handle_ >= HKEY_CLASSES_ROOT) next_handle_ = 1;
    if (handles_.count(h) == 0) {
      handles_[h] = node;
      return h;
    }
  }
}

std::shared_ptr<CRegistryNode> CRegistry::OpenPointer(const std::shared_ptr<CRegistryNode>& start,
                                                      const char* path, bool create) {
  EM_TRACE(4, "CRegistry::OpenPointer \"%s\"\n", OrNull(path));
  std::shared_ptr<CRegistryNode> node = start;
  bool changed = false;
  for (const std::string& part : SplitPath(path)) {
    if (!create) {
      node = node->FindKey(part);
    } else if (IsWritableKeyName(part) && node->Depth() < kRegistryMaxDepth) {
      bool created = false;
      node = node->AddKey(part, &created);
      changed = changed || created;
    } else {
      node = nullptr;  // the file could not carry it; what was made up to here stays
    }
    if (!node) break;
  }
  if (changed) Changed();
  return node;
}

LSTATUS CRegistry::OpenKey(HKEY hKey, const char* subKey, HKEY* result) {
  EM_TRACE(4, "\nCRegistry::Open \"%s\", hKey = %d\n", OrNull(subKey), static_cast<int>(hKey));
  CRecursiveLockGuard guard(lock_);
  EnsureSetupLocked();
  if (result == nullptr) return ERROR_INVALID_PARAMETER;
  std::shared_ptr<CRegistryNode> start = NodeOf(hKey);
  if (!start) return ERROR_INVALID_HANDLE;
  std::shared_ptr<CRegistryNode> node = OpenPointer(start, subKey, false);
  if (!node) return ERROR_FILE_NOT_FOUND;
  *result = NewHandle(node);
  return ERROR_SUCCESS;
}

LSTATUS CRegistry::CreateKey(HKEY hKey, const char* subKey, HKEY* result) {
  EM_TRACE(4, "CRegistry::CreateKey \"%s\"\n", OrNull(subKey));
  CRecursiveLockGuard guard(lock_);
  EnsureSetupLocked();
  if (result == nullptr) return ERROR_INVALID_PARAMETER;
  std::shared_ptr<CRegistryNode> start = NodeOf(hKey);
  if (!start) return ERROR_INVALID_HANDLE;
  for (const std::string& part : SplitPath(subKey)) {
    if (!IsWritableKeyName(part)) return ERROR_INVALID_PARAMETER;
  }
  std::shared_ptr<CRegistryNode> node = OpenPointer(start, subKey, true);
  if (!node) return ERROR_INVALID_PARAMETER;
  *result = NewHandle(node);
  return ERROR_SUCCESS;
}

LSTATUS CRegistry::CloseKey(HKEY hKey) {
  CRecursiveLockGuard guard(lock_);
  if (IsPredefined(hKey)) return ERROR_SUCCESS;
  return handles_.erase(hKey) == 1 ? ERROR_SUCCESS : ERROR_INVALID_HANDLE;
}

LSTATUS CRegistry::QueryValue(HKEY hKey, const char* name, uint32_t* type, uint8_t* data,
                              uint32_t* count) {
  if (count == nullptr) {
    EM_TRACE(1, "CRegistry::QueryValue: ** ERROR **  pdwCount is a NULL pointer\n");
    return ERROR_INVALID_PARAMETER;
  }
  CRecursiveLockGuard guard(lock_);
  EnsureSetupLocked();
  std::shared_ptr<CRegistryNode> node = NodeOf(hKey);
  if (!node) return ERROR_INVALID_HANDLE;
  RegistryValue value;
  if (!node->GetValue(name ? name : "", &value)) {
    EM_TRACE(4, "CRegistry::GetValue \"%s\" --> len %d\n", OrNull(name), -1);
    return ERROR_FILE_NOT_FOUND;
  }
  std::vector<uint8_t> bytes;
  switch (value.type) {
    case REG_SZ:
    case REG_EXPAND_SZ:
      bytes.assign(value.text.begin(), value.text.end());
      bytes.push_back('\0');
      break;
    case REG_DWORD:
      bytes.resize(sizeof value.number);
      memcpy(bytes.data(), &value.number, sizeof value.number);
      break;
    default:
      bytes = value.bytes;
      break;
  }
  const uint32_t needed = static_cast<uint32_t>(bytes.size());
  EM_TRACE(4, "CRegistry::GetValue \"%s\" --> len %d\n", OrNull(name), static_cast<int>(needed));
  if (type) *type = static_cast<uint32_t>(value.type);
  if (data == nullptr) {
    *count = needed;
    return ERROR_SUCCESS;
  }
  if (*count < needed) {
    *count = needed;
    return ERROR_MORE_DATA;
  }
  if (needed > 0) memcpy(data, bytes.data(), needed);
  *count = needed;
  return ERROR_SUCCESS;
}

LSTATUS CRegistry::SetValue(HKEY hKey, const char* name, int32_t type, const uint8_t* data,
                            uint32_t size) {
  EM_TRACE(4, "CRegistry::SetValue \"%s\" %d %d\n", OrNull(name), type, static_cast<int>(size));
  CRecursiveLockGuard guard(lock_);
  EnsureSetupLocked();
  std::shared_ptr<CRegistryNode> node = NodeOf(hKey);
  if (!node) return ERROR_INVALID_HANDLE;
  const std::string valueName = name ? name : "";
  if (valueName.find_first_of("=\n") != std::string::npos ||
      (!valueName.empty() && valueName[0] == '[')) {
    return ERROR_INVALID_PARAMETER;
  }
  // Line length as written: name, marker, payload, line feed.
  size_t line = valueName.size() + 1;
  RegistryValue value;
  switch (type) {
    case REG_SZ:
    case REG_EXPAND_SZ:
      if (data == nullptr) {
        value.type = type;  // an entry without text
      } else {
        const char* text = reinterpret_cast<const char*>(data);
        value = RegistryValue::String(std::string(text, strnlen(text, size)), type);
        if (value.text.find('\n') != std::string::npos) return ERROR_INVALID_PARAMETER;
      }
      line += (type == REG_SZ ? 3 : 4) + value.text.size();
      break;
    case REG_DWORD: {
      if (data == nullptr || size < sizeof(int32_t)) return ERROR_INVALID_PARAMETER;
      int32_t number;
      memcpy(&number, data, sizeof number);
      value = RegistryValue::Number(number);
      line += 3 + 11;
      break;
    }
    case REG_BINARY:
      if (data == nullptr && size > 0) return ERROR_INVALID_PARAMETER;
      value = RegistryValue::Binary(std::vector<uint8_t>(data, data + size));
      line += 3 + 3 * static_cast<size_t>(size);
      break;
    default:
      return ERROR_INVALID_PARAMETER;
  }
  if (line > kMaxWrittenLine) return ERROR_INVALID_PARAMETER;
  const void* entry = node->SetValue(valueName, std::move(value));
  EM_TRACE(4, "CRegistry::SetValue oEntry = %p\n", entry);
  Changed();
  return ERROR_SUCCESS;
}

LSTATUS CRegistry::DeleteValue(HKEY hKey, const char* name) {
  EM_TRACE(4, "CRegistry::DeleteValue \"%s\"\n", OrNull(name));
  CRecursiveLockGuard guard(lock_);
  EnsureSetupLocked();
  std::shared_ptr<CRegistryNode> node = NodeOf(hKey);
  if (!node) return ERROR_INVALID_HANDLE;
  if (!node->DeleteValue(name ? name : "")) return ERROR_FILE_NOT_FOUND;
  Changed();
  return ERROR_SUCCESS;
}

LSTATUS CRegistry::DeleteKey(HKEY hKey, const char* subKey) {
  EM_TRACE(4, "CRegistry::DeleteKey \"%s\"\n", OrNull(subKey));
  CRecursiveLockGuard guard(lock_);
  EnsureSetupLocked();
  std::shared_ptr<CRegistryNode> node = NodeOf(hKey);
  if (!node) return ERROR_INVALID_HANDLE;
  std::vector<std::string> parts = SplitPath(subKey);
  if (parts.empty()) return ERROR_INVALID_PARAMETER;
  for (size_t i = 0; i + 1 < parts.size() && node; ++i) node = node->FindKey(parts[i]);
  if (!node) return ERROR_FILE_NOT_FOUND;
  switch (node->DeleteKey(parts.back())) {
    case CRegistryNode::DeleteResult::kNotFound:
      return ERROR_FILE_NOT_FOUND;
    case CRegistryNode::DeleteResult::kHasSubKeys:
      return ERROR_ACCESS_DENIED;
    case CRegistryNode::DeleteResult::kDeleted:
      break;
  }
  Changed();
  return ERROR_SUCCESS;
}

bool CRegistry::GetString(HKEY root, const char* path, const char* name, std::string* out) {
  CRecursiveLockGuard guard(lock_);
  HKEY key = 0;
  if (OpenKey(root, path, &key) != ERROR_SUCCESS) return false;
  uint32_t type = 0;
  uint32_t size = 0;
  bool ok = false;
  if (QueryValue(key, name, &type, nullptr, &size) == ERROR_SUCCESS &&
      (type == REG_SZ || type == REG_EXPAND_SZ)) {
    std::vector<uint8_t> buffer(size + 1, 0);
    if (QueryValue(key, name, &type, buffer.data(), &size) == ERROR_SUCCESS) {
      out->assign(reinterpret_cast<const char*>(buffer.data()));
      ok = true;
    }
  }
  CloseKey(key);
  return ok;
}

}  // namespace em_oidmap
