// SimModule: a simulated lower module of the agent host, driven by data. It answers the
// commands the host delivers to it from an ordered list of reply rules; the first rule
// whose opcode and optional opcode extension, object id and cabinet match the command
// gives the status, the data and a reply delay. Without a matching rule the module does
// not handle the command (status 0x01).
//
// Thread safety: every member may be called from any thread; rules may be changed while
// the host delivers commands.
#ifndef EM_HOSTSIM_SIMMODULE_H
#define EM_HOSTSIM_SIMMODULE_H

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <rapidjson/document.h>

namespace em_oidmap::hostsim {

constexpr uint32_t kStatusOk = 0x00;
constexpr uint32_t kStatusNotHandled = 0x01;
constexpr uint32_t kStatusTimeout = 0x0F;
constexpr uint32_t kStatusEvent = 0xFF;
constexpr uint32_t kAllModules = 0xFFFFFFFF;
constexpr uint32_t kAllCabinets = 0xFFFFFFFF;
constexpr uint32_t kOcConfigRead = 0xE001;
constexpr uint32_t kOcConfigWrite = 0xE002;
constexpr uint32_t kNeverInTime = 0xFFFFFFFF;  // a delay no time-out waits for
// The most received commands a module keeps for Received(): a host that runs all day
// sends it without end.
constexpr size_t kMaxReceived = 10000;

struct ReplyRule {
  uint32_t oc = 0;
  std::optional<uint32_t> oe;  // unset: any opcode extension
  std::optional<uint32_t> oi;  // unset: any object id
  std::optional<uint32_t> ca;  // unset: any cabinet; a request to all cabinets matches any
  std::optional<uint32_t> whenDa;  // unset: any data; else only a "DA" of this number
  uint32_t status = kStatusOk;
  // The reply's "DA" as JSON text (any JSON value); empty: the reply carries no data.
  std::string dataJson;
  uint32_t delayMs = 0;
  // Applies only to every n-th command it matches; the others go on to the next rules.
  uint32_t every = 1;
  uint32_t seen = 0;  // commands matched so far, for `every`
  // Modifiers keep the answer of the rules after them: its data gets another JSON type,
  // it comes lateMs later, its status is written as this text instead of a number, or a
  // broadcast gets it `replies` times over (a module that floods the host).
  bool wrongType = false;
  uint32_t lateMs = 0;
  std::optional<std::string> statusText;
  uint32_t replies = 1;
  bool fault = false;  // added by AddFault: never replaced by a setter

  // True when the rule answers a command with these members (missing members read 0).
  bool Matches(uint32_t oc, uint32_t oe, uint32_t oi, uint32_t ca) const;
  // True when the command's "DA" is what the rule asks for (always without `whenDa`).
  bool MatchesData(const rapidjson::Value& command) const;
  // Same opcode and the same optional keys: a setter replaces such a rule.
  bool SameKey(const ReplyRule& other) const;
};

// The answer chosen for one command.
struct ModuleAnswer {
  bool handled = false;  // false: no rule matched (status 0x01, no data, no delay)
  uint32_t status = kStatusNotHandled;
  std::string dataJson;
  uint32_t delayMs = 0;
  std::optional<std::string> statusText;  // set: "ST" is this text
  uint32_t replies = 1;  // reply commands this module adds to a broadcast
};

class SimModule {
 public:
  explicit SimModule(uint32_t mid) : mid_(mid) {}
  SimModule(const SimModule&) = delete;
  SimModule& operator=(const SimModule&) = delete;

  uint32_t Mid() const { return mid_; }

  // Appends a rule: it is matched after every rule already present.
  void AddRule(const ReplyRule& rule);
  // The count opcode (countOc, countOe) for cabinet `ca` answers ST 0 with DA = count.
  // Replaces an earlier count for the same key.
  void SetInstanceCount(uint32_t countOc, uint32_t countOe, uint32_t ca, uint32_t count);
  // Configuration reads (OC 0xE001) of value `oe` answer ST 0 with DA = `value`, for any
  // cabinet. Replaces an earlier value for the same OE.
  void SetConfigValue(uint32_t oe, uint32_t value);
  void SetConfigText(uint32_t oe, const std::string& text);
  // DA given as JSON text (a multi-string, a struct, ...).
  void SetConfigJson(uint32_t oe, const std::string& json);
  // Log reads of opcode `oc` (and object id `oi`, when set), in any cabinet, answer ST 0
  // with these record bytes as raw data (no data for an empty log). Replaces an earlier
  // log of the same key. See SimLog.h for the record encoders.
  void SetLog(uint32_t oc, std::optional<uint32_t> oi, const std::vector<uint8_t>& records);
  // Every command with opcode `oc` answers `status` without data, before any other rule.
  void SetStatusOverride(uint32_t oc, uint32_t status);
  // A misbehaviour matched before every other rule, the later faults first.
  void AddFault(const ReplyRule& rule);
  // Configuration writes (OC 0xE002) with data that the rules answer ST 0, or leave
  // unanswered, are kept: later reads of that value id answer the written data.
  void SetKeepsConfigWrites(bool keep);
  // What the module reports in an event becomes what it answers from then on: a log
  // event (OC 0x0B16, or 0x0B00 with its OI) appends its record bytes to that log, any
  // other event answers its OC, OE, OI and CA with ST 0 and the event's data, after the
  // faults and before the other rules. False when a log event carries no raw data.
  bool ApplyEvent(const rapidjson::Value& command);
  void ClearRules();
  std::vector<ReplyRule> Rules() const;

  // The answer to a command object; also records the command as received.
  ModuleAnswer Answer(const rapidjson::Value& command);
  // True when some rule matches the command (the host's "accepts" for unaddressed
  // requests). Records nothing.
  bool Accepts(const rapidjson::Value& command) const;

  // The commands delivered to this module, serialised, in order of arrival (the first
  // kMaxReceived of them).
  std::vector<std::string> Received() const;
  void ClearReceived();

 private:
  void Upsert(const ReplyRule& rule, bool atFront);
  void UpsertLocked(const ReplyRule& rule, bool atFront);  // REQUIRES: mutex_ held
  const ReplyRule* Find(const rapidjson::Value& command) const;  // REQUIRES: mutex_ held

  const uint32_t mid_;
  mutable std::mutex mutex_;
  std::vector<ReplyRule> rules_;
  std::vector<std::string> received_;
  bool keepsConfigWrites_ = false;
};

// A numeric member of a command, as the host reads it: an unsigned number, or a text
// number ("0x.." hexadecimal, otherwise decimal); `def` when missing or of another type.
uint32_t CommandKey(const rapidjson::Value& command, const char* key, uint32_t def);

// Compact JSON text of a value; and a JSON string literal of a text.
std::string ToJsonText(const rapidjson::Value& value);
std::string QuoteJson(const std::string& text);

}  // namespace em_oidmap::hostsim

#endif  // EM_HOSTSIM_SIMMODULE_H
