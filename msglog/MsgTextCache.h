// CMsgTextCache: the message texts that the lower modules delivered, kept for the module's
// life so that a text is asked for only once: long text and summary (one string each),
// causes and resolutions (a list of paragraphs each), keyed by (error code, language id).
//
// Only texts that were found are stored: an empty text or an empty paragraph list is
// refused, so a lookup that failed is asked again next time.
//
// The keys are chosen by clients (any code, any language id), so the cache keeps at most
// kMaxTextCacheBytes: past that the texts stored first go (one trace line per store that
// evicts), and are asked for again when they are needed.
//
// Paragraph numbers count from 0, as the paragraphs of a message file do.
//
// Thread safety: every member may be called from several threads at the same time
// (request threads read, the task thread fills).
#ifndef EM_MSGLOG_MSGTEXTCACHE_H
#define EM_MSGLOG_MSGTEXTCACHE_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/Mutex.h"

namespace em_oidmap {

enum class MsgTextKind { kLongText, kSummary, kCauses, kResolutions };

// The most bytes the texts of all kinds hold together (texts and their keeping, as
// TextBytes counts them). A system's message texts, a few thousand codes in a few
// languages of a few hundred bytes each, stay far below.
constexpr size_t kMaxTextCacheBytes = 16u << 20;

// The result of asking for one paragraph.
enum class ParagraphLookup {
  kFound,
  kTooHigh,    // the list is cached but has no paragraph of that number
  kNotCached,  // nothing cached for the code and language: ask the lower modules
};

class CMsgTextCache {
 public:
  // The first (for long text and summary: the only) string cached for the key; false
  // when nothing is cached.
  bool FindText(MsgTextKind kind, uint32_t errorCode, uint16_t langId, std::string* text) const;
  // The whole paragraph list; false when nothing is cached.
  bool FindParagraphs(MsgTextKind kind, uint32_t errorCode, uint16_t langId,
                      std::vector<std::string>* paragraphs) const;
  // Paragraph `number` (from 0).
  ParagraphLookup FindParagraph(MsgTextKind kind, uint32_t errorCode, uint16_t langId,
                                uint32_t number, std::string* text) const;

  // Stores (replacing) the text or list of the key. Returns false, storing nothing, for an
  // empty text or list, or one larger than the whole cache.
  bool PutText(MsgTextKind kind, uint32_t errorCode, uint16_t langId, std::string text);
  bool PutParagraphs(MsgTextKind kind, uint32_t errorCode, uint16_t langId,
                     std::vector<std::string> paragraphs);
  // Fills the help-desk text into the paragraphs (ReplaceParameter with "%HD%") and
  // stores them as the key's resolutions.
  bool PutResolutions(uint32_t errorCode, uint16_t langId, std::vector<std::string> paragraphs,
                      const std::string& helpDeskText);

  // Number of keys cached for `kind`, and the bytes all kinds hold.
  size_t Size(MsgTextKind kind) const;
  size_t Bytes() const;

  // The bytes one key's paragraphs count for: their characters and what keeps them.
  static size_t TextBytes(const std::vector<std::string>& paragraphs);

 private:
  using Map = std::unordered_map<uint64_t, std::vector<std::string>>;
  static uint64_t Key(uint32_t errorCode, uint16_t langId) {
    return (static_cast<uint64_t>(errorCode) << 16) | langId;
  }
  const Map& MapOf(MsgTextKind kind) const REQUIRES_SHARED(mutex_) {
    return maps_[static_cast<size_t>(kind)];
  }
  // Removes the oldest keys until `bytes_` is within the ceiling; returns how many.
  size_t EvictOldest() REQUIRES(mutex_);

  mutable CSharedMutex mutex_;
  Map maps_[4] GUARDED_BY(mutex_);
  std::deque<std::pair<MsgTextKind, uint64_t>> order_ GUARDED_BY(mutex_);  // oldest first
  size_t bytes_ GUARDED_BY(mutex_) = 0;
};

}  // namespace em_oidmap

#endif  // EM_MSGLOG_MSGTEXTCACHE_H
