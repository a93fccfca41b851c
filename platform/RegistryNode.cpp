#include "platform/RegistryNode.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

#include "platform/LineReader.h"
#include "trace/DebugClient.h"

namespace em_oidmap {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// Bytes written as one or two hex digits, each followed by blanks or the end. Reading
// stops at the first thing that is not such a byte; *junk tells whether it stopped early.
std::vector<uint8_t> ParseHexBytes(const char* p, bool* junk) {
  std::vector<uint8_t> bytes;
  *junk = false;
  for (;;) {
    while (IsBlank(*p)) ++p;
    if (*p == '\0') break;
    int hi = HexValue(p[0]);
    if (hi < 0) {
      *junk = true;
      break;
    }
    int lo = HexValue(p[1]);
    int value = hi;
    const char* next = p + 1;
    if (lo >= 0) {
      value = hi * 16 + lo;
      next = p + 2;
    }
    if (*next != '\0' && !IsBlank(*next)) {
      *junk = true;
      break;
    }
    bytes.push_back(static_cast<uint8_t>(value));
    p = next;
  }
  return bytes;
}

// A signed decimal number; false when the text holds no digits.
bool ParseDecimal(const char* p, int32_t* out) {
  errno = 0;
  char* end = nullptr;
  long long value = strtoll(p, &end, 10);
  if (end == p) return false;
  if (value > INT32_MAX) value = INT32_MAX;
  if (value < INT32_MIN) value = INT32_MIN;
  *out = static_cast<int32_t>(value);
  return true;
}

// Consumes the lines of a sub-tree that is not read: up to the empty line that ends it,
// passing over the sub-trees nested in it. Iterative, so the depth of the file does not
// matter.
void SkipSubTree(FILE* file) {
  platform_detail::BoundedLine line;
  size_t open = 1;
  while (open > 0 && platform_detail::ReadBoundedLine(file, kRegistryLineBytes, &line)) {
    const std::string& t = line.text;
    if (t.empty()) {
      --open;
    } else if (t[0] == '[' && t.find(']') != std::string::npos) {
      ++open;
    }
  }
}

}  // namespace

RegistryValue RegistryValue::String(std::string s, int32_t type) {
  RegistryValue v;
  v.type = type;
  v.has_text = true;
  v.text = std::move(s);
  return v;
}

RegistryValue RegistryValue::Binary(std::vector<uint8_t> b) {
  RegistryValue v;
  v.type = REG_BINARY;
  v.bytes = std::move(b);
  return v;
}

RegistryValue RegistryValue::Number(int32_t n) {
  RegistryValue v;
  v.type = REG_DWORD;
  v.number = n;
  return v;
}

bool RegistryValue::operator==(const RegistryValue& o) const {
  if (type != o.type) return false;
  switch (type) {
    case REG_SZ:
    case REG_EXPAND_SZ:
      return has_text == o.has_text && text == o.text;
    case REG_BINARY:
      return bytes == o.bytes;
    case REG_DWORD:
      return number == o.number;
    default:
      return true;
  }
}

int CompareRegistryNames(const char* a, const char* b) {
  if (a == nullptr) return b == nullptr ? 0 : 1;
  if (b == nullptr) return -1;
  return strcmp(a, b);
}

size_t CRegistryNode::LowerBound(const std::string& name, bool isKey) const {
  auto it = std::lower_bound(entries_.begin(), entries_.end(), 0, [&](const Entry& e, int) {
    int c = CompareRegistryNames(e.name.c_str(), name.c_str());
    if (c != 0) return c < 0;
    return !e.IsKey() && isKey;
  });
  return static_cast<size_t>(it - entries_.begin());
}

long CRegistryNode::Find(const std::string& name, bool isKey) const {
  size_t i = LowerBound(name, isKey);
  if (i < entries_.size() && entries_[i].name == name && entries_[i].IsKey() == isKey) {
    return static_cast<long>(i);
  }
  return -1;
}

bool CRegistryNode::GetValue(const std::string& name, RegistryValue* out) const {
  CRecursiveLockGuard guard(lock_);
  long i = Find(name, false);
  if (i < 0) return false;
  *out = entries_[i].value;
  return true;
}

const void* CRegistryNode::SetValue(const std::string& name, RegistryValue value) {
  CRecursiveLockGuard guard(lock_);
  long i = Find(name, false);
  if (i >= 0) {
    entries_[i].value = std::move(value);
    return &entries_[i];
  }
  size_t at = LowerBound(name, false);
  Entry entry;
  entry.name = name;
  entry.value = std::move(value);
  auto it = entries_.insert(entries_.begin() + static_cast<long>(at), std::move(entry));
  return &*it;
}

bool CRegistryNode::DeleteValue(const std::string& name) {
  CRecursiveLockGuard guard(lock_);
  long i = Find(name, false);
  if (i < 0) return false;
  entries_.erase(entries_.begin() + i);
  return true;
}

