#include "msglog/Utf8.h"

#include <cstdint>
#include <cstring>

namespace em_oidmap {

namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

// The bytes of the character at `p` (n > 0 bytes left). Sets `whole` to whether they form
// a well-formed character; when not, they are the maximal subpart: the lead byte and the
// continuation bytes that could still have belonged to a character.
size_t Step(const uint8_t* p, size_t n, bool* whole) {
  const uint8_t lead = p[0];
  *whole = true;
  if (lead < 0x80) return 1;
  size_t length = 0;
  uint8_t low = 0x80, high = 0xBF;  // the range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;   // shorter forms are overlong
    if (lead == 0xED) high = 0x9F;  // ED A0..BF are surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;   // overlong
    if (lead == 0xF4) high = 0x8F;  // beyond U+10FFFF
  } else {
    *whole = false;  // a continuation byte, C0, C1 or F5..FF cannot start a character
    return 1;
  }
  size_t i = 1;
  for (; i < length && i < n; ++i) {
    const uint8_t lo = i == 1 ? low : 0x80;
    const uint8_t hi = i == 1 ? high : 0xBF;
    if (p[i] < lo || p[i] > hi) break;
  }
  *whole = i == length;
  return i;
}

}  // namespace

bool IsValidUtf8(std::string_view text) {
  const auto* p = reinterpret_cast<const uint8_t*>(text.data());
  const size_t n = text.size();
  for (size_t at = 0; at < n;) {
    // The common case, ASCII, eight bytes at a time: a message file's texts pass here
    // once each as they are indexed.
    uint64_t eight = 0;
    if (n - at >= sizeof(eight)) {
      std::memcpy(&eight, p + at, sizeof(eight));
      if ((eight & 0x8080808080808080u) == 0) {
        at += sizeof(eight);
        continue;
      }
    }
    if (p[at] < 0x80) {  // without the call
      ++at;
      continue;
    }
    bool whole = false;
    at += Step(p + at, n - at, &whole);
    if (!whole) return false;
  }
  return true;
}

bool MakeValidUtf8(std::string& text) {
  if (IsValidUtf8(text)) return false;
  std::string valid;
  valid.reserve(text.size() + 8);
  const auto* p = reinterpret_cast<const uint8_t*>(text.data());
  const size_t n = text.size();
  for (size_t at = 0; at < n;) {
    bool whole = false;
    const size_t step = Step(p + at, n - at, &whole);
    if (whole) {
      valid.append(text, at, step);
    } else {
      valid += kReplacement;
    }
    at += step;
  }
  text.swap(valid);
  return true;
}

size_t Utf8PrefixLength(std::string_view text, size_t limit) {
  if (text.size() <= limit) return text.size();
  size_t length = limit;
  while (length > 0 && (static_cast<uint8_t>(text[length]) & 0xC0) == 0x80) --length;
  return length;
}

}  // namespace em_oidmap
