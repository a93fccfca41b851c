// Helpers the unit test folders share: bounded polling, a traced fixture over the capture
// sink, and a scratch directory removed with its contents.
#ifndef EM_TESTS_SUPPORT_TESTSUPPORT_H
#define EM_TESTS_SUPPORT_TESTSUPPORT_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "hostsim/DebugSink.h"
#include "trace/DebugClient.h"

namespace em_oidmap {

namespace test_support {

// Polls `done` until it holds or `limit` passes; true when it held.
template <typename Pred>
bool WaitUntil(Pred done, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Waits until some captured trace line contains `fragment` `count` times.
inline bool WaitForTrace(const std::string& fragment, size_t count = 1) {
  return WaitUntil([&] { return hostsim::Sink().Count(fragment) >= count; });
}

// Tracing at `Level` into a cleared capture sink, off again afterwards: every trace site's
// arguments are built on the way.
template <uint32_t Level = 5>
class TracedTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TraceClient().SetTraceLevel(Level);
    hostsim::Sink().Clear();
  }
  void TearDown() override { TraceClient().SetTraceLevel(0); }
};

// A fresh directory under /tmp, removed with its contents at the end of the scope.
class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/em_test_XXXXXX";
    EXPECT_NE(mkdtemp(pattern), nullptr);
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all, ec);
    std::filesystem::remove_all(path_, ec);
  }
  const std::string& Dir() const { return path_; }
  std::string Path(const std::string& name) const { return path_ + "/" + name; }
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

 private:
  std::string path_;
};

}  // namespace test_support

}  // namespace em_oidmap

#endif  // EM_TESTS_SUPPORT_TESTSUPPORT_H