std::shared_ptr<CRegistryNode> CRegistryNode::FindKey(const std::string& name) const {
  CRecursiveLockGuard guard(lock_);
  long i = Find(name, true);
  return i < 0 ? nullptr : entries_[i].child;
}

std::shared_ptr<CRegistryNode> CRegistryNode::AddKey(const std::string& name, bool* created) {
  CRecursiveLockGuard guard(lock_);
  long i = Find(name, true);
  if (created) *created = i < 0;
  if (i >= 0) return entries_[i].child;
  Entry entry;
  entry.name = name;
  entry.value.type = REG_KEY;
  entry.child = std::make_shared<CRegistryNode>();
  entry.child->depth_ = depth_ + 1;
  auto child = entry.child;
  entries_.insert(entries_.begin() + static_cast<long>(LowerBound(name, true)), std::move(entry));
  return child;
}

bool CRegistryNode::HasSubKeysLocked() const {
  return std::any_of(entries_.begin(), entries_.end(), [](const Entry& e) { return e.IsKey(); });
}

bool CRegistryNode::HasSubKeys() const {
  CRecursiveLockGuard guard(lock_);
  return HasSubKeysLocked();
}

CRegistryNode::DeleteResult CRegistryNode::DeleteKey(const std::string& name) {
  CRecursiveLockGuard guard(lock_);
  long i = Find(name, true);
  if (i < 0) return DeleteResult::kNotFound;
  // Lock order is parent before child everywhere.
  if (entries_[i].child->HasSubKeys()) return DeleteResult::kHasSubKeys;
  EM_TRACE(4, "CRegistryNode::deleteNode \"%s\"\n", name.c_str());
  entries_.erase(entries_.begin() + i);
  return DeleteResult::kDeleted;
}

std::vector<std::string> CRegistryNode::ValueNames() const {
  CRecursiveLockGuard guard(lock_);
  std::vector<std::string> names;
  for (const Entry& e : entries_) {
    if (!e.IsKey()) names.push_back(e.name);
  }
  return names;
}

std::vector<std::string> CRegistryNode::KeyNames() const {
  CRecursiveLockGuard guard(lock_);
  std::vector<std::string> names;
  for (const Entry& e : entries_) {
    if (e.IsKey()) names.push_back(e.name);
  }
  return names;
}

size_t CRegistryNode::EntryCount() const {
  CRecursiveLockGuard guard(lock_);
  return entries_.size();
}

bool CRegistryNode::Write(FILE* file) const {
  std::vector<std::pair<std::string, std::shared_ptr<CRegistryNode>>> children;
  {
    CRecursiveLockGuard guard(lock_);
    for (const Entry& e : entries_) {
      if (e.IsKey()) continue;
      const RegistryValue& v = e.value;
      switch (v.type) {
        case REG_SZ:
        case REG_EXPAND_SZ:
          if (v.has_text) {
            fprintf(file, "%s%s%s\n", e.name.c_str(),
                    v.type == REG_SZ ? "=s=" : "=es=", v.text.c_str());
          }
          break;
        case REG_DWORD:
          fprintf(file, "%s%s%d\n", e.name.c_str(), "=d=", v.number);
          break;
        case REG_BINARY: {
          std::string line = e.name + "=b=";
          for (uint8_t b : v.bytes) {
            line.push_back(kHexDigits[b >> 4]);
            line.push_back(kHexDigits[b & 0x0F]);
            line.push_back(' ');
          }
          line.push_back('\n');
          fputs(line.c_str(), file);
          break;
        }
        default:
          break;
      }
    }
    for (const Entry& e : entries_) {
      if (e.IsKey()) children.emplace_back(e.name, e.child);
    }
  }
  // Not under this node's lock: a deep tree would otherwise hold one lock per level.
  for (const auto& child : children) {
    fprintf(file, "[%s]\n", child.first.c_str());
    child.second->Write(file);
  }
  fputs("\n", file);
  return ferror(file) == 0;
}

// The entries one Read gathers for its node before they are merged in.
struct CRegistryNode::PendingEntries {
  std::vector<Entry> entries;
  std::unordered_map<std::string, size_t> valueAt;  // name -> index in entries
  std::unordered_map<std::string, std::shared_ptr<CRegistryNode>> keys;

  void SetValue(std::string name, RegistryValue value) {
    auto found = valueAt.find(name);
    if (found != valueAt.end()) {
      entries[found->second].value = std::move(value);  // a later line wins, as SetValue
      return;
    }
    valueAt.emplace(name, entries.size());
    Entry entry;
    entry.name = std::move(name);
    entry.value = std::move(value);
    entries.push_back(std::move(entry));
  }
};

