#include "hostsim/DebugSink.h"

#include <cstdio>

// The sink formats what the module hands it: the format comes from the module's trace
// sites by contract, so its not being a literal here is the point of this file.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

// The object the module looks up with dlsym(RTLD_DEFAULT, "Debug"): C linkage keeps the
// symbol name unmangled, default visibility keeps it in the dynamic symbol table.
extern "C" {
__attribute__((visibility("default"))) em_oidmap::hostsim::CaptureSink Debug;
}

namespace em_oidmap::hostsim {

CaptureSink& Sink() { return Debug; }

void CaptureSink::Capture(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  char small[512];
  int n = vsnprintf(small, sizeof small, format, copy);
  va_end(copy);
  std::string line;
  if (n < 0) {
    line = "<format error>";
  } else if (static_cast<size_t>(n) < sizeof small) {
    line.assign(small, static_cast<size_t>(n));
  } else {
    line.resize(static_cast<size_t>(n) + 1);
    va_copy(copy, args);
    vsnprintf(&line[0], line.size(), format, copy);
    va_end(copy);
    line.resize(static_cast<size_t>(n));
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (echo_) {
    fputs(line.c_str(), echoTo_ != nullptr ? echoTo_ : stderr);
  }
  if (observer_) observer_(line);
  if (keep_) lines_.push_back(std::move(line));
}

void CaptureSink::PrintV(const char* format, va_list args, const char* /*tag*/) {
  Capture(format, args);
}

void CaptureSink::TraceV(const char* format, va_list args, const char* /*tag*/) {
  Capture(format, args);
}

std::vector<std::string> CaptureSink::Lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::string CaptureSink::Text() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string all;
  for (const auto& l : lines_) all += l;
  return all;
}

bool CaptureSink::HasLine(const std::string& line) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& l : lines_) {
    if (l == line) return true;
  }
  return false;
}

bool CaptureSink::Contains(const std::string& fragment) const {
  return Count(fragment) > 0;
}

size_t CaptureSink::Count(const std::string& fragment) const {
  std::lock_guard<std::mutex> lock(mutex_);
  size_t n = 0;
  for (const auto& l : lines_) {
    if (l.find(fragment) != std::string::npos) ++n;
  }
  return n;
}

void CaptureSink::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

void CaptureSink::SetKeepLines(bool keep) {
  std::lock_guard<std::mutex> lock(mutex_);
  keep_ = keep;
}

void CaptureSink::SetObserver(Observer observer) {
  std::lock_guard<std::mutex> lock(mutex_);
  observer_ = std::move(observer);
}

void CaptureSink::SetEcho(bool echo, std::FILE* to) {
  std::lock_guard<std::mutex> lock(mutex_);
  echo_ = echo;
  echoTo_ = to;
}

}  // namespace em_oidmap::hostsim
