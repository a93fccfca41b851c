// em_soak MINUTES: em_oidmap.so loaded with dlopen and driven as a busy host drives it, for
// a given time, while the process's resident memory, heap, threads and open files are
// sampled.
//
// The world: 20 cabinets (0 and SE cabinets 1..19) and four lower modules. A and C keep
// unified logs, B old-style ones (it refuses CM_LogMessageArgumentsRead), D none; A, B
// and D share fans and temperature sensors, so the module maps object ids.
// Driver threads send, at once, the requests of kKinds below. A control thread re-scans,
// and now and then stops the module while the drivers go on, then holds them off, checks
// the log entries, deletes the module and creates and starts a new one. (A stopped module
// object takes no task again, so a host that stops it and starts it again is left without
// scans: the cycle a host can repeat is stop, delete, create, start.)
//
// It fails (exit 1) when, after the warm-up (samples are taken between driver calls):
// - resident memory, or the heap in use, exceeds the most the warm-up reached by more than
//   the margin (the warm-up lasts a module's life at full caches at least; modules come and
//   go, so memory rises and falls), or threads or open files exceed what the warm-up
//   reached;
// - any host call took longer than the time-outs of the requests it could wait for
//   allowed (Soak::Timed), plus a slack for a loaded machine;
// - the log entries of a module, checked when it has been stopped, do not add up. Every
//   entry stored takes the next sequence number of its cabinet, also when the 2000-entry
//   cache evicts it at once, so per cabinet the last sequence number must equal the records
//   the scans' log reads delivered plus the CM_LogMessageEvent notices fired, one for each
//   log event sent (none refused: every cabinet is listed), and the entries kept must be
//   min(2000, last sequence number);
// - an answer is malformed, a trace line reports an exception, or a thread outlives
//   EM_Delete.
#include <dlfcn.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "hostsim/DebugSink.h"
#include "hostsim/Scenario.h"
#include "hostsim/SimHost.h"
#include "hostsim/SimLog.h"
#include "module/CIExtensionModule.h"
#include "sip/SipJson.h"
#include "sip/SipStatus.h"
#include "tests/support/PageRecords.h"

namespace em_oidmap::soak {
namespace {

using Clock = std::chrono::steady_clock;
using hostsim::EncodeLog;
using hostsim::OldStyle;
using hostsim::Unified;

constexpr uint32_t kCabinets = 20;  // cabinet numbers 0 (the server's) to 19
constexpr uint32_t kMidA = 0x00010001, kMidB = 0x00020001, kMidC = 0x00030001, kMidD = 0x00040001;
constexpr uint32_t kOcLogEntry = 0x0B00, kOcLogMessageEvent = 0x0B11, kOcLogArguments = 0x0B16;
constexpr uint32_t kMaxEntries = 2000;
constexpr int kDrivers = 6;
constexpr uint64_t kSettleMs = 100, kSlackMs = 2000;  // Soak::Timed
// Allowed growth over the warm-up's most: the larger of these. Several threads allocate and
// free at once, so what stays resident moves by a few MiB from one module to the next.
constexpr double kMarginMib = 6, kMarginPercent = 10;

bool IsLogRead(uint32_t oc) { return oc == kOcLogEntry || oc == kOcLogArguments; }

// Who sends a request: the module's worker (any thread not marked), a driver, or the
// control thread that starts, re-scans and stops.
enum Role { kWorker, kDriver, kControl, kRoles };
thread_local Role t_role = kWorker;
thread_local uint64_t t_sentMs = 0;  // time-outs of the requests this thread sent

// The records of each module's log (of each of B's two): what a log read that succeeds
// returns. A and C keep unified logs, B old-style ones, D none.
constexpr uint32_t kRecordsA = 120, kRecordsB = 40, kRecordsC = 60;
uint32_t LogRecords(uint32_t mid) {
  return mid == kMidA ? kRecordsA : mid == kMidB ? kRecordsB : mid == kMidC ? kRecordsC : 0;
}

// hostsim's SimHost with the accounts a long run keeps instead of records: the time-outs
// of the requests sent, per role, and per cabinet (Account) the records in the worker's
// valid log replies (each scan stores what the modules' logs hold), the log events
// delivered (sent) and handed back (forwarded), the CM_LogMessageEvent notices fired, each
// of which names one stored entry, and the unified log broadcasts answered (scans). The
// records SimHost keeps are dropped at every sample.
class SoakHost : public hostsim::SimHost {
 public:
  struct Account {
    std::atomic<uint64_t> scanned{0}, sent{0}, forwarded{0}, fired{0}, scans{0};
  };
  std::array<Account, kCabinets> accounts;
  // A CM_LogMessageEvent without a sequence number, or for a cabinet outside the list.
  std::atomic<uint64_t> badHandBacks{0};
  std::array<std::atomic<uint64_t>, kRoles> sentMs{}, inFlightMs{};

