#include "LineEditor.h"

#include <histedit.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <clocale>
#include <condition_variable>
#include <cstdlib>
#include <cwchar>
#include <deque>
#include <iostream>
#include <mutex>

namespace em_oidmap::emhost {

namespace {

constexpr int kHistoryLines = 1000;
// Sent to the editor after lines were printed above it: redraw the input line.
constexpr wchar_t kRedrawKey = 0x1D;
constexpr const char* kRedrawKeyName = "^]";

}  // namespace

// The editor's state; one per LineEditor, reached from libedit's callbacks.
struct LineEditor::State {
  EditLine* el = nullptr;
  ::History* history = nullptr;
  std::string prompt;
  Completer completer;
  int wake[2] = {-1, -1};  // other threads' prints are waiting

  std::mutex mutex;
  std::condition_variable printed;
  bool active = false;  // the editor waits for keys on the calling thread
  std::deque<const std::function<void()>*> prints;
  size_t done = 0, queued = 0;

  // Runs the queued prints (REQUIRES: mutex held).
  void RunPrints() {
    if (prints.empty()) return;
    std::fputs("\r\033[K", stdout);
    while (!prints.empty()) {
      (*prints.front())();
      prints.pop_front();
      ++done;
    }
    std::fflush(stdout);
    printed.notify_all();
  }
};

namespace {

LineEditor::State* StateOf(EditLine* el) {
  void* data = nullptr;
  el_get(el, EL_CLIENTDATA, &data);
  return static_cast<LineEditor::State*>(data);
}

const char* Prompt(EditLine* el) { return StateOf(el)->prompt.c_str(); }

// Reads one character (UTF-8 decoded); prints other threads' lines while it waits.
int GetChar(EditLine* el, wchar_t* c) {
  LineEditor::State* state = StateOf(el);
  for (;;) {
    pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {state->wake[0], POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) continue;
    if ((fds[1].revents & POLLIN) != 0) {
      char drain[64];
      (void)!read(state->wake[0], drain, sizeof drain);
      std::lock_guard<std::mutex> lock(state->mutex);
      if (!state->prints.empty()) {
        state->RunPrints();
        *c = kRedrawKey;
        return 1;
      }
    }
    if ((fds[0].revents & (POLLIN | POLLHUP)) == 0) continue;
    char bytes[MB_LEN_MAX];
    if (read(STDIN_FILENO, bytes, 1) != 1) return 0;
    const unsigned char lead = static_cast<unsigned char>(bytes[0]);
    const size_t length = lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
    for (size_t i = 1; i < length; ++i) {
      if (read(STDIN_FILENO, bytes + i, 1) != 1) return 0;
    }
    std::mbstate_t shift{};
    if (std::mbrtowc(c, bytes, length, &shift) > length) *c = static_cast<unsigned char>(bytes[0]);
    return 1;
  }
}

unsigned char Redraw(EditLine* /*el*/, int /*key*/) { return CC_REDISPLAY; }

// Completes the word before the cursor: the common part of the candidates, and a list of
// them when that adds nothing.
unsigned char Complete(EditLine* el, int /*key*/) {
  LineEditor::State* state = StateOf(el);
  const LineInfo* line = el_line(el);
  const std::string before(line->buffer, line->cursor);
  const size_t start = before.find_last_of(" \t=") == std::string::npos
                           ? 0
                           : before.find_last_of(" \t=") + 1;
  const std::string word = before.substr(start);
  std::vector<std::string> matches;
  for (const std::string& candidate : state->completer(before.substr(0, start), word)) {
    if (candidate.compare(0, word.size(), word) == 0) matches.push_back(candidate);
  }
  if (matches.empty()) return CC_REFRESH_BEEP;
  std::string common = matches.front();
  for (const std::string& match : matches) {
    common.resize(std::mismatch(common.begin(), common.end(), match.begin(), match.end()).first -
                  common.begin());
  }
  if (matches.size() == 1) common += common.back() == '=' ? "" : " ";
  if (common.size() > word.size()) {
    el_insertstr(el, common.substr(word.size()).c_str());
    return CC_REFRESH;
  }
  std::string list = "\n";
  for (const std::string& match : matches) list += match + "  ";
  std::fputs((list + "\n").c_str(), stdout);
  return CC_REDISPLAY;
}

}  // namespace

LineEditor::LineEditor(std::string prompt, Completer completer)
    : interactive_(isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0),
      state_(std::make_unique<State>()) {
  if (!interactive_ || pipe(state_->wake) != 0) {
    interactive_ = false;
    return;
  }
  std::setlocale(LC_CTYPE, "");
  state_->prompt = std::move(prompt);
  state_->completer = std::move(completer);
  EditLine* el = el_init("emhost", stdin, stdout, stderr);
  state_->el = el;
  el_set(el, EL_CLIENTDATA, state_.get());
  el_set(el, EL_EDITOR, "emacs");
  // A signal that ends emhost (Ctrl-C) leaves the terminal as it found it.
  el_set(el, EL_SIGNAL, 1);
  el_set(el, EL_PROMPT, Prompt);
  el_set(el, EL_GETCFN, GetChar);
  // The wide form keeps the names as given; the narrow one copies them and never frees.
  el_wset(el, EL_ADDFN, L"emhost-complete", L"complete a command, key or opcode name", Complete);
  el_set(el, EL_BIND, "^I", "emhost-complete", nullptr);
  el_wset(el, EL_ADDFN, L"emhost-redraw", L"draw the input line again", Redraw);
  el_set(el, EL_BIND, kRedrawKeyName, "emhost-redraw", nullptr);
  HistEvent event;
  state_->history = history_init();
  history(state_->history, &event, H_SETSIZE, kHistoryLines);
  if (const char* home = std::getenv("HOME")) {
    historyFile_ = std::string(home) + "/.emhost_history";
    history(state_->history, &event, H_LOAD, historyFile_.c_str());
  }
  el_set(el, EL_HIST, history, state_->history);
}

LineEditor::~LineEditor() {
  if (state_->el == nullptr) return;
  HistEvent event;
  if (!historyFile_.empty()) history(state_->history, &event, H_SAVE, historyFile_.c_str());
  el_end(state_->el);
  history_end(state_->history);
  close(state_->wake[0]);
  close(state_->wake[1]);
}

bool LineEditor::ReadLine(std::string& line) {
  if (!interactive_) return static_cast<bool>(std::getline(std::cin, line));
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->active = true;
  }
  int count = 0;
  const char* text = el_gets(state_->el, &count);
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->active = false;
    state_->RunPrints();
  }
  if (text == nullptr || count <= 0) {
    std::fputs("\n", stdout);
    return false;
  }
  line.assign(text, static_cast<size_t>(count));
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  if (line.find_first_not_of(" \t") != std::string::npos) {
    HistEvent event;
    history(state_->history, &event, H_ENTER, line.c_str());
  }
  return true;
}

void LineEditor::Interject(const std::function<void()>& print) {
  std::unique_lock<std::mutex> lock(state_->mutex);
  if (!interactive_ || !state_->active) {
    print();
    return;
  }
  // The editor's thread prints between two keys, so that it can draw its line again.
  state_->prints.push_back(&print);
  const size_t mine = ++state_->queued;
  (void)!write(state_->wake[1], "x", 1);
  state_->printed.wait(lock, [&] { return state_->done >= mine; });
}

std::vector<std::string> LineEditor::History() const {
  std::vector<std::string> lines;
  if (!interactive_) return lines;
  HistEvent event;
  // The list runs from the newest (H_FIRST) to the oldest (H_LAST).
  for (int found = history(state_->history, &event, H_LAST); found != -1;
       found = history(state_->history, &event, H_PREV)) {
    std::string entry = event.str;
    while (!entry.empty() && entry.back() == '\n') entry.pop_back();
    lines.push_back(entry);
  }
  return lines;
}

}  // namespace em_oidmap::emhost
