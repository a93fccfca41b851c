#include "msglog/MsgTextCache.h"

#include <utility>

#include "msglog/MultiStringParameter.h"
#include "trace/DebugClient.h"

namespace em_oidmap {

bool CMsgTextCache::FindText(MsgTextKind kind, uint32_t errorCode, uint16_t langId,
                             std::string* text) const {
  CReaderLock lock(mutex_);
  const Map& map = MapOf(kind);
  const auto it = map.find(Key(errorCode, langId));
  if (it == map.end()) return false;
  *text = it->second.front();
  return true;
}

bool CMsgTextCache::FindParagraphs(MsgTextKind kind, uint32_t errorCode, uint16_t langId,
                                   std::vector<std::string>* paragraphs) const {
  CReaderLock lock(mutex_);
  const Map& map = MapOf(kind);
  const auto it = map.find(Key(errorCode, langId));
  if (it == map.end()) return false;
  *paragraphs = it->second;
  return true;
}

ParagraphLookup CMsgTextCache::FindParagraph(MsgTextKind kind, uint32_t errorCode, uint16_t langId,
                                             uint32_t number, std::string* text) const {
  CReaderLock lock(mutex_);
  const Map& map = MapOf(kind);
  const auto it = map.find(Key(errorCode, langId));
  if (it == map.end()) return ParagraphLookup::kNotCached;
  if (number >= it->second.size()) return ParagraphLookup::kTooHigh;
  *text = it->second[number];
  return ParagraphLookup::kFound;
}

bool CMsgTextCache::PutText(MsgTextKind kind, uint32_t errorCode, uint16_t langId,
                            std::string text) {
  if (text.empty()) return false;
  return PutParagraphs(kind, errorCode, langId, {std::move(text)});
}

bool CMsgTextCache::PutParagraphs(MsgTextKind kind, uint32_t errorCode, uint16_t langId,
                                  std::vector<std::string> paragraphs) {
  if (paragraphs.empty()) return false;
  const size_t bytes = TextBytes(paragraphs);
  if (bytes > kMaxTextCacheBytes) {
    EM_MODULE_TRACE(1, "## WARNING! Message text of %u bytes exceeds the text cache - not cached",
                    static_cast<unsigned>(bytes));
    return false;
  }
  size_t evicted = 0;
  {
    CWriterLock lock(mutex_);
    Map& map = maps_[static_cast<size_t>(kind)];
    const auto [it, added] = map.try_emplace(Key(errorCode, langId));
    if (added) {
      order_.emplace_back(kind, it->first);
    } else {
      bytes_ -= TextBytes(it->second);
    }
    it->second = std::move(paragraphs);
    bytes_ += bytes;
    evicted = EvictOldest();
  }
  if (evicted != 0) {
    EM_MODULE_TRACE(2, "Message text cache full: %u oldest texts removed",
                    static_cast<unsigned>(evicted));
  }
  return true;
}

size_t CMsgTextCache::EvictOldest() {
  size_t evicted = 0;
  while (bytes_ > kMaxTextCacheBytes) {
    const auto [kind, key] = order_.front();
    order_.pop_front();
    Map& map = maps_[static_cast<size_t>(kind)];
    const auto it = map.find(key);
    bytes_ -= TextBytes(it->second);
    map.erase(it);
    ++evicted;
  }
  return evicted;
}

size_t CMsgTextCache::TextBytes(const std::vector<std::string>& paragraphs) {
  // A key's node and list, and each paragraph's string with its characters.
  size_t bytes = 64;
  for (const std::string& paragraph : paragraphs) bytes += sizeof(std::string) + paragraph.size();
  return bytes;
}

bool CMsgTextCache::PutResolutions(uint32_t errorCode, uint16_t langId,
                                   std::vector<std::string> paragraphs,
                                   const std::string& helpDeskText) {
  ReplaceParameter(paragraphs, kHelpDeskParameter, helpDeskText, 0);
  return PutParagraphs(MsgTextKind::kResolutions, errorCode, langId, std::move(paragraphs));
}

size_t CMsgTextCache::Size(MsgTextKind kind) const {
  CReaderLock lock(mutex_);
  return MapOf(kind).size();
}

size_t CMsgTextCache::Bytes() const {
  CReaderLock lock(mutex_);
  return bytes_;
}

}  // namespace em_oidmap
