// What the fuzz targets share: a check that stops the run on the input that failed it, the
// input as text, tracing switched off, a well-formed message check, and scratch files.
#ifndef EM_FUZZ_FUZZHARNESS_H
#define EM_FUZZ_FUZZHARNESS_H

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

#include "sip/SipJson.h"
#include "trace/DebugClient.h"

namespace em_oidmap::fuzz {

// A trap: libFuzzer reports it as a crash and keeps the input.
inline void Check(bool ok) {
  if (!ok) __builtin_trap();
}

inline std::string Text(const uint8_t* data, size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}

// Tracing off, once per process: traced refusals of bad input would dominate the run.
inline void Quiet() {
  static const bool quiet = (TraceClient().SetTraceLevel(0), true);
  (void)quiet;
}

// The message must still be one that a host can send on: its text parses again.
inline void CheckWellFormed(const SipJson& msg) {
  SipJson again;
  Check(again.Parse(msg.Serialize()));
}

// A directory made once per process (on tmpfs when there is one: the registry syncs every
// save, which would dominate the run time on a disk). Removed when the process exits
// normally; a crash leaves it behind for a look at the files.
inline const std::string& TempDir(const char* tag) {
  static const std::string dir = [tag] {
    struct stat st;
    const char* base = stat("/dev/shm", &st) == 0 && S_ISDIR(st.st_mode) ? "/dev/shm" : "/tmp";
    std::string pattern = std::string(base) + "/em_fuzz_" + tag + "_XXXXXX";
    Check(mkdtemp(&pattern[0]) != nullptr);
    return pattern;
  }();
  static const bool cleanup = atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(TempDir(nullptr), ignored);
  }) == 0;
  (void)cleanup;
  return dir;
}

inline void WriteFile(const std::string& path, const uint8_t* data, size_t size) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  file.close();
  Check(!file.fail());
}

// The whole file; empty when it cannot be read.
inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

}  // namespace em_oidmap::fuzz

#endif  // EM_FUZZ_FUZZHARNESS_H
