// Temporary directories, whole-file helpers and a crashing file seam for the platform
// tests.
#ifndef EM_TESTS_PLATFORM_TESTUTIL_H
#define EM_TESTS_PLATFORM_TESTUTIL_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/FileIo.h"
#include "trace/DebugClient.h"

namespace em_oidmap {

namespace platform_test {

class TempDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/em_platform_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    TraceClient().SetTraceLevel(5);  // every trace path runs, with the values it prints
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::permissions(dir_, std::filesystem::perms::owner_all, ec);
    std::filesystem::remove_all(dir_, ec);
  }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  void Write(const std::string& name, const std::string& text) const {
    std::ofstream(Path(name), std::ios::binary) << text;
  }
  std::string Read(const std::string& name) const {
    std::ifstream in(Path(name), std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  bool Exists(const std::string& name) const { return std::filesystem::exists(Path(name)); }

  std::string dir_;
};

// Counts the file calls of a save and, from call `crash_at` on, fails every one as if the
// process had died there: a write at the crash leaves half its bytes, nothing later
// reaches the disk. Writes take at most 16 bytes, so a save makes many of them.
class CrashingIo : public FileIo {
 public:
  int crash_at = 0;  // 0: never
  std::vector<std::string> calls;

  int Open(const char* path, int flags, mode_t mode) override {
    return Alive("open") ? FileIo::Open(path, flags, mode) : Fail();
  }
  ssize_t Write(int fd, const void* data, size_t size) override {
    size = std::min<size_t>(size, 16);
    if (Alive("write")) return FileIo::Write(fd, data, size);
    (void)FileIo::Write(fd, data, size / 2);
    return Fail();
  }
  int Chmod(int fd, mode_t mode) override {
    return Alive("chmod") ? FileIo::Chmod(fd, mode) : Fail();
  }
  int Sync(int fd) override { return Alive("sync") ? FileIo::Sync(fd) : Fail(); }
  int Close(int fd) override {
    int result = FileIo::Close(fd);  // the process's end would close it too
    return Alive("close") ? result : Fail();
  }
  int Rename(const char* from, const char* to) override {
    return Alive("rename") ? FileIo::Rename(from, to) : Fail();
  }
  int Unlink(const char* path) override { return Alive("unlink") ? FileIo::Unlink(path) : Fail(); }
  bool Crashed() const { return crash_at > 0 && static_cast<int>(calls.size()) >= crash_at; }
  // The last `n` calls made.
  std::vector<std::string> Tail(size_t n) const {
    return std::vector<std::string>(calls.end() - static_cast<std::ptrdiff_t>(n), calls.end());
  }

 private:
  bool Alive(const char* call) {
    calls.push_back(call);
    return !Crashed();
  }
  static int Fail() {
    errno = EIO;
    return -1;
  }
};

}  // namespace platform_test

}  // namespace em_oidmap

#endif  // EM_TESTS_PLATFORM_TESTUTIL_H
