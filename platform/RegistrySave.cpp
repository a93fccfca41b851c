// The registry tree's files: the system calls a save makes, and the save itself (the
// new file first, then the renames, then the directory synced).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/Registry.h"
#include "runtime/NeverDestroyed.h"
#include "trace/DebugClient.h"

namespace em_oidmap {

int RegistryFileIo::Open(const char* path, int flags, mode_t mode) {
  return ::open(path, flags, mode);
}
ssize_t RegistryFileIo::Write(int fd, const void* data, size_t size) {
  return ::write(fd, data, size);
}
int RegistryFileIo::Sync(int fd) { return ::fsync(fd); }
int RegistryFileIo::Close(int fd) { return ::close(fd); }
int RegistryFileIo::Rename(const char* from, const char* to) { return ::rename(from, to); }
int RegistryFileIo::Unlink(const char* path) { return ::unlink(path); }

RegistryFileIo& RegistryFileIo::System() {
  static NeverDestroyed<RegistryFileIo> io;
  return io.Get();
}

bool CRegistry::WriteTempFile(const std::string& text) {
  int fd = io_->Open(temp_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) {
    EM_TRACE(1, "CRegistry: ERROR: Cannot open \"%s\" for writing\n", temp_path_.c_str());
    return false;
  }
  bool written = true;
  for (size_t done = 0; written && done < text.size();) {
    ssize_t n = io_->Write(fd, text.data() + done, text.size() - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
    } else if (n == 0 || errno != EINTR) {
      written = false;
    }
  }
  written = written && io_->Sync(fd) == 0;
  written = io_->Close(fd) == 0 && written;
  if (!written) {
    EM_TRACE(1, "CRegistry: ERROR: Cannot write \"%s\"\n", temp_path_.c_str());
    io_->Unlink(temp_path_.c_str());
  }
  return written;
}

void CRegistry::SyncDirectory() {
  int fd = io_->Open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
  bool synced = fd >= 0 && io_->Sync(fd) == 0;
  if (fd >= 0) synced = io_->Close(fd) == 0 && synced;
  if (!synced) {
    EM_TRACE(1, "CRegistry: WARNING: Cannot sync the directory \"%s\"\n", directory_.c_str());
  }
}

bool CRegistry::SaveTree() {
  CRecursiveLockGuard guard(lock_);
  return SaveTreeLocked();
}

bool CRegistry::SaveTreeLocked() {
  if (!is_dirty_ || !root_) return true;
  // The whole text first, so that the file calls are few and a test can stop at each.
  char* buffer = nullptr;
  size_t size = 0;
  FILE* memory = open_memstream(&buffer, &size);
  if (memory == nullptr) {
    EM_TRACE(1, "CRegistry: ERROR: Cannot write \"%s\"\n", temp_path_.c_str());
    return false;
  }
  bool rendered = root_->Write(memory);
  rendered = fclose(memory) == 0 && rendered;
  std::string text = rendered ? std::string(buffer, size) : std::string();
  free(buffer);
  if (!rendered) {
    EM_TRACE(1, "CRegistry: ERROR: Cannot write \"%s\"\n", temp_path_.c_str());
    return false;
  }
  if (!WriteTempFile(text)) return false;
  struct stat st {};
  if (stat(tree_path_.c_str(), &st) == 0 && st.st_size > 0 &&
      io_->Rename(tree_path_.c_str(), backup_path_.c_str()) != 0) {
    EM_TRACE(1, "CRegistry: WARNING: Cannot rename \"%s\" to \"%s\"\n", tree_path_.c_str(),
             backup_path_.c_str());
  }
  if (io_->Rename(temp_path_.c_str(), tree_path_.c_str()) != 0) {
    EM_TRACE(1, "CRegistry: ERROR: Cannot rename \"%s\" to \"%s\"\n", temp_path_.c_str(),
             tree_path_.c_str());
    return false;
  }
  SyncDirectory();
  is_dirty_ = false;
  EM_TRACE(2, "\nCRegistry::SaveTree MPRegistryTemp[%s] \t MPRegistry[%s]", temp_path_.c_str(),
           tree_path_.c_str());
  return true;
}

}  // namespace em_oidmap
