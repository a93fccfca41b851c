#include "msglog/CollectionTables.h"

#include <cstdio>
#include <utility>

#include "msglog/Utf8.h"
#include "trace/DebugClient.h"

namespace em_oidmap {

namespace {

struct CssRow {
  uint8_t codeClass;
  uint32_t oc;  // 0 ends the table
};

struct DesignationRow {
  uint8_t codeClass;
  uint8_t codeLow;
  uint32_t oc;  // 0 ends the table
};

// clang-format off
constexpr CssRow kCssOpcodeTable[] = {
    {0x04, 0x0307}, {0x07, 0x0505}, {0x0C, 0x060C}, {0x15, 0x0529},
    {0x19, 0x0708}, {0x1B, 0x2113}, {0x1C, 0x2114}, {0x00, 0},
};

// Class 0x36 codes 0x0A..0x0C are kept apart from the class's general row: they name no
// object.
constexpr DesignationRow kDesignationOpcodeTable[] = {
    {0x04, 0x00, 0x0304}, {0x05, 0x00, 0x0404}, {0x10, 0x00, 0x0404},
    {0x07, 0x00, 0x0504}, {0x0C, 0x00, 0x0602}, {0x15, 0x00, 0x0522},
    {0x19, 0x00, 0x0702}, {0x19, 0x04, 0x0742}, {0x19, 0x05, 0x0742},
    {0x19, 0x22, 0x0752}, {0x19, 0x23, 0x0752}, {0x19, 0x24, 0x0752},
    {0x19, 0x28, 0x0752}, {0x19, 0x25, 0x0752}, {0x36, 0x00, 0xF042},
    {0x36, 0x0A, kNoLookupOpcode}, {0x36, 0x0B, kNoLookupOpcode},
    {0x36, 0x0C, kNoLookupOpcode}, {0x00, 0x00, 0},
};
// clang-format on

}  // namespace

std::optional<uint32_t> FindCssOpcode(uint8_t codeClass) {
  for (const CssRow* row = kCssOpcodeTable; row->oc != 0; ++row) {
    // A row that asks nothing is passed over; a later row of the class may ask.
    if (row->codeClass == codeClass && row->oc != kNoLookupOpcode) return row->oc;
  }
  return std::nullopt;
}

std::optional<uint32_t> FindDesignationOpcode(uint8_t codeClass, uint8_t codeLow) {
  const DesignationRow* found = nullptr;
  for (const DesignationRow* row = kDesignationOpcodeTable; row->oc != 0; ++row) {
    if (row->codeClass == codeClass && row->codeLow == codeLow) {
      found = row;
      break;
    }
  }
  for (const DesignationRow* row = kDesignationOpcodeTable; found == nullptr && row->oc != 0;
       ++row) {
    if (row->codeClass == codeClass) found = row;
  }
  if (found == nullptr || found->oc == kNoLookupOpcode) return std::nullopt;
  return found->oc;
}

std::string LogLookupKey(uint8_t codeClass, uint8_t codeLow, uint16_t objectId, uint16_t cabinet) {
  char key[16];
  std::snprintf(key, sizeof key, "%02X%02X%02X%04X", codeClass, codeLow, objectId, cabinet);
  return key;
}

void SanitiseDesignation(std::string& designation) {
  MakeValidUtf8(designation);
  designation.resize(Utf8PrefixLength(designation, kMaxDesignationBytes));
}

template <class V>
bool CLogLookupCache::Answers<V>::Store(const std::string& key, V value) {
  const auto [it, added] = byKey.insert_or_assign(key, std::move(value));
  if (!added) return true;
  order.push_back(key);
  if (byKey.size() <= kMaxLookupCacheEntries) return true;
  byKey.erase(order.front());
  order.pop_front();
  return false;
}

void CLogLookupCache::TraceFull(const char* cache) {
  EM_MODULE_TRACE(2, "%s cache full (%u answers): the oldest removed", cache,
                  static_cast<unsigned>(kMaxLookupCacheEntries));
}

std::optional<bool> CLogLookupCache::FindCss(const std::string& key) const {
  CMutexLock guard(mutex_);
  const auto it = css_.byKey.find(key);
  if (it == css_.byKey.end()) return std::nullopt;
  return it->second;
}

void CLogLookupCache::StoreCss(const std::string& key, bool css) {
  CMutexLock guard(mutex_);
  if (!css_.Store(key, css)) TraceFull("CSS support");
}

std::optional<std::string> CLogLookupCache::FindDesignation(const std::string& key) const {
  CMutexLock guard(mutex_);
  const auto it = designations_.byKey.find(key);
  if (it == designations_.byKey.end()) return std::nullopt;
  return it->second;
}

void CLogLookupCache::StoreDesignation(const std::string& key, const std::string& designation) {
  CMutexLock guard(mutex_);
  if (!designations_.Store(key, designation)) TraceFull("Designation");
}

}  // namespace em_oidmap
