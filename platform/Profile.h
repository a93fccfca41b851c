// Private profile files: INI-style text files of "[section]" headers, "key=value" lines
// and ';' comments, read line by line, with the shape of the operating-system profile
// calls. A write puts a whole new file in place of the old one (platform/FileIo.h), so
// that a crash or a full disk never leaves half of it. Lines are read up to kProfileLineBytes - 1
// bytes; the rest of a longer line is skipped. Section and key names compare case-sensitively.
//
// Thread safety: the functions keep no state; concurrent writers of one file must be
// serialised by the caller, as with the system calls.
#ifndef EM_PLATFORM_PROFILE_H
#define EM_PLATFORM_PROFILE_H

#include <cstdint>

#include "platform/FileIo.h"

namespace em_oidmap {

constexpr uint32_t kProfileLineBytes = 1024;

// Reads a value, or lists names when `section` or `key` is null:
//   - section null: every section name, each followed by a NUL, then one extra NUL;
//   - key null: the names of the keys of `section`, in the same form.
// A value is the text after the first '=' with blanks around it removed and cut at the
// first ';'. A missing file, section or key, or an empty value, gives `defaultValue`
// (nothing when any of section, key, default is null). At most `bufferSize` bytes of
// `buffer` are written, and what is stored is always NUL-terminated.
// Returns the number of characters stored, without the terminating NUL (for a list, the
// names and their NULs without the extra NUL). A value that did not fit is cut to
// bufferSize - 1 characters; a list that did not fit ends with two NULs and gives
// bufferSize - 2. Reading stops once bufferSize - 2 characters are stored, so a list of
// that length or more may be incomplete: retry with a larger buffer.
uint32_t GetPrivateProfileString(const char* section, const char* key, const char* defaultValue,
                                 char* buffer, uint32_t bufferSize, const char* filePath);

// Writes "key=value" into `section`, replacing the key's line (and the comment and blank
// lines directly above it) when it exists, adding it after the section's last key
// otherwise, and appending the section to the file when it does not exist. A null value
// deletes the key; a null key deletes the whole section. A file that is created gets mode
// 0644. Returns true on success; false for a null section or path, for deleting a key
// that is not there, and on any file error. Only a header that starts in the first column
// is recognised here (GetPrivateProfileString also accepts leading blanks).
// The new text is written to "<file>.new", synced and renamed over the file, which keeps
// its mode, and the directory is synced: at any point of a crash the file holds the old
// text or the new one, whole. A file reached through a symbolic link is replaced where
// the link points. A file this process may not write is not written.
bool WritePrivateProfileString(const char* section, const char* key, const char* value,
                               const char* filePath);
// The same through `io` (tests stop a write at any of its file calls).
bool WritePrivateProfileString(const char* section, const char* key, const char* value,
                               const char* filePath, FileIo& io);

// The value as a signed decimal number; `defaultValue` when it is missing or does not
// start with a number. Out-of-range values are clamped.
int32_t GetPrivateProfileInt(const char* section, const char* key, int32_t defaultValue,
                             const char* filePath);
// Write the value as "%d" / "%u".
bool WritePrivateProfileInt(const char* section, const char* key, int32_t value,
                            const char* filePath);
bool WritePrivateProfileUInt(const char* section, const char* key, uint32_t value,
                             const char* filePath);

// Copies every key of `fromSection` in `fromPath` to `toSection` in `toPath` (the same
// file is allowed), keeping the other keys there. Values longer than
// kProfileLineBytes - 1 bytes are cut. Returns true when every key was written (also for
// an empty or missing section).
bool CopyPrivateProfileSection(const char* fromPath, const char* fromSection, const char* toPath,
                               const char* toSection);

}  // namespace em_oidmap

#endif  // EM_PLATFORM_PROFILE_H
