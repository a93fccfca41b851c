// The registry tree's save: the new file first, then the renames, then the directory
// synced (platform/FileIo.h).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/FileIo.h"
#include "platform/Registry.h"
#include "trace/DebugClient.h"

namespace em_oidmap {

bool CRegistry::WriteTempFile(const std::string& text) {
  switch (WriteNewFile(*io_, temp_path_, text, 0666, false)) {
    case NewFileResult::kOpenFailed:
      EM_TRACE(1, "CRegistry: ERROR: Cannot open \"%s\" for writing\n", temp_path_.c_str());
      return false;
    case NewFileResult::kWriteFailed:
      EM_TRACE(1, "CRegistry: ERROR: Cannot write \"%s\"\n", temp_path_.c_str());
      return false;
    case NewFileResult::kWritten:
      break;
  }
  return true;
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
  if (!SyncDirectory(*io_, directory_)) {
    EM_TRACE(1, "CRegistry: WARNING: Cannot sync the directory \"%s\"\n", directory_.c_str());
  }
  is_dirty_ = false;
  EM_TRACE(2, "\nCRegistry::SaveTree MPRegistryTemp[%s] \t MPRegistry[%s]", temp_path_.c_str(),
           tree_path_.c_str());
  return true;
}

}  // namespace em_oidmap
