#include "LineEditor.h"

#include <editline/readline.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>

namespace {

constexpr int kHistoryLines = 1000;

// libedit keeps one line state per process: the editor that uses it.
std::mutex g_mutex;      // held while libedit runs, on either thread
bool g_active = false;   // ReadLine is waiting for input
bool g_lineDone = false;
bool g_eof = false;
std::string g_line;
LineEditor::Completer g_completer;
std::vector<std::string> g_candidates;

void OnLine(char* text) {
  g_lineDone = true;
  if (text == nullptr) {
    g_eof = true;
    return;
  }
  g_line = text;
  std::free(text);
}

char* NextCandidate(const char* /*word*/, int state) {
  if (state < 0 || static_cast<size_t>(state) >= g_candidates.size()) return nullptr;
  return strdup(g_candidates[static_cast<size_t>(state)].c_str());
}

char** Complete(const char* word, int start, int /*end*/) {
  rl_attempted_completion_over = 1;  // no file names
  const std::string before(rl_line_buffer, static_cast<size_t>(start));
  g_candidates.clear();
  for (const std::string& candidate : g_completer(before, word)) {
    if (candidate.compare(0, std::strlen(word), word) == 0) g_candidates.push_back(candidate);
  }
  // rl_completion_matches asks for the candidates by a growing index, from 0.
  return rl_completion_matches(word, NextCandidate);
}

}  // namespace

LineEditor::LineEditor(std::string prompt, Completer completer)
    : interactive_(isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0) {
  if (!interactive_) return;
  std::lock_guard<std::mutex> lock(g_mutex);
  g_completer = std::move(completer);
  rl_readline_name = "emhost";
  // "=" ends a word, so that "OC=CM_Lo" completes the opcode name.
  static char breaks[] = " \t\n\"'=";
  rl_completer_word_break_characters = breaks;
  rl_attempted_completion_function = Complete;
  using_history();
  stifle_history(kHistoryLines);
  if (const char* home = std::getenv("HOME")) {
    historyFile_ = std::string(home) + "/.emhost_history";
    read_history(historyFile_.c_str());
  }
  rl_callback_handler_install(prompt.c_str(), OnLine);
}

LineEditor::~LineEditor() {
  if (!interactive_) return;
  std::lock_guard<std::mutex> lock(g_mutex);
  rl_callback_handler_remove();
  if (!historyFile_.empty()) write_history(historyFile_.c_str());
}

bool LineEditor::ReadLine(std::string& line) {
  if (!interactive_) return static_cast<bool>(std::getline(std::cin, line));
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lineDone = false;
    g_eof = false;
    g_active = true;
    rl_forced_update_display();
  }
  while (true) {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (poll(&input, 1, -1) < 0) continue;
    std::lock_guard<std::mutex> lock(g_mutex);
    rl_callback_read_char();
    if (!g_lineDone) continue;
    g_active = false;
    if (g_eof) {
      std::fputs("\n", stdout);
      return false;
    }
    line = g_line;
    if (line.find_first_not_of(" \t") != std::string::npos) add_history(line.c_str());
    return true;
  }
}

void LineEditor::Interject(const std::function<void()>& print) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (!interactive_ || !g_active) {
    print();
    return;
  }
  std::fputs("\r\033[K", stdout);
  std::fflush(stdout);
  print();
  rl_forced_update_display();
}

std::vector<std::string> LineEditor::History() const {
  std::vector<std::string> lines;
  if (!interactive_) return lines;
  std::lock_guard<std::mutex> lock(g_mutex);
  for (int i = history_base; i < history_base + history_length; ++i) {
    if (HIST_ENTRY* entry = history_get(i)) lines.emplace_back(entry->line);
  }
  return lines;
}
