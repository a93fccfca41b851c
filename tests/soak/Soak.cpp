// em_soak: em_oidmap.so loaded with dlopen and driven as a busy host drives it, for a
// given time, while the process's resident memory, threads and open files are sampled.
//
// The world: 20 cabinets (0 and SE cabinets 1..19) and four lower modules. A and C keep
// unified logs, B old-style ones (it refuses CM_LogMessageArgumentsRead), D none; A, B
// and D share fans and temperature sensors, so the module maps object ids.
// Driver threads send, at once: translated requests, merged configuration reads and
// writes, log events (unified and old-style), log pages in English, German and French,
// counts, and text requests. A control thread re-scans, and now and then stops the module
// while the drivers go on, then holds them off, checks the log entries, deletes the module
// and creates and starts a new one. (A stopped module object takes no task again, so a
// host that stops it and starts it again is left without scans: the cycle a host can
// repeat is stop, delete, create, start.)
//
// It fails (exit 1) when, after the warm-up:
// - resident memory, or the heap in use, exceeds the most the warm-up reached by more than
//   the margin (the warm-up lasts a module's life at full caches at least; modules come and
//   go, so memory rises and falls), or threads or open files exceed what the warm-up
//   reached;
// - any host call took longer than the time-outs of the requests it could wait for
//   allowed (SoakHost.h: Budget), plus a slack for a loaded machine;
// - the log entries of a module, checked when it has been stopped, do not add up. Every
//   entry stored takes the next sequence number of its cabinet, also when the 2000-entry
//   cache evicts it at once, so per cabinet the last sequence number must equal the records
//   the scans' log reads delivered plus the CM_LogMessageEvent notices fired, one for each
//   log event sent (none refused: every cabinet is listed), and the entries kept must be
//   min(2000, last sequence number);
// - an answer is malformed, a trace line reports an exception, or a thread outlives
//   EM_Delete.
#include <dirent.h>
#include <dlfcn.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "hostsim/DebugSink.h"
#include "hostsim/SimLog.h"
#include "module/CIExtensionModule.h"
#include "sip/SipJson.h"
#include "tests/soak/SoakHost.h"

namespace em_oidmap::soak {
namespace {

using Clock = std::chrono::steady_clock;
using hostsim::EncodeLog;
using hostsim::OldStyle;
using hostsim::ReplyRule;
using hostsim::SimModule;
using hostsim::Unified;

constexpr uint32_t kMidA = 0x00010001, kMidB = 0x00020001, kMidC = 0x00030001,
                   kMidD = 0x00040001;
constexpr uint32_t kLanguages[] = {0x409, 0x407, 0x40C};  // en, de, fr
constexpr uint32_t kMaxEntries = 2000;
// Start waits 100 ms for its worker to settle, stop up to 100 ms for it to leave.
constexpr uint64_t kSerializerPauseMs = 100;

struct Options {
  double minutes = 1;
  double sampleSeconds = 0;  // 0: 2 s up to 5 minutes, else 5 s
  double warmupSeconds = 0;  // 0: a quarter of the run, 30 s to 180 s
  int threads = 6;
  uint64_t slackMs = 2000;
  uint32_t pauseUs = 300;
  double rescanSeconds = 3;
  double restartSeconds = 20;
  // Allowed growth over the warm-up's most: the larger of these. Several threads allocate
  // and free at once, so what stays resident moves by a few MiB from one module to the next.
  double marginMib = 6, marginPercent = 10;
  std::string module = EM_OIDMAP_SO;
  std::string msgfiles = EM_SAMPLE_MSGFILES_DIR;
  std::string traceLevel = "3";
  bool maps = false;  // print the mappings whose resident size changed after the warm-up
  bool dynamicMmapThreshold = false;  // leave glibc's threshold moving, as by default
};

// ---- The process, as /proc shows it ----------------------------------------------------------

size_t CountEntries(const char* dir) {
  size_t n = 0;
  if (DIR* d = opendir(dir)) {
    while (const dirent* e = readdir(d)) n += e->d_name[0] != '.';
    closedir(d);
  }
  return n;
}

double ResidentMib() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::strtod(line.c_str() + 6, nullptr) / 1024.0;
  }
  return 0;
}

// What malloc has handed out and not got back (all arenas): a leak grows it, while resident
// memory also moves with fragmentation.
double HeapInUseMib() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd) / (1024.0 * 1024.0);
}

// Malloc's arenas as the system sees them (all arenas, free chunks included).
double ArenasMib() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<double>(info.arena + info.hblkhd) / (1024.0 * 1024.0);
}

