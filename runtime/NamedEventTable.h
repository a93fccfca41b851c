// The process-wide table of named events, kept sorted by name, that CEvent::Create
// looks a name up in so that a second Create of the same name shares the event. Internal
// to the runtime (runtime/Event.cpp).
//
// Thread safety: every member of the table is called with NameTableLock() held.
#ifndef EM_RUNTIME_NAMEDEVENTTABLE_H
#define EM_RUNTIME_NAMEDEVENTTABLE_H

#include <algorithm>
#include <cstdint>
#include <memory>

#include "base/ThreadAnnotations.h"
#include "runtime/Event.h"
#include "runtime/RecursiveLock.h"

namespace em_oidmap {

// A heap copy of `name`.
std::unique_ptr<char[]> CopyEventName(const char* name);
// strcmp order, with a missing name after every present one: cleared entries sort last.
int CompareEventNames(const char* a, const char* b);

struct NameEntry {
  std::unique_ptr<char[]> name;  // owned by the table
  CEventObject* event = nullptr;
  uintptr_t reserved = 0;  // always 0
};

// The process-wide table of named events, kept sorted by name. Every member is called
// with NameTableLock() held.
class NamedEventTable {
 public:
  NameEntry* Find(const char* name) REQUIRES(NameTableLock()) {
    NameEntry* begin = entries_.get();
    NameEntry* end = begin + count_;
    NameEntry* it = std::lower_bound(begin, end, name, [](const NameEntry& e, const char* n) {
      return CompareEventNames(e.name.get(), n) < 0;
    });
    if (it != end && CompareEventNames(it->name.get(), name) == 0) return it;
    return nullptr;
  }

  // Appends an entry with a copy of `name`; the caller sorts afterwards.
  NameEntry* Append(const char* name) REQUIRES(NameTableLock()) {
    if (count_ >= capacity_) Grow();
    NameEntry* entry = &entries_[count_++];
    entry->name = CopyEventName(name);
    entry->event = nullptr;
    entry->reserved = 0;
    return entry;
  }

  // Frees the entry's name and drops it: it sorts to the end and falls out of the count.
  void Remove(NameEntry* entry) REQUIRES(NameTableLock()) {
    entry->name.reset();
    entry->event = nullptr;
    Sort();
    --count_;
  }

  void Sort() REQUIRES(NameTableLock()) {
    std::sort(entries_.get(), entries_.get() + count_, [](const NameEntry& a, const NameEntry& b) {
      return CompareEventNames(a.name.get(), b.name.get()) < 0;
    });
  }

  NamedEventTableStats Stats() const REQUIRES(NameTableLock()) { return {count_, capacity_}; }

 private:
  void Grow() REQUIRES(NameTableLock()) {
    size_t capacity = count_ + 16;
    std::unique_ptr<NameEntry[]> grown(new NameEntry[capacity]());
    std::move(entries_.get(), entries_.get() + count_, grown.get());
    entries_ = std::move(grown);
    capacity_ = capacity;
  }

  std::unique_ptr<NameEntry[]> entries_ GUARDED_BY(NameTableLock());
  size_t count_ GUARDED_BY(NameTableLock()) = 0;
  size_t capacity_ GUARDED_BY(NameTableLock()) = 0;
};

// The table; never destroyed, like the locks: events may be released during static
// destruction.
NamedEventTable& Table();

}  // namespace em_oidmap

#endif  // EM_RUNTIME_NAMEDEVENTTABLE_H
