// Helpers of the message text tests: a scratch directory and record building.
#ifndef EM_TESTS_MSGLOG_MSGTEXTTESTUTIL_H
#define EM_TESTS_MSGLOG_MSGTEXTTESTUTIL_H

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace msgtext_test {

// A fresh directory, removed with its contents at the end of the scope.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "msgtextXXXXXX").string();
    path_ = mkdtemp(&pattern[0]) ? pattern : std::string();
  }
  ~TempDir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& Path() const { return path_; }
  std::string Write(const std::string& name, const std::string& content) const {
    const std::string file = path_ + "/" + name;
    std::ofstream(file, std::ios::binary) << content;
    return file;
  }

 private:
  std::string path_;
};

// An old-style record: code bytes, argument count, order value 0, then `tail` from byte 8.
inline std::vector<uint8_t> Record(uint8_t cls, uint8_t low, uint8_t n,
                                   const std::vector<uint8_t>& tail) {
  std::vector<uint8_t> r = {low, cls, 0, n, 0, 0, 0, 0};
  r.insert(r.end(), tail.begin(), tail.end());
  return r;
}

// Little-endian bytes of 16- and 32-bit values, for record tails.
inline void Put16(std::vector<uint8_t>& v, uint16_t x) {
  v.push_back(static_cast<uint8_t>(x));
  v.push_back(static_cast<uint8_t>(x >> 8));
}
inline void Put32(std::vector<uint8_t>& v, uint32_t x) {
  for (int i = 0; i < 4; ++i) v.push_back(static_cast<uint8_t>(x >> (8 * i)));
}

// A record with the 16-bit values `a`, `b` at bytes 8 and 10 and `wide` from byte 12;
// the argument count is 1 + wide.size() unless given.
inline std::vector<uint8_t> ArgsRecord(uint8_t cls, uint8_t low, uint16_t a, uint16_t b,
                                       const std::vector<uint32_t>& wide, int n = -1) {
  std::vector<uint8_t> tail;
  Put16(tail, a);
  Put16(tail, b);
  for (uint32_t w : wide) Put32(tail, w);
  return Record(cls, low, static_cast<uint8_t>(n < 0 ? 1 + wide.size() : n), tail);
}

}  // namespace msgtext_test

#endif  // EM_TESTS_MSGLOG_MSGTEXTTESTUTIL_H
