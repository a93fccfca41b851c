#include "platform/FileIo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "runtime/NeverDestroyed.h"

namespace em_oidmap {

int FileIo::Open(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }
ssize_t FileIo::Write(int fd, const void* data, size_t size) { return ::write(fd, data, size); }
int FileIo::Chmod(int fd, mode_t mode) { return ::fchmod(fd, mode); }
int FileIo::Sync(int fd) { return ::fsync(fd); }
int FileIo::Close(int fd) { return ::close(fd); }
int FileIo::Rename(const char* from, const char* to) { return ::rename(from, to); }
int FileIo::Unlink(const char* path) { return ::unlink(path); }

FileIo& FileIo::System() {
  static NeverDestroyed<FileIo> io;
  return io.Get();
}

NewFileResult WriteNewFile(FileIo& io, const std::string& path, const std::string& text,
                           mode_t mode, bool exactMode) {
  const int fd = io.Open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) return NewFileResult::kOpenFailed;
  bool written = !exactMode || io.Chmod(fd, mode) == 0;
  for (size_t done = 0; written && done < text.size();) {
    const ssize_t n = io.Write(fd, text.data() + done, text.size() - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
    } else if (n == 0 || errno != EINTR) {
      written = false;
    }
  }
  written = written && io.Sync(fd) == 0;
  written = io.Close(fd) == 0 && written;
  if (!written) {
    io.Unlink(path.c_str());
    return NewFileResult::kWriteFailed;
  }
  return NewFileResult::kWritten;
}

bool SyncDirectory(FileIo& io, const std::string& directory) {
  const int fd = io.Open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
  bool synced = fd >= 0 && io.Sync(fd) == 0;
  if (fd >= 0) synced = io.Close(fd) == 0 && synced;
  return synced;
}

}  // namespace em_oidmap
