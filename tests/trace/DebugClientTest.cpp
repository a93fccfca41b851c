#include "trace/DebugClient.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "hostsim/DebugSink.h"
#include "tests/support/TestSupport.h"

namespace em_oidmap {

namespace {

using Lines = std::vector<std::string>;

class DebugClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    UnsetEnvironment();
    hostsim::Sink().Clear();
  }
  void TearDown() override {
    UnsetEnvironment();
    hostsim::Sink().SetReady(true);
    hostsim::Sink().Clear();
  }
  static void UnsetEnvironment() {
    for (const char* name : {"KT_LOG_DEBUG_LEVEL", "KT_LOG_DYNAMIC_UPDATE"}) unsetenv(name);
  }

  // Replaces `name` with `text`, modified at `mtime` (seconds). Renamed into place so a
  // reader never sees a half-written file or a passing modification time.
  void Write(const std::string& name, const std::string& text, time_t mtime = 1000) {
    std::string path = dir_ + "/" + name, tmp = dir_ + "/.#" + name;
    std::ofstream(tmp, std::ios::binary | std::ios::trunc) << text;
    struct timespec times[2] = {{mtime, 0}, {mtime, 0}};
    EXPECT_EQ(utimensat(AT_FDCWD, tmp.c_str(), times, 0), 0);
    std::filesystem::rename(tmp, path);
  }
  CDebugClient Client(const std::string& dir) {
    return CDebugClient("EM_OIDMAP", dir, [this] { ++clock_calls_; return now_.load(); });
  }
  // A trace at time `t`: every trace call drives the update check.
  void TraceAt(CDebugClient& client, time_t t, uint32_t level = 1, const char* text = "x") {
    now_ = t;
    client.Trace(level, "%s", text);
  }

  test_support::TempDir tmp_;
  const std::string dir_ = tmp_.Dir();
  std::atomic<time_t> now_{5000};
  std::atomic<int> clock_calls_{0};
};

TEST_F(DebugClientTest, StartUp_FirstModuleSectionInNameOrderCounts) {
  // Many later-named candidates, so the directory's own order is unlikely to agree.
  for (char c : std::string("zyxhgfedc"))
    Write(std::string(1, c) + ".ini", "[EM_OIDMAP]\nFileDebugLevel=5\nTraceFlags=1\n");
  std::string garbage(70000, '\0');  // binary, then an over-long line and a cut header
  for (size_t i = 0; i < garbage.size(); ++i) garbage[i] = static_cast<char>(i * 7919 % 256);
  Write("0.ini", garbage + std::string(200000, 'x') + "\n[EM_OIDMAP");
  // Not a regular file: skipped, and reading it must not block (a FIFO without a writer).
  ASSERT_EQ(mkfifo((dir_ + "/1.ini").c_str(), 0644), 0);
  Write(".#a.ini", "[EM_OIDMAP]\nFileDebugLevel=1\n");
  Write("a.ini", "[OTHER]\nFileDebugLevel=2\n");
  Write("b.ini", "[EM_OIDMAP]\r\n  FileDebugLevel =  0x3\r\nTraceFlags=010\r\n[NEXT]\r\n"
                 "MemoryTracesFlag=9");  // no final line feed
  auto client = Client(dir_);
  EXPECT_EQ(client.Level(), 3u);
  EXPECT_EQ(client.TraceFlags(), 8u);
  EXPECT_EQ(client.MemoryTracesFlag(), 0u);  // belongs to the next section
  EXPECT_TRUE(client.IsTraceActive());
  EXPECT_EQ(client.Initialise("OTHER"), 1u);
  EXPECT_EQ(client.Level(), 2u);
  EXPECT_STREQ(client.ModuleTag(), "OTHER");
  Write("a.ini", "[EM_OIDMAP]\nFileDebugLevel=abc\n");  // the first section counts, number or not
  EXPECT_EQ(Client(dir_).Level(), 0u);
}

TEST_F(DebugClientTest, StartUp_EmptyDirectoryIgnoresEnvironmentButMissingOneDoesNot) {
  Write("notes.txt", "[EM_OIDMAP]\nFileDebugLevel=4\n");
  setenv("KT_LOG_DEBUG_LEVEL", "5", 1);
  EXPECT_EQ(Client(dir_).Level(), 0u);
  EXPECT_EQ(Client(dir_ + "/absent").Level(), 5u);
}

