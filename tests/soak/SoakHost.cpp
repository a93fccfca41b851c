#include "tests/soak/SoakHost.h"

#include "sip/SipStatus.h"

namespace em_oidmap::soak {
namespace {

constexpr uint32_t kOcLogEntry = 0x0B00;
constexpr uint32_t kOcLogMessageEvent = 0x0B11;
constexpr uint32_t kOcLogMessageArguments = 0x0B16;

thread_local ThreadRole t_role = ThreadRole::kWorker;

bool IsLogRead(uint32_t oc) { return oc == kOcLogEntry || oc == kOcLogMessageArguments; }

}  // namespace

uint64_t& SoakHost::OwnSent() {
  thread_local uint64_t sent = 0;
  return sent;
}

void SoakHost::SetThreadRole(ThreadRole role) { t_role = role; }

Budget::Budget(const SoakHost& host, bool withWorker)
    : host_(host),
      withWorker_(withWorker),
      own_(SoakHost::OwnSent()),
      control_(host.control_.sent.load()),
      controlInFlight_(host.control_.inFlight.load()),
      worker_(host.worker_.sent.load()),
      workerInFlight_(host.worker_.inFlight.load()) {}

uint64_t Budget::AllowedMs() const {
  uint64_t allowed = SoakHost::OwnSent() - own_;
  // Any request may wait at the start gate for the start under way on the control thread.
  if (t_role != ThreadRole::kControl) {
    allowed += host_.control_.sent.load() - control_ + controlInFlight_;
  }
  if (withWorker_) {
    allowed += host_.worker_.sent.load() - worker_ + workerInFlight_;
  }
  return allowed;
}

void SoakHost::SetLogRecords(uint32_t mid, uint32_t oc, uint32_t oi, uint32_t records) {
  std::lock_guard<std::mutex> lock(logs_mutex_);
  log_records_[{mid, oc, oi}] = records;
}

void SoakHost::CountEventSent(uint32_t cabinet) {
  if (cabinet < kCabinets) ++cabinets_[cabinet].sent;
}

SoakHost::LogAccount SoakHost::Account(uint32_t cabinet) const {
  const Counters& c = cabinets_.at(cabinet);
  return {c.scanned.load(), c.sent.load(), c.forwarded.load(), c.fired.load(), c.scans.load()};
}

void SoakHost::ResetAccounts() {
  for (Counters& c : cabinets_) c.scanned = c.sent = c.forwarded = c.fired = c.scans = 0;
}

void SoakHost::ForgetRecords() { ForgetRecordsBefore(SentCount(), HandBackCount()); }

uint32_t SoakHost::SendRequest(uint64_t context, SipJson& msg, uint32_t timeoutMs) {
  const ThreadRole role = t_role;
  Ledger* ledger = role == ThreadRole::kWorker    ? &worker_
                   : role == ThreadRole::kControl ? &control_
                                                  : nullptr;
  OwnSent() += timeoutMs;
  if (ledger != nullptr) {
    ledger->sent += timeoutMs;
    ledger->inFlight += timeoutMs;
  }
  const int32_t index = msg.CurrentIndex() < 0 ? 0 : msg.CurrentIndex();
  const uint32_t oc = msg.GetOpcode(index);
  const uint32_t ca = msg.GetKey(index, "CA", 0);
  const uint32_t result = SimHost::SendRequest(context, msg, timeoutMs);
  if (ledger != nullptr) ledger->inFlight -= timeoutMs;
  if (role == ThreadRole::kWorker && IsLogRead(oc)) {
    if (oc == kOcLogMessageArguments && ca < kCabinets) ++cabinets_[ca].scans;
    CountScanned(msg);
  }
  return result;
}

void SoakHost::CountScanned(const SipJson& msg) {
  std::lock_guard<std::mutex> lock(logs_mutex_);
  const int32_t count = static_cast<int32_t>(msg.CommandCount());
  for (int32_t i = 0; i < count; ++i) {
    const uint32_t oc = msg.GetOpcode(i);
    const uint32_t ca = msg.GetKey(i, "CA", 0);
    if (!IsLogRead(oc) || !IsValidReplyStatus(msg.GetStatus(i)) || ca >= kCabinets ||
        msg.GetDataForm(i) != SipDataForm::kRawBytes) {
      continue;
    }
    const uint32_t oi = oc == kOcLogEntry ? msg.GetKey(i, "OI", 0) : 0;
    const auto found = log_records_.find({msg.GetKey(i, "MI", 0), oc, oi});
    if (found != log_records_.end()) cabinets_[ca].scanned += found->second;
  }
}

uint32_t SoakHost::HandBack(CIExtensionModule* /*module*/, SipJson& msg) {
  ++handBacks_;
  const int32_t i = msg.CurrentIndex();
  const uint32_t oc = msg.GetOpcode(i);
  const uint32_t ca = msg.GetKey(i, "CA", 0);
  if (oc == kOcLogMessageEvent) {
    uint32_t sequence = 0;
    if (ca >= kCabinets || !msg.GetDataValue(i, sequence) || sequence == 0) {
      ++badHandBacks_;
    } else {
      ++cabinets_[ca].fired;
    }
  } else if (IsLogRead(oc) && msg.GetStatus(i) == ST_EVENT && ca < kCabinets) {
    ++cabinets_[ca].forwarded;
  }
  return 1;
}

}  // namespace em_oidmap::soak
