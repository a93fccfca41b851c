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
    if (mkdtemp(&pattern[0])) path_ = pattern;
  }
  ~TempDir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  const std::string& Path() const { return path_; }
  std::string Write(const std::string& name, const std::string& content) const {
    std::ofstream(path_ + "/" + name, std::ios::binary) << content;
    return path_ + "/" + name;
  }

 private:
  std::string path_;
};

// An old-style record with the 16-bit values `a`, `b` at bytes 8 and 10 and `wide` from
// byte 12 (little-endian); the argument count is 1 + wide.size() unless given.
inline std::vector<uint8_t> ArgsRecord(uint8_t cls, uint8_t low, uint16_t a, uint16_t b,
                                       const std::vector<uint32_t>& wide, int n = -1) {
  std::vector<uint8_t> r = {low, cls, 0, static_cast<uint8_t>(n < 0 ? 1 + wide.size() : n),
                            0, 0, 0, 0, uint8_t(a), uint8_t(a >> 8), uint8_t(b), uint8_t(b >> 8)};
  for (uint32_t w : wide)
    for (int i = 0; i < 4; ++i) r.push_back(static_cast<uint8_t>(w >> (8 * i)));
  return r;
}

}  // namespace msgtext_test

#endif  // EM_TESTS_MSGLOG_MSGTEXTTESTUTIL_H
