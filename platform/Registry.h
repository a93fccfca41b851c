// CRegistry: a key and value store shaped like the operating-system registry, kept in
// memory as a tree of CRegistryNode and persisted in text files of one directory:
//   "registry"          the tree
//   "registry.old"      the tree before the last save
//   "registry.new"      the tree being saved
//   "registry.default"  the shipped defaults
// The tree is restored from the first of "registry", "registry.old", "registry.default"
// that yields anything, and the five predefined keys always exist under the root.
//
// The process uses one tree, CRegistry::Default(), on the agent's directory; tests and
// tools make instances on other directories.
//
// Keys are reached through handles: the predefined HKEY_* values, or the opaque values
// that OpenKey/CreateKey hand out. A handle stays valid until CloseKey; once its key has
// been deleted (or the tree re-read) every call on it returns ERROR_INVALID_HANDLE.
// Names compare case-sensitively; path elements are separated by '\', and empty elements
// (a leading, trailing or doubled '\') are passed over.
//
// Persistence: every successful change marks the tree dirty and saves it at once
// (SaveTree). A failed save keeps the change in memory and the tree dirty; the files on
// disk stay as they were.
//
// The key path "SYSTEM\CurrentControlSet\Control\UUID\C3681B60-0D26-11D3-8319-00A0C9B61E25"
// (where the agent's installation is registered) is opened like any other key: its values
// come from the registry file, and CreateKey makes it where a set-up needs it.
//
// Every operation sets the tree up first if that has not happened yet.
//
// Thread safety: all members may be called from any thread. The registry lock guards
// set-up, saving and the handle table and is held through each operation; each node's own
// lock guards its entries. Lock order: registry lock before node locks, parent before
// child.
#ifndef EM_PLATFORM_REGISTRY_H
#define EM_PLATFORM_REGISTRY_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "platform/FileIo.h"
#include "platform/RegistryNode.h"
#include "runtime/RecursiveLock.h"

namespace em_oidmap {

using HKEY = uint32_t;
using LSTATUS = int32_t;

constexpr HKEY HKEY_CLASSES_ROOT = 0x80000000u;
constexpr HKEY HKEY_CURRENT_USER = 0x80000001u;
constexpr HKEY HKEY_LOCAL_MACHINE = 0x80000002u;
constexpr HKEY HKEY_USERS = 0x80000003u;
constexpr HKEY HKEY_CURRENT_CONFIG = 0x80000005u;

constexpr LSTATUS ERROR_SUCCESS = 0;
constexpr LSTATUS ERROR_FILE_NOT_FOUND = 2;
constexpr LSTATUS ERROR_ACCESS_DENIED = 5;  // DeleteKey on a key that has sub-keys
constexpr LSTATUS ERROR_INVALID_HANDLE = 6;
constexpr LSTATUS ERROR_INVALID_PARAMETER = 87;
constexpr LSTATUS ERROR_MORE_DATA = 234;

class CRegistry {
 public:
  static constexpr const char* kDefaultDirectory = "/opt/VelnorHCP/vital/etc/pallmon";
  static constexpr const char* kTreeFile = "registry";
  static constexpr const char* kBackupFile = "registry.old";
  static constexpr const char* kTempFile = "registry.new";
  static constexpr const char* kDefaultsFile = "registry.default";

  // Nothing is read before the first operation or SetupTree. Saves go through `io`
  // (not owned; the system calls when null).
  explicit CRegistry(std::string directory = kDefaultDirectory, FileIo* io = nullptr);
  ~CRegistry();
  CRegistry(const CRegistry&) = delete;
  CRegistry& operator=(const CRegistry&) = delete;

  // The process-wide tree on kDefaultDirectory. Never destroyed before exit.
  static CRegistry& Default();

  // Builds the tree from the files, unless it is set up already and `force` is false.
  // Forcing drops unsaved changes and invalidates every open handle but the predefined.
  void SetupTree(bool force);
  // SetupTree(true), with its own traces.
  void InitClass();
  // Writes the tree when it is dirty: "registry.new" first, then "registry" becomes
  // "registry.old" (when it exists and is not empty) and "registry.new" becomes
  // "registry", and the directory is synced so that the new names outlive a crash. At any
  // point of a crash "registry", or when it is missing "registry.old", holds the tree of
  // this save or of the one before, whole. Returns true when the files hold the tree
  // afterwards (also when there was nothing to write; a failed directory sync is only
  // traced).
  bool SaveTree();

  bool IsSetup() const;
  bool IsDirty() const;
  const std::string& Directory() const { return directory_; }

