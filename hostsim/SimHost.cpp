#include "hostsim/SimHost.h"

#include <algorithm>

#include "module/CIExtensionModule.h"

namespace em_oidmap::hostsim {
namespace {

// Context values look like nothing else in a message, so a module that passes a wrong
// one is easy to spot in the records.
constexpr uint64_t kContextBase = 0x5157000000000000ULL;

void SetMember(rapidjson::Value& command, const char* key, uint32_t value,
               SipJson::Allocator& allocator) {
  auto it = command.FindMember(key);
  if (it != command.MemberEnd()) {
    it->value.SetUint(value);
  } else {
    command.AddMember(rapidjson::StringRef(key), rapidjson::Value(value), allocator);
  }
}

// "SIP"/"CMD" of a message whose current command exists.
rapidjson::Value* CommandArray(SipJson& msg) {
  rapidjson::Value& root = msg.Doc();
  if (!root.IsObject()) return nullptr;
  auto sip = root.FindMember("SIP");
  if (sip == root.MemberEnd() || !sip->value.IsObject()) return nullptr;
  auto cmd = sip->value.FindMember("CMD");
  if (cmd == sip->value.MemberEnd() || !cmd->value.IsArray()) return nullptr;
  return &cmd->value;
}

}  // namespace

SimModule& SimHost::AddModule(uint32_t mid) {
  auto module = std::make_shared<SimModule>(mid);
  std::lock_guard<std::mutex> lock(mutex_);
  modules_.push_back(module);
  return *module;
}

SimModule* SimHost::FindModule(uint32_t mid) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& module : modules_) {
    if (module->Mid() == mid) return module.get();
  }
  return nullptr;
}

size_t SimHost::ModuleCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return modules_.size();
}

std::vector<std::shared_ptr<SimModule>> SimHost::ModulesSnapshot() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return modules_;
}

uint64_t SimHost::Attach(CIExtensionModule* module) {
  std::lock_guard<std::mutex> lock(mutex_);
  attached_ = module;
  context_ = kContextBase + (++attachCount_);
  return context_;
}

CIExtensionModule* SimHost::AttachedModule() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return attached_;
}

uint64_t SimHost::Context() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return context_;
}

void SimHost::SetHostKind(uint32_t kind) {
  std::lock_guard<std::mutex> lock(mutex_);
  hostKind_ = kind;
}

void SimHost::SetSeCabinets(const std::vector<uint32_t>& cabinets, bool succeed) {
  std::lock_guard<std::mutex> lock(mutex_);
  seCabinets_ = cabinets;
  seSucceed_ = succeed;
}

int64_t SimHost::LastEnumeratedServerCabinet() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lastSeServerCabinet_;
}

void SimHost::SetRequestHook(RequestHook hook) {
  std::lock_guard<std::mutex> lock(mutex_);
  hook_ = std::move(hook);
}

SipJson SimHost::DeliverEvent(uint32_t mid, SipJson event) {
  event.SetModuleId(mid);
  event.SetStatus(kStatusEvent);
  if (CIExtensionModule* module = AttachedModule()) module->OnReply(event);
  return event;
}

SipJson SimHost::DeliverEventOnThread(uint32_t mid, SipJson event) {
  SipJson result;
  std::thread delivery([&] { result = DeliverEvent(mid, std::move(event)); });
  delivery.join();
  return result;
}

std::vector<SentRequest> SimHost::SentRequests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sent_;
}

std::vector<HandedBack> SimHost::HandedBackMessages() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return handedBack_;
}

std::vector<std::string> SimHost::AlternateSends() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return alternate_;
}

size_t SimHost::SentCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sentBase_ + sent_.size();
}

size_t SimHost::HandBackCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return handedBackBase_ + handedBack_.size();
}

namespace {

template <class Record>
std::vector<Record> RecordsFrom(const std::vector<Record>& records, size_t base, size_t first) {
  const size_t from = first > base ? std::min(first - base, records.size()) : 0;
  return std::vector<Record>(records.begin() + static_cast<ptrdiff_t>(from), records.end());
}

template <class Record>
void Forget(std::vector<Record>& records, size_t& base, size_t before) {
  if (before <= base) return;
  const size_t drop = std::min(before - base, records.size());
  records.erase(records.begin(), records.begin() + static_cast<ptrdiff_t>(drop));
  base += drop;
}

}  // namespace

std::vector<SentRequest> SimHost::SentRequestsFrom(size_t first) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return RecordsFrom(sent_, sentBase_, first);
}