// Resident KiB of each mapping, keyed by its start address, permissions and name (a thread
// arena's mapping keeps its start as it grows).
std::map<std::string, long> ResidentMappings() {
  std::map<std::string, long> out;
  std::ifstream smaps("/proc/self/smaps");
  std::string line, key;
  while (std::getline(smaps, line)) {
    const std::string first = line.substr(0, line.find(' '));
    if (first.find('-') != std::string::npos && first.find(':') == std::string::npos) {
      key = first.substr(0, first.find('-')) + line.substr(first.size());
    } else if (line.rfind("Rss:", 0) == 0) {
      out[key] = std::strtol(line.c_str() + 4, nullptr, 10);
    }
  }
  return out;
}

// ---- Host calls, timed against what they may wait for -----------------------------------------

enum Kind { kTranslated, kConfigRead, kConfigWrite, kLogEvent, kPage, kCount, kText, kRescan,
            kStop, kDelete, kStart, kKinds };
const char* const kKindNames[kKinds] = {"translated request", "merged read", "merged write",
                                        "log event", "log page", "log count", "text request",
                                        "re-scan", "stop", "EM_Delete", "create and start"};

struct KindStats {
  std::mutex mutex;
  uint64_t calls = 0, overBudget = 0;
  double maxMs = 0, worstSpareMs = 1e18;  // least (allowed - took)
  std::map<uint32_t, uint64_t> statuses;
};

class Soak {
 public:
  explicit Soak(const Options& options) : options_(options) {}
  int Run();

 private:
  bool Load();
  void BuildWorld();
  std::vector<uint8_t> UnifiedLog(uint32_t records, uint32_t codeBase);
  template <class F>
  void Timed(Kind kind, bool withWorker, uint64_t extraMs, F&& call);
  void Request(Kind kind, SipJson& msg);
  void Driver(int index);
  void DriveOnce(std::mt19937& random);
  void Control();
  // Creates and starts a module and queues its first scans (drivers held off).
  bool CreateAndStart();
  // Re-scans until every cabinet's log was read at least once by this module, so that every
  // cache is ready; false when that takes more than a minute.
  bool WaitForFirstScans();
  // Stops the module while the drivers go on, then holds them off, checks its log entries
  // and deletes it; with `again`, creates and starts the next one.
  void Cycle(bool again);
  bool CheckLogAccounts(bool verbose);
  void PrintSamples(double warmupEnd) const;

  struct Sample {
    double seconds, rssMib, heapMib, arenasMib;
    size_t threads, files;
    uint64_t calls;
  };

  Options options_;
  SoakHost host_;
  CIExtensionModule* module_ = nullptr;
  uint64_t context_ = 0;
  bool (*create_)(CIExtensionModule**, void*) = nullptr;
  unsigned int (*delete_)() = nullptr;
  std::shared_mutex gate_;  // drivers share it for a call; a module change holds it alone
  std::atomic<bool> stop_{false};
  uint64_t cycles_ = 0, badCycles_ = 0;
  std::atomic<uint64_t> calls_{0}, badAnswers_{0}, orders_{1000};
  std::atomic<uint64_t> traceLines_{0}, exceptionLines_{0};
  KindStats stats_[kKinds];
  std::vector<Sample> samples_;
};

template <class F>
void Soak::Timed(Kind kind, bool withWorker, uint64_t extraMs, F&& call) {
  const Budget budget(host_, withWorker);
  const Clock::time_point begin = Clock::now();
  const uint32_t status = call();
  const double took = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
  const double allowed = static_cast<double>(budget.AllowedMs() + extraMs + options_.slackMs);
  ++calls_;
  KindStats& s = stats_[kind];
  std::lock_guard<std::mutex> lock(s.mutex);
  ++s.calls;
  s.maxMs = std::max(s.maxMs, took);
  s.worstSpareMs = std::min(s.worstSpareMs, allowed - took);
  if (took > allowed) ++s.overBudget;
  ++s.statuses[status];
}

void Soak::Request(Kind kind, SipJson& msg) {
  const bool logQuery = kind == kPage || kind == kCount;
  Timed(kind, logQuery, 0, [&] {
    module_->OnRequest(msg);
    return msg.GetStatus(0);
  });
}

bool Soak::Load() {
  // The trace client reads its level when the module is loaded.
  setenv("KT_LOG_DEBUG_LEVEL", options_.traceLevel.c_str(), 1);
  void* handle = dlopen(options_.module.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    std::fprintf(stderr, "em_soak: %s\n", dlerror());
    return false;
  }
  create_ = reinterpret_cast<decltype(create_)>(dlsym(handle, "EM_Create"));
  delete_ = reinterpret_cast<decltype(delete_)>(dlsym(handle, "EM_Delete"));
  return create_ != nullptr && delete_ != nullptr;
}

