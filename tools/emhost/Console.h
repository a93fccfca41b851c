// Console: every line emhost writes to standard output and standard error passes here,
// and so do the module's trace lines when they are shown. Trace lines start with a line
// feed and end without one, so an emhost line written after one would run into it: the
// console ends an open line first. Where both streams are the same terminal they share
// one screen line.
//
// The shell sets an interjector, so that lines printed while the user types do not tear
// the input line (it clears the line, prints and redraws).
//
// Thread safety: every function may be called from any thread; lines never interleave.
#ifndef EM_TOOLS_EMHOST_CONSOLE_H
#define EM_TOOLS_EMHOST_CONSOLE_H

#include <cstdio>
#include <functional>
#include <string>

namespace em_oidmap::emhost {

namespace console {

// Whole lines (or text ending in a line feed) to standard output and standard error.
void Out(const std::string& text);
void Err(const std::string& text);
// A trace line of the module as the module wrote it, to `file` (nullptr: standard error).
void Trace(const std::string& line, std::FILE* file);
// Text that stays on its screen line (progress), to standard error; "" clears it.
void Status(const std::string& text);
// Ends a line that a trace line left open (at the end of a run).
void Finish();

// Runs print() so that it does not disturb what the user is typing (nullptr: none).
using Interjector = std::function<void(const std::function<void()>& print)>;
void SetInterjector(Interjector interjector);

}  // namespace console

}  // namespace em_oidmap::emhost

#endif  // EM_TOOLS_EMHOST_CONSOLE_H