size_t CRegistryNode::Read(FILE* file) {
  // The node's lines are gathered apart and sorted once at the end: inserting each into
  // the sorted entries would shift the array per line, quadratic for a file in reverse
  // order. The lock is taken for lookups and the final merge only, not across a child's
  // reading, so that nesting does not pile up locks.
  PendingEntries pending;
  size_t created = 0;
  platform_detail::BoundedLine line;
  while (platform_detail::ReadBoundedLine(file, kRegistryLineBytes, &line)) {
    const std::string& t = line.text;
    if (t.empty()) break;  // the empty line ends this node
    if (line.truncated) {
      EM_TRACE(1, "CRegistry: WARNING: line longer than %d bytes cut: \"%.40s...\"\n",
               static_cast<int>(kRegistryLineBytes - 1), t.c_str());
    }
    if (t[0] == '[') {
      created += ReadSubKey(file, t, pending);
    } else if (ReadValueLine(t, pending)) {
      ++created;
    }
  }
  MergeSorted(std::move(pending.entries));
  return created;
}

size_t CRegistryNode::ReadSubKey(FILE* file, const std::string& header, PendingEntries& pending) {
  size_t close = header.find(']');
  if (close == std::string::npos) return 0;
  std::string name = header.substr(1, close - 1);
  if (depth_ + 1 > kRegistryMaxDepth) {
    EM_TRACE(1, "CRegistry: WARNING: key \"%s\" nested deeper than %d levels skipped\n",
             name.c_str(), kRegistryMaxDepth);
    SkipSubTree(file);
    return 0;
  }
  // A repeated header adds to the key read before, as AddKey would.
  std::shared_ptr<CRegistryNode> child = FindKey(name);
  if (!child) {
    std::shared_ptr<CRegistryNode>& slot = pending.keys[name];
    if (!slot) {
      slot = std::make_shared<CRegistryNode>();
      slot->depth_ = depth_ + 1;
      Entry entry;
      entry.name = name;
      entry.value.type = REG_KEY;
      entry.child = slot;
      pending.entries.push_back(std::move(entry));
    }
    child = slot;
  }
  return 1 + child->Read(file);
}

bool CRegistryNode::ReadValueLine(const std::string& t, PendingEntries& pending) {
  size_t eq = t.find('=');
  if (eq == std::string::npos) return false;
  std::string name = t.substr(0, eq);
  const char* marker = t.c_str() + eq;
  if (strncmp(marker, "=s=", 3) == 0) {
    pending.SetValue(std::move(name), RegistryValue::String(marker + 3, REG_SZ));
  } else if (strncmp(marker, "=es=", 4) == 0) {
    pending.SetValue(std::move(name), RegistryValue::String(marker + 4, REG_EXPAND_SZ));
  } else if (strncmp(marker, "=d=", 3) == 0) {
    int32_t number = 0;
    if (!ParseDecimal(marker + 3, &number)) return false;
    pending.SetValue(std::move(name), RegistryValue::Number(number));
  } else if (strncmp(marker, "=b=", 3) == 0) {
    bool junk = false;
    std::vector<uint8_t> bytes = ParseHexBytes(marker + 3, &junk);
    if (junk) {
      EM_TRACE(1, "CRegistry: WARNING: binary value \"%s\" holds junk after %d bytes\n",
               name.c_str(), static_cast<int>(bytes.size()));
    }
    pending.SetValue(std::move(name), RegistryValue::Binary(std::move(bytes)));
  } else {
    return false;
  }
  return true;
}

void CRegistryNode::MergeSorted(std::vector<Entry> added) {
  // (name, isKey) is unique within `added`, so the sort needs no stability.
  auto before = [](const Entry& a, const Entry& b) {
    int c = CompareRegistryNames(a.name.c_str(), b.name.c_str());
    if (c != 0) return c < 0;
    return !a.IsKey() && b.IsKey();
  };
  std::sort(added.begin(), added.end(), before);
  CRecursiveLockGuard guard(lock_);
  if (entries_.empty()) {
    entries_ = std::move(added);
    return;
  }
  std::vector<Entry> merged;
  merged.reserve(entries_.size() + added.size());
  auto a = entries_.begin();
  auto b = added.begin();
  while (a != entries_.end() || b != added.end()) {
    if (b == added.end() || (a != entries_.end() && before(*a, *b))) {
      merged.push_back(std::move(*a++));
    } else if (a == entries_.end() || before(*b, *a)) {
      merged.push_back(std::move(*b++));
    } else if (!b->IsKey()) {  // a value read again replaces the one held
      a->value = std::move(b->value);
      merged.push_back(std::move(*a++));
      ++b;
    } else {
      // Only when another caller added the key meanwhile: its node stays and the lines
      // read here are dropped. The registry reads into nodes nobody else sees yet.
      merged.push_back(std::move(*a++));
      ++b;
    }
  }
  entries_ = std::move(merged);
}

}  // namespace em_oidmap