std::vector<uint8_t> Soak::UnifiedLog(uint32_t records, uint32_t codeBase) {
  std::vector<hostsim::SimUnifiedRecord> log;
  for (uint32_t n = 0; n < records; ++n) {
    log.push_back(Unified(codeBase + n % 5, n + 1, {std::to_string(n % 4), "4"}));
  }
  return EncodeLog(log);
}

ReplyRule Rule(uint32_t oc, std::string da, uint32_t status = 0) {
  ReplyRule rule;
  rule.oc = oc;
  rule.dataJson = std::move(da);
  rule.status = status;
  return rule;
}

ReplyRule TextRule(uint32_t oc, uint32_t code, std::string da, uint32_t delayMs = 0) {
  ReplyRule rule = Rule(oc, std::move(da));
  rule.whenDa = code;
  rule.delayMs = delayMs;
  return rule;
}

void Soak::BuildWorld() {
  std::vector<uint32_t> se;
  for (uint32_t ca = 1; ca < kCabinets; ++ca) se.push_back(ca);
  host_.SetSeCabinets(se);
  SimModule& a = host_.AddModule(kMidA);
  SimModule& b = host_.AddModule(kMidB);
  SimModule& c = host_.AddModule(kMidC);
  SimModule& d = host_.AddModule(kMidD);
  for (uint32_t ca = 0; ca < kCabinets; ++ca) {
    a.SetInstanceCount(0x0300, 0, ca, 3);  // fans: A's 3, then B's 2
    b.SetInstanceCount(0x0300, 0, ca, 2);
    b.SetInstanceCount(0x0400, 0, ca, 4);  // temperatures: B's 4, then D's 3
    d.SetInstanceCount(0x0400, 0, ca, 3);
    c.SetInstanceCount(0x0500, 0, ca, 2);
  }
  a.AddRule(Rule(0x0301, R"({"Name":"FAN A","Speed":4200})"));
  b.AddRule(Rule(0x0301, R"({"Name":"FAN B","Speed":3100})"));
  b.AddRule(Rule(0x0401, R"({"Name":"TEMP B","Value":41})"));
  d.AddRule(Rule(0x0401, R"({"Name":"TEMP D","Value":38})"));
  ReplyRule slow = Rule(0x0501, R"({"Name":"PSU C"})");
  slow.delayMs = 1;
  c.AddRule(slow);

  // Merged configuration: every module answers the reads; A keeps what is written, B
  // refuses writes.
  const uint32_t values[][4] = {{0x11, 1, 2, 1}, {0x30, 3, 5, 4}, {0x31, 1, 0, 2},
                                {0x32, 300, 120, 240}, {0x77, 0, 1, 0}};
  for (const auto& v : values) {
    a.SetConfigValue(v[0], v[1]);
    b.SetConfigValue(v[0], v[2]);
    c.SetConfigValue(v[0], v[3]);
  }
  a.SetConfigText(0x211, "the service desk");
  a.SetKeepsConfigWrites(true);
  a.AddRule(Rule(0x0310, "1"));
  b.AddRule(Rule(0xE002, "", 0x18));

  // Logs: A and C unified, B old-style in both logs, D none (asked with CM_LogEntry too).
  a.SetLog(0x0B16, std::nullopt, UnifiedLog(120, 0x040001));
  c.SetLog(0x0B16, std::nullopt, UnifiedLog(60, 0x0A0001));
  c.AddFault([] {
    ReplyRule late;
    late.oc = 0x0B16;
    late.lateMs = 3;
    return late;
  }());
  host_.SetLogRecords(kMidA, 0x0B16, 0, 120);
  host_.SetLogRecords(kMidC, 0x0B16, 0, 60);
  b.SetStatusOverride(0x0B16, 0x13);
  for (const uint32_t oi : {0u, 1u}) {
    std::vector<hostsim::SimOldStyleRecord> records;
    for (uint32_t n = 0; n < 40; ++n) {
      records.push_back(OldStyle(0x0401 + n % 3 + (oi << 8), n + 1, n % 2, 0, {2900, 3000}));
    }
    b.SetLog(0x0B00, oi, EncodeLog(records));
    host_.SetLogRecords(kMidB, 0x0B00, oi, 40);
  }
  b.AddRule(Rule(0x0304, "\"FAN B\""));  // designations and CSS of old-style records
  b.AddRule(Rule(0x0404, "\"TEMP B\""));
  b.AddRule(Rule(0x0307, "1"));

  // Texts: English, German and French; A knows the codes no message file has, C is asked
  // for some and never answers in time.
  a.AddRule(Rule(0x0B20, R"({"RAW":[9,4,7,4,12,4]})"));
  for (uint32_t code = 0x0A0001; code <= 0x0A0004; ++code) {
    a.AddRule(TextRule(0x0B21, code, "\"Chassis intrusion detected.\""));
    a.AddRule(TextRule(0x0B23, code, "\"The cover was opened.\""));
  }
  a.AddRule(TextRule(0x0B17, 0x0401, R"(["Check the cable.", "Call %HD%."])"));
  a.AddRule(TextRule(0x0B1A, 0x0401, R"(["The fan is blocked."])"));
  c.AddRule(TextRule(0x0B21, 0x0A0005, "\"never\"", hostsim::kNeverInTime));
}