  // The time-outs of the requests sent by `role` that are neither under way nor to come.
  uint64_t SettledMs(Role role) const {
    const uint64_t flying = inFlightMs[role];
    return sentMs[role] - flying;
  }

  void ResetAccounts() {
    for (Account& a : accounts) a.scanned = a.sent = a.forwarded = a.fired = a.scans = 0;
  }

  uint32_t SendRequest(uint64_t context, SipJson& msg, uint32_t timeoutMs) override {
    const Role role = t_role;
    t_sentMs += timeoutMs;
    sentMs[role] += timeoutMs;
    inFlightMs[role] += timeoutMs;
    const int32_t index = std::max(msg.CurrentIndex(), 0);
    const uint32_t oc = msg.GetOpcode(index), ca = msg.GetKey(index, "CA", 0);
    const uint32_t result = SimHost::SendRequest(context, msg, timeoutMs);
    inFlightMs[role] -= timeoutMs;
    if (role != kWorker || !IsLogRead(oc)) return result;
    if (oc == kOcLogArguments && ca < kCabinets) ++accounts[ca].scans;
    for (int32_t i = 0; i < static_cast<int32_t>(msg.CommandCount()); ++i) {
      const uint32_t replyOc = msg.GetOpcode(i), replyCa = msg.GetKey(i, "CA", 0);
      if (!IsLogRead(replyOc) || !IsValidReplyStatus(msg.GetStatus(i)) || replyCa >= kCabinets ||
          msg.GetDataForm(i) != SipDataForm::kRawBytes) {
        continue;
      }
      accounts[replyCa].scanned += LogRecords(msg.GetKey(i, "MI", 0));
    }
    return result;
  }

