// FileIo: the file calls of a save that must survive a crash (the registry's tree, a
// private profile file), and the two steps such saves share: writing a whole new file and
// syncing it, and syncing a directory after a rename in it. A save writes a new file next
// to the old one and renames it over the old: at any point of a crash the old or the new
// file is there whole.
//
// Tests replace the calls to stop a save at any of them, as a crash would; the defaults
// are the system calls.
//
// Thread safety: the system calls are; a test's replacement belongs to its test.
#ifndef EM_PLATFORM_FILEIO_H
#define EM_PLATFORM_FILEIO_H

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace em_oidmap {

class FileIo {
 public:
  virtual ~FileIo() = default;
  virtual int Open(const char* path, int flags, mode_t mode);
  virtual ssize_t Write(int fd, const void* data, size_t size);
  virtual int Chmod(int fd, mode_t mode);
  virtual int Sync(int fd);
  virtual int Close(int fd);
  virtual int Rename(const char* from, const char* to);
  virtual int Unlink(const char* path);
  // The system calls.
  static FileIo& System();
};

enum class NewFileResult { kWritten, kOpenFailed, kWriteFailed };

// Writes `text` to `path` (created, or emptied first) and syncs it. With `exactMode` the
// file gets `mode` whatever the process's umask; else `mode` goes through the umask. On
// a failure the file is removed.
NewFileResult WriteNewFile(FileIo& io, const std::string& path, const std::string& text,
                           mode_t mode, bool exactMode);

// Syncs the directory `directory`, so that a rename in it outlives a power loss. False
// when it cannot be opened or synced.
bool SyncDirectory(FileIo& io, const std::string& directory);

}  // namespace em_oidmap

#endif  // EM_PLATFORM_FILEIO_H