// ---- Drivers -----------------------------------------------------------------------------------

// Checks a page's records: lengths that fit, each text ending in its NUL, sequence numbers
// ascending.
bool WellFormedPage(const std::vector<uint8_t>& data) {
  uint32_t last = 0;
  for (size_t at = 0; at < data.size();) {
    if (data.size() - at < 17) return false;
    const size_t length = data[at] | data[at + 1] << 8;
    if (length < 17 || length > data.size() - at || data[at + length - 1] != 0) return false;
    const uint32_t sequence = static_cast<uint32_t>(data[at + 12] | data[at + 13] << 8 |
                                                    data[at + 14] << 16 | data[at + 15] << 24);
    if (sequence <= last) return false;
    last = sequence;
    at += length;
  }
  return true;
}

void Soak::DriveOnce(std::mt19937& random) {
  auto pick = [&random](uint32_t n) { return static_cast<uint32_t>(random() % n); };
  const uint32_t ca = pick(kCabinets);
  const uint32_t lang = kLanguages[pick(3)];
  const uint32_t what = pick(100);
  if (what < 22) {
    // Fans 0..4, temperatures 0..6, power supplies 0..1: one index past each is no one's.
    static constexpr uint32_t kKinds3[][2] = {{0x0301, 5}, {0x0401, 7}, {0x0501, 2}};
    const auto& kind = kKinds3[pick(3)];
    const uint32_t oi = pick(kind[1] + 1);
    SipJson msg(kind[0], 0, oi, ca);
    Request(kTranslated, msg);
    if (oi < kind[1] && (msg.GetStatus(0) != 0 || msg.GetDataForm(0) == SipDataForm::kNone)) {
      ++badAnswers_;
    }
  } else if (what < 30) {
    static constexpr uint32_t kValues[] = {0x11, 0x30, 0x31, 0x32, 0x77};
    SipJson msg(0xE001, kValues[pick(5)], 0, ca);
    Request(kConfigRead, msg);
  } else if (what < 34) {
    SipJson msg(pick(2) ? 0xE002 : 0x0310, 0x30, 0, ca);
    msg.SetDataValue(pick(8), 0x16);
    Request(kConfigWrite, msg);
  } else if (what < 58) {
    const uint32_t order = static_cast<uint32_t>(orders_++);
    const bool oldStyle = pick(4) == 0;
    SipJson event(oldStyle ? 0x0B00 : 0x0B16, 0, oldStyle ? pick(2) : 0, ca);
    if (oldStyle) {
      event.SetRawData(EncodeLog({OldStyle(0x0401 + pick(3), order, static_cast<uint16_t>(pick(2)),
                                           static_cast<uint16_t>(ca), {pick(5000)})}),
                       0xFF);
    } else {
      // Codes from the message file, from A, from C that never answers, and from nowhere;
      // strings of changing length.
      static constexpr uint32_t kCodes[] = {0x040001, 0x040005, 0x050002, 0x070003, 0x150004,
                                            0x0A0001, 0x0A0002, 0x0A0005, 0x0B0001};
      const std::string text(pick(160), static_cast<char>('a' + pick(26)));
      event.SetRawData(EncodeLog({Unified(kCodes[pick(9)], order,
                                          {std::to_string(pick(9)), "4", text})}),
                       0xFF);
    }
    const uint32_t mid = oldStyle ? kMidB : (pick(2) ? kMidA : kMidC);
    Timed(kLogEvent, false, 0, [&] {
      host_.DeliverEvent(mid, std::move(event));
      return 0xFFu;
    });
    host_.CountEventSent(ca);
  } else if (what < 74) {
    SipJson msg(0x0B10, lang, pick(8) == 0 ? 1 : 0, ca);
    msg.SetDataValue(pick(4) == 0 ? 0 : pick(400000), 0x16);
    Request(kPage, msg);
    std::vector<uint8_t> data;
    msg.GetDataBytes(0, data);
    if (msg.GetStatus(0) != 0 || !WellFormedPage(data)) ++badAnswers_;
  } else if (what < 80) {
    SipJson msg(pick(2) ? 0x0B12 : 0x0B13, 0, 0, ca);
    Request(kCount, msg);
    uint32_t value = 0;
    const uint32_t st = msg.GetStatus(0);
    if (st == 0x0F || (msg.GetOpcode(0) == 0x0B13 && msg.GetDataValue(0, value) &&
                       value > kMaxEntries)) {
      ++badAnswers_;
    }
  } else {
    static constexpr uint32_t kTextOcs[] = {0x0B17, 0x0B1A, 0x0B21, 0x0B23, 0x0B24, 0x0B25};
    static constexpr uint32_t kTextCodes[] = {0x0401, 0x040001, 0x0A0001, 0x0A0003, 0x0A0005,
                                              0x0B0001};
    SipJson msg(kTextOcs[pick(6)], lang, pick(3), ca);
    msg.SetDataValue(kTextCodes[pick(6)], 0x16);
    msg.SetKey("CI", pick(1000) + 1, true);
    Request(kText, msg);
  }
}