  uint32_t HandBack(CIExtensionModule* /*module*/, SipJson& msg) override {
    const int32_t i = msg.CurrentIndex();
    const uint32_t oc = msg.GetOpcode(i), ca = msg.GetKey(i, "CA", 0);
    uint32_t sequence = 0;
    if (oc == kOcLogMessageEvent) {
      const bool good = ca < kCabinets && msg.GetDataValue(i, sequence) && sequence != 0;
      ++(good ? accounts[ca].fired : badHandBacks);
    } else if (IsLogRead(oc) && msg.GetStatus(i) == ST_EVENT && ca < kCabinets) {
      ++accounts[ca].forwarded;
    }
    return 1;
  }
};

// ---- The world -----------------------------------------------------------------------------

// The modules' answers are in world.json; their logs are written here, a record each would
// make a long file.
bool BuildWorld(SoakHost& host) {
  hostsim::Scenario world;
  std::string error;
  if (!world.Load(EM_SOAK_WORLD, error)) {
    std::fprintf(stderr, "em_soak: %s\n", error.c_str());
    return false;
  }
  world.ApplyTo(host);
  for (const auto& [mid, records, codeBase] :
       {std::tuple(kMidA, kRecordsA, 0x040001u), std::tuple(kMidC, kRecordsC, 0x0A0001u)}) {
    std::vector<hostsim::SimUnifiedRecord> log;
    for (uint32_t n = 0; n < records; ++n) {
      log.push_back(Unified(codeBase + n % 5, n + 1, {std::to_string(n % 4), "4"}));
    }
    host.FindModule(mid)->SetLog(kOcLogArguments, std::nullopt, EncodeLog(log));
  }
  for (const uint32_t oi : {0u, 1u}) {
    std::vector<hostsim::SimOldStyleRecord> log;
    for (uint32_t n = 0; n < kRecordsB; ++n) {
      log.push_back(OldStyle(0x0401 + n % 3 + (oi << 8), n + 1, n % 2, 0, {2900, 3000}));
    }
    host.FindModule(kMidB)->SetLog(kOcLogEntry, oi, EncodeLog(log));
  }
  return true;
}

// ---- What the drivers send -----------------------------------------------------------------

// False for a malformed answer: an object someone has (fans 0..4, temperatures 0..6, power
// supplies 0..1) not answered with data, a log query that timed out on its cache, a count
// above 2000, or a page whose records do not parse (ParsePage) or whose sequence numbers
// do not ascend.
bool GoodAnswer(const SipJson& answer, uint32_t oc, uint32_t oi) {
  const uint32_t st = answer.GetStatus(0);
  uint32_t value = 0;
  if (oc == 0x0301 || oc == 0x0401 || oc == 0x0501) {
    return oi >= (oc == 0x0301   ? 5u
                  : oc == 0x0401 ? 7u
                                 : 2u) ||
           (st == 0 && answer.GetDataForm(0) != SipDataForm::kNone);
  }
  if (oc == 0x0B12 || oc == 0x0B13) {
    return st != 0x0F && !(oc == 0x0B13 && answer.GetDataValue(0, value) && value > kMaxEntries);
  }
  if (oc != 0x0B10) return true;
  std::vector<uint8_t> data;
  answer.GetDataBytes(0, data);
  std::vector<test_support::PageRecord> records;
  if (!test_support::ParsePage(data, &records)) return false;
  for (size_t r = 1; r < records.size(); ++r) {
    if (records[r].sequence <= records[r - 1].sequence) return false;
  }
  return st == 0;
}

// A kind of host call, with the share of the drivers' calls it takes (in 100). A request
// takes one of the listed OCs, OEs and DAs (OE 0 and no DA when none is listed), an OI
// below `objects`, any cabinet and a CI.
struct RequestKind {
  const char* name;
  uint32_t share;
  bool withWorker;  // it may wait for the worker: a log query for a scan, stop for a task
  std::vector<uint32_t> ocs, oes, das;
  uint32_t objects;
};

const std::vector<uint32_t> kLanguages = {0x409, 0x407, 0x40C};  // en, de, fr
// Codes from the message file, from A, from C that never answers, and from nowhere.
const std::vector<uint32_t> kEventCodes = {0x040001, 0x040005, 0x050002, 0x070003, 0x150004,
                                           0x0A0001, 0x0A0002, 0x0A0005, 0x0B0001};
const std::vector<uint32_t> kTextOcs = {0x0B17, 0x0B1A, 0x0B21, 0x0B23, 0x0B24, 0x0B25};
const std::vector<uint32_t> kTextCodes = {0x0401, 0x040001, 0x0A0001, 0x0A0003, 0x0A0005, 0x0B0001};
// Old-style events one time in four.
const std::vector<uint32_t> kEventOcs = {kOcLogEntry, kOcLogArguments, kOcLogArguments,
                                         kOcLogArguments};

const RequestKind kKinds[] = {
    {"translated request", 22, false, {0x0301, 0x0401, 0x0501}, {}, {}, 8},
    {"merged read", 8, false, {0xE001}, {0x11, 0x30, 0x31, 0x32, 0x77}, {}, 1},
    {"merged write", 4, false, {0xE002, 0x0310}, {0x30}, {0, 1, 2, 3, 4, 5, 6, 7}, 1},
    {"log event", 24, false, kEventOcs, {}, kEventCodes, 2},
    // From the start, from a sequence number, past the last one, and page 1.
    {"log page", 16, true, {0x0B10}, kLanguages, {0, 0, 900, 30000, 60000, 400000}, 2},
    {"log count", 6, true, {0x0B12, 0x0B13}, {}, {}, 1},
    {"text request", 20, false, kTextOcs, kLanguages, kTextCodes, 3},
    // The control thread's calls.
    {"re-scan", 0, false, {}, {}, {}, 0},
    {"stop", 0, true, {}, {}, {}, 0},
    {"EM_Delete", 0, false, {}, {}, {}, 0},
    {"create and start", 0, false, {}, {}, {}, 0}};
constexpr size_t kLogEvent = 3, kRescan = 7, kStop = 8, kDelete = 9, kStart = 10;  // rows

struct Random {
  std::mt19937 engine;
  uint32_t operator()(uint32_t n) { return static_cast<uint32_t>(engine() % n); }
  uint32_t operator()(const std::vector<uint32_t>& from) {
    return from.empty() ? 0 : from[(*this)(static_cast<uint32_t>(from.size()))];
  }
};

// A log event of one record, to be reported by A or C (unified) or B (old-style), with
// strings of changing length.
SipJson LogEvent(Random& r, uint32_t oc, uint32_t code, uint32_t oi, uint32_t ca) {
  static std::atomic<uint32_t> order{1000};
  const bool oldStyle = oc == kOcLogEntry;
  const std::string text(r(160), static_cast<char>('a' + r(26)));
  SipJson event(oc, 0, oldStyle ? oi : 0, ca);
  event.SetRawData(oldStyle
                       ? EncodeLog({OldStyle(0x0401 + r(3), order++, static_cast<uint16_t>(oi),
                                             static_cast<uint16_t>(ca), {r(5000)})})
                       : EncodeLog({Unified(code, order++, {std::to_string(r(9)), "4", text})}),
                   ST_EVENT);
  event.SetModuleId(oldStyle ? kMidB : r(2) ? kMidA : kMidC);
  return event;
}

struct KindStats {
  std::mutex mutex;
  uint64_t calls = 0, overBudget = 0;
  double maxMs = 0;
};

// ---- The process, as /proc and malloc show it ----------------------------------------------

struct Sample {
  double seconds, rssMib, heapMib;
  size_t threads, files;
};

size_t CountEntries(const char* dir) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(dir), {}));
}

