#include "runtime/NamedEventTable.h"

#include <cstring>

#include "runtime/NeverDestroyed.h"

namespace em_oidmap {

std::unique_ptr<char[]> CopyEventName(const char* name) {
  size_t len = strlen(name);
  std::unique_ptr<char[]> copy(new char[len + 1]);
  memcpy(copy.get(), name, len + 1);
  return copy;
}

int CompareEventNames(const char* a, const char* b) {
  if (a == nullptr) return b == nullptr ? 0 : 1;
  if (b == nullptr) return -1;
  return strcmp(a, b);
}

NamedEventTable& Table() {
  static NeverDestroyed<NamedEventTable> table;
  return table.Get();
}

}  // namespace em_oidmap