void Soak::Driver(int index) {
  SoakHost::SetThreadRole(ThreadRole::kDriver);
  std::mt19937 random(static_cast<uint32_t>(index) * 7919u + 1u);
  while (!stop_.load()) {
    {
      std::shared_lock<std::shared_mutex> gate(gate_);
      DriveOnce(random);
    }
    if (options_.pauseUs > 0) std::this_thread::sleep_for(std::chrono::microseconds(options_.pauseUs));
  }
}

bool Soak::CreateAndStart() {
  if (!create_(&module_, nullptr) || module_ == nullptr) return false;
  module_->SetServerCabinet(0);
  context_ = host_.Attach(module_);
  module_->Start(&host_, context_);
  module_->Rescan();  // the SEL languages, and the first scans
  return true;
}

bool Soak::WaitForFirstScans() {
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(60);
  Clock::time_point rescanned = Clock::now();
  for (;;) {
    bool all = true;
    for (uint32_t ca = 0; ca < kCabinets; ++ca) all = all && host_.Account(ca).scans > 0;
    if (all) return true;
    if (Clock::now() > deadline) return false;
    // A re-scan whose tasks found the queue full leaves cabinets out: ask again.
    if (Clock::now() - rescanned > std::chrono::seconds(2)) {
      module_->Rescan();
      rescanned = Clock::now();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

void Soak::Cycle(bool again) {
  const bool scanned = WaitForFirstScans();
  Timed(kStop, true, kSerializerPauseMs, [&] { return module_->Stop(); });
  std::unique_lock<std::shared_mutex> gate(gate_);
  ++cycles_;
  const bool ok = scanned && CheckLogAccounts(!again);
  if (!ok) ++badCycles_;
  if (!scanned) std::printf("module %" PRIu64 ": some cabinet was never scanned\n", cycles_);
  Timed(kDelete, false, kSerializerPauseMs, [&] { return delete_(); });
  module_ = nullptr;
  host_.ResetAccounts();
  if (again) {
    Timed(kStart, false, kSerializerPauseMs, [&] { return CreateAndStart() ? 1u : 0u; });
  }
  std::fflush(stdout);
}

void Soak::Control() {
  SoakHost::SetThreadRole(ThreadRole::kControl);
  const auto rescanEvery = std::chrono::duration<double>(options_.rescanSeconds);
  const auto restartEvery = std::chrono::duration<double>(options_.restartSeconds);
  Clock::time_point lastRestart = Clock::now();
  while (!stop_.load()) {
    const Clock::time_point wake =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(rescanEvery);
    while (!stop_.load() && Clock::now() < wake) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (stop_.load()) break;
    if (Clock::now() - lastRestart >= restartEvery) {
      Cycle(true);
      lastRestart = Clock::now();
    } else {
      Timed(kRescan, false, 0, [&] {
        module_->Rescan();
        return 0u;
      });
    }
  }
}

bool Soak::CheckLogAccounts(bool verbose) {
  bool ok = true;
  uint64_t sent = 0, stored = 0;
  std::string table;
  char line[160];
  std::snprintf(line, sizeof line, "  %3s %6s %9s %9s %9s %9s %9s %6s\n", "CA", "scans", "scanned", "events", "fired",
              "forwarded", "stored", "kept");
  table += line;
  for (uint32_t ca = 0; ca < kCabinets; ++ca) {
    const SoakHost::LogAccount account = host_.Account(ca);
    SipJson last(0x0B12, 0, 0, ca), count(0x0B13, 0, 0, ca);
    module_->OnRequest(last);
    module_->OnRequest(count);
    uint32_t lastSequence = 0, kept = 0;
    last.GetDataValue(0, lastSequence);  // ST 0x13 and no number while nothing was stored
    count.GetDataValue(0, kept);
    const uint64_t expected = account.scanned + account.fired;
    const bool good = account.fired == account.sent && account.forwarded == account.sent &&
                      lastSequence == expected &&
                      kept == std::min<uint64_t>(kMaxEntries, lastSequence);
    std::snprintf(line, sizeof line, "  %3u %6" PRIu64 " %9" PRIu64 " %9" PRIu64 " %9" PRIu64 " %9" PRIu64
                " %9u %6u %s\n",
                ca, account.scans, account.scanned, account.sent, account.fired, account.forwarded,
                lastSequence, kept, good ? "" : "MISMATCH");
    table += line;
    ok = ok && good;
    sent += account.sent;
    stored += lastSequence;
  }
  if (verbose || !ok) {
    std::printf("\nlog entries of module %" PRIu64 " per cabinet (stored = last sequence number):\n%s",
                cycles_, table.c_str());
  }
  std::printf("module %" PRIu64 ": %" PRIu64 " log events sent, %" PRIu64
              " entries stored, accounts %s\n",
              cycles_, sent, stored, ok ? "ok" : "MISMATCH");
  return ok;
}

void Soak::PrintSamples(double warmupEnd) const {
  double low = 1e18, high = 0;
  for (const Sample& s : samples_) {
    low = std::min(low, s.rssMib);
    high = std::max(high, s.rssMib);
  }
  std::printf("\n%8s %9s %9s %7s %6s %10s  RSS from %.1f to %.1f MiB\n", "time s", "RSS MiB",
              "heap MiB", "threads", "files", "host calls", low, high);
  for (const Sample& s : samples_) {
    const int bar = high > low ? static_cast<int>(1 + 39 * (s.rssMib - low) / (high - low)) : 1;
    std::printf("%8.0f %9.1f %9.1f %7zu %6zu %10" PRIu64 "  %s%s\n", s.seconds, s.rssMib,
                s.heapMib, s.threads, s.files, s.calls, std::string(static_cast<size_t>(bar), '#').c_str(),
                s.seconds <= warmupEnd ? "  (warm-up)" : "");
  }
}

int Soak::Run() {
  if (!Load()) return 2;
  if (chdir(options_.msgfiles.c_str()) != 0) {  // the module finds its message files here
    std::perror(options_.msgfiles.c_str());
    return 2;
  }
  hostsim::Sink().SetKeepLines(false);
  hostsim::Sink().SetObserver([this](const std::string& line) {
    ++traceLines_;
    if (line.find("EXCEPTION") != std::string::npos) ++exceptionLines_;
  });
  BuildWorld();
  std::thread([] {}).join();  // a sanitizer's helper thread starts with the first one
  const size_t threadsBefore = CountEntries("/proc/self/task");

  const double total = options_.minutes * 60;
  const double warmup = options_.warmupSeconds > 0 ? options_.warmupSeconds
                                                   : std::clamp(total / 4, 30.0, 180.0);
  const double every = options_.sampleSeconds > 0 ? options_.sampleSeconds : (total <= 300 ? 2 : 5);
  std::printf("em_soak: %.1f min, warm-up %.0f s, a sample every %.0f s, %d driver threads, "
              "%u cabinets, %zu lower modules, trace level %s\n",
              options_.minutes, warmup, every, options_.threads, kCabinets, host_.ModuleCount(),
              options_.traceLevel.c_str());
  std::fflush(stdout);

  SoakHost::SetThreadRole(ThreadRole::kControl);
  if (!CreateAndStart()) return 2;

  const Clock::time_point begin = Clock::now();
  std::map<std::string, long> mapsAtWarmup, mapsAtEnd;
  std::vector<std::thread> threads;
  for (int t = 0; t < options_.threads; ++t) threads.emplace_back([this, t] { Driver(t); });
  threads.emplace_back([this] { Control(); });
  for (double next = every; next <= total + 1e-9; next += every) {
    std::this_thread::sleep_until(begin + std::chrono::duration_cast<Clock::duration>(
                                              std::chrono::duration<double>(next)));
    host_.ForgetRecords();
    for (const uint32_t mid : {kMidA, kMidB, kMidC, kMidD}) host_.FindModule(mid)->ClearReceived();
    // Free pages that malloc keeps for reuse go back first: what stays resident is what the
    // process holds, and the spread its arenas leave, not the high-water mark of a moment.
    malloc_trim(0);
    const Sample sample{next, ResidentMib(), HeapInUseMib(), ArenasMib(),
                        CountEntries("/proc/self/task"), CountEntries("/proc/self/fd"),
                        calls_.load()};
    samples_.push_back(sample);
    if (options_.maps && next > warmup && mapsAtWarmup.empty()) mapsAtWarmup = ResidentMappings();
    if (options_.maps && next + every > total + 1e-9) mapsAtEnd = ResidentMappings();
    std::printf("sample %6.0f s: RSS %6.1f MiB, heap %6.1f MiB (arenas %.1f), %zu threads, "
                "%zu open files, %" PRIu64 " host calls\n",
                sample.seconds, sample.rssMib, sample.heapMib, sample.arenasMib, sample.threads,
                sample.files, sample.calls);
    std::fflush(stdout);
  }
  stop_ = true;
  for (std::thread& thread : threads) thread.join();
  Cycle(false);
  size_t threadsAfter = CountEntries("/proc/self/task");
  for (int i = 0; i < 200 && threadsAfter != threadsBefore; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    threadsAfter = CountEntries("/proc/self/task");
  }

  PrintSamples(warmup);
  if (options_.maps) {
    std::printf("\nmappings whose resident size changed by 256 KiB or more after the warm-up:\n");
    for (const auto& [name, kib] : mapsAtEnd) {
      const auto was = mapsAtWarmup.find(name);
      const long before = was == mapsAtWarmup.end() ? 0 : was->second;
      if (std::labs(kib - before) >= 256) {
        std::printf("%8ld -> %8ld KiB  %s\n", before, kib, name.c_str());
      }
    }
    for (const auto& [name, kib] : mapsAtWarmup) {
      if (mapsAtEnd.count(name) == 0 && kib >= 256) {
        std::printf("%8ld -> gone      %s\n", kib, name.c_str());
      }
    }
    malloc_info(0, stderr);
  }
  // Memory, threads and files after the warm-up against the most the warm-up reached (a
  // module's life at full caches; modules come and go, so memory rises and falls).
  struct Peaks {
    double rss = 0, heap = 0;
    size_t threads = 0, files = 0;
    void Add(const Sample& s) {
      rss = std::max(rss, s.rssMib), heap = std::max(heap, s.heapMib);
      threads = std::max(threads, s.threads), files = std::max(files, s.files);
    }
  } warm, after, lastQuarter;
  std::vector<Sample> measured;
  for (const Sample& s : samples_) {
    if (s.seconds > warmup) {
      measured.push_back(s);
      after.Add(s);
    } else {
      warm.Add(s);
    }
  }
  for (size_t i = measured.size() - measured.size() / 4; i < measured.size(); ++i) {
    lastQuarter.Add(measured[i]);
  }
  double slope = 0;  // least squares over the samples after the warm-up, per hour
  if (measured.size() >= 2) {
    double st = 0, sr = 0, stt = 0, str = 0;
    for (const Sample& s : measured) {
      st += s.seconds, sr += s.rssMib, stt += s.seconds * s.seconds, str += s.seconds * s.rssMib;
    }
    const double n = static_cast<double>(measured.size());
    slope = (n * str - st * sr) / (n * stt - st * st) * 3600;
  }
  auto margin = [this](double peak) {
    return std::max(options_.marginMib, peak * options_.marginPercent / 100);
  };
  const bool memoryOk = measured.size() >= 2 && after.rss <= warm.rss + margin(warm.rss) &&
                        after.heap <= warm.heap + margin(warm.heap);
  const bool threadsOk =
      after.threads <= warm.threads && after.files <= warm.files && threadsAfter == threadsBefore;

  std::printf("\n%-18s %9s %10s %12s %11s  %s\n", "host call", "calls", "max ms",
              "least spare", "over budget", "answers (ST: count)");
  bool timeOk = true;
  for (int k = 0; k < kKinds; ++k) {
    KindStats& s = stats_[k];
    std::string answers;
    for (const auto& [st, n] : s.statuses) {
      char item[40];
      std::snprintf(item, sizeof item, "%s%02X: %" PRIu64, answers.empty() ? "" : ", ", st, n);
      answers += item;
    }
    std::printf("%-18s %9" PRIu64 " %10.1f %10.0f ms %11" PRIu64 "  %s\n", kKindNames[k], s.calls,
                s.maxMs, s.calls ? s.worstSpareMs : 0.0, s.overBudget, answers.c_str());
    timeOk = timeOk && s.overBudget == 0;
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  std::printf("\n%" PRIu64 " host calls in %.0f s (%.0f/s), %" PRIu64 " hand-backs, %" PRIu64
              " trace lines\n",
              calls_.load(), seconds, static_cast<double>(calls_.load()) / seconds,
              host_.HandBacks(), traceLines_.load());
  std::printf("resident memory: at most %.1f MiB in the warm-up, %.1f MiB after it (%.1f MiB in "
              "its last quarter; trend %+.1f MiB/h), margin %.1f MiB\n",
              warm.rss, after.rss, lastQuarter.rss, slope, margin(warm.rss));
  std::printf("heap in use: at most %.1f MiB in the warm-up, %.1f MiB after it (%.1f MiB in its "
              "last quarter), margin %.1f MiB; memory %s\n",
              warm.heap, after.heap, lastQuarter.heap, margin(warm.heap), memoryOk ? "ok" : "GREW");
  std::printf("threads %zu (warm-up %zu), open files %zu (warm-up %zu), after EM_Delete %zu "
              "threads (before create %zu): %s\n",
              after.threads, warm.threads, after.files, warm.files, threadsAfter, threadsBefore,
              threadsOk ? "ok" : "GREW");
  std::printf("log entries of %" PRIu64 " modules: %s; time-outs: %s; malformed answers: %" PRIu64
              ", bad hand-backs: %" PRIu64 ", exception traces: %" PRIu64 "\n",
              cycles_, badCycles_ == 0 ? "all accounted for" : "MISMATCH",
              timeOk ? "kept" : "EXCEEDED", badAnswers_.load(), host_.BadHandBacks(),
              exceptionLines_.load());
  const bool ok = memoryOk && threadsOk && badCycles_ == 0 && timeOk && badAnswers_ == 0 &&
                  host_.BadHandBacks() == 0 && exceptionLines_ == 0;
  std::printf("em_soak: %s\n", ok ? "passed" : "FAILED");
  return ok ? 0 : 1;
}

bool ParseOptions(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    auto number = [&](double& out) {
      if (value == nullptr) return false;
      char* end = nullptr;
      out = std::strtod(value, &end);
      ++i;
      return *end == '\0' && out >= 0;
    };
    double n = 0;
    if (arg == "--minutes" && number(o.minutes) && o.minutes > 0) continue;
    if (arg == "--sample-seconds" && number(o.sampleSeconds)) continue;
    if (arg == "--warmup-seconds" && number(o.warmupSeconds)) continue;
    if (arg == "--rescan-seconds" && number(o.rescanSeconds)) continue;
    if (arg == "--restart-seconds" && number(o.restartSeconds)) continue;
    if (arg == "--margin-mib" && number(o.marginMib)) continue;
    if (arg == "--maps" || arg == "--dynamic-mmap-threshold") {
      (arg == "--maps" ? o.maps : o.dynamicMmapThreshold) = true;
      continue;
    }
    if (arg == "--threads" && number(n) && n >= 1) {
      o.threads = static_cast<int>(n);
      continue;
    }
    if (arg == "--slack-ms" && number(n)) {
      o.slackMs = static_cast<uint64_t>(n);
      continue;
    }
    if (arg == "--pause-us" && number(n)) {
      o.pauseUs = static_cast<uint32_t>(n);
      continue;
    }
    if ((arg == "--module" || arg == "--msgfiles" || arg == "--trace-level") && value != nullptr) {
      (arg == "--module" ? o.module : arg == "--msgfiles" ? o.msgfiles : o.traceLevel) = value;
      ++i;
      continue;
    }
    std::fprintf(stderr,
                 "usage: em_soak [--minutes M] [--threads N] [--sample-seconds S] "
                 "[--warmup-seconds S] [--rescan-seconds S] [--restart-seconds S] "
                 "[--margin-mib M] [--slack-ms MS] [--pause-us US] [--trace-level L] "
                 "[--module PATH] [--msgfiles DIR] [--maps] [--dynamic-mmap-threshold]\n");
    return false;
  }
  return true;
}

}  // namespace
}  // namespace em_oidmap::soak

int main(int argc, char** argv) {
  em_oidmap::soak::Options options;
  if (!em_oidmap::soak::ParseOptions(argc, argv, options)) return 2;
  // By default glibc raises its mmap threshold to the size of every large block it mapped
  // and got back (up to 32 MiB) and its trim threshold to twice that; a thread arena then
  // keeps free memory at its top up to that size resident, and malloc_trim leaves the tops of
  // thread arenas alone. Resident memory would climb with the largest block ever freed, by
  // the MiB per arena, while the heap in use stays flat. A fixed threshold (glibc's default
  // value) keeps large blocks mapped on their own and returned at once, so what stays
  // resident after a trim is what the process holds, plus fragmentation.
  if (!options.dynamicMmapThreshold) mallopt(M_MMAP_THRESHOLD, 128 * 1024);
  return em_oidmap::soak::Soak(options).Run();
}