TEST_F(DebugClientTest, Trace_FiltersByLevelAndNeedsAReadySinkOnce) {
  Write("m.ini", "[EM_OIDMAP]\nFileDebugLevel=4\n");
  auto client = Client(dir_);
  hostsim::Sink().SetReady(false);
  client.Trace(1, "dropped");
  EXPECT_EQ(client.Sink(), nullptr);
  hostsim::Sink().SetReady(true);
  client.Trace(5, "\nEM_OIDMAP           : level %d", 5);
  client.Trace(4, "\nEM_OIDMAP           : level %d", 4);
  hostsim::Sink().SetReady(false);  // once found, the sink is kept
  client.SetTraceLevel(0);
  client.Print("\nplain %s", "line");
  client.Print(uintptr_t{42}, "\nextra %s", "line");
  EXPECT_EQ(hostsim::Sink().Lines(),
            (Lines{"\nEM_OIDMAP           : level 4", "\nplain line", "\nextra line"}));
}

TEST_F(DebugClientTest, DynamicUpdate_ReReadsChangedFilesOncePerInterval) {
  Write("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=30\n");
  Write("m.ini", "[EM_OIDMAP]\nFileDebugLevel=2\n");
  setenv("KT_LOG_DYNAMIC_UPDATE", "10", 1);
  setenv("KT_LOG_DEBUG_LEVEL", "0", 1);  // off at start-up: the flag stays off
  auto client = Client(dir_);
  EXPECT_EQ(client.Level(), 0u);
  EXPECT_EQ(client.ConfiguredUpdateInterval(), 30u);
  TraceAt(client, 5000);  // files unchanged since start-up
  Write("m.ini", "[EM_OIDMAP]\nFileDebugLevel=4\nMemoryTracesFlag=0x10\n", 1003);
  Write("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=20\n", 1001);
  TraceAt(client, 5009, 4, "too early");
  EXPECT_EQ(client.Level(), 0u);
  TraceAt(client, 5010, 4, "picked up");
  EXPECT_EQ(client.Level(), 4u);
  EXPECT_EQ(client.MemoryTracesFlag(), 0x10u);
  EXPECT_EQ(client.UpdateInterval(), 20u);  // a re-read global file overrides the environment
  EXPECT_FALSE(client.IsTraceActive());
  EXPECT_EQ(hostsim::Sink().Lines(), (Lines{"picked up"}));

  // A vanished global file is not watched again, not even when it comes back.
  std::filesystem::remove(dir_ + "/global_trace.ini");
  TraceAt(client, 5030);
  Write("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=5\n", 2000);
  TraceAt(client, 5050);
  EXPECT_EQ(client.UpdateInterval(), 20u);
}

TEST_F(DebugClientTest, DynamicUpdate_IntervalZeroNeverLooksAgain) {
  Write("m.ini", "[EM_OIDMAP]\nFileDebugLevel=2\n");
  auto client = Client(dir_);
  Write("m.ini", "[EM_OIDMAP]\nFileDebugLevel=5\n", 9000);
  for (time_t t : {5000, 6000, 100000}) TraceAt(client, t);
  EXPECT_EQ(client.Level(), 2u);
  EXPECT_EQ(clock_calls_.load(), 0);
}

TEST_F(DebugClientTest, DynamicUpdate_ConcurrentTracersWhileFilesChange) {
  Write("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=1\n");
  Write("m.ini", "[EM_OIDMAP]\nFileDebugLevel=1\n");
  auto client = Client(dir_);
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      // Level 9 lines are filtered out but still drive the update check.
      for (int i = 0; !done; ++i) client.Trace(i % 100 == 0 ? 1 : 9, "line %d", i);
    });
  }
  for (int i = 1; i <= 50; ++i) {
    Write("m.ini", "[EM_OIDMAP]\nFileDebugLevel=" + std::to_string(i % 3 + 1) + "\n", 1000 + i);
    now_ += 1;
  }
  done = true;
  for (auto& th : threads) th.join();
  TraceAt(client, now_ + 1);
  EXPECT_EQ(client.Level(), 50 % 3 + 1u);
}

}  // namespace

}  // namespace em_oidmap
