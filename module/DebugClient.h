// CDebugClient: the process-wide trace client. It reads the trace configuration (the
// "*.ini" files of a configuration directory and the KT_LOG_DEBUG_LEVEL /
// KT_LOG_DYNAMIC_UPDATE environment variables), re-reads it while running, and hands
// every accepted line to the host's "Debug" sink (see CIDebugSink.h).
//
// Every trace site tests IsTraceActive() before building arguments: use EM_TRACE.
//
// Thread safety: no lock, as the agent's trace clients never had one; the configuration
// values are whole 32-bit words and a concurrent re-read at worst reads a file twice.
#ifndef EM_MODULE_DEBUGCLIENT_H
#define EM_MODULE_DEBUGCLIENT_H

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>

class CIDebugSink;

// Default trace configuration directory and files.
constexpr const char* kTraceConfigDir =
    "/opt/VelnorHCP/vital/etc/velnor/HalvoranSuite/TraceConfig";
constexpr const char* kGlobalTraceFile = "global_trace.ini";

// The configuration state: levels, flags, sections and dynamic-update bookkeeping.
class CDebugTraceConfig {
 public:
  // Seconds on a monotonic-enough clock; injectable so tests need not wait.
  using Clock = std::function<time_t()>;
  virtual ~CDebugTraceConfig() = default;
  // ... members and helpers of the configuration (see DebugClient.cpp)
};

class CDebugClient : public CDebugTraceConfig {
 public:
  // Reads the configuration of `moduleName` from `configDir` at once (start-up).
  explicit CDebugClient(const char* moduleName = "EM_OIDMAP",
                        std::string configDir = kTraceConfigDir, Clock clock = nullptr);
  ~CDebugClient() override;                                           // slots 1, 2
  virtual uint32_t Query() { return 0; }                              // slot 3
  // Copies the name as module tag and runs the start-up procedure again. Returns 1.
  virtual uint32_t Initialise(const char* moduleName);                // slot 4
  // Leveled line: dropped when `level` is above the current level. Performs the dynamic
  // configuration update first.
  virtual void Trace(uint32_t level, const char* format, ...)         // slot 5
      __attribute__((format(printf, 3, 4)));
  // Unleveled lines.
  virtual void Print(const char* format, ...)                         // slot 6
      __attribute__((format(printf, 2, 3)));
  virtual void Print(uintptr_t extra, const char* format, ...)        // slot 7
      __attribute__((format(printf, 3, 4)));

  bool IsTraceActive() const { return trace_active_; }
  uint32_t Level() const { return level_; }
  // For tools and tests: sets the level (and the trace-active flag) directly.
  void SetTraceLevel(uint32_t level);
  // For tools and tests: reads the configuration again from another directory.
  void Reconfigure(const std::string& configDir, Clock clock = nullptr);
  // The cached sink, found on demand; nullptr when the host has none ready.
  CIDebugSink* Sink();

 private:
  // (implementation members: see DebugClient.cpp)
  volatile bool trace_active_ = false;
  volatile uint32_t level_ = 0;
};

// The process-wide trace client, constructed when the module is loaded.
CDebugClient& TraceClient();

// Guarded trace: the arguments are evaluated only when tracing is active.
#define EM_TRACE(level, ...)                                   \
  do {                                                         \
    CDebugClient& em_trace_client_ = TraceClient();            \
    if (em_trace_client_.IsTraceActive())                      \
      em_trace_client_.Trace((level), __VA_ARGS__);            \
  } while (0)

#endif  // EM_MODULE_DEBUGCLIENT_H
