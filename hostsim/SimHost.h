// SimHost: a simulated agent host. It implements the host interface that an extension
// module calls (send request, alternate send, hand-back, host kind, SE cabinet
// enumeration) over a list of simulated lower modules (SimModule), and records what the
// module sends so that tests and tools can read it.
//
// Answering a sent request (SendRequest):
// - MI or CA 0xFFFFFFFF: broadcast. Every module answers, in the order they were added;
//   "CMD" then holds one reply command per module and the current index is 0.
// - Otherwise the module named by MI answers (with no MI: the first module with a rule
//   for the command), and its reply replaces the request command in place.
// - A reply command is the request command with the module's MI and ST and, only when
//   the module answers with data, its DA. No rule, no accepting module or an unknown MI
//   give ST 0x01. A module may add its reply to a broadcast several times (a fault). A
//   reply delay above the request's time-out gives ST 0x0F at once,
//   without DA; a shorter delay is really slept.
// - Before returning, every reply command is passed to the sending module's OnReply,
//   with the current index set to it; the index is restored afterwards.
//
// Thread safety: every member may be called from any thread. No lock is held while a
// module's OnReply, a request hook or a reply delay runs.
#ifndef EM_HOSTSIM_SIMHOST_H
#define EM_HOSTSIM_SIMHOST_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "hostsim/SimModule.h"
#include "module/CIModuleHost.h"
#include "sip/SipJson.h"

namespace em_oidmap::hostsim {

constexpr uint32_t kHostKindNodeAgent = 0;
constexpr size_t kMaxSeCabinets = 255;  // the enumeration's count is 8-bit

// One request a module sent through SendRequest, as it arrived.
struct SentRequest {
  std::string json;  // the whole message, serialised
  int32_t index = 0;  // its current index
  uint64_t context = 0;
  uint32_t timeoutMs = 0;
  std::chrono::steady_clock::time_point when;
  std::thread::id thread;
  // The reply commands the modules gave, as a JSON array, before the sender saw them.
  std::string repliesJson;
  // The time the simulated modules took to answer: their reply delays, and the whole
  // time-out where a reply came too late (counted once per request).
  uint32_t simulatedMs = 0;
};

// One message a module handed back, copied during the call.
struct HandedBack {
  SipJson message;
  uint32_t statusDuringCall = 0;  // ST of its current command during the call
};

class SimHost : public CIModuleHost {
 public:
  // Called with the request on the sending thread before it is answered. It may block,
  // on a test's own event for example, to hold the answering module busy.
  using RequestHook = std::function<void(const SipJson& request)>;

  SimHost() = default;
  SimHost(const SimHost&) = delete;
  SimHost& operator=(const SimHost&) = delete;
  ~SimHost() override = default;

  // ---- Set-up -------------------------------------------------------------------------
  // Adds a simulated module after the others. The reference stays valid for the host's
  // lifetime.
  SimModule& AddModule(uint32_t mid);
  // The module with this MID, or nullptr.
  SimModule* FindModule(uint32_t mid);
  size_t ModuleCount() const;

  // Makes `module` the module that sends through this host and receives replies and
  // events (not owned; nullptr detaches). Returns the context value to pass to its Start;
  // requests sent with another context are answered, but their replies reach no module.
  uint64_t Attach(CIExtensionModule* module);
  CIExtensionModule* AttachedModule() const;
  uint64_t Context() const;

  void SetHostKind(uint32_t kind);
  // The SE cabinets reported for any server cabinet (at most 255 are reported) and
  // whether the enumeration succeeds.
  void SetSeCabinets(const std::vector<uint32_t>& cabinets, bool succeed = true);
  // The server cabinet of the last enumeration call, or -1 when there was none.
  int64_t LastEnumeratedServerCabinet() const;
  void SetRequestHook(RequestHook hook);

  // ---- Events ---------------------------------------------------------------------------
  // Sets MI = mid and ST = 0xFF on the event's current command and passes it to the
  // attached module's OnReply on the calling thread. Returns the message as the module
  // left it.
  SipJson DeliverEvent(uint32_t mid, SipJson event);
  // The same on a new thread, joined before returning.
  SipJson DeliverEventOnThread(uint32_t mid, SipJson event);

