// Text that the module builds for its clients (log page records, cached message texts,
// designations) is valid UTF-8. Text from outside (a lower module's strings, message
// files) is made so once, where it comes in: every ill-formed sequence becomes U+FFFD.
// Data the module only passes on (forwarded replies and events) is never touched.
//
// Replacement follows the Unicode "maximal subpart" practice, as browsers decode: a byte
// that cannot start a character, and each longest prefix of a character that cannot be
// completed, is one U+FFFD. So a lone surrogate (ED A0 80) or an overlong form (C0 80,
// E0 80 80) gives one U+FFFD per byte, and a Latin-1 byte one U+FFFD.
#ifndef EM_MSGLOG_UTF8_H
#define EM_MSGLOG_UTF8_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace em_oidmap {

// True when `text` is well-formed UTF-8 (surrogates and overlong forms are not).
bool IsValidUtf8(std::string_view text);

// True when no byte of `text` has its high bit set: ASCII, so valid UTF-8. Inline, eight
// bytes at a time, for callers that check many short texts and rarely meet anything else.
inline bool IsAscii(const char* text, size_t size) {
  uint64_t any = 0;
  if (size >= 8) {
    size_t at = 0;
    for (; at + 8 < size; at += 8) {
      uint64_t eight = 0;
      std::memcpy(&eight, text + at, 8);
      any |= eight;
    }
    uint64_t last = 0;  // the last eight bytes, overlapping the words before
    std::memcpy(&last, text + size - 8, 8);
    any |= last;
  } else if (size >= 4) {
    uint32_t first = 0, last = 0;
    std::memcpy(&first, text, 4);
    std::memcpy(&last, text + size - 4, 4);
    any = first | last;
  } else {
    for (size_t at = 0; at < size; ++at) any |= static_cast<unsigned char>(text[at]);
  }
  return (any & 0x8080808080808080u) == 0;
}

// Replaces every ill-formed sequence of `text` by U+FFFD (EF BF BD), in place; returns
// whether anything was replaced. Valid text is left as it is without a copy.
bool MakeValidUtf8(std::string& text);

// The length of the longest prefix of valid UTF-8 `text` that is at most `limit` bytes
// and ends on a character boundary.
size_t Utf8PrefixLength(std::string_view text, size_t limit);

}  // namespace em_oidmap

#endif  // EM_MSGLOG_UTF8_H
