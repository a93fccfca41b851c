// CDebugClient: the process-wide trace client. It reads the trace configuration (the
// "*.ini" files of a configuration directory and the KT_LOG_DEBUG_LEVEL /
// KT_LOG_DYNAMIC_UPDATE environment variables), re-reads it while running, and hands
// every accepted line to the host's "Debug" sink (see CIDebugSink.h).
//
// Every trace site tests IsTraceActive() before building arguments: use EM_TRACE, or
// EM_MODULE_TRACE for a line under the module's own tag.
//
// The client knows no module by itself: the top of the program names it (StartTraceClient
// in the shared object's entry points, when it is loaded). The name is the tag handed to
// the sink with every line, the configuration section read, and the tag of the line
// prefix that EM_MODULE_TRACE writes for the layers below the module, which do not know
// its name.
//
// Thread safety: Trace, Print, the accessors and SetTraceLevel may be called from any
// thread at any time. The configuration values are atomic words (relaxed: each is
// independent, a reader may see an old level for one line), and the re-read of changed
// files runs on whichever thread traces, guarded by a try-lock: a thread that finds a
// re-read already in progress skips it instead of waiting. Initialise and Reconfigure
// take the same lock and wait for it.
#ifndef EM_TRACE_DEBUGCLIENT_H
#define EM_TRACE_DEBUGCLIENT_H

#include <sys/types.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <ctime>
#include <forward_list>
#include <functional>
#include <string>

#include "base/Mutex.h"

class CIDebugSink;

namespace em_oidmap {

// Default trace configuration directory and files.
constexpr const char* kTraceConfigDir = "/opt/VelnorHCP/vital/etc/velnor/HalvoranSuite/TraceConfig";
constexpr const char* kGlobalTraceFile = "global_trace.ini";
constexpr const char* kGlobalTraceSection = "GlobalDebugSettings";
// "FileDebugLevel" was never read.
constexpr uint32_t kTraceLevelNotSet = 0xFFFFFFFFu;

// The configuration state: levels, flags, sections and dynamic-update bookkeeping.
class CDebugTraceConfig {
 public:
  // Seconds on a monotonic-enough clock; injectable so tests need not wait.
  using Clock = std::function<time_t()>;
  virtual ~CDebugTraceConfig() = default;

  CDebugTraceConfig(const CDebugTraceConfig&) = delete;
  CDebugTraceConfig& operator=(const CDebugTraceConfig&) = delete;

  bool IsTraceActive() const { return trace_active_.load(std::memory_order_relaxed); }
  uint32_t Level() const { return level_.load(std::memory_order_relaxed); }
  // The level as decided by the last start-up (or the last re-read of the module file).
  uint32_t StartLevel() const { return start_level_.load(std::memory_order_relaxed); }
  // "FileDebugLevel" as read; kTraceLevelNotSet when no file gave one.
  uint32_t FileLevel() const { return file_level_.load(std::memory_order_relaxed); }
  uint32_t TraceFlags() const { return flags_.load(std::memory_order_relaxed); }
  uint32_t MemoryTracesFlag() const { return memory_flag_.load(std::memory_order_relaxed); }
  // "DynamicUpdate" as configured (0xFFFFFFFF when never read) and the interval in
  // effect after the environment override; 0 means no dynamic update.
  uint32_t ConfiguredUpdateInterval() const {
    return configured_interval_.load(std::memory_order_relaxed);
  }
  uint32_t UpdateInterval() const { return interval_.load(std::memory_order_relaxed); }
  // Module tag passed to the sink with every line. Stays valid for the client's life.
  const char* ModuleTag() const { return identity_.load(std::memory_order_acquire)->tag.c_str(); }
  // "\n", the module tag left-aligned in 20 columns, ": " -- the start of a line of
  // EM_MODULE_TRACE, as a format (a '%' of the tag doubled). Valid for the client's life.
  const char* LinePrefix() const {
    return identity_.load(std::memory_order_acquire)->linePrefix.c_str();
  }

 protected:
  // A configuration section together with the file it came from, as last seen.
  struct Section {
    bool present = false;
    std::string path;
    struct timespec mtime = {0, 0};
    off_t size = 0;
    std::string text;
  };

  // `activeFlag`: where the trace-active flag is kept; nullptr keeps it in the object.
  CDebugTraceConfig(const char* moduleName, std::string configDir, Clock clock,
                    std::atomic<bool>* activeFlag = nullptr);

  // Replaces directory and clock (nullptr: the default clock), then StartUp().
  void Reset(const std::string& configDir, Clock clock);
  // Replaces the module name (tag and section name), then StartUp().
  void Rename(const char* moduleName);
  // Re-reads changed files when the interval in effect has passed since the last check.
  void UpdateIfDue();

  std::atomic<bool> own_trace_active_{false};
  std::atomic<bool>& trace_active_;  // own_trace_active_ or the flag given at construction
  std::atomic<uint32_t> level_{0};

 private:
  // Resets everything and reads the configuration of the current module from the
  // current directory.
  void StartUpLocked() REQUIRES(mutex_);
  void SetModuleNameLocked(const char* moduleName) REQUIRES(mutex_);
  void SetClockLocked(Clock clock) REQUIRES(mutex_);
  void RereadLocked() REQUIRES(mutex_);
  // Reads section `name` of `path` into `out` (file, modification time, size, text).
  // Returns whether the section is there.
  static bool ReadSection(const std::string& path, const std::string& name, Section* out);

