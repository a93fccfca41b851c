// Temporary directories, whole-file helpers and a crashing file seam for the platform
// tests.
#ifndef EM_TESTS_PLATFORM_TESTUTIL_H
#define EM_TESTS_PLATFORM_TESTUTIL_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "platform/FileIo.h"
#include "tests/support/TestSupport.h"
#include "trace/DebugClient.h"

namespace em_oidmap {

namespace platform_test {

// A scratch directory per test, with every trace path run (with the values it prints).
class TempDirTest : public ::testing::Test, public test_support::TempDir {
 protected:
  void SetUp() override { TraceClient().SetTraceLevel(5); }
  const std::string dir_ = Dir();
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