Sample Measure(double seconds) {
  // Free pages that malloc keeps for reuse go back first: what stays resident is what the
  // process holds, and the spread its arenas leave, not the high-water mark of a moment.
  malloc_trim(0);
  long pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  constexpr double kMib = 1024.0 * 1024.0;
  // The heap in use (what malloc handed out and did not get back, all arenas) grows with a
  // leak; resident memory also moves with fragmentation.
  const struct mallinfo2 heap = mallinfo2();
  return {seconds,
          static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / kMib,
          static_cast<double>(heap.uordblks + heap.hblkhd) / kMib, CountEntries("/proc/self/task"),
          CountEntries("/proc/self/fd")};
}

// ---- The run -------------------------------------------------------------------------------

class Soak {
 public:
  explicit Soak(double minutes) : minutes_(minutes) {}

  int Run() {
    if (!Load() || !BuildWorld(host_)) return 2;
    if (chdir(EM_SAMPLE_MSGFILES_DIR) != 0) {  // the module finds its message files here
      std::perror(EM_SAMPLE_MSGFILES_DIR);
      return 2;
    }
    hostsim::Sink().SetKeepLines(false);
    hostsim::Sink().SetObserver([this](const std::string& line) {
      ++traceLines_;
      exceptionLines_ += line.find("EXCEPTION") != std::string::npos;
    });
    std::thread([] {}).join();  // a sanitizer's helper thread starts with the first one
    const size_t threadsBefore = CountEntries("/proc/self/task");
    const double total = minutes_ * 60, warmup = std::clamp(total / 4, 30.0, 180.0);
    const double every = total <= 300 ? 2 : 5;
    std::printf(
        "em_soak: %.1f min, warm-up %.0f s, %d driver threads, %u cabinets, %zu lower "
        "modules\n%8s %9s %9s %7s %6s %10s\n",
        minutes_, warmup, kDrivers, kCabinets, host_.ModuleCount(), "time s", "RSS MiB", "heap MiB",
        "threads", "files", "host calls");
    t_role = kControl;
    if (!CreateAndStart()) return 2;

    const Clock::time_point begin = Clock::now();
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kDrivers; ++t)
      threads.emplace_back([this, t] { Driver(t * 7919 + 1); });
    threads.emplace_back([this] { Control(); });
    Sample warm{0, 0, 0, 0, 0}, after = warm;  // the most that each part of the run reached
    size_t measured = 0;                       // samples after the warm-up
    for (double next = every; next <= total + 1e-9; next += every) {
      std::this_thread::sleep_until(
          begin + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(next)));
      // Sampled with the drivers held off: what their calls have under way (a page's answer
      // is megabytes as JSON) would read as growth whenever a sample after the warm-up
      // caught more of it than any sample in it.
      std::unique_lock<std::shared_mutex> gate(gate_);
      host_.ForgetRecordsBefore(host_.SentCount(), host_.HandBackCount());
      for (const uint32_t mid : {kMidA, kMidB, kMidC, kMidD})
        host_.FindModule(mid)->ClearReceived();
      const Sample s = Measure(next);
      gate.unlock();
      measured += next > warmup;
      Sample& peak = next <= warmup ? warm : after;
      peak = {next, std::max(peak.rssMib, s.rssMib), std::max(peak.heapMib, s.heapMib),
              std::max(peak.threads, s.threads), std::max(peak.files, s.files)};
      std::printf("%8.0f %9.1f %9.1f %7zu %6zu %10" PRIu64 "%s\n", next, s.rssMib, s.heapMib,
                  s.threads, s.files, calls_.load(), next <= warmup ? "  (warm-up)" : "");
      std::fflush(stdout);
    }
    stop_ = true;
    for (std::thread& thread : threads) thread.join();
    Cycle(false);
    size_t threadsAfter = 0;  // the module's threads may take a moment to end
    for (int i = 0; i < 200 && (threadsAfter = CountEntries("/proc/self/task")) != threadsBefore;
         ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }

    std::printf("\n%-18s %9s %10s %11s\n", "host call", "calls", "max ms", "over budget");
    bool timeOk = true;
    for (size_t k = 0; k < std::size(kKinds); ++k) {
      const KindStats& s = stats_[k];
      std::printf("%-18s %9" PRIu64 " %10.1f %11" PRIu64 "\n", kKinds[k].name, s.calls, s.maxMs,
                  s.overBudget);
      timeOk = timeOk && s.overBudget == 0;
    }
    auto margin = [](double peak) { return std::max(kMarginMib, peak * kMarginPercent / 100); };
    const bool memoryOk = measured >= 2 && after.rssMib <= warm.rssMib + margin(warm.rssMib) &&
                          after.heapMib <= warm.heapMib + margin(warm.heapMib);
    const bool threadsOk =
        after.threads <= warm.threads && after.files <= warm.files && threadsAfter == threadsBefore;
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    std::printf("\n%" PRIu64 " host calls in %.0f s (%.0f/s), %" PRIu64 " trace lines\n",
                calls_.load(), seconds, static_cast<double>(calls_.load()) / seconds,
                traceLines_.load());
    std::printf(
        "most after the warm-up (in it): resident %.1f MiB (%.1f), heap in use %.1f MiB "
        "(%.1f); margins %.1f and %.1f MiB: memory %s\n",
        after.rssMib, warm.rssMib, after.heapMib, warm.heapMib, margin(warm.rssMib),
        margin(warm.heapMib), memoryOk ? "ok" : "GREW");
    std::printf(
        "threads %zu (warm-up %zu), open files %zu (warm-up %zu), after EM_Delete %zu "
        "threads (before create %zu): %s\n",
        after.threads, warm.threads, after.files, warm.files, threadsAfter, threadsBefore,
        threadsOk ? "ok" : "GREW");
    std::printf("log entries of %" PRIu64 " modules: %s; time-outs: %s; malformed answers: %" PRIu64
                ", bad hand-backs: %" PRIu64 ", exception traces: %" PRIu64 "\n",
                cycles_, badCycles_ == 0 ? "all accounted for" : "MISMATCH",
                timeOk ? "kept" : "EXCEEDED", badAnswers_.load(), host_.badHandBacks.load(),
                exceptionLines_.load());
    const bool ok = memoryOk && threadsOk && badCycles_ == 0 && timeOk && badAnswers_ == 0 &&
                    host_.badHandBacks == 0 && exceptionLines_ == 0;
    std::printf("em_soak: %s\n", ok ? "passed" : "FAILED");
    return ok ? 0 : 1;
  }

 private:
  bool Load() {
    setenv("KT_LOG_DEBUG_LEVEL", "3", 1);  // the trace client reads its level when loaded
    void* handle = dlopen(EM_OIDMAP_SO, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
      std::fprintf(stderr, "em_soak: %s\n", dlerror());
      return false;
    }
    create_ = reinterpret_cast<decltype(create_)>(dlsym(handle, "EM_Create"));
    delete_ = reinterpret_cast<decltype(delete_)>(dlsym(handle, "EM_Delete"));
    return create_ != nullptr && delete_ != nullptr;
  }

  // Runs a host call and checks its time against what it may wait for: the time-outs of
  // the requests its own thread sends meanwhile, of a start under way or begun meanwhile on
  // the control thread (every request may wait at the start gate), and for the kinds marked
  // withWorker of the worker's requests under way or sent meanwhile; plus `extraMs` (start
  // waits 100 ms for its worker to settle, stop up to 100 ms for it to leave) and a slack
  // for a loaded machine.
  template <class F>
  void Timed(size_t kind, uint64_t extraMs, F&& call) {
    const uint64_t own = t_sentMs, control = host_.SettledMs(kControl),
                   worker = host_.SettledMs(kWorker);
    const Clock::time_point begin = Clock::now();
    call();
    const double took = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
    uint64_t allowed = t_sentMs - own + extraMs + kSlackMs;
    if (t_role != kControl) allowed += host_.sentMs[kControl] - control;
    if (kKinds[kind].withWorker) allowed += host_.sentMs[kWorker] - worker;
    ++calls_;
    KindStats& s = stats_[kind];
    std::lock_guard<std::mutex> lock(s.mutex);
    ++s.calls;
    s.maxMs = std::max(s.maxMs, took);
    s.overBudget += took > static_cast<double>(allowed);
  }

  void Driver(uint32_t seed) {
    t_role = kDriver;
    Random r{std::mt19937(seed)};
    while (!stop_.load()) {
      uint32_t roll = r(100);
      size_t k = 0;
      while (roll >= kKinds[k].share) roll -= kKinds[k++].share;
      const RequestKind& kind = kKinds[k];
      const uint32_t oc = r(kind.ocs), oe = r(kind.oes), da = r(kind.das), oi = r(kind.objects);
      const uint32_t ca = r(kCabinets);
      // Taken before the message exists, so that the answer (a page is megabytes as JSON)
      // is gone before a sample can be taken.
      std::shared_lock<std::shared_mutex> gate(gate_);
      SipJson msg(oc, oe, oi, ca);
      if (k == kLogEvent) {
        msg = LogEvent(r, oc, da, oi, ca);
      } else {
        if (!kind.das.empty()) msg.SetDataValue(da, 0x16);
        msg.SetKey("CI", r(1000) + 1, true);
      }
      Timed(k, 0, [&] {
        if (k == kLogEvent) {
          host_.DeliverEvent(msg.GetKey(0, "MI", 0), msg);
        } else {
          module_->OnRequest(msg);
        }
      });
      host_.accounts[ca].sent += k == kLogEvent;
      badAnswers_ += !GoodAnswer(msg, oc, oi);
      msg = SipJson();
      gate.unlock();
      std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
  }

  // Creates and starts a module and queues its first scans (drivers held off).
  bool CreateAndStart() {
    if (!create_(&module_, nullptr) || module_ == nullptr) return false;
    module_->SetServerCabinet(0);
    module_->Start(&host_, host_.Attach(module_));
    module_->Rescan();  // the SEL languages, and the first scans
    return true;
  }

  // Re-scans every 3 s; every 7th time (about every 20 s) cycles the module instead.
  void Control() {
    t_role = kControl;
    for (uint64_t wakes = 1; !stop_.load(); ++wakes) {
      for (int i = 0; i < 150 && !stop_.load(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
      if (stop_.load()) break;
      if (wakes % 7 == 0) {
        Cycle(true);
      } else {
        Timed(kRescan, 0, [&] { module_->Rescan(); });
      }
    }
  }

  // Waits (re-scanning) until every cabinet's log was read by this module, so that every
  // cache is ready; then stops the module while the drivers go on, holds them off, checks
  // its log entries and deletes it; with `again`, creates and starts the next one.
  void Cycle(bool again) {
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(60);
    bool scanned = false;
    for (int i = 1; !scanned && Clock::now() < deadline; ++i) {
      scanned = std::all_of(host_.accounts.begin(), host_.accounts.end(),
                            [](const SoakHost::Account& a) { return a.scans > 0; });
      // A re-scan whose tasks found the queue full leaves cabinets out: ask again.
      if (i % 100 == 0) module_->Rescan();
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    Timed(kStop, kSettleMs, [&] { module_->Stop(); });
    std::unique_lock<std::shared_mutex> gate(gate_);
    ++cycles_;
    if (!scanned) std::printf("module %" PRIu64 ": some cabinet was never scanned\n", cycles_);
    badCycles_ += !(CheckLogAccounts() && scanned);
    Timed(kDelete, kSettleMs, [&] { delete_(); });
    module_ = nullptr;
    host_.ResetAccounts();
    if (again) Timed(kStart, kSettleMs, [&] { CreateAndStart(); });
    std::fflush(stdout);
  }

  bool CheckLogAccounts() {
    bool ok = true;
    uint64_t sent = 0, stored = 0;
    for (uint32_t ca = 0; ca < kCabinets; ++ca) {
      const SoakHost::Account& a = host_.accounts[ca];
      SipJson last(0x0B12, 0, 0, ca), count(0x0B13, 0, 0, ca);
      module_->OnRequest(last);
      module_->OnRequest(count);
      uint32_t lastSequence = 0, kept = 0;
      last.GetDataValue(0, lastSequence);  // ST 0x13 and no number while nothing was stored
      count.GetDataValue(0, kept);
      if (a.fired != a.sent || a.forwarded != a.sent || lastSequence != a.scanned + a.fired ||
          kept != std::min<uint64_t>(kMaxEntries, lastSequence)) {
        std::printf("module %" PRIu64 ", cabinet %u: %" PRIu64 " records scanned, %" PRIu64
                    " events sent, %" PRIu64 " fired, %" PRIu64
                    " forwarded; last sequence number %u, %u kept: MISMATCH\n",
                    cycles_ + 1, ca, a.scanned.load(), a.sent.load(), a.fired.load(),
                    a.forwarded.load(), lastSequence, kept);
        ok = false;
      }
      sent += a.sent;
      stored += lastSequence;
    }
    std::printf("module %" PRIu64 ": %" PRIu64 " log events sent, %" PRIu64
                " entries stored, accounts %s\n",
                cycles_, sent, stored, ok ? "ok" : "MISMATCH");
    return ok;
  }

  double minutes_;
  SoakHost host_;
  CIExtensionModule* module_ = nullptr;
  bool (*create_)(CIExtensionModule**, void*) = nullptr;
  unsigned int (*delete_)() = nullptr;
  std::shared_mutex gate_;  // drivers share it for a call; a module change holds it alone
  std::atomic<bool> stop_{false};
  uint64_t cycles_ = 0, badCycles_ = 0;
  std::atomic<uint64_t> calls_{0}, badAnswers_{0}, traceLines_{0}, exceptionLines_{0};
  KindStats stats_[std::size(kKinds)];
};

}  // namespace
}  // namespace em_oidmap::soak

int main(int argc, char** argv) {
  char* end = nullptr;
  const double minutes = argc == 2 ? std::strtod(argv[1], &end) : 0;
  if (argc != 2 || *end != '\0' || !(minutes > 0)) {
    std::fprintf(stderr, "usage: em_soak MINUTES\n");
    return 2;
  }
  // glibc raises its mmap threshold to the size of every large block it mapped and got
  // back (up to 32 MiB) and its trim threshold to twice that; a thread arena then keeps
  // free memory at its top up to that size resident, and malloc_trim leaves the tops of
  // thread arenas alone. Resident memory would climb with the largest block ever freed, by
  // the MiB per arena, while the heap in use stays flat. A fixed threshold (glibc's default
  // value) keeps large blocks mapped on their own and returned at once, so what stays
  // resident after a trim is what the process holds, plus fragmentation.
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
  return em_oidmap::soak::Soak(minutes).Run();
}