std::optional<SentRequest> SimHost::SentRequestAt(size_t number) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (number < sentBase_ || number - sentBase_ >= sent_.size()) return std::nullopt;
  return sent_[number - sentBase_];
}

std::vector<HandedBack> SimHost::HandedBackFrom(size_t first) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return RecordsFrom(handedBack_, handedBackBase_, first);
}

void SimHost::ForgetRecordsBefore(size_t sent, size_t handedBack) {
  std::lock_guard<std::mutex> lock(mutex_);
  Forget(sent_, sentBase_, sent);
  Forget(handedBack_, handedBackBase_, handedBack);
}

void SimHost::ClearRecords() {
  std::lock_guard<std::mutex> lock(mutex_);
  sent_.clear();
  handedBack_.clear();
  alternate_.clear();
  sentBase_ = 0;
  handedBackBase_ = 0;
}

bool SimHost::WaitForRequests(size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return recorded_.wait_for(lock, timeout, [&] { return sentBase_ + sent_.size() >= count; });
}

bool SimHost::WaitForHandBacks(size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return recorded_.wait_for(lock, timeout,
                            [&] { return handedBackBase_ + handedBack_.size() >= count; });
}

bool SimHost::WaitForMore(size_t sent, size_t handedBack, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return recorded_.wait_for(lock, timeout, [&] {
    return sentBase_ + sent_.size() > sent || handedBackBase_ + handedBack_.size() > handedBack;
  });
}

uint32_t SimHost::AlternateSend(CIExtensionModule* /*module*/, SipJson& msg,
                                uint32_t /*zero*/) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    alternate_.push_back(msg.Serialize());
  }
  if (msg.CurrentIndex() >= 0) msg.SetStatus(kStatusNotHandled);
  return 1;
}

uint32_t SimHost::HandBack(CIExtensionModule* /*module*/, SipJson& msg) {
  HandedBack record{msg, msg.GetStatus(msg.CurrentIndex())};
  std::lock_guard<std::mutex> lock(mutex_);
  handedBack_.push_back(std::move(record));
  recorded_.notify_all();
  return 1;
}

uint32_t SimHost::GetHostKind() {
  std::lock_guard<std::mutex> lock(mutex_);
  return hostKind_;
}

bool SimHost::EnumerateSeCabinets(uint32_t serverCabinet, const uint32_t** seCabinets,
                                  uint8_t* count) {
  std::lock_guard<std::mutex> lock(mutex_);
  lastSeServerCabinet_ = serverCabinet;
  if (!seSucceed_) return false;
  const size_t n = std::min(seCabinets_.size(), kMaxSeCabinets);
  seReported_.assign(seCabinets_.begin(), seCabinets_.begin() + static_cast<ptrdiff_t>(n));
  if (seCabinets != nullptr) *seCabinets = seReported_.data();
  if (count != nullptr) *count = static_cast<uint8_t>(n);
  return true;
}

rapidjson::Value SimHost::BuildReply(const rapidjson::Value& request, SimModule* module,
                                     uint32_t timeoutMs, SipJson::Allocator& allocator,
                                     uint32_t* spentMs, uint32_t* replies) {
  rapidjson::Value reply(request, allocator);
  reply.RemoveMember("DA");
  SetMember(reply, "MI", module->Mid(), allocator);
  const ModuleAnswer answer = module->Answer(request);
  if (replies != nullptr) *replies = answer.replies;
  if (answer.delayMs > timeoutMs) {
    // The module would answer too late: report the time-out without waiting for it.
    SetMember(reply, "ST", kStatusTimeout, allocator);
    *spentMs = timeoutMs;
    return reply;
  }
  *spentMs = answer.delayMs;
  if (answer.delayMs > 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(answer.delayMs));
  }
  if (answer.statusText) {
    reply.RemoveMember("ST");
    reply.AddMember("ST", rapidjson::Value(answer.statusText->c_str(), allocator), allocator);
  } else {
    SetMember(reply, "ST", answer.status, allocator);
  }
  if (!answer.dataJson.empty()) {
    rapidjson::Document data;
    data.Parse(answer.dataJson.c_str(), answer.dataJson.size());
    if (!data.HasParseError()) {
      reply.AddMember("DA",
                      rapidjson::Value(static_cast<const rapidjson::Value&>(data), allocator),
                      allocator);
    }
  }
  return reply;
}

