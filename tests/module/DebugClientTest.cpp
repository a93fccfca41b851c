#include "module/DebugClient.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "hostsim/DebugSink.h"

namespace {

class DebugClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/em_trace_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    for (const char* name : {"KT_LOG_DEBUG_LEVEL", "KT_LOG_DYNAMIC_UPDATE"}) {
      const char* v = getenv(name);
      saved_env_.emplace_back(name, v ? std::optional<std::string>(v) : std::nullopt);
      unsetenv(name);
    }
    hostsim::Sink().Clear();
  }
  void TearDown() override {
    for (const auto& [name, value] : saved_env_) {
      if (value) setenv(name.c_str(), value->c_str(), 1); else unsetenv(name.c_str());
    }
    hostsim::Sink().SetReady(true);
    hostsim::Sink().Clear();
    std::filesystem::remove_all(dir_);
  }

  // Replaces `name` with `text`, modified at `mtime` (seconds). Renamed into place so a
  // reader never sees a half-written file or a passing modification time.
  void Write(const std::string& name, const std::string& text, time_t mtime = 1000) {
    std::string path = dir_ + "/" + name, tmp = dir_ + "/.#" + name;
    std::ofstream(tmp, std::ios::binary | std::ios::trunc) << text;
    struct timespec times[2] = {{mtime, 0}, {mtime, 0}};
    EXPECT_EQ(utimensat(AT_FDCWD, tmp.c_str(), times, 0), 0);
    EXPECT_EQ(rename(tmp.c_str(), path.c_str()), 0);
  }
  std::unique_ptr<CDebugClient> Client(const std::string& dir) {
    return std::make_unique<CDebugClient>("EM_OIDMAP", dir, [this] {
      ++clock_calls_;
      return now_.load();
    });
  }

  std::string dir_;
  std::vector<std::pair<std::string, std::optional<std::string>>> saved_env_;
  std::atomic<time_t> now_{5000};
  std::atomic<int> clock_calls_{0};
};

TEST_F(DebugClientTest, StartUp_FirstModuleSectionInNameOrderCounts) {
  // Many later-named candidates, so the directory's own order is unlikely to agree.
  for (char c : std::string("zyxhgfedc")) {
    Write(std::string(1, c) + ".ini", "[EM_OIDMAP]\nFileDebugLevel=5\nTraceFlags=1\n");
  }
  Write(".#a.ini", "[EM_OIDMAP]\nFileDebugLevel=1\n");
  Write("b.ini", "[EM_OIDMAP]\n  FileDebugLevel =  0x3\nTraceFlags=010\n[NEXT]\n"
                 "MemoryTracesFlag=9\n");
  Write("a.ini", "[OTHER]\nFileDebugLevel=2\n");
  auto client = Client(dir_);
  EXPECT_EQ(client->Level(), 3u);
  EXPECT_EQ(client->TraceFlags(), 8u);
  EXPECT_TRUE(client->IsTraceActive());

  EXPECT_EQ(client->Initialise("OTHER"), 1u);
  EXPECT_EQ(client->Level(), 2u);
  EXPECT_STREQ(client->ModuleTag(), "OTHER");
}

TEST_F(DebugClientTest, StartUp_EmptyDirectoryIgnoresEnvironmentButMissingOneDoesNot) {
  Write("notes.txt", "[EM_OIDMAP]\nFileDebugLevel=4\n");
  setenv("KT_LOG_DEBUG_LEVEL", "5", 1);
  auto empty = Client(dir_);
  EXPECT_EQ(empty->Level(), 0u);

  auto missing = Client(dir_ + "/absent");
  EXPECT_EQ(missing->Level(), 5u);
}

TEST_F(DebugClientTest, StartUp_MalformedFilesAreReadSafely) {
  std::string garbage;
  for (int i = 0; i < 70000; ++i) garbage.push_back(static_cast<char>((i * 7919) % 256));
  Write("a.ini", garbage + "[EM_OIDMAP");
  Write("b.ini", std::string(200000, 'x') + "\n[EM_OIDMAP]\r\nFileDebugLevel=abc\r\n");
  Write("c.ini", "[EM_OIDMAP]\r\nTraceFlags = 7\r\nFileDebugLevel=0x3");  // no final newline
  EXPECT_EQ(Client(dir_)->Level(), 0u);  // b.ini holds the section: no number, no level
  std::filesystem::remove(dir_ + "/b.ini");
  auto client = Client(dir_);
  EXPECT_EQ(client->Level(), 3u);
  EXPECT_EQ(client->TraceFlags(), 7u);
}

