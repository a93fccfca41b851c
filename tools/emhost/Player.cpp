#include "Player.h"

#include <algorithm>
#include <thread>

#include <rapidjson/document.h>

#include "hostsim/SimLog.h"
#include "hostsim/SimModule.h"

namespace em_oidmap::emhost {

namespace {

constexpr uint32_t kStatusPending = 0x16;
constexpr uint32_t kOcLanguages = 0x0B20;
constexpr uint32_t kOcRawRecord = 0x0B19;
constexpr uint32_t kCountOpcodes[] = {0x0300, 0x0400, 0x0500, 0x0520, 0xF041, 0x0C21};
// The module's own waits for the lower requests its tasks send.
constexpr long long kSingleRequestMs = 5000;
constexpr long long kLogReadMs = 150000;
// Leeway beyond a wait of the module's, for the task to hand its answer up.
constexpr auto kLeeway = std::chrono::milliseconds(1000);

bool IsValidReply(uint32_t status) {
  return status == 0x00 || status == 0x0C || status == 0x15 || status == 0xFF;
}

bool IsCountOpcode(uint32_t oc) {
  return std::find(std::begin(kCountOpcodes), std::end(kCountOpcodes), oc) !=
         std::end(kCountOpcodes);
}

const rapidjson::Value* CommandAt(const SipJson& msg) {
  return msg.Command(msg.CurrentIndex() < 0 ? 0 : msg.CurrentIndex());
}

// The valid reply commands among the replies a request got.
std::vector<const rapidjson::Value*> ValidReplies(const rapidjson::Document& replies) {
  std::vector<const rapidjson::Value*> valid;
  if (!replies.IsArray()) return valid;
  for (const rapidjson::Value& reply : replies.GetArray()) {
    if (IsValidReply(hostsim::CommandKey(reply, "ST", kStatusPending))) valid.push_back(&reply);
  }
  return valid;
}

}  // namespace

Player::Player(HostSession& session, Output& output, PlayOptions options)
    : session_(session),
      output_(output),
      options_(options),
      handedSeen_(session.host().HandBackCount()) {}

StartFacts LearnStartFacts(const hostsim::SimHost& host, size_t firstRecord) {
  StartFacts facts;
  for (const hostsim::SentRequest& sent : host.SentRequestsFrom(firstRecord)) {
    SipJson msg;
    if (!msg.Parse(sent.json)) continue;
    const uint32_t oc = msg.GetOpcode(sent.index);
    if (!IsCountOpcode(oc) && oc != kOcLanguages) continue;
    rapidjson::Document replies;
    replies.Parse(sent.repliesJson.c_str(), sent.repliesJson.size());
    const std::vector<const rapidjson::Value*> valid = ValidReplies(replies);
    if (IsCountOpcode(oc)) {
      facts.mappingNeeded = facts.mappingNeeded || valid.size() > 1;
    } else if (!valid.empty() && valid.front()->HasMember("DA")) {
      facts.languagesAnswered = true;
      std::vector<uint8_t> bytes;
      if (hostsim::RawBytesOf((*valid.front())["DA"], bytes)) {
        for (size_t b = 0; b + 1 < bytes.size(); b += 2) {
          facts.languages.push_back(static_cast<uint16_t>(bytes[b] | bytes[b + 1] << 8));
        }
      }
    }
  }
  return facts;
}

void Player::Drain() {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::vector<hostsim::HandedBack> all = session_.host().HandedBackFrom(handedSeen_);
  handedSeen_ += all.size();
  for (const hostsim::HandedBack& handed : all) {
    const SipJson& message = handed.message;
    const uint32_t ci = message.GetKey(message.CurrentIndex(), "CI", 0);
    if (pending_.count(ci) != 0) {
      late_[ci] = message;
    } else {
      output_.HandedBack(message);
    }
  }
}

void Player::Forget(size_t needed) {
  size_t handed = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    handed = handedSeen_;
  }
  session_.host().ForgetRecordsBefore(std::min(session_.host().SentCount(), needed), handed);
}

void Player::PlayDueEvents(bool all) {
  while (nextEvent_ < events_.size() && (all || events_[nextEvent_].atMs <= clockMs_)) {
    Deliver(events_[nextEvent_++]);
  }
}

