#include "Console.h"

#include <sys/stat.h>
#include <unistd.h>

#include <mutex>

namespace em_oidmap::emhost {

namespace console {
namespace {

struct State {
  std::mutex mutex;
  bool open[2] = {false, false};  // standard output, standard error: a line is open
  bool status = false;            // a status text stands on standard error's line
  bool shared = false;            // both streams are one terminal
  Interjector interjector;

  State() {
    struct stat out, err;
    shared = isatty(STDOUT_FILENO) != 0 && isatty(STDERR_FILENO) != 0 &&
             fstat(STDOUT_FILENO, &out) == 0 && fstat(STDERR_FILENO, &err) == 0 &&
             out.st_rdev == err.st_rdev;
  }
};

State& Get() {
  static State state;
  return state;
}

int Index(std::FILE* stream) { return stream == stdout ? 0 : 1; }

// The screen line of `stream` is open (REQUIRES: the state's mutex).
bool& Open(State& state, std::FILE* stream) {
  return state.open[state.shared ? 1 : Index(stream)];
}

void ClearStatus(State& state) {
  if (!state.status) return;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
  state.status = false;
}

void Write(std::FILE* stream, const std::string& text) {
  State& state = Get();
  auto print = [&] {
    std::lock_guard<std::mutex> lock(state.mutex);
    if (state.shared || stream == stderr) ClearStatus(state);
    bool& open = Open(state, stream);
    if (open && !text.empty() && text.front() != '\n') std::fputc('\n', stream);
    std::fputs(text.c_str(), stream);
    std::fflush(stream);
    open = !text.empty() && text.back() != '\n';
  };
  Interjector interjector;
  {
    std::lock_guard<std::mutex> lock(state.mutex);
    interjector = state.interjector;
  }
  if (interjector) {
    interjector(print);
  } else {
    print();
  }
}

}  // namespace

void Out(const std::string& text) { Write(stdout, text); }

void Err(const std::string& text) { Write(stderr, text); }

void Trace(const std::string& line, std::FILE* file) {
  if (file == nullptr) {
    // The module's line goes out as it wrote it: it opens with its own line feed.
    Write(stderr, line);
    return;
  }
  std::fputs(line.c_str(), file);
}

void Status(const std::string& text) {
  State& state = Get();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (text.empty()) {
    ClearStatus(state);
    return;
  }
  bool& open = Open(state, stderr);
  if (open && !state.status) std::fputc('\n', stderr);
  std::fputs(("\r\033[K" + text).c_str(), stderr);
  std::fflush(stderr);
  state.status = true;
  open = false;
}

void Finish() {
  State& state = Get();
  std::lock_guard<std::mutex> lock(state.mutex);
  ClearStatus(state);
  for (std::FILE* stream : {stdout, stderr}) {
    bool& open = Open(state, stream);
    if (!open) continue;
    std::fputc('\n', stream);
    std::fflush(stream);
    open = false;
  }
}

void SetInterjector(Interjector interjector) {
  State& state = Get();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.interjector = std::move(interjector);
}

}  // namespace console

}  // namespace em_oidmap::emhost
