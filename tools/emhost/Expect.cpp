#include "Expect.h"

#include <algorithm>
#include <cctype>
#include <regex>
#include <vector>

#include <fmt/format.h>

namespace em_oidmap::emhost {

namespace {

// Lines around a change that the diff shows, and the most lines whose differences are
// worked out line by line (beyond, the changed middle is shown whole).
constexpr size_t kContext = 3;
constexpr size_t kMaxDiffCells = 4000000;

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = text.find('\n', start);
    lines.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return lines;
}

struct Edit {
  char kind;  // ' ', '-', '+'
  std::string line;
};

// The edits from a to b: longest common subsequence of the middle that differs.
std::vector<Edit> Edits(const std::vector<std::string>& a, const std::vector<std::string>& b) {
  size_t head = 0;
  while (head < a.size() && head < b.size() && a[head] == b[head]) ++head;
  size_t tail = 0;
  while (tail < a.size() - head && tail < b.size() - head &&
         a[a.size() - 1 - tail] == b[b.size() - 1 - tail]) {
    ++tail;
  }
  const size_t n = a.size() - head - tail, m = b.size() - head - tail;
  std::vector<Edit> edits;
  for (size_t i = 0; i < head; ++i) edits.push_back({' ', a[i]});
  if ((n + 1) * (m + 1) <= kMaxDiffCells) {
    std::vector<std::vector<uint32_t>> common(n + 1, std::vector<uint32_t>(m + 1, 0));
    for (size_t i = n; i-- > 0;) {
      for (size_t j = m; j-- > 0;) {
        common[i][j] = a[head + i] == b[head + j] ? common[i + 1][j + 1] + 1
                                                  : std::max(common[i + 1][j], common[i][j + 1]);
      }
    }
    size_t i = 0, j = 0;
    while (i < n || j < m) {
      if (i < n && j < m && a[head + i] == b[head + j]) {
        edits.push_back({' ', a[head + i++]});
        ++j;
      } else if (i < n && (j == m || common[i + 1][j] >= common[i][j + 1])) {
        edits.push_back({'-', a[head + i++]});
      } else {
        edits.push_back({'+', b[head + j++]});
      }
    }
  } else {
    for (size_t i = 0; i < n; ++i) edits.push_back({'-', a[head + i]});
    for (size_t j = 0; j < m; ++j) edits.push_back({'+', b[head + j]});
  }
  for (size_t i = a.size() - tail; i < a.size(); ++i) edits.push_back({' ', a[i]});
  return edits;
}

}  // namespace

std::string MaskTimes(const std::string& text) {
  static const std::regex duration(R"(\b[0-9]+(\.[0-9]+)? ?(ms|s)\b)");
  static const std::regex clock(R"([0-9]{2}:[0-9]{2}:[0-9]{2}(\.[0-9]+)?)");
  return std::regex_replace(std::regex_replace(text, duration, "<time>"), clock, "<time>");
}

std::string DiffOutputs(const std::string& expected, const std::string& actual,
                        const std::string& expectedName, const std::string& actualName) {
  const std::vector<std::string> a = Lines(MaskTimes(expected));
  const std::vector<std::string> b = Lines(MaskTimes(actual));
  if (a == b) return "";
  const std::vector<Edit> edits = Edits(a, b);
  std::string diff = fmt::format("--- {}\n+++ {}\n", expectedName, actualName);
  // Shows every change with kContext unchanged lines around it.
  std::vector<bool> shown(edits.size(), false);
  for (size_t k = 0; k < edits.size(); ++k) {
    if (edits[k].kind == ' ') continue;
    const size_t from = k >= kContext ? k - kContext : 0;
    const size_t to = std::min(edits.size(), k + kContext + 1);
    std::fill(shown.begin() + static_cast<ptrdiff_t>(from),
              shown.begin() + static_cast<ptrdiff_t>(to), true);
  }
  for (size_t k = 0; k < edits.size(); ++k) {
    if (!shown[k]) continue;
    if (k > 0 && !shown[k - 1]) diff += "...\n";
    diff += edits[k].kind + edits[k].line + "\n";
  }
  return diff;
}

}  // namespace em_oidmap::emhost
