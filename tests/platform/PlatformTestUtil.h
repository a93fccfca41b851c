// Temporary directories and whole-file helpers for the platform tests.
#ifndef EM_TESTS_PLATFORM_TESTUTIL_H
#define EM_TESTS_PLATFORM_TESTUTIL_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

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

}  // namespace platform_test

}  // namespace em_oidmap

#endif  // EM_TESTS_PLATFORM_TESTUTIL_H
