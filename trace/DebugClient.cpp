#include "trace/DebugClient.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "module/CIDebugSink.h"

namespace em_oidmap {

namespace {

// Trace configuration files are a few lines; anything beyond this is not configuration.
constexpr size_t kMaxTraceFileBytes = 1u << 20;

constexpr const char* kEnvDebugLevel = "KT_LOG_DEBUG_LEVEL";
// Every line's tag is left-aligned in this many columns.
constexpr size_t kTagColumns = 20;
constexpr const char* kEnvDynamicUpdate = "KT_LOG_DYNAMIC_UPDATE";

time_t MonotonicSeconds() {
  struct timespec ts {};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec;
}

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

std::string_view TrimLeft(std::string_view s) {
  size_t i = 0;
  while (i < s.size() && IsBlank(s[i])) ++i;
  return s.substr(i);
}

std::string_view Trim(std::string_view s) {
  s = TrimLeft(s);
  while (!s.empty() && (IsBlank(s.back()) || s.back() == '\r')) s.remove_suffix(1);
  return s;
}

// Calls `fn(line)` for every line of `text` (without its '\n') until it returns false.
template <typename Fn>
void ForEachLine(std::string_view text, Fn fn) {
  size_t pos = 0;
  while (pos < text.size()) {
    size_t eol = text.find('\n', pos);
    if (eol == std::string_view::npos) eol = text.size();
    if (!fn(text.substr(pos, eol - pos))) return;
    pos = eol + 1;
  }
}

// The whole file, at most kMaxTraceFileBytes of it; false when it cannot be read.
bool ReadFileBounded(const std::string& path, std::string* content) {
  // Only a regular file is read: opening a FIFO or a device named "x.ini" for reading could
  // block the module's loading. The open does not wait, and the check is made on what was
  // opened.
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st {};
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    return false;
  }
  FILE* f = fdopen(fd, "rb");
  if (f == nullptr) {
    close(fd);
    return false;
  }
  content->clear();
  char buf[4096];
  bool ok = true;
  while (content->size() < kMaxTraceFileBytes) {
    size_t want = std::min(sizeof buf, kMaxTraceFileBytes - content->size());
    size_t got = fread(buf, 1, want, f);
    content->append(buf, got);
    if (got < want) {
      ok = !ferror(f);
      break;
    }
  }
  fclose(f);
  return ok;
}

// The lines between "[name]" and the next section header.
bool FindSection(std::string_view content, std::string_view name, std::string* text) {
  bool inside = false;
  bool found = false;
  text->clear();
  ForEachLine(content, [&](std::string_view raw) {
    std::string_view line = Trim(raw);
    if (!line.empty() && line.front() == '[') {
      if (inside) return false;  // the section ends at the next header
      size_t close = line.find(']');
      if (close != std::string_view::npos && Trim(line.substr(1, close - 1)) == name) {
        inside = found = true;
      }
      return true;
    }
    if (inside) {
      text->append(line.data(), line.size());
      text->push_back('\n');
    }
    return true;
  });
  return found;
}

// "key = value": the value is the rest of the line, read with automatic base.
bool FindValue(std::string_view section, std::string_view key, uint32_t* value) {
  bool found = false;
  ForEachLine(section, [&](std::string_view raw) {
    std::string_view line = TrimLeft(raw);
    if (line.substr(0, key.size()) != key) return true;
    line = TrimLeft(line.substr(key.size()));
    if (line.empty() || line.front() != '=') return true;
    // A copy ends in NUL, so strtoul cannot run past the line.
    std::string text(TrimLeft(line.substr(1)));
    char* end = nullptr;
    unsigned long v = strtoul(text.c_str(), &end, 0);
    if (end == text.c_str()) return true;  // no number: as if the key were missing
    *value = static_cast<uint32_t>(v);
    found = true;
    return false;
  });
  return found;
}

// Read when the trace client starts up: when the module is loaded or initialised.
bool ReadEnv(const char* name, uint32_t* value) {
  const char* text = getenv(name);  // NOLINT(concurrency-mt-unsafe)
  if (text == nullptr) return false;
  *value = static_cast<uint32_t>(strtoul(text, nullptr, 10));
  return true;
}

bool IsNewer(const struct timespec& a, const struct timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

// "\n", the tag left-aligned in 20 columns, ": ", usable as the start of a format.
std::string LinePrefixOf(const std::string& tag) {
  std::string prefix = "\n";
  for (char c : tag) {
    prefix += c;
    if (c == '%') prefix += '%';
  }
  if (tag.size() < kTagColumns) prefix.append(kTagColumns - tag.size(), ' ');
  return prefix + ": ";
}

int IsConfigFile(const struct dirent* entry) {
  return strstr(entry->d_name, ".ini") != nullptr && strncmp(entry->d_name, ".#", 2) != 0;
}

// Names of the configuration files in `dir`, alphabetically; false when the directory
// cannot be listed.
bool ListConfigFiles(const std::string& dir, std::vector<std::string>* names) {
  struct dirent** entries = nullptr;
  int n = scandir(dir.c_str(), &entries, IsConfigFile, alphasort);
  if (n < 0) return false;
  for (int i = 0; i < n; ++i) {
    names->emplace_back(entries[i]->d_name);
    free(entries[i]);
  }
  free(entries);
  return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// CDebugTraceConfig

bool CDebugTraceConfig::ReadSection(const std::string& path, const std::string& name,
                                    Section* out) {
  out->path = path;
  out->text.clear();
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) return false;
  // Taken before reading: a change made meanwhile shows as newer at the next check.
  out->mtime = st.st_mtim;
  out->size = st.st_size;
  std::string content;
  if (!ReadFileBounded(path, &content)) return false;
  return FindSection(content, name, &out->text);
}

CDebugTraceConfig::CDebugTraceConfig(const char* moduleName, std::string configDir, Clock clock,
                                     std::atomic<bool>* activeFlag)
    : trace_active_(activeFlag != nullptr ? *activeFlag : own_trace_active_) {
  CMutexLock lock(mutex_);
  dir_ = std::move(configDir);
  SetModuleNameLocked(moduleName != nullptr ? moduleName : "");
  SetClockLocked(std::move(clock));
  StartUpLocked();
}

void CDebugTraceConfig::Reset(const std::string& configDir, Clock clock) {
  CMutexLock lock(mutex_);
  dir_ = configDir;
  SetClockLocked(std::move(clock));
  StartUpLocked();
}

void CDebugTraceConfig::Rename(const char* moduleName) {
  CMutexLock lock(mutex_);
  SetModuleNameLocked(moduleName);
  StartUpLocked();
}

void CDebugTraceConfig::SetModuleNameLocked(const char* moduleName) {
  if (moduleName == nullptr) return;
  module_name_ = moduleName;
  if (identities_.empty() || identities_.front().tag != module_name_) {
    identities_.push_front(Identity{module_name_, LinePrefixOf(module_name_)});
  }
  identity_.store(&identities_.front(), std::memory_order_release);
}

void CDebugTraceConfig::SetClockLocked(Clock clock) {
  clocks_.push_front(clock ? std::move(clock) : Clock(MonotonicSeconds));
  clock_.store(&clocks_.front(), std::memory_order_release);
}

void CDebugTraceConfig::StartUpLocked() {
  constexpr auto r = std::memory_order_relaxed;
  level_.store(0, r);
  start_level_.store(0, r);
  file_level_.store(kTraceLevelNotSet, r);
  flags_.store(0, r);
  memory_flag_.store(0, r);
  trace_active_.store(false, r);
  configured_interval_.store(kTraceLevelNotSet, r);
  interval_.store(0, r);
  last_check_.store(0, r);
  global_ = Section();
  module_ = Section();

  std::vector<std::string> files;
  const bool listed = ListConfigFiles(dir_, &files);
  // A directory that exists but holds no configuration means "no tracing", whatever the
  // environment says; a missing directory still lets the environment switch it on.
  if (listed && files.empty()) return;

  Section global;
  if (ReadSection(dir_ + "/" + kGlobalTraceFile, kGlobalTraceSection, &global)) {
    global.present = true;
    global_ = std::move(global);
    uint32_t interval = 0;
    if (FindValue(global_.text, "DynamicUpdate", &interval)) {
      configured_interval_.store(interval, r);
    }
  }
  uint32_t interval = configured_interval_.load(r);
  if (interval == kTraceLevelNotSet) interval = 0;
  ReadEnv(kEnvDynamicUpdate, &interval);
  interval_.store(interval, r);

  for (const std::string& name : files) {
    Section section;
    if (!ReadSection(dir_ + "/" + name, module_name_, &section)) continue;
    section.present = true;
    module_ = std::move(section);
    uint32_t value = 0;
    if (FindValue(module_.text, "FileDebugLevel", &value)) file_level_.store(value, r);
    if (FindValue(module_.text, "TraceFlags", &value)) flags_.store(value, r);
    break;
  }

  uint32_t level = file_level_.load(r);
  if (level == kTraceLevelNotSet) level = 0;
  ReadEnv(kEnvDebugLevel, &level);
  level_.store(level, r);
  start_level_.store(level, r);
  trace_active_.store(level != 0, r);
}

void CDebugTraceConfig::UpdateIfDue() {
  const time_t interval = interval_.load(std::memory_order_relaxed);
  if (interval == 0) return;
  const time_t now = (*clock_.load(std::memory_order_acquire))();
  time_t last = last_check_.load(std::memory_order_relaxed);
  if (now >= last && now < last + interval) return;
  // One thread per interval does the check; the others go on tracing.
  if (!last_check_.compare_exchange_strong(last, now, std::memory_order_relaxed)) return;
  if (!mutex_.TryLock()) return;
  CMutexLock lock(mutex_, std::adopt_lock);
  RereadLocked();
}

void CDebugTraceConfig::RereadLocked() {
  constexpr auto r = std::memory_order_relaxed;
  struct stat st {};
  if (global_.present) {
    if (stat(global_.path.c_str(), &st) != 0) {
      global_ = Section();  // gone: not looked at again
    } else if (IsNewer(st.st_mtim, global_.mtime)) {
      ReadSection(global_.path, kGlobalTraceSection, &global_);
      uint32_t interval = 0;
      if (FindValue(global_.text, "DynamicUpdate", &interval)) {
        configured_interval_.store(interval, r);
        interval_.store(interval, r);
      }
    }
  }
  if (module_.present && stat(module_.path.c_str(), &st) == 0 &&
      IsNewer(st.st_mtim, module_.mtime)) {
    ReadSection(module_.path, module_name_, &module_);
    uint32_t value = 0;
    // The file wins over KT_LOG_DEBUG_LEVEL now. The trace-active flag stays as decided
    // at start-up, so guarded sites do not switch on or off while running.
    if (FindValue(module_.text, "FileDebugLevel", &value)) {
      file_level_.store(value, r);
      start_level_.store(value, r);
      level_.store(value, r);
    }
    if (FindValue(module_.text, "TraceFlags", &value)) flags_.store(value, r);
    if (FindValue(module_.text, "MemoryTracesFlag", &value)) memory_flag_.store(value, r);
  }
}

// ---------------------------------------------------------------------------------------
// CDebugClient

CDebugClient::CDebugClient(const char* moduleName, std::string configDir, Clock clock)
    : CDebugTraceConfig(moduleName, std::move(configDir), std::move(clock)) {}

CDebugClient::CDebugClient(ProcessWide, const char* moduleName)
    : CDebugTraceConfig(moduleName, kTraceConfigDir, nullptr, &g_traceSitesActive) {}

CDebugClient::~CDebugClient() = default;

uint32_t CDebugClient::Initialise(const char* moduleName) {
  Rename(moduleName);
  return 1;
}

void CDebugClient::SetTraceLevel(uint32_t level) {
  level_.store(level, std::memory_order_relaxed);
  trace_active_.store(level != 0, std::memory_order_relaxed);
}

void CDebugClient::Reconfigure(const std::string& configDir, Clock clock) {
  Reset(configDir, std::move(clock));
}

CIDebugSink* CDebugClient::Sink() {
  CIDebugSink* sink = sink_.load(std::memory_order_acquire);
  if (sink != nullptr) return sink;
  sink = static_cast<CIDebugSink*>(dlsym(RTLD_DEFAULT, "Debug"));
  if (sink == nullptr) return nullptr;
  if (!sink->IsReady()) {
    // The first "Debug" may be a stand-in of an outer host; try the next one in line.
    sink = static_cast<CIDebugSink*>(dlsym(RTLD_NEXT, "Debug"));
    if (sink == nullptr || !sink->IsReady()) return nullptr;
  }
  sink_.store(sink, std::memory_order_release);
  return sink;
}

bool CDebugClient::Accepts(uint32_t level) {
  UpdateIfDue();
  return level <= Level();
}

void CDebugClient::Write(bool leveled, const char* format, va_list args) {
  CIDebugSink* sink = Sink();
  if (sink == nullptr) return;
  if (leveled) {
    sink->TraceV(format, args, ModuleTag());
  } else {
    sink->PrintV(format, args, ModuleTag());
  }
}

void CDebugClient::Trace(uint32_t level, const char* format, ...) {
  if (!Accepts(level)) return;
  va_list args;
  va_start(args, format);
  Write(true, format, args);
  va_end(args);
}

void CDebugClient::TraceModuleLine(uint32_t level, const char* text, ...) {
  if (!Accepts(level)) return;
  // The sink formats the line: the prefix and the site's text become one format.
  const std::string format = std::string(LinePrefix()) + text;
  va_list args;
  va_start(args, text);
  Write(true, format.c_str(), args);
  va_end(args);
}

void CDebugClient::Print(const char* format, ...) {
  va_list args;
  va_start(args, format);
  Write(false, format, args);
  va_end(args);
}

void CDebugClient::Print(uintptr_t /*extra*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Write(false, format, args);
  va_end(args);
}

std::atomic<bool> g_traceSitesActive{false};

CDebugClient& ProcessClient(const char* moduleName) {
  static CDebugClient client{CDebugClient::ProcessWide{}, moduleName};
  return client;
}

CDebugClient& StartTraceClient(const char* moduleName) {
  CDebugClient& client = ProcessClient(moduleName);
  if (std::strcmp(client.ModuleTag(), moduleName) != 0) client.Initialise(moduleName);
  return client;
}

CDebugClient& TraceClient() { return ProcessClient(""); }

}  // namespace em_oidmap
