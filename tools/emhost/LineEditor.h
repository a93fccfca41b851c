// LineEditor: the shell's input line. On a terminal it uses libedit: line editing,
// history (kept in ~/.emhost_history, at most 1000 lines) and completion. Otherwise it
// reads plain lines, so that a script can pipe commands in.
//
// Lines that other threads print while the user types go above the prompt: the input
// line is cleared, the text printed and the line drawn again.
#ifndef EM_TOOLS_EMHOST_LINEEDITOR_H
#define EM_TOOLS_EMHOST_LINEEDITOR_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace em_oidmap::emhost {

class LineEditor {
 public:
  // The candidates for the word being completed, given the line before it.
  using Completer =
      std::function<std::vector<std::string>(const std::string& before, const std::string& word)>;

  LineEditor(std::string prompt, Completer completer);
  ~LineEditor();
  LineEditor(const LineEditor&) = delete;
  LineEditor& operator=(const LineEditor&) = delete;

  // The next line; false at the end of the input (Ctrl-D).
  bool ReadLine(std::string& line);
  // Runs print() (which writes whole lines) from any thread without tearing the input line.
  void Interject(const std::function<void()>& print);
  // The lines entered so far, oldest first.
  std::vector<std::string> History() const;
  bool Interactive() const { return interactive_; }

  struct State;

 private:
  bool interactive_ = false;
  std::unique_ptr<State> state_;
  std::string historyFile_;
};

}  // namespace em_oidmap::emhost

#endif  // EM_TOOLS_EMHOST_LINEEDITOR_H
