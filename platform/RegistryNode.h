// CRegistryNode: one key of the emulated registry. It holds the key's values and its
// sub-keys as one array of entries sorted by name, looked up by binary search, and reads
// and writes itself in the registry's text file format:
//
//   name=s=text            string                 name=d=-12      32-bit number
//   name=es=text           expandable string      name=b=01 ff    binary (hex byte + blank)
//   [child]                a sub-key, followed by the child's own lines
//   (empty line)           ends the node
//
// A node writes its values first, then each sub-key as a header and the child's lines,
// then the empty line. A string entry without text is not written.
//
// Ownership: a node owns its children through shared pointers; CRegistry keeps only weak
// references to nodes behind its handles, so a deleted key's handle cannot dangle.
// Thread safety: every member takes the node's own recursive lock.
#ifndef EM_PLATFORM_REGISTRYNODE_H
#define EM_PLATFORM_REGISTRYNODE_H

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "runtime/RecursiveLock.h"

namespace em_oidmap {

// Entry types, with the operating-system names for the value kinds.
constexpr int32_t REG_SZ = 1;
constexpr int32_t REG_EXPAND_SZ = 2;
constexpr int32_t REG_BINARY = 3;
constexpr int32_t REG_DWORD = 4;
constexpr int32_t REG_KEY = 666;

// Lines of the registry file are read in pieces of at most this many bytes (terminating
// NUL included); the rest of a longer line is skipped.
constexpr size_t kRegistryLineBytes = 1024;
// Sub-keys nested deeper than this in a file are skipped with a trace.
constexpr int kRegistryMaxDepth = 64;

// The value of one entry. Which members matter depends on `type`.
struct RegistryValue {
  int32_t type = REG_SZ;
  bool has_text = false;       // REG_SZ / REG_EXPAND_SZ: false for an entry without text
  std::string text;            // REG_SZ / REG_EXPAND_SZ
  std::vector<uint8_t> bytes;  // REG_BINARY
  int32_t number = 0;          // REG_DWORD

  static RegistryValue String(std::string s, int32_t type = REG_SZ);
  static RegistryValue Binary(std::vector<uint8_t> b);
  static RegistryValue Number(int32_t n);
  bool operator==(const RegistryValue& other) const;
};

// strcmp order with a missing name (null) after every present name.
int CompareRegistryNames(const char* a, const char* b);

class CRegistryNode {
 public:
  enum class DeleteResult { kDeleted, kNotFound, kHasSubKeys };

  CRegistryNode() = default;
  CRegistryNode(const CRegistryNode&) = delete;
  CRegistryNode& operator=(const CRegistryNode&) = delete;

  // Values. A value and a sub-key may share a name, as in the system registry.
  // Copies the value named `name` into *out; false when there is none.
  bool GetValue(const std::string& name, RegistryValue* out) const;
  // Adds or replaces a value (REQUIRES: value.type is not REG_KEY). Returns the address
  // of the stored entry, for traces only: it is not valid after the next change.
  const void* SetValue(const std::string& name, RegistryValue value);
  bool DeleteValue(const std::string& name);

  // Sub-keys.
  std::shared_ptr<CRegistryNode> FindKey(const std::string& name) const;
  // Finds or creates the sub-key; *created (optional) tells which.
  std::shared_ptr<CRegistryNode> AddKey(const std::string& name, bool* created = nullptr);
  // Nesting level: 0 for a root, parent's + 1 for a sub-key.
  int Depth() const { return depth_; }
  // Removes a sub-key that has no sub-keys of its own (its values go with it).
  DeleteResult DeleteKey(const std::string& name);
  bool HasSubKeys() const;

  // Names in entry order.
  std::vector<std::string> ValueNames() const;
  std::vector<std::string> KeyNames() const;
  size_t EntryCount() const;

  // Writes the node's lines, its children and the closing empty line. Returns false when
  // the stream reported an error. A child is written after its parent's lock is
  // released: callers that need a consistent picture of the whole tree serialise changes
  // themselves (CRegistry holds its lock).
  bool Write(FILE* file) const;
  // Reads lines up to the end of the file or the empty line that ends this node, and
  // adds what they describe; sub-keys below kRegistryMaxDepth are skipped with a trace.
  // The node's own entries appear once its lines are read, in O(n log n) for n lines
  // whatever their order. Returns the number of entries created, children's included.
  size_t Read(FILE* file);

 private:
  struct Entry {
    std::string name;
    RegistryValue value;                   // unused for keys
    std::shared_ptr<CRegistryNode> child;  // set for keys only
    bool IsKey() const { return child != nullptr; }
  };

  // Index of the first entry not ordered before (name, isKey), or the end.
  size_t LowerBound(const std::string& name, bool isKey) const REQUIRES(lock_);
  // Index of the entry, or -1.
  long Find(const std::string& name, bool isKey) const REQUIRES(lock_);
  bool HasSubKeysLocked() const REQUIRES(lock_);
  // Adds entries whose (name, isKey) pairs are distinct, in O((n + m) log m).
  void MergeSorted(std::vector<Entry> added) EXCLUDES(lock_);
  // Parts of Read: a "[name]" line and the sub-key's own lines after it, and a value
  // line. Each returns the entries it created.
  struct PendingEntries;
  size_t ReadSubKey(FILE* file, const std::string& header, PendingEntries& pending);
  static bool ReadValueLine(const std::string& line, PendingEntries& pending);

  int depth_ = 0;
  mutable CRecursiveLock lock_;
  // Sorted by name, values before keys of the same name.
  std::vector<Entry> entries_ GUARDED_BY(lock_);
};

}  // namespace em_oidmap

#endif  // EM_PLATFORM_REGISTRYNODE_H
