// The look-ups the log collection makes for old-style records: which request asks a
// module whether a message is CSS relevant (by code class), which asks for the
// designation string of the object a message speaks of (by class and low byte), and the
// module-wide caches of the answers.
#ifndef EM_MSGLOG_COLLECTIONTABLES_H
#define EM_MSGLOG_COLLECTIONTABLES_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>

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

// CssSupportCache and DesignationCache: answers that lower modules gave, by key. Both
// only grow; a failed answer is never entered, so it is asked again next time.
// Thread safety: every member may be called from any thread (scans on the worker, log
// events on host threads). No lock is held while a caller asks a module.
class CLogLookupCache {
 public:
  std::optional<bool> FindCss(const std::string& key) const;
  void StoreCss(const std::string& key, bool css);
  std::optional<std::string> FindDesignation(const std::string& key) const;
  void StoreDesignation(const std::string& key, const std::string& designation);

 private:
  mutable CMutex mutex_;
  std::map<std::string, bool> css_ GUARDED_BY(mutex_);
  std::map<std::string, std::string> designations_ GUARDED_BY(mutex_);
};

}  // namespace em_oidmap

#endif  // EM_MSGLOG_COLLECTIONTABLES_H
