// Scratch directory and file helpers shared by the fuzz targets that feed files.
#ifndef EM_FUZZ_FUZZTEMPDIR_H
#define EM_FUZZ_FUZZTEMPDIR_H

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace em_oidmap {

namespace fuzz {

// A directory made once per process (on tmpfs when there is one: the registry syncs every
// save, which would dominate the run time on a disk). Removed when the process exits
// normally; a crash leaves it behind for a look at the files.
inline const std::string& TempDir(const char* tag) {
  static const std::string dir = [tag] {
    struct stat st;
    const char* base = stat("/dev/shm", &st) == 0 && S_ISDIR(st.st_mode) ? "/dev/shm" : "/tmp";
    std::string pattern = std::string(base) + "/em_fuzz_" + tag + "_XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) abort();
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
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) abort();
  if (size > 0 && fwrite(data, 1, size, f) != size) abort();
  if (fclose(f) != 0) abort();
}

// The whole file; empty when it cannot be read.
inline std::string ReadFile(const std::string& path) {
  std::string text;
  FILE* f = fopen(path.c_str(), "rb");
  if (f == nullptr) return text;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, f)) > 0) text.append(buffer, n);
  fclose(f);
  return text;
}

}  // namespace fuzz

}  // namespace em_oidmap

#endif  // EM_FUZZ_FUZZTEMPDIR_H
