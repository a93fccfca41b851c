// The host's trace sink, exported under the unmangled symbol "Debug" so that modules find
// it with dlsym. It formats every line (vsnprintf) into a capture buffer and, when echo
// is on, to standard error. Linked into every test executable and into emhost.
//
// Thread safety: all members may be called from any thread.
#ifndef EM_HOSTSIM_DEBUGSINK_H
#define EM_HOSTSIM_DEBUGSINK_H

#include <cstdarg>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "module/CIDebugSink.h"

namespace em_oidmap::hostsim {

class CaptureSink : public CIDebugSink {
 public:
  bool IsReady() override { return ready_; }
  void PrintV(const char* format, va_list args, const char* tag) override;
  void TraceV(const char* format, va_list args, const char* tag) override;

  // The formatted lines captured so far, in order.
  std::vector<std::string> Lines() const;
  // All captured text concatenated.
  std::string Text() const;
  // True when some captured line equals `line` exactly.
  bool HasLine(const std::string& line) const;
  // True when some captured line contains `fragment`.
  bool Contains(const std::string& fragment) const;
  // Number of captured lines that contain `fragment`.
  size_t Count(const std::string& fragment) const;
  void Clear();
  // Echo every line to `to` (nullptr: standard error) as well.
  void SetEcho(bool echo, std::FILE* to = nullptr);
  // A sink that is not ready makes the module drop its lines.
  void SetReady(bool ready) { ready_ = ready; }
  // false: lines are no longer kept for Lines() and the queries (a host that runs for
  // long); echo and the observer still see them.
  void SetKeepLines(bool keep);
  // Called with every line, in order, under the sink's lock (it must not call the sink);
  // an empty function removes it.
  using Observer = std::function<void(const std::string& line)>;
  void SetObserver(Observer observer);

 private:
  void Capture(const char* format, va_list args);

  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  bool echo_ = false;
  bool keep_ = true;
  Observer observer_;
  std::FILE* echoTo_ = nullptr;
  volatile bool ready_ = true;
};

// The exported sink object.
CaptureSink& Sink();

}  // namespace em_oidmap::hostsim

#endif  // EM_HOSTSIM_DEBUGSINK_H
