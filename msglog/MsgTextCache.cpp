#include "msglog/MsgTextCache.h"

#include <utility>

#include "msglog/MultiStringParameter.h"

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
  CWriterLock lock(mutex_);
  maps_[static_cast<size_t>(kind)][Key(errorCode, langId)] = std::move(paragraphs);
  return true;
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

}  // namespace em_oidmap
