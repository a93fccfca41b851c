// emhost on a terminal: the shell's line editing, completion, history and follow, and the
// progress display of a run, driven through a pseudo-terminal as a person would use them.
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Clock = std::chrono::steady_clock;

// emhost running on the slave side of a pseudo-terminal.
class Terminal {
 public:
  explicit Terminal(const std::vector<std::string>& args) {
    home_ = ::testing::TempDir() + "/emhost-home";
    std::system(("mkdir -p " + home_).c_str());
    winsize size{40, 200, 0, 0};
    pid_ = forkpty(&fd_, nullptr, nullptr, &size);
    if (pid_ == 0) {
      setenv("HOME", home_.c_str(), 1);
      setenv("TERM", "xterm", 1);
      if (chdir(EM_SOURCE_DIR) != 0) _exit(126);
      std::vector<char*> argv{const_cast<char*>(EMHOST)};
      for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
      argv.push_back(nullptr);
      execv(EMHOST, argv.data());
      _exit(127);
    }
  }

  ~Terminal() {
    if (pid_ > 0 && !exited_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (fd_ >= 0) close(fd_);
  }

  bool Started() const { return pid_ > 0; }
  const std::string& home() const { return home_; }

  void Type(const std::string& keys) {
    ASSERT_EQ(write(fd_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }

  // Reads the screen's text until `text` appears after what earlier calls found; false at
  // the deadline or when emhost ends first.
  bool Await(const std::string& text, std::chrono::seconds deadline = std::chrono::seconds(20)) {
    const Clock::time_point end = Clock::now() + deadline;
    for (;;) {
      const size_t found = screen_.find(text, from_);
      if (found != std::string::npos) {
        from_ = found + text.size();
        return true;
      }
      if (!ReadSome(end)) return false;
    }
  }

  // Reads until emhost ends; its exit status, or -1 at the deadline.
  int Exit(std::chrono::seconds deadline) {
    const Clock::time_point end = Clock::now() + deadline;
    while (ReadSome(end)) {
    }
    int status = 0;
    while (Clock::now() < end) {
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        exited_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
      poll(nullptr, 0, 20);
    }
    return -1;
  }

  const std::string& Screen() const { return screen_; }

 private:
  // False when the deadline passed or the terminal closed.
  bool ReadSome(Clock::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) return false;
    pollfd input{fd_, POLLIN, 0};
    if (poll(&input, 1, static_cast<int>(left.count())) <= 0) return false;
    char buffer[4096];
    const ssize_t n = read(fd_, buffer, sizeof buffer);
    if (n <= 0) return false;
    screen_.append(buffer, static_cast<size_t>(n));
    return true;
  }

  pid_t pid_ = -1;
  int fd_ = -1;
  bool exited_ = false;
  std::string home_;
  std::string screen_;
  size_t from_ = 0;
};

// One session, as an integrator keeps it open: a request typed out, one completed, follow,
// an event that changes a module, history, stop and start, another trace level, quit.
TEST(TerminalTest, Shell_EditsCompletesRemembersFollowsAndRestarts) {
  Terminal shell({"shell"});
  ASSERT_TRUE(shell.Started());
  ASSERT_TRUE(shell.Await("started over 3 cabinets"));
  ASSERT_TRUE(shell.Await("emhost> "));

  const struct {
    const char* keys;
    const char* shows;
  } steps[] = {
      {"OC=0x0301 OI=3 CA=0\r", "DA {\"Name\":\"FAN PSU 1\",\"Speed\":2900}"},
      // Tab completes the opcode name, then a command name.
      {"OC=CM_ReadConf\tOE=0x31 CA=0\r",
       "request 2: OC 0xE001 CM_ReadConfigurationSpace OE 0x0031"},
      {"fol\t\r", "following what the module hands up"},
      {"event --updates 0x00020001 OC=0x0301 OI=1 CA=0 DA={\"Speed\":0}\r",
       "handed back: OC 0x0301 OI 4 CA 0 MI 0x00020001: ST 0xFF event DA {\"Speed\":0}"},
      {"OC=0x0301 OI=4 CA=0\r", "ST 0x00 success DA {\"Speed\":0}"},
      // The arrow key brings the last line back.
      {"\x1b[A\r", "request 4: OC 0x0301 OI 4 CA 0"},
      {"stop\r", "the module is stopped and deleted"},
      {"OC=0x0300 CA=0\r", "the module is stopped; start it first"},
      {"start\r", "started over 3 cabinets"},
      {"log 0 0x407\r", "Lüfter FAN PSU 1 ausgefallen"},
      {"trace 2\r", "EM_OIDMAP           : ## Start completed! ##"},
      {"map\r", "    4 -> MI 0x00020001 OI 1"},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.keys);
    shell.Type(step.keys);
    ASSERT_TRUE(shell.Await(step.shows)) << shell.Screen();
  }
  shell.Type("quit\r");
  EXPECT_EQ(shell.Exit(std::chrono::seconds(20)), 0) << shell.Screen();
  std::ifstream history(shell.home() + "/.emhost_history");
  std::stringstream lines;
  lines << history.rdbuf();
  // The file is libedit's (blanks written \040): the completed line was kept whole.
  EXPECT_NE(lines.str().find("OC=CM_ReadConfigurationSpace"), std::string::npos) << lines.str();
}

// 30 cabinets whose scans are slow: the module's queue refuses the scans beyond it, and
// the progress display must not wait the module's 120 s on each refused cabinet.
TEST(TerminalTest, Run_OnATerminalNeverWaitsOnARefusedScan) {
  Terminal run({"run", "tests/emhost/data/slow-scans.json", "--format", "table"});
  ASSERT_TRUE(run.Started());
  EXPECT_TRUE(run.Await("emhost: log scans: ")) << run.Screen();
  EXPECT_TRUE(run.Await("refused the log scans of 1")) << run.Screen();
  EXPECT_EQ(run.Exit(std::chrono::seconds(60)), 1) << run.Screen();
}

}  // namespace
