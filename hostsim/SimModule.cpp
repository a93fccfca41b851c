#include "hostsim/SimModule.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "hostsim/SimLog.h"
#include "sip/SipJson.h"

namespace em_oidmap::hostsim {

uint32_t CommandKey(const rapidjson::Value& command, const char* key, uint32_t def) {
  if (!command.IsObject()) return def;
  auto it = command.FindMember(key);
  if (it == command.MemberEnd()) return def;
  if (it->value.IsUint()) return it->value.GetUint();
  if (it->value.IsString()) return SipJson::ParseLenientNumber(it->value.GetString());
  return def;
}

std::string ToJsonText(const rapidjson::Value& value) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  value.Accept(writer);
  return std::string(buffer.GetString(), buffer.GetSize());
}

std::string QuoteJson(const std::string& text) {
  rapidjson::Value value(rapidjson::StringRef(text.data(), text.size()));
  return ToJsonText(value);
}

bool ReplyRule::Matches(uint32_t reqOc, uint32_t reqOe, uint32_t reqOi, uint32_t reqCa) const {
  if (oc != reqOc) return false;
  if (oe && *oe != reqOe) return false;
  if (oi && *oi != reqOi) return false;
  if (ca && reqCa != kAllCabinets && *ca != reqCa) return false;
  return true;
}

bool ReplyRule::MatchesData(const rapidjson::Value& command) const {
  if (!whenDa) return true;
  if (!command.IsObject()) return false;
  const auto da = command.FindMember("DA");
  return da != command.MemberEnd() && da->value.IsUint() && da->value.GetUint() == *whenDa;
}

bool ReplyRule::SameKey(const ReplyRule& other) const {
  return !fault && !other.fault && oc == other.oc && oe == other.oe && oi == other.oi && ca == other.ca &&
         whenDa == other.whenDa;
}

void SimModule::Upsert(const ReplyRule& rule, bool atFront) {
  std::lock_guard<std::mutex> lock(mutex_);
  UpsertLocked(rule, atFront);
}

void SimModule::UpsertLocked(const ReplyRule& rule, bool atFront) {
  for (auto it = rules_.begin(); it != rules_.end(); ++it) {
    if (it->SameKey(rule)) {
      rules_.erase(it);
      break;
    }
  }
  rules_.insert(atFront ? rules_.begin() : rules_.end(), rule);
}

void SimModule::AddRule(const ReplyRule& rule) {
  std::lock_guard<std::mutex> lock(mutex_);
  rules_.push_back(rule);
}

void SimModule::SetInstanceCount(uint32_t countOc, uint32_t countOe, uint32_t ca,
                                 uint32_t count) {
  ReplyRule rule;
  rule.oc = countOc;
  rule.oe = countOe;
  rule.ca = ca;
  rule.dataJson = std::to_string(count);
  Upsert(rule, false);
}

void SimModule::SetConfigJson(uint32_t oe, const std::string& json) {
  ReplyRule rule;
  rule.oc = kOcConfigRead;
  rule.oe = oe;
  rule.dataJson = json;
  Upsert(rule, false);
}

void SimModule::SetConfigValue(uint32_t oe, uint32_t value) {
  SetConfigJson(oe, std::to_string(value));
}

void SimModule::SetConfigText(uint32_t oe, const std::string& text) {
  SetConfigJson(oe, QuoteJson(text));
}

void SimModule::SetLog(uint32_t oc, std::optional<uint32_t> oi,
                       const std::vector<uint8_t>& records) {
  ReplyRule rule;
  rule.oc = oc;
  rule.oi = oi;
  if (!records.empty()) rule.dataJson = RawDataJson(records);
  Upsert(rule, false);
}

void SimModule::SetStatusOverride(uint32_t oc, uint32_t status) {
  ReplyRule rule;
  rule.oc = oc;
  rule.status = status;
  Upsert(rule, true);
}

void SimModule::AddFault(const ReplyRule& rule) {
  ReplyRule fault = rule;
  fault.fault = true;
  std::lock_guard<std::mutex> lock(mutex_);
  rules_.insert(rules_.begin(), fault);
}

void SimModule::SetKeepsConfigWrites(bool keep) {
  std::lock_guard<std::mutex> lock(mutex_);
  keepsConfigWrites_ = keep;
}