  std::atomic<uint32_t> start_level_{0};
  std::atomic<uint32_t> file_level_{kTraceLevelNotSet};
  std::atomic<uint32_t> flags_{0};
  std::atomic<uint32_t> memory_flag_{0};
  std::atomic<uint32_t> configured_interval_{kTraceLevelNotSet};
  std::atomic<uint32_t> interval_{0};
  std::atomic<time_t> last_check_{0};
  // The module's name as the lines carry it.
  struct Identity {
    std::string tag;
    std::string linePrefix;
  };
  // Identities and clocks are read without the lock, so a replaced one is kept alive (not
  // freed) until the client dies; they change only by Initialise/Reconfigure.
  std::atomic<const Identity*> identity_{nullptr};
  std::atomic<const Clock*> clock_{nullptr};

  CMutex mutex_;
  std::string dir_ GUARDED_BY(mutex_);
  std::string module_name_ GUARDED_BY(mutex_);
  std::forward_list<Identity> identities_ GUARDED_BY(mutex_);
  std::forward_list<Clock> clocks_ GUARDED_BY(mutex_);
  Section global_ GUARDED_BY(mutex_);
  Section module_ GUARDED_BY(mutex_);
};

class CDebugClient : public CDebugTraceConfig {
 public:
  // Reads the configuration of `moduleName` from `configDir` at once (start-up).
  explicit CDebugClient(const char* moduleName, std::string configDir = kTraceConfigDir,
                        Clock clock = nullptr);
  ~CDebugClient() override;               // slots 1, 2
  virtual uint32_t Query() { return 0; }  // slot 3
  // Copies the name as module tag and runs the start-up procedure again. Returns 1.
  virtual uint32_t Initialise(const char* moduleName);  // slot 4
  // Leveled line: dropped when `level` is above the current level. Performs the dynamic
  // configuration update first.
  virtual void Trace(uint32_t level, const char* format, ...)  // slot 5
      __attribute__((format(printf, 3, 4)));
  // Unleveled lines.
  virtual void Print(const char* format, ...)  // slot 6
      __attribute__((format(printf, 2, 3)));
  virtual void Print(uintptr_t extra, const char* format, ...)  // slot 7
      __attribute__((format(printf, 3, 4)));
  // Leveled line under the module's tag: LinePrefix() followed by `text` (the line's own
  // words and their conversions), as Trace writes it.
  void TraceModuleLine(uint32_t level, const char* text, ...) __attribute__((format(printf, 3, 4)));

  // For tools and tests: sets the level (and the trace-active flag) directly.
  void SetTraceLevel(uint32_t level);
  // For tools and tests: reads the configuration again from another directory, with
  // another clock (nullptr: the default clock).
  void Reconfigure(const std::string& configDir, Clock clock = nullptr);
  // The cached sink, found on demand; nullptr when the host has none ready. Once a
  // ready sink is found it is kept for the client's life.
  CIDebugSink* Sink();

 private:
  friend CDebugClient& ProcessClient(const char* moduleName);
  // The process-wide client: its trace-active flag is g_traceSitesActive.
  struct ProcessWide {};
  CDebugClient(ProcessWide, const char* moduleName);

  // Performs the dynamic configuration update; true when a line of `level` is written.
  bool Accepts(uint32_t level);
  // Hands one line to the sink: leveled (slot 9) or not (slot 8).
  void Write(bool leveled, const char* format, va_list args);

  std::atomic<CIDebugSink*> sink_{nullptr};
};

// Starts the process-wide trace client under `moduleName` (its tag and configuration
// section) with the default directory, unless it already runs under that name; a client
// that runs under another name (or none) takes the name and starts up again. The top of
// the program calls it once, before anything is traced: em_oidmap.so when it is loaded.
CDebugClient& StartTraceClient(const char* moduleName);
// The process-wide trace client. Used before StartTraceClient, it starts without a name:
// an empty tag, and no configuration file section of its own.
CDebugClient& TraceClient();

// The trace-active flag of the process-wide client. It is initialised before any code
// runs (false), so a trace site can test it without a call: with tracing off a site costs
// one load and one branch.
extern std::atomic<bool> g_traceSitesActive;

// Guarded trace: the arguments are evaluated only when tracing is active.
#define EM_TRACE(level, ...)                                             \
  do {                                                                   \
    if (::em_oidmap::g_traceSitesActive.load(std::memory_order_relaxed)) \
      ::em_oidmap::TraceClient().Trace((level), __VA_ARGS__);            \
  } while (0)

// Guarded trace of a line under the module's tag: EM_MODULE_TRACE(3, "text %d", n) writes
// "\nEM_OIDMAP           : text 5" in em_oidmap.so. For layers below the module, which
// do not know its name; the text stays a literal at the site.
#define EM_MODULE_TRACE(level, ...)                                      \
  do {                                                                   \
    if (::em_oidmap::g_traceSitesActive.load(std::memory_order_relaxed)) \
      ::em_oidmap::TraceClient().TraceModuleLine((level), __VA_ARGS__);  \
  } while (0)

}  // namespace em_oidmap

#endif  // EM_TRACE_DEBUGCLIENT_H
