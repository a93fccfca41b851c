// The soak's host: hostsim's SimHost with the accounts a long run keeps instead of records.
//
// - Time-outs: every request the module sends is credited, with the time-out it hands the
//   host, to the kind of thread that sent it (a driver thread itself, the control thread
//   that starts and re-scans, or the module's worker). A host call may take what the
//   requests it could have waited for were allowed: a Budget taken before the call and
//   read after it sums them.
// - Log entries: per cabinet, the records that the worker's log reads delivered (each scan
//   stores what the modules' logs hold), the log events delivered and forwarded, and the
//   CM_LogMessageEvent notices fired, each of which names one stored entry.
//
// Records of sent requests and hand-backs are not kept: SimHost's are dropped by
// ForgetRecords, and hand-backs are only counted.
//
// Thread safety: every member may be called from any thread.
#ifndef EM_TESTS_SOAK_SOAKHOST_H
#define EM_TESTS_SOAK_SOAKHOST_H

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <tuple>

#include "hostsim/SimHost.h"

namespace em_oidmap::soak {

constexpr uint32_t kCabinets = 20;  // cabinet numbers 0 (the server's) to 19

enum class ThreadRole { kWorker, kDriver, kControl };

// What a host call may wait for, in milliseconds of the time-outs of requests sent.
class SoakHost;
class Budget {
 public:
  // `withWorker`: the call may wait for the worker (a log query waits for a scan).
  Budget(const SoakHost& host, bool withWorker);
  // The time-outs of the requests this thread sent since, of the control thread's and
  // (withWorker) the worker's requests sent since or under way at the start.
  uint64_t AllowedMs() const;

 private:
  const SoakHost& host_;
  bool withWorker_;
  uint64_t own_;
  uint64_t control_, controlInFlight_;
  uint64_t worker_, workerInFlight_;
};

class SoakHost : public hostsim::SimHost {
 public:
  // The role of the calling thread; unmarked threads are the module's worker.
  static void SetThreadRole(ThreadRole role);

  // The records a log read of (MI, OC, OI) returns: what a stored scan adds.
  void SetLogRecords(uint32_t mid, uint32_t oc, uint32_t oi, uint32_t records);
  // The driver delivered a log event of one record to `cabinet`.
  void CountEventSent(uint32_t cabinet);

  struct LogAccount {
    uint64_t scanned = 0;    // records in the worker's valid log replies
    uint64_t sent = 0;       // log events delivered
    uint64_t forwarded = 0;  // log events handed back
    uint64_t fired = 0;      // CM_LogMessageEvent notices
    uint64_t scans = 0;      // unified log broadcasts answered
  };
  LogAccount Account(uint32_t cabinet) const;
  uint64_t HandBacks() const { return handBacks_.load(); }
  // Hand-backs that break the rules: a CM_LogMessageEvent without a sequence number, or
  // for a cabinet outside the list.
  uint64_t BadHandBacks() const { return badHandBacks_.load(); }
  // A new module: its cabinets' accounts start from zero.
  void ResetAccounts();
  // Drops the records SimHost kept of what was sent so far.
  void ForgetRecords();

  uint32_t SendRequest(uint64_t context, SipJson& msg, uint32_t timeoutMs) override;
  uint32_t HandBack(CIExtensionModule* module, SipJson& msg) override;

 private:
  friend class Budget;
  struct Ledger {
    std::atomic<uint64_t> sent{0};      // time-outs of all requests sent so far
    std::atomic<uint64_t> inFlight{0};  // time-outs of the requests under way
  };
  static uint64_t& OwnSent();
  // Records of the worker's valid log replies in `msg` (after it was answered).
  void CountScanned(const SipJson& msg);
  struct Counters {
    std::atomic<uint64_t> scanned{0}, sent{0}, forwarded{0}, fired{0}, scans{0};
  };

  Ledger control_, worker_;
  mutable std::mutex logs_mutex_;
  std::map<std::tuple<uint32_t, uint32_t, uint32_t>, uint32_t> log_records_;
  std::array<Counters, kCabinets> cabinets_;
  std::atomic<uint64_t> handBacks_{0};
  std::atomic<uint64_t> badHandBacks_{0};
};

}  // namespace em_oidmap::soak

#endif  // EM_TESTS_SOAK_SOAKHOST_H