bool SimModule::ApplyEvent(const rapidjson::Value& command) {
  const uint32_t oc = CommandKey(command, "OC", 0);
  const auto data = command.IsObject() ? command.FindMember("DA") : command.MemberEnd();
  const bool hasData = command.IsObject() && data != command.MemberEnd();
  std::lock_guard<std::mutex> lock(mutex_);
  if (oc == kOcLogMessageArguments || oc == kOcLogEntry) {
    std::vector<uint8_t> bytes;
    if (!hasData || !RawBytesOf(data->value, bytes)) return false;
    ReplyRule log;
    log.oc = oc;
    if (oc == kOcLogEntry) log.oi = CommandKey(command, "OI", 0);
    for (const ReplyRule& rule : rules_) {
      if (rule.SameKey(log)) {
        log = rule;
        break;
      }
    }
    std::vector<uint8_t> kept;
    if (!log.dataJson.empty()) {
      rapidjson::Document old;
      old.Parse(log.dataJson.c_str(), log.dataJson.size());
      RawBytesOf(old, kept);
    }
    kept.insert(kept.end(), bytes.begin(), bytes.end());
    log.dataJson = RawDataJson(kept);
    UpsertLocked(log, false);
    return true;
  }
  ReplyRule rule;
  rule.oc = oc;
  rule.oe = CommandKey(command, "OE", 0);
  rule.oi = CommandKey(command, "OI", 0);
  rule.ca = CommandKey(command, "CA", 0);
  if (hasData) rule.dataJson = ToJsonText(data->value);
  for (auto it = rules_.begin(); it != rules_.end(); ++it) {
    if (it->SameKey(rule)) {
      rules_.erase(it);
      break;
    }
  }
  auto at = rules_.begin();
  while (at != rules_.end() && at->fault) ++at;
  rules_.insert(at, rule);
  return true;
}

void SimModule::ClearRules() {
  std::lock_guard<std::mutex> lock(mutex_);
  rules_.clear();
}

std::vector<ReplyRule> SimModule::Rules() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return rules_;
}

const ReplyRule* SimModule::Find(const rapidjson::Value& command) const {
  const uint32_t oc = CommandKey(command, "OC", 0);
  const uint32_t oe = CommandKey(command, "OE", 0);
  const uint32_t oi = CommandKey(command, "OI", 0);
  const uint32_t ca = CommandKey(command, "CA", 0);
  for (const ReplyRule& rule : rules_) {
    if (rule.Matches(oc, oe, oi, ca) && rule.MatchesData(command)) return &rule;
  }
  return nullptr;
}

namespace {

// The same data as another JSON type: a number becomes text, anything else the number 0,
// and no data at all the text "wrong type".
std::string OfOtherType(const std::string& json) {
  if (json.empty()) return "\"wrong type\"";
  rapidjson::Document data;
  data.Parse(json.c_str(), json.size());
  if (data.IsNumber()) return QuoteJson(json);
  return "0";
}

}  // namespace

ModuleAnswer SimModule::Answer(const rapidjson::Value& command) {
  std::string text = ToJsonText(command);
  const uint32_t oc = CommandKey(command, "OC", 0);
  const uint32_t oe = CommandKey(command, "OE", 0);
  const uint32_t oi = CommandKey(command, "OI", 0);
  const uint32_t ca = CommandKey(command, "CA", 0);
  std::lock_guard<std::mutex> lock(mutex_);
  if (received_.size() < kMaxReceived) received_.push_back(std::move(text));
  ModuleAnswer answer;
  bool wrongType = false;
  uint32_t lateMs = 0;
  std::optional<std::string> statusText;
  uint32_t replies = 1;
  for (ReplyRule& rule : rules_) {
    if (!rule.Matches(oc, oe, oi, ca) || !rule.MatchesData(command)) continue;
    if (rule.every > 1 && ++rule.seen % rule.every != 0) continue;
    if (rule.wrongType || rule.lateMs > 0 || rule.statusText || rule.replies != 1) {
      wrongType = wrongType || rule.wrongType;
      lateMs += rule.lateMs;
      if (rule.statusText && !statusText) statusText = rule.statusText;
      if (rule.replies != 1) replies = rule.replies;
      continue;
    }
    answer.handled = true;
    answer.status = rule.status;
    answer.dataJson = rule.dataJson;
    answer.delayMs = rule.delayMs;
    break;
  }
  const rapidjson::Value* data = nullptr;
  if (command.IsObject()) {
    const auto it = command.FindMember("DA");
    if (it != command.MemberEnd()) data = &it->value;
  }
  if (keepsConfigWrites_ && oc == kOcConfigWrite && data != nullptr) {
    if (!answer.handled) {
      answer.handled = true;
      answer.status = kStatusOk;
    }
    if (answer.status == kStatusOk) {
      ReplyRule kept;
      kept.oc = kOcConfigRead;
      kept.oe = oe;
      kept.dataJson = ToJsonText(*data);
      UpsertLocked(kept, false);
    }
  }
  if (answer.delayMs != kNeverInTime) answer.delayMs += lateMs;
  answer.statusText = std::move(statusText);
  answer.replies = replies;
  if (wrongType) {
    answer.handled = true;
    answer.dataJson = OfOtherType(answer.dataJson);
  }
  return answer;
}

bool SimModule::Accepts(const rapidjson::Value& command) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return Find(command) != nullptr;
}

std::vector<std::string> SimModule::Received() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return received_;
}

void SimModule::ClearReceived() {
  std::lock_guard<std::mutex> lock(mutex_);
  received_.clear();
}

}  // namespace em_oidmap::hostsim
