#include "platform/Profile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/FileIo.h"
#include "platform/LineReader.h"
#include "trace/DebugClient.h"

namespace em_oidmap {

namespace {

struct FileCloser {
  void operator()(FILE* f) const { fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

const char* Nil(const char* s) { return s ? s : "<nil>"; }

bool IsSpace(char c) { return isspace(static_cast<unsigned char>(c)) != 0; }

// The default as the result of a read: copied within the buffer, length returned.
uint32_t StoreDefault(const char* section, const char* key, const char* defaultValue, char* buffer,
                      uint32_t bufferSize) {
  if (section == nullptr || key == nullptr || defaultValue == nullptr) return 0;
  strncpy(buffer, defaultValue, bufferSize);
  buffer[bufferSize - 1] = '\0';
  return static_cast<uint32_t>(strlen(buffer));
}

// The file's whole text; false when it cannot be read.
bool ReadWhole(FILE* file, std::string* text) {
  if (fseek(file, 0, SEEK_END) != 0) return false;
  const long length = ftell(file);
  if (length < 0 || fseek(file, 0, SEEK_SET) != 0) return false;
  try {
    text->resize(static_cast<size_t>(length));
  } catch (const std::bad_alloc&) {
    return false;
  }
  return fread(&(*text)[0], 1, text->size(), file) == text->size() && fseek(file, 0, SEEK_SET) == 0;
}

std::string NewSection(const char* section, const std::string& keyLine) {
  return std::string("\n[") + section + "]\n\n" + keyLine;
}

// One write to an existing file: the scan for the section and the key, and the new text
// of the file with the edit made where the scan finds them.
class ProfileEdit {
 public:
  ProfileEdit(FILE* file, std::string text, const char* section, const char* key, const char* value,
              std::string keyLine)
      : file_(file),
        text_(std::move(text)),
        section_(section),
        sectionLength_(strlen(section)),
        key_(key),
        value_(value),
        keyLine_(std::move(keyLine)) {}

  // True when the file changes; its new text is then Text().
  bool Run() {
    long noted = -1;  // start of the blank and comment lines above the next line
    platform_detail::BoundedLine line;
    for (;;) {
      long lineStart = ftell(file_);
      if (lineStart < 0) return false;
      if (!platform_detail::ReadBoundedLine(file_, kProfileLineBytes, &line)) break;
      long lineEnd = ftell(file_);
      if (lineEnd < 0) return false;
      const std::string& t = line.text;
      if (t.empty() || t[0] == ';') {
        if (noted < 0) noted = lineStart;
        continue;
      }
      const long position = noted >= 0 ? noted : lineStart;
      noted = -1;
      const std::optional<bool> edited =
          t[0] == '[' ? OnHeader(t, position) : OnKeyLine(t, position, lineEnd);
      if (edited) return *edited;
    }
    return AtEnd();
  }

  const std::string& Text() const { return text_; }

 private:
  // Replaces the bytes [start, end) of the text by an optional line feed and `insert`.
  bool Replace(long start, long end, bool lineFeed, const std::string& insert) {
    end = std::min(end, static_cast<long>(text_.size()));
    if (start < 0 || start > end) return false;
    text_.replace(static_cast<size_t>(start), static_cast<size_t>(end - start),
                  (lineFeed ? "\n" : "") + insert);
    return true;
  }

  // Appends `text` at the end, after a line feed when the last line lacks one.
  bool Append(const std::string& text) {
    if (!text_.empty() && text[0] != '\n' && text_.back() != '\n') text_ += '\n';
    text_ += text;
    return true;
  }

  // A section header: it ends our section without the key (the edit is made there) or
  // opens it. Nothing when the scan goes on.
  std::optional<bool> OnHeader(const std::string& t, long position) {
    if (open_) {
      if (key_ == nullptr) return Replace(sectionStart_, position, false, "");
      if (value_ == nullptr) return false;
      return Replace(position, position, false, keyLine_);
    }
    if (t.compare(1, sectionLength_, section_) == 0 && t.size() > sectionLength_ + 1 &&
        t[sectionLength_ + 1] == ']') {
      open_ = true;
      sectionStart_ = position;
      lineCounter_ = 0;
    }
    return std::nullopt;
  }

  // A line of a section: our key's line is replaced (or deleted with an empty key line).
  std::optional<bool> OnKeyLine(const std::string& t, long position, long lineEnd) {
    if (!open_) return std::nullopt;
    ++lineCounter_;
    size_t eq = t.find('=');
    if (eq == std::string::npos || key_ == nullptr) return std::nullopt;
    size_t keyEnd = eq;
    // Trimmed as a read trims it, so that a write replaces the key a read finds.
    while (keyEnd > 0 && IsSpace(t[keyEnd - 1])) --keyEnd;
    if (t.compare(0, keyEnd, key_) != 0) return std::nullopt;
    // The first key line's region swallowed the empty line below the header.
    return Replace(position, lineEnd, lineCounter_ < 2, keyLine_);
  }

  // The file ended before the edit was made.
  bool AtEnd() {
    if (key_ != nullptr && value_ != nullptr) {
      return Append(open_ ? keyLine_ : NewSection(section_, keyLine_));
    }
    if (key_ == nullptr && open_) {
      return Replace(sectionStart_, static_cast<long>(text_.size()), false, "");
    }
    return false;
  }

  FILE* const file_;
  std::string text_;
  const char* const section_;
  const size_t sectionLength_;
  const char* const key_;
  const char* const value_;
  const std::string keyLine_;
  bool open_ = false;  // inside our section
  long sectionStart_ = 0;
  int lineCounter_ = 0;
};

// Puts `text` in place of the file at `path`: written whole to "<path>.new" with the mode
// `mode`, synced, renamed over the file, and the directory synced (as the registry saves),
// so that a crash or a full disk at any point leaves the old file or the new one whole.
bool ReplaceFile(FileIo& io, const std::string& path, const std::string& text, mode_t mode) {
  const std::string temp = path + ".new";
  if (WriteNewFile(io, temp, text, mode, true) != NewFileResult::kWritten) {
    EM_TRACE(1, "WritePrivateProfileString: ## WARNING: write error: %s\n", temp.c_str());
    return false;
  }
  if (io.Rename(temp.c_str(), path.c_str()) != 0) {
    EM_TRACE(1, "WritePrivateProfileString: ## WARNING: write error: %s\n", path.c_str());
    io.Unlink(temp.c_str());
    return false;
  }
  const size_t slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  if (!SyncDirectory(io, directory)) {
    EM_TRACE(1, "WritePrivateProfileString: ## WARNING: cannot sync the directory %s\n",
             directory.c_str());
  }
  return true;
}

bool WriteProfile(const char* section, const char* key, const char* value, const char* path,
                  FileIo& io) {
  std::string keyLine = key && value ? std::string(key) + "=" + value + "\n" : std::string();
  // Through a symbolic link the file it names is replaced; the link stays.
  std::string target = path;
  if (char* real = realpath(path, nullptr)) {
    target = real;
    free(real);  // NOLINT(cppcoreguidelines-no-malloc): realpath's own buffer
  }
  // Opened for writing as before, so that a file this process may not write stays as it is.
  FilePtr file(fopen(target.c_str(), "r+"));
  if (!file) {
    if (errno == ENOENT) {
      if (key == nullptr || value == nullptr) return true;  // nothing to delete
      return ReplaceFile(io, target, NewSection(section, keyLine), 0644);
    }
    EM_TRACE(1, "WritePrivateProfileString: ## WARNING: append open error: %s\n", path);
    return false;
  }
  struct stat st {};
  std::string text;
  if (fstat(fileno(file.get()), &st) != 0 || !ReadWhole(file.get(), &text)) {
    EM_TRACE(1, "WritePrivateProfileString: ## WARNING: append open error: %s\n", path);
    return false;
  }
  ProfileEdit edit(file.get(), std::move(text), section, key, value, std::move(keyLine));
  if (!edit.Run()) return false;
  file.reset();
  return ReplaceFile(io, target, edit.Text(), st.st_mode & 07777);
}

// The answer of a read, in the caller's buffer: characters are added while there is room.
class ProfileAnswer {
 public:
  ProfileAnswer(char* buffer, uint32_t size) : buffer_(buffer), size_(size) {}
  uint32_t Count() const { return count_; }
  void Put(char c) {
    if (count_ < size_) buffer_[count_++] = c;
  }
  void PutText(const char* begin, const char* end) {
    for (const char* p = begin; p < end && count_ < size_; ++p) Put(*p);
  }
  // Terminates the answer (a list with an extra NUL after the last name's own) and
  // returns its length; an answer cut by the buffer's size is cut on a whole terminator.
  uint32_t Finish(bool list) {
    if (count_ >= size_) {
      if (list) {
        if (size_ < 2) {
          buffer_[0] = '\0';
          return 0;
        }
        buffer_[size_ - 2] = '\0';
        buffer_[size_ - 1] = '\0';
        return size_ - 2;
      }
      count_ = size_ - 1;
    }
    buffer_[count_] = '\0';
    return count_;
  }

 private:
  char* const buffer_;
  const uint32_t size_;
  uint32_t count_ = 0;
};

// One line of a read: adds to `answer` what it asks of the line (the section names when
// `section` is null, the keys of the section when `key` is null, else the key's value).
// False when the read is complete.
bool ReadProfileLine(std::string& t, const char* section, const char* key, bool* inSection,
                     ProfileAnswer& answer) {
  size_t first = 0;
  while (first < t.size() && IsSpace(t[first])) ++first;
  if (first == t.size() || t[first] == ';') return true;
  size_t semicolon = t.find(';', first);
  if (semicolon != std::string::npos) t.resize(semicolon);
  while (t.size() > first && IsSpace(t.back())) t.pop_back();
  const char* p = t.c_str() + first;
  const char* end = t.c_str() + t.size();

  if (*p == '[') {
    if (*inSection) return false;
    if (section == nullptr) {
      const char* close = strchr(p, ']');
      if (close == nullptr) return true;
      answer.PutText(p + 1, close);
      answer.Put('\0');
      return true;
    }
    const size_t sectionLength = strlen(section);
    if (strncmp(p + 1, section, sectionLength) == 0 && p[1 + sectionLength] == ']') {
      *inSection = true;
    }
    return true;
  }
  if (!*inSection) return true;
  const char* eq = strchr(p, '=');
  if (eq == nullptr) return true;
  const char* keyEnd = eq;
  while (keyEnd > p && IsSpace(keyEnd[-1])) --keyEnd;
  if (key == nullptr) {
    answer.PutText(p, keyEnd);
    answer.Put('\0');
    return true;
  }
  if (static_cast<size_t>(keyEnd - p) != strlen(key) || strncmp(p, key, keyEnd - p) != 0) {
    return true;
  }
  const char* v = eq + 1;
  while (v < end && IsSpace(*v)) ++v;
  answer.PutText(v, end);
  return false;
}

}  // namespace

uint32_t GetPrivateProfileString(const char* section, const char* key, const char* defaultValue,
                                 char* buffer, uint32_t bufferSize, const char* filePath) {
  if (buffer == nullptr || bufferSize == 0) return 0;
  buffer[0] = '\0';
  FilePtr file(filePath ? fopen(filePath, "r") : nullptr);
  if (!file) {
    EM_TRACE(4, "GetPrivateProfileString: Cannot open %s\n", Nil(filePath));
    return StoreDefault(section, key, defaultValue, buffer, bufferSize);
  }

  const bool list = section == nullptr || key == nullptr;
  // Only a list keeps room for its closing NULs; a value read must still find its key
  // when the buffer holds just one character and the terminator.
  const int64_t stopAt = static_cast<int64_t>(bufferSize) - (list ? 2 : 0);
  ProfileAnswer answer(buffer, bufferSize);
  bool inSection = false;
  platform_detail::BoundedLine line;
  while (static_cast<int64_t>(answer.Count()) < stopAt &&
         platform_detail::ReadBoundedLine(file.get(), kProfileLineBytes, &line)) {
    if (!ReadProfileLine(line.text, section, key, &inSection, answer)) break;
  }
  file.reset();

  if (answer.Count() == 0) return StoreDefault(section, key, defaultValue, buffer, bufferSize);
  return answer.Finish(list);
}

bool WritePrivateProfileString(const char* section, const char* key, const char* value,
                               const char* filePath) {
  return WritePrivateProfileString(section, key, value, filePath, FileIo::System());
}

bool WritePrivateProfileString(const char* section, const char* key, const char* value,
                               const char* filePath, FileIo& io) {
  if (section == nullptr) {
    EM_TRACE(4, "WritePrivateProfileString: ## WARNING: invalid pointer to AppName\n");
    return false;
  }
  if (filePath == nullptr) {
    EM_TRACE(4, "WritePrivateProfileString: ## WARNING: invalid pointer to FileName\n");
    return false;
  }
  EM_TRACE(4, "WritePrivateProfileString(%s, %s, %s, %s)\n", section, Nil(key), Nil(value),
           filePath);
  // A line feed would start a new line and an '=' in a key would end the key early: the
  // file would read back differently from what was written.
  auto hasLineFeed = [](const char* text) { return text != nullptr && strchr(text, '\n'); };
  if (hasLineFeed(section) || hasLineFeed(key) || hasLineFeed(value) ||
      (key != nullptr && strchr(key, '=') != nullptr)) {
    EM_TRACE(1,
             "WritePrivateProfileString: ## WARNING: line feed in section, key or value, or "
             "'=' in key, refused\n");
    return false;
  }
  bool rc = WriteProfile(section, key, value, filePath, io);
  EM_TRACE(4, "WritePrivateProfileString rc=0x%04x\n", rc ? 1u : 0u);
  return rc;
}

int32_t GetPrivateProfileInt(const char* section, const char* key, int32_t defaultValue,
                             const char* filePath) {
  char text[64];
  if (GetPrivateProfileString(section, key, "", text, sizeof text, filePath) == 0) {
    return defaultValue;
  }
  char* end = nullptr;
  long long value = strtoll(text, &end, 10);
  if (end == text) return defaultValue;
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(value);
}

bool WritePrivateProfileInt(const char* section, const char* key, int32_t value,
                            const char* filePath) {
  char text[16];
  snprintf(text, sizeof text, "%d", value);
  return WritePrivateProfileString(section, key, text, filePath);
}

bool WritePrivateProfileUInt(const char* section, const char* key, uint32_t value,
                             const char* filePath) {
  char text[16];
  snprintf(text, sizeof text, "%u", value);
  return WritePrivateProfileString(section, key, text, filePath);
}

bool CopyPrivateProfileSection(const char* fromPath, const char* fromSection, const char* toPath,
                               const char* toSection) {
  if (fromSection == nullptr || toSection == nullptr) return false;
  // A listing that reaches bufferSize - 2 may be incomplete: grow until it does not.
  constexpr uint32_t kMaxListBytes = 1u << 20;
  std::vector<char> keys(4096);
  uint32_t length = 0;
  for (;;) {
    const uint32_t size = static_cast<uint32_t>(keys.size());
    length = GetPrivateProfileString(fromSection, nullptr, nullptr, keys.data(), size, fromPath);
    if (length + 2 < size) break;
    if (size >= kMaxListBytes) return false;
    keys.assign(static_cast<size_t>(size) * 2, '\0');
  }
  // Read every value before writing, so that copying within one file reads the original.
  std::vector<std::pair<std::string, std::string>> pairs;
  for (uint32_t at = 0; at < length && keys[at] != '\0';) {
    std::string name(&keys[at]);
    at += static_cast<uint32_t>(name.size()) + 1;
    char value[kProfileLineBytes];
    GetPrivateProfileString(fromSection, name.c_str(), "", value, sizeof value, fromPath);
    pairs.emplace_back(std::move(name), value);
  }
  bool ok = true;
  for (const auto& pair : pairs) {
    ok =
        WritePrivateProfileString(toSection, pair.first.c_str(), pair.second.c_str(), toPath) && ok;
  }
  return ok;
}

}  // namespace em_oidmap