  // Opens the key `subKey` below `hKey` into *result. A null or empty `subKey` opens a
  // new handle on `hKey`'s own key. ERROR_FILE_NOT_FOUND when a path element is missing.
  LSTATUS OpenKey(HKEY hKey, const char* subKey, HKEY* result);
  // As OpenKey, creating the missing path elements. Key names must not contain ']' or
  // line breaks, and keys lie at most kRegistryMaxDepth levels below the root
  // (ERROR_INVALID_PARAMETER).
  LSTATUS CreateKey(HKEY hKey, const char* subKey, HKEY* result);
  // Releases a handle from OpenKey/CreateKey; predefined handles are accepted and ignored.
  LSTATUS CloseKey(HKEY hKey);

  // Reads a value. `name` null means the key's unnamed value (""). `type` and `data` may
  // be null; `count` may not (ERROR_INVALID_PARAMETER). On entry *count is the size of
  // `data`; on return it is the value's size: string length plus the NUL, 4 for a
  // number, the byte count for binary. When `data` is too small nothing is copied, *count
  // is the size needed and the result is ERROR_MORE_DATA. A string entry without text
  // reads as the empty string.
  LSTATUS QueryValue(HKEY hKey, const char* name, uint32_t* type, uint8_t* data, uint32_t* count);
  // Stores a value of type REG_SZ, REG_EXPAND_SZ (text up to the first NUL within `size`
  // bytes; null data stores an entry without text), REG_DWORD (`size` >= 4) or
  // REG_BINARY. Refused with ERROR_INVALID_PARAMETER, as the file could not give them
  // back: other types, line breaks in the name or text, '=' in the name, a name that
  // begins with '[', and lines longer than kRegistryLineBytes - 1 bytes with the line feed.
  LSTATUS SetValue(HKEY hKey, const char* name, int32_t type, const uint8_t* data, uint32_t size);
  LSTATUS DeleteValue(HKEY hKey, const char* name);
  // Deletes the key `subKey` below `hKey` with its values. ERROR_ACCESS_DENIED when it
  // has sub-keys, ERROR_INVALID_PARAMETER for an empty path (a key cannot delete itself).
  LSTATUS DeleteKey(HKEY hKey, const char* subKey);

  // Convenience for readers: the text of a REG_SZ / REG_EXPAND_SZ value at `path` below
  // `root`; false when the key or value is missing or of another type.
  bool GetString(HKEY root, const char* path, const char* name, std::string* out);

  // The root node (for inspection in tests and tools); null before set-up.
  std::shared_ptr<CRegistryNode> Root() const;

 private:
  bool RestoreFrom(const std::string& path, std::shared_ptr<CRegistryNode>* root);
  void SetupTreeLocked(bool force) REQUIRES(lock_);
  bool SaveTreeLocked() REQUIRES(lock_);
  // Writes `text` to "registry.new" and syncs it; false (and no file) on failure.
  bool WriteTempFile(const std::string& text) REQUIRES(lock_);
  void EnsureSetupLocked() REQUIRES(lock_);
  // The node behind a handle, or null for an unknown, closed or deleted key.
  std::shared_ptr<CRegistryNode> NodeOf(HKEY hKey) const REQUIRES(lock_);
  // Follows `path` below `start`; `create` adds missing elements. Null when an element
  // is missing or not creatable.
  std::shared_ptr<CRegistryNode> OpenPointer(const std::shared_ptr<CRegistryNode>& start,
                                             const char* path, bool create) REQUIRES(lock_);
  HKEY NewHandle(const std::shared_ptr<CRegistryNode>& node) REQUIRES(lock_);
  // Marks the tree dirty and saves it.
  void Changed() REQUIRES(lock_);

  const std::string directory_;
  FileIo* const io_;

  // Public operations take the lock and may call each other while they hold it (it is
  // recursive); the private ones that need it say so.
  mutable CRecursiveLock lock_;
  std::string tree_path_ GUARDED_BY(lock_);
  std::string backup_path_ GUARDED_BY(lock_);
  std::string temp_path_ GUARDED_BY(lock_);
  std::string defaults_path_ GUARDED_BY(lock_);
  std::shared_ptr<CRegistryNode> root_ GUARDED_BY(lock_);
  bool is_setup_ GUARDED_BY(lock_) = false;
  bool is_dirty_ GUARDED_BY(lock_) = false;
  std::map<HKEY, std::weak_ptr<CRegistryNode>> handles_ GUARDED_BY(lock_);
  HKEY next_handle_ GUARDED_BY(lock_) = 1;
};

}  // namespace em_oidmap

#endif  // EM_PLATFORM_REGISTRY_H