TEST_F(DebugClientTest, Trace_FiltersByLevelButPrintDoesNot) {
  Write("m.ini", "[EM_OIDMAP]\nFileDebugLevel=4\n");
  auto client = Client(dir_);
  client->Trace(5, "\nEM_OIDMAP           : level %d", 5);
  client->Trace(4, "\nEM_OIDMAP           : level %d", 4);
  client->SetTraceLevel(0);
  client->Print("\nplain %s", "line");
  client->Print(uintptr_t{42}, "\nextra %s", "line");
  EXPECT_EQ(hostsim::Sink().Lines(),
            (std::vector<std::string>{"\nEM_OIDMAP           : level 4", "\nplain line",
                                      "\nextra line"}));
}

TEST_F(DebugClientTest, Trace_SinkNotReadyDropsLinesUntilReadyThenKeepsIt) {
  setenv("KT_LOG_DEBUG_LEVEL", "5", 1);
  auto client = Client(dir_ + "/absent");
  hostsim::Sink().SetReady(false);
  client->Trace(1, "dropped");
  EXPECT_EQ(client->Sink(), nullptr);
  hostsim::Sink().SetReady(true);
  client->Trace(1, "written");
  hostsim::Sink().SetReady(false);
  client->Trace(1, "cached");
  EXPECT_EQ(hostsim::Sink().Lines(), (std::vector<std::string>{"written", "cached"}));
}

TEST_F(DebugClientTest, DynamicUpdate_ReReadsChangedFileOncePerInterval) {
  Write("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=30\n");
  Write("m.ini", "[EM_OIDMAP]\nFileDebugLevel=2\n");
  setenv("KT_LOG_DYNAMIC_UPDATE", "10", 1);
  setenv("KT_LOG_DEBUG_LEVEL", "0", 1);  // off at start-up: the flag stays off
  auto client = Client(dir_);
  EXPECT_EQ(client->Level(), 0u);
  EXPECT_EQ(client->ConfiguredUpdateInterval(), 30u);
  client->Trace(1, "first check");  // at 5000: files unchanged since start-up
  Write("m.ini", "[EM_OIDMAP]\nFileDebugLevel=4\nMemoryTracesFlag=0x10\n", 1003);
  now_ = 5009;
  client->Trace(4, "too early");
  EXPECT_EQ(client->Level(), 0u);
  now_ = 5010;
  client->Trace(4, "picked up");
  EXPECT_EQ(client->Level(), 4u);
  EXPECT_EQ(client->MemoryTracesFlag(), 0x10u);
  EXPECT_FALSE(client->IsTraceActive());
  EXPECT_EQ(hostsim::Sink().Lines(), (std::vector<std::string>{"picked up"}));
}

TEST_F(DebugClientTest, DynamicUpdate_VanishedGlobalFileIsNoLongerWatched) {
  Write("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=10\n");
  auto client = Client(dir_);
  client->Trace(1, "x");  // check at 5000
  Write("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=20\n", 1001);
  now_ = 5010;
  client->Trace(1, "x");
  EXPECT_EQ(client->UpdateInterval(), 20u);
  std::filesystem::remove(dir_ + "/global_trace.ini");
  now_ = 5030;
  client->Trace(1, "x");
  Write("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=5\n", 2000);
  now_ = 5050;
  client->Trace(1, "x");
  EXPECT_EQ(client->UpdateInterval(), 20u);
}

TEST_F(DebugClientTest, DynamicUpdate_IntervalZeroNeverLooksAgain) {
  Write("m.ini", "[EM_OIDMAP]\nFileDebugLevel=2\n");
  auto client = Client(dir_);
  Write("m.ini", "[EM_OIDMAP]\nFileDebugLevel=5\n", 9000);
  for (time_t t : {5000, 6000, 100000}) {
    now_ = t;
    client->Trace(1, "x");
  }
  EXPECT_EQ(client->Level(), 2u);
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
      for (int i = 0; !done; ++i) client->Trace(i % 100 == 0 ? 1 : 9, "line %d", i);
    });
  }
  for (int i = 1; i <= 50; ++i) {
    Write("m.ini", "[EM_OIDMAP]\nFileDebugLevel=" + std::to_string(i % 3 + 1) + "\n", 1000 + i);
    now_ += 1;
  }
  done = true;
  for (auto& th : threads) th.join();
  now_ += 1;
  client->Trace(1, "last");
  EXPECT_EQ(client->Level(), 50 % 3 + 1u);
}

}  // namespace