void Player::Deliver(const hostsim::ScenarioEvent& event) {
  Deliver(event.atMs, event.mid, event.ToMessage(), event.updatesModule);
}

void Player::Deliver(uint32_t atMs, uint32_t mid, SipJson message, bool updatesModule) {
  output_.EventSent(atMs, mid, message, updatesModule);
  const rapidjson::Value* command = CommandAt(message);
  if (updatesModule && command != nullptr) {
    if (hostsim::SimModule* module = session_.host().FindModule(mid)) {
      module->ApplyEvent(*command);
    }
  }
  session_.host().DeliverEvent(mid, std::move(message));
  Drain();
}

std::optional<SipJson> Player::AwaitLate(size_t number, uint32_t oc, long long& waitedMs) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  const long long own = oc == kOcRawRecord ? kLogReadMs : kSingleRequestMs;
  Clock::time_point deadline = start + std::chrono::milliseconds(options_.lateWaitMs.value_or(own));
  if (!options_.lateWaitMs) deadline += kLeeway;
  size_t sentSeen = session_.host().SentCount();
  for (;;) {
    Drain();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      const auto late = late_.find(number);
      if (late != late_.end()) return late->second;
    }
    if (!options_.lateWaitMs) {
      // The module is still at work (a scan before the task, the task itself): wait as
      // long as it waits for what it sent.
      for (const hostsim::SentRequest& sent : session_.host().SentRequestsFrom(sentSeen)) {
        deadline = std::max(deadline, sent.when + std::chrono::milliseconds(sent.timeoutMs) +
                                          kLeeway);
        ++sentSeen;
      }
    }
    const Clock::time_point now = Clock::now();
    if (now >= deadline) {
      waitedMs = std::chrono::duration_cast<std::chrono::milliseconds>(now - start).count();
      return std::nullopt;
    }
    size_t handed = 0;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      handed = handedSeen_;
    }
    session_.host().WaitForMore(
        sentSeen, handed,
        std::min(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now),
                 std::chrono::milliseconds(200)));
  }
}

void Player::Send(SipJson request) {
  PlayDueEvents(false);
  const size_t number = ++number_;
  request.SetKey("CI", static_cast<uint32_t>(number), true);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    pending_.insert(number);
  }
  const SipJson sent = request;
  const size_t sentBefore = session_.host().SentCount();
  const auto begin = std::chrono::steady_clock::now();
  AnswerView view;
  view.result = session_.module().OnRequest(request);
  view.tookMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                    std::chrono::steady_clock::now() - begin)
                    .count();
  view.number = number;
  view.request = &sent;
  view.answer = &request;
  const rapidjson::Value* command = CommandAt(sent);
  const uint32_t oc = command != nullptr ? hostsim::CommandKey(*command, "OC", 0) : 0;
  uint64_t simulated = 0;
  for (const hostsim::SentRequest& record : session_.host().SentRequestsFrom(sentBefore)) {
    if (record.thread != std::this_thread::get_id()) continue;
    simulated += record.simulatedMs;
    SipJson msg;
    if (!msg.Parse(record.json) || msg.GetOpcode(record.index) != oc) continue;
    if (msg.GetKey(record.index, "MI", 0) == hostsim::kAllModules ||
        msg.GetKey(record.index, "CA", 0) == hostsim::kAllCabinets) {
      view.mergedFrom.push_back(record.repliesJson);
    }
  }
  if (command != nullptr && CommandAt(request) != nullptr) {
    view.hint = Hint(facts_, *command, view.result, *CommandAt(request));
  }
  output_.Answer(view);
  if (request.GetStatus(request.CurrentIndex()) == kStatusPending) {
    long long waitedMs = 0;
    if (std::optional<SipJson> late = AwaitLate(number, oc, waitedMs)) {
      output_.Late(number, *late);
    } else {
      missingLate_ = true;
      output_.LateMissing(number, waitedMs);
    }
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    pending_.erase(number);
    late_.erase(number);
  }
  clockMs_ += simulated;
  Drain();
}

}  // namespace em_oidmap::emhost
