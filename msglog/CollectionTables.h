// The look-ups the log collection makes for old-style records: which request asks a
// module whether a message is CSS relevant (by code class), which asks for the
// designation string of the object a message speaks of (by class and low byte), and the
// module-wide caches of the answers.
#ifndef EM_MSGLOG_COLLECTIONTABLES_H
#define EM_MSGLOG_COLLECTIONTABLES_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <unordered_map>

#include "base/Mutex.h"

namespace em_oidmap {

// A table row with this opcode asks nothing.
constexpr uint32_t kNoLookupOpcode = 0xFFFFFFFF;

// OC of the CSS support request for a code class; nullopt when the class has none.
std::optional<uint32_t> FindCssOpcode(uint8_t codeClass);
// OC of the designation request for a code: the row of class and low byte, else the
// first row of the class; nullopt when neither exists or the row found asks nothing.
std::optional<uint32_t> FindDesignationOpcode(uint8_t codeClass, uint8_t codeLow);

// The key of both caches: class, low byte, object id and cabinet as "%02X%02X%02X%04X".
std::string LogLookupKey(uint8_t codeClass, uint8_t codeLow, uint16_t objectId, uint16_t cabinet);

// The most bytes of a designation kept: the name of a fan, a sensor or a slot is a few
// dozen. A designation is stored with every old-style entry of its object.
constexpr size_t kMaxDesignationBytes = 256;
// A designation as a lower module gave it, as it is kept: valid UTF-8 (msglog/Utf8.h) of
// at most kMaxDesignationBytes, cut on a character boundary.
void SanitiseDesignation(std::string& designation);

// The most answers each look-up cache keeps. The keys come from log records (class, code,
// object, cabinet: 2^46 of them); a system has a few hundred objects whose codes ask. Past
// this the oldest answer goes (one trace line): it is asked again when it is needed.
constexpr size_t kMaxLookupCacheEntries = 16384;

// CssSupportCache and DesignationCache: answers that lower modules gave, by key, up to
// kMaxLookupCacheEntries each; a failed answer is never entered, so it is asked again
// next time.
// Thread safety: every member may be called from any thread (scans on the worker, log
// events on host threads). No lock is held while a caller asks a module.
class CLogLookupCache {
 public:
  std::optional<bool> FindCss(const std::string& key) const;
  void StoreCss(const std::string& key, bool css);
  std::optional<std::string> FindDesignation(const std::string& key) const;
  // REQUIRES: the designation is sanitised (SanitiseDesignation).
  void StoreDesignation(const std::string& key, const std::string& designation);

 private:
  // Answers by key, and the keys in the order they were entered (the oldest goes first).
  template <class V>
  struct Answers {
    std::unordered_map<std::string, V> byKey;
    std::deque<std::string> order;
    // Enters (or replaces) the answer; false when the oldest had to go to make room.
    bool Store(const std::string& key, V value);
  };
  // One line for an answer that made room (under mutex_: tracing never waits).
  static void TraceFull(const char* cache);

  mutable CMutex mutex_;
  Answers<bool> css_ GUARDED_BY(mutex_);
  Answers<std::string> designations_ GUARDED_BY(mutex_);
};

}  // namespace em_oidmap

#endif  // EM_MSGLOG_COLLECTIONTABLES_H