void SimHost::RecordReplies(size_t at, const rapidjson::Value& replies, uint32_t simulatedMs) {
  std::string text = ToJsonText(replies);
  std::lock_guard<std::mutex> lock(mutex_);
  if (at >= sentBase_ && at - sentBase_ < sent_.size()) {
    sent_[at - sentBase_].repliesJson = std::move(text);
    sent_[at - sentBase_].simulatedMs = simulatedMs;
  }
}

void SimHost::Broadcast(const rapidjson::Value& request,
                        const std::vector<std::shared_ptr<SimModule>>& modules,
                        uint32_t timeoutMs, size_t recordAt, SipJson& msg,
                        CIExtensionModule* sender) {
  SipJson::Allocator& allocator = msg.GetAllocator();
  rapidjson::Value replies(rapidjson::kArrayType);
  uint32_t delays = 0, timedOut = 0;
  for (const auto& module : modules) {
    uint32_t copies = 1, spent = 0;
    rapidjson::Value reply =
        BuildReply(request, module.get(), timeoutMs, allocator, &spent, &copies);
    for (uint32_t c = 1; c < copies; ++c) {
      replies.PushBack(rapidjson::Value(reply, allocator), allocator);
    }
    if (copies > 0) replies.PushBack(reply, allocator);
    if (spent == timeoutMs && spent != 0) {
      timedOut = timeoutMs;
    } else {
      delays += spent;
    }
  }
  RecordReplies(recordAt, replies, delays + timedOut);
  int32_t replyCount = 0;
  if (rapidjson::Value* commands = CommandArray(msg)) {
    replyCount = static_cast<int32_t>(replies.Size());
    *commands = replies;
  }
  if (sender != nullptr) {
    for (int32_t i = 0; i < replyCount; ++i) {
      msg.SetCurrentIndex(i);
      sender->OnReply(msg);
    }
  }
  msg.SetCurrentIndex(0);
}

size_t SimHost::RecordSent(const SipJson& msg, int32_t index, uint64_t context,
                           uint32_t timeoutMs, RequestHook& hook, CIExtensionModule*& sender) {
  SentRequest record{msg.Serialize(), index, context, timeoutMs,
                     std::chrono::steady_clock::now(), std::this_thread::get_id(), {}};
  std::lock_guard<std::mutex> lock(mutex_);
  const size_t at = sentBase_ + sent_.size();
  sent_.push_back(std::move(record));
  recorded_.notify_all();
  hook = hook_;
  if (context == context_) sender = attached_;
  return at;
}

uint32_t SimHost::SendRequest(uint64_t context, SipJson& msg, uint32_t timeoutMs) {
  int32_t index = msg.CurrentIndex();
  if (index < 0) {
    index = 0;
    msg.SetCurrentIndex(0);
  }
  RequestHook hook;
  CIExtensionModule* sender = nullptr;
  const size_t recordAt = RecordSent(msg, index, context, timeoutMs, hook, sender);
  if (hook) hook(msg);

  SipJson::Allocator& allocator = msg.GetAllocator();
  rapidjson::Value request(rapidjson::kObjectType);
  {
    const rapidjson::Value& current = msg.CurrentCommand();
    if (current.IsObject()) request.CopyFrom(current, allocator);
  }
  const uint32_t mi = CommandKey(request, "MI", 0);
  const uint32_t ca = CommandKey(request, "CA", 0);
  const auto modules = ModulesSnapshot();

  if (mi == kAllModules || ca == kAllCabinets) {
    Broadcast(request, modules, timeoutMs, recordAt, msg, sender);
    return 1;
  }

  std::shared_ptr<SimModule> target;
  for (const auto& module : modules) {
    if (mi != 0 ? module->Mid() == mi : module->Accepts(request)) {
      target = module;
      break;
    }
  }
  rapidjson::Value reply;
  uint32_t spent = 0;
  if (target) {
    reply = BuildReply(request, target.get(), timeoutMs, allocator, &spent);
  } else {
    reply.CopyFrom(request, allocator);
    reply.RemoveMember("DA");
    SetMember(reply, "ST", kStatusNotHandled, allocator);
  }
  {
    rapidjson::Value one(rapidjson::kArrayType);
    one.PushBack(rapidjson::Value(reply, allocator), allocator);
    RecordReplies(recordAt, one, spent);
  }
  msg.SetCurrentIndex(index);
  msg.CurrentCommand() = reply;
  if (sender != nullptr) {
    sender->OnReply(msg);
    msg.SetCurrentIndex(index);
  }
  return 1;
}

}  // namespace em_oidmap::hostsim