  // ---- Records ----------------------------------------------------------------------------
  // Records are numbered from 0 in the order they were made; the numbers stay valid when
  // older records are forgotten.
  std::vector<SentRequest> SentRequests() const;  // the records still kept
  std::vector<HandedBack> HandedBackMessages() const;
  std::vector<std::string> AlternateSends() const;  // serialised messages
  // Number of records ever made (kept or forgotten).
  size_t SentCount() const;
  size_t HandBackCount() const;
  // The kept records numbered `first` and later; the one numbered `number`, when kept.
  // A request's repliesJson stays empty until it has been answered.
  std::vector<SentRequest> SentRequestsFrom(size_t first) const;
  std::optional<SentRequest> SentRequestAt(size_t number) const;
  std::vector<HandedBack> HandedBackFrom(size_t first) const;
  // Drops the records numbered below `sent` and `handedBack`: a host that runs for long
  // keeps only what it still reads.
  void ForgetRecordsBefore(size_t sent, size_t handedBack);
  void ClearRecords();
  // Wait until at least `count` requests (hand-backs) have been recorded; false when the
  // deadline passes first.
  bool WaitForRequests(size_t count, std::chrono::milliseconds timeout) const;
  bool WaitForHandBacks(size_t count, std::chrono::milliseconds timeout) const;
  // Waits until more than `sent` requests or more than `handedBack` hand-backs have been
  // recorded; false when the time-out passes first.
  bool WaitForMore(size_t sent, size_t handedBack, std::chrono::milliseconds timeout) const;

  // ---- The host interface ------------------------------------------------------------------
  // Records the message and answers ST 0x01.
  uint32_t AlternateSend(CIExtensionModule* module, SipJson& msg, uint32_t zero) override;
  uint32_t SendRequest(uint64_t context, SipJson& msg, uint32_t timeoutMs) override;
  uint32_t HandBack(CIExtensionModule* module, SipJson& msg) override;
  uint32_t GetHostKind() override;
  // Copies the configured list into a host-owned array, valid until the next call. On
  // failure writes nothing and returns false.
  bool EnumerateSeCabinets(uint32_t serverCabinet, const uint32_t** seCabinets,
                           uint8_t* count) override;

 private:
  std::vector<std::shared_ptr<SimModule>> ModulesSnapshot() const;
  // Builds one module's reply to `request` in the message's allocator (may sleep).
  // `replies` (may be null) gets how many times a broadcast carries it.
  // `spentMs` gets the reply's delay, or the time-out when it comes too late.
  rapidjson::Value BuildReply(const rapidjson::Value& request, SimModule* module,
                              uint32_t timeoutMs, SipJson::Allocator& allocator,
                              uint32_t* spentMs, uint32_t* replies = nullptr);
  void RecordReplies(size_t at, const rapidjson::Value& replies, uint32_t simulatedMs);
  // Records a sent request; gives its number, the hook to call and the module that sent
  // it (nullptr: another context).
  size_t RecordSent(const SipJson& msg, int32_t index, uint64_t context, uint32_t timeoutMs,
                    RequestHook& hook, CIExtensionModule*& sender);
  // Answers a broadcast: one reply command per module in `msg`, each passed to `sender`.
  void Broadcast(const rapidjson::Value& request,
                 const std::vector<std::shared_ptr<SimModule>>& modules, uint32_t timeoutMs,
                 size_t recordAt, SipJson& msg, CIExtensionModule* sender);

  mutable std::mutex mutex_;
  mutable std::condition_variable recorded_;
  std::vector<std::shared_ptr<SimModule>> modules_;
  CIExtensionModule* attached_ = nullptr;
  uint64_t context_ = 0;
  uint64_t attachCount_ = 0;
  uint32_t hostKind_ = kHostKindNodeAgent;
  std::vector<uint32_t> seCabinets_;
  bool seSucceed_ = true;
  std::vector<uint32_t> seReported_;  // the array handed out by the last enumeration
  int64_t lastSeServerCabinet_ = -1;
  RequestHook hook_;
  std::vector<SentRequest> sent_;
  std::vector<HandedBack> handedBack_;
  size_t sentBase_ = 0;        // number of the first kept request record
  size_t handedBackBase_ = 0;  // number of the first kept hand-back record
  std::vector<std::string> alternate_;
};

}  // namespace em_oidmap::hostsim

#endif  // EM_HOSTSIM_SIMHOST_H
