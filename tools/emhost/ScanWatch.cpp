#include "ScanWatch.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include <fmt/format.h>
#include <rapidjson/document.h>

#include "Console.h"
#include "hostsim/SimModule.h"

namespace em_oidmap::emhost {

namespace {

constexpr uint32_t kOcLogEntry = 0x0B00;
constexpr uint32_t kOcLogMessageArguments = 0x0B16;  // the scan's first broadcast
constexpr uint32_t kOcLogEntryCount = 0x0B13;       // answered once the cabinet's scan ended
// The longest the module waits for a module's answer (a log read), and some leeway.
constexpr auto kLongestSilence = std::chrono::milliseconds(150000 + 5000);

}  // namespace

ScanWatch::ScanWatch(HostSession& session)
    : session_(session),
      refusalsBefore_(session.QueueRefusals()),
      seen_(session.host().SentCount()),
      lastActivity_(std::chrono::steady_clock::now()) {}

void ScanWatch::Rescanned() {
  cabinets_ = session_.Cabinets();
  refused_ = session_.QueueRefusals() - refusalsBefore_;
}

void ScanWatch::Update() {
  const std::vector<hostsim::SentRequest> sent = session_.host().SentRequestsFrom(seen_);
  if (!sent.empty()) lastActivity_ = std::chrono::steady_clock::now();
  for (const hostsim::SentRequest& request : sent) {
    if (!Inspect(request)) unanswered_.push_back(seen_);
    ++seen_;
  }
  // A request is recorded when it is sent and its replies when they came.
  std::vector<size_t> still;
  for (size_t number : unanswered_) {
    const std::optional<hostsim::SentRequest> request = session_.host().SentRequestAt(number);
    if (request && !Inspect(*request)) still.push_back(number);
  }
  unanswered_ = std::move(still);
}

size_t ScanWatch::FirstNeeded() const {
  return unanswered_.empty() ? seen_ : std::min(seen_, unanswered_.front());
}

bool ScanWatch::Inspect(const hostsim::SentRequest& request) {
  if (request.thread == caller_) return true;  // a client's request, not a scan
  SipJson msg;
  if (!msg.Parse(request.json)) return true;
  const uint32_t oc = msg.GetOpcode(request.index);
  if (oc != kOcLogMessageArguments && oc != kOcLogEntry) return true;
  const uint32_t cabinet = msg.GetKey(request.index, "CA", 0);
  if (oc == kOcLogMessageArguments && started_.insert(cabinet).second) ++begun_;
  if (request.repliesJson.empty()) return false;
  rapidjson::Document replies;
  replies.Parse(request.repliesJson.c_str(), request.repliesJson.size());
  if (!replies.IsArray()) return true;
  for (const rapidjson::Value& reply : replies.GetArray()) {
    if (hostsim::CommandKey(reply, "ST", 0) != hostsim::kStatusTimeout) continue;
    timedOut_[cabinet].insert(fmt::format("MI 0x{:08X} OC 0x{:04X}",
                                          hostsim::CommandKey(reply, "MI", 0), oc));
  }
  return true;
}

bool ScanWatch::WaitForActivity() {
  const size_t handBacks = session_.host().HandBackCount();
  while (!session_.host().WaitForMore(seen_, handBacks, std::chrono::milliseconds(200))) {
    if (std::chrono::steady_clock::now() - lastActivity_ > kLongestSilence) return false;
  }
  return true;
}

void ScanWatch::Await(bool showProgress) {
  Update();
  size_t done = 0;
  for (uint32_t cabinet : cabinets_) {
    if (showProgress) {
      console::Status(fmt::format("emhost: log scans: {} of {} cabinets done{}", done,
                                  cabinets_.size(),
                                  refused_ != 0 ? fmt::format(", {} refused", refused_) : ""));
    }
    // Scans run in the order they were queued: once as many have begun as were
    // accepted, a cabinet whose scan has not begun was refused.
    while (!Started(cabinet) && begun_ + refused_ < cabinets_.size()) {
      if (!WaitForActivity()) break;
      Update();
    }
    if (Started(cabinet)) {
      SipJson query(kOcLogEntryCount, 0, 0, cabinet);
      session_.module().OnRequest(query);
      if (query.GetStatus(query.CurrentIndex()) == hostsim::kStatusTimeout) {
        unfinished_.insert(cabinet);
      }
    }
    ++done;
  }
  if (showProgress) console::Status("");
  Update();
}

std::vector<std::string> ScanWatch::Report() {
  Update();
  std::vector<std::string> lines;
  if (refused_ != 0) {
    std::string notBegun;
    for (uint32_t cabinet : cabinets_) {
      if (!Started(cabinet)) notBegun += fmt::format("{}{}", notBegun.empty() ? " " : ", ", cabinet);
    }
    const bool known = begun_ + refused_ >= cabinets_.size();
    lines.push_back(fmt::format(
        "the module's task queue (19 tasks) refused the log scans of {} of {} cabinets{}:{}; "
        "their logs are not collected and a query for them waits 120 s",
        refused_, cabinets_.size(), known ? "" : " (of these, whose scans have not begun)",
        notBegun));
  }
  for (uint32_t cabinet : unfinished_) {
    lines.push_back(fmt::format("the log scan of cabinet {} had not ended after 120 s", cabinet));
  }
  for (const auto& [cabinet, replies] : timedOut_) {
    std::string who;
    for (const std::string& reply : replies) who += (who.empty() ? "" : ", ") + reply;
    lines.push_back(fmt::format("the log scan of cabinet {} was answered 0x0F (time-out) by {}",
                                cabinet, who));
  }
  return lines;
}

bool ScanWatch::Clean() { return Report().empty(); }

std::set<uint32_t> ScanWatch::Refused() {
  Update();
  std::set<uint32_t> refused;
  if (refused_ == 0 || begun_ + refused_ < cabinets_.size()) return refused;
  for (uint32_t cabinet : cabinets_) {
    if (!Started(cabinet)) refused.insert(cabinet);
  }
  return refused;
}

}  // namespace em_oidmap::emhost
