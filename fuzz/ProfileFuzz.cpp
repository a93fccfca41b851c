// Arbitrary bytes as a profile file: section lists, key lists and a value are read into
// buffers of several sizes with guard bytes behind them; nothing may be written past the
// buffer, what is stored is terminated, and a smaller buffer gives a prefix of what a large
// one gives. Then a key is written and deleted again.
#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/FuzzHarness.h"
#include "platform/Profile.h"

using namespace em_oidmap;  // a program of its own: its names are short
using fuzz::Check;

namespace {

constexpr char kGuard = '\xA5';
constexpr size_t kGuardBytes = 8;
constexpr uint32_t kLargeBuffer = 64 * 1024;
constexpr uint32_t kSmallSizes[] = {1, 2, 3, 5, 16};

// One read into a buffer of `size` bytes followed by guard bytes; returns what was stored
// (a list with its NULs, without the extra one).
std::string Read(const char* section, const char* key, uint32_t size, const std::string& path) {
  std::vector<char> buffer(size + kGuardBytes, kGuard);
  const uint32_t length =
      GetPrivateProfileString(section, key, "dflt", buffer.data(), size, path.c_str());
  for (size_t i = size; i < buffer.size(); ++i) Check(buffer[i] == kGuard);
  Check(length < size);
  Check(buffer[length] == '\0');
  if (section != nullptr && key != nullptr) Check(strlen(buffer.data()) == length);
  return std::string(buffer.data(), length);
}

// A value is cut to what fits; a list is a prefix of the whole list, and the whole list
// when it is shorter than bufferSize - 2.
void ReadAllSizes(const char* section, const char* key, const std::string& path) {
  const bool list = section == nullptr || key == nullptr;
  const std::string full = Read(section, key, kLargeBuffer, path);
  for (uint32_t size : kSmallSizes) {
    const std::string part = Read(section, key, size, path);
    if (list) {
      Check(full.compare(0, part.size(), part) == 0);
      if (part.size() + 2 < size) Check(part == full);
    } else {
      Check(part == full.substr(0, size - 1));
    }
  }
}

// A name of up to 16 bytes from `data`, ending before any of `stops`.
std::string NameAt(const uint8_t* data, size_t size, size_t* at, const char* stops) {
  std::string name;
  while (*at < size && name.size() < 16) {
    const char c = static_cast<char>(data[(*at)++]);
    if (c == '\0' || strchr(stops, c) != nullptr) break;
    name.push_back(c);
  }
  return name;
}

bool IsPlainName(const std::string& name) {
  return !name.empty() &&
         std::all_of(name.begin(), name.end(), [](unsigned char c) { return isalnum(c) != 0; });
}

// Files whose lines all start in the first column: where the reader and the writer agree
// on what the sections and keys are.
bool HasNoIndentedLine(const uint8_t* data, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    if ((i == 0 || data[i - 1] == '\n') && data[i] != '\n' &&
        isspace(static_cast<unsigned char>(data[i])))
      return false;
  }
  return true;
}

// The rest of the input as a value: refused when it holds a line feed (it would read back
// as two lines); then numbers written and read back, and the section copied to a second
// file, whose lists keep their bounds.
void CheckNumbersAndCopy(const std::string& section, const std::string& key, const uint8_t* data,
                         size_t size, size_t at, const std::string& path) {
  const std::string value = fuzz::Text(data + at, size - at).c_str();  // up to a NUL
  const bool written =
      WritePrivateProfileString(section.c_str(), key.c_str(), value.c_str(), path.c_str());
  if (value.find('\n') != std::string::npos) Check(!written);
  Check(!WritePrivateProfileString(nullptr, key.c_str(), "v", path.c_str()));
  Check(!WritePrivateProfileString(section.c_str(), key.c_str(), "v", nullptr));

  const bool plain = IsPlainName(section) && IsPlainName(key) && HasNoIndentedLine(data, size);
  const int32_t number = static_cast<int32_t>(size) - 1000;
  if (WritePrivateProfileInt(section.c_str(), key.c_str(), number, path.c_str()) && plain) {
    Check(GetPrivateProfileInt(section.c_str(), key.c_str(), 7, path.c_str()) == number);
  }
  WritePrivateProfileUInt(section.c_str(), "count", static_cast<uint32_t>(size), path.c_str());
  GetPrivateProfileInt(section.c_str(), "missing", 7, path.c_str());

  const std::string copy = fuzz::TempDir("profile") + "/copy.ini";
  fuzz::WriteFile(copy, data, 0);
  CopyPrivateProfileSection(path.c_str(), section.c_str(), copy.c_str(), "copied");
  ReadAllSizes("copied", nullptr, copy);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Quiet();
  const std::string path = fuzz::TempDir("profile") + "/profile.ini";
  fuzz::WriteFile(path, data, size);

  size_t at = 0;
  const std::string section = NameAt(data, size, &at, "\n]");
  const std::string key = NameAt(data, size, &at, "\n=");

  ReadAllSizes(nullptr, nullptr, path);
  ReadAllSizes(section.c_str(), nullptr, path);
  ReadAllSizes(section.c_str(), key.c_str(), path);

  const bool plain = IsPlainName(section) && IsPlainName(key);
  if (WritePrivateProfileString(section.c_str(), key.c_str(), "written", path.c_str()) && plain &&
      HasNoIndentedLine(data, size)) {
    Check(Read(section.c_str(), key.c_str(), kLargeBuffer, path) == "written");
  }
  if (plain) {
    WritePrivateProfileString(section.c_str(), key.c_str(), nullptr, path.c_str());
    ReadAllSizes(section.c_str(), nullptr, path);
  }
  CheckNumbersAndCopy(section, key, data, size, at, path);
  return 0;
}
