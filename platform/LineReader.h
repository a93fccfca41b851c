// Bounded line reading shared by the registry and profile files.
#ifndef EM_PLATFORM_LINEREADER_H
#define EM_PLATFORM_LINEREADER_H

#include <cstdio>
#include <string>

namespace em_oidmap {

namespace platform_detail {

struct BoundedLine {
  std::string text;  // without the line feed; cut at the first NUL byte
  bool had_newline = false;
  bool truncated = false;  // the line was longer than the cap: its rest was skipped
};

// Reads one line of `file`, keeping at most `capBytes` - 1 bytes (as fgets into a buffer
// of `capBytes` would) and consuming the rest of an overlong line up to its line feed,
// so that the rest is never taken for a line of its own. Returns false at the end of the
// file when nothing was read.
inline bool ReadBoundedLine(FILE* file, size_t capBytes, BoundedLine* line) {
  line->text.clear();
  line->had_newline = false;
  line->truncated = false;
  bool any = false;
  bool nul_seen = false;
  const size_t keep = capBytes > 0 ? capBytes - 1 : 0;
  int c;
  while ((c = getc(file)) != EOF) {
    any = true;
    if (c == '\n') {
      line->had_newline = true;
      break;
    }
    if (c == '\0') nul_seen = true;
    if (line->text.size() < keep) {
      if (!nul_seen) line->text.push_back(static_cast<char>(c));
    } else {
      line->truncated = true;
    }
  }
  return any;
}

}  // namespace platform_detail

}  // namespace em_oidmap

#endif  // EM_PLATFORM_LINEREADER_H
