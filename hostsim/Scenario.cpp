#include "hostsim/Scenario.h"

#include <cctype>
#include <algorithm>
#include <fstream>
#include <initializer_list>
#include <sstream>

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include "hostsim/SimHost.h"
#include "hostsim/SimLog.h"

namespace em_oidmap::hostsim {
namespace {

using rapidjson::Value;

// Reads the members of one JSON object, remembering the first error. Numbers are JSON
// unsigned numbers or text: "0x" followed by hexadecimal digits, or decimal digits.
class ObjectReader {
 public:
  ObjectReader(const Value& object, std::string where, std::string& error)
      : object_(object), where_(std::move(where)), error_(error) {
    if (!object_.IsObject()) Fail("must be an object");
  }

  bool ok() const { return error_.empty(); }

  // Fails on members outside `known`: a misspelt key would otherwise be ignored silently.
  void AllowOnly(std::initializer_list<const char*> known) {
    if (!ok()) return;
    for (auto it = object_.MemberBegin(); it != object_.MemberEnd(); ++it) {
      bool found = false;
      for (const char* key : known) {
        if (it->name == key) found = true;
      }
      if (!found) {
        Fail(std::string("has unknown member \"") + it->name.GetString() + "\"");
        return;
      }
    }
  }

  const Value* Find(const char* key) const {
    if (!ok()) return nullptr;
    auto it = object_.FindMember(key);
    return it == object_.MemberEnd() ? nullptr : &it->value;
  }

  std::optional<uint32_t> OptionalNumber(const char* key) {
    const Value* value = Find(key);
    if (value == nullptr) return std::nullopt;
    uint32_t number = 0;
    if (!ToNumber(*value, number)) {
      Fail(std::string("member \"") + key + "\" is not an unsigned 32-bit number");
      return std::nullopt;
    }
    return number;
  }

  uint32_t Number(const char* key, uint32_t def) { return OptionalNumber(key).value_or(def); }

  uint32_t RequiredNumber(const char* key) {
    if (ok() && Find(key) == nullptr) Fail(std::string("lacks member \"") + key + "\"");
    return Number(key, 0);
  }

  // An array member (missing: nullptr, no error).
  const Value* Array(const char* key) {
    const Value* value = Find(key);
    if (value != nullptr && !value->IsArray()) {
      Fail(std::string("member \"") + key + "\" is not an array");
      return nullptr;
    }
    return value;
  }

  // Any JSON value as text; "" when missing.
  std::string Json(const char* key) {
    const Value* value = Find(key);
    return value == nullptr ? std::string() : ToJsonText(*value);
  }

  void Fail(const std::string& what) {
    if (error_.empty()) error_ = where_ + " " + what;
  }

  static bool ToNumber(const Value& value, uint32_t& out) {
    if (value.IsUint()) {
      out = value.GetUint();
      return true;
    }
    if (!value.IsString() || value.GetStringLength() == 0) return false;
    const char* text = value.GetString();
    const char* const end = text + value.GetStringLength();
    int base = 10;
    if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
      base = 16;
      text += 2;
    }
    if (text == end) return false;
    uint64_t number = 0;
    for (; text != end; ++text) {
      const unsigned char c = static_cast<unsigned char>(*text);
      uint32_t digit = 0;
      if (std::isdigit(c)) {
        digit = c - '0';
      } else if (base == 16 && std::isxdigit(c)) {
        digit = static_cast<uint32_t>(std::tolower(c) - 'a' + 10);
      } else {
        return false;
      }
      number = number * static_cast<uint32_t>(base) + digit;
      if (number > 0xFFFFFFFFULL) return false;
    }
    out = static_cast<uint32_t>(number);
    return true;
  }

 private:
  const Value& object_;
  std::string where_;
  std::string& error_;
};

std::string Where(const char* list, rapidjson::SizeType i) {
  return std::string(list) + "[" + std::to_string(i) + "]";
}

// Reads a number that must fit `bits` bits.
uint32_t NarrowNumber(ObjectReader& item, const char* key, uint32_t def, int bits) {
  const uint32_t value = item.Number(key, def);
  if (bits < 32 && value >> bits != 0) {
    item.Fail(std::string("member \"") + key + "\" does not fit " + std::to_string(bits) +
              " bits");
  }
  return value;
}

bool ReadOldStyleRecord(ObjectReader& item, SimOldStyleRecord& record) {
  item.AllowOnly({"code", "codeBits", "cabinet", "oid", "order", "args", "argCount"});
  record.code = NarrowNumber(item, "code", 0, 14);
  if (item.ok() && item.Find("code") == nullptr) item.Fail("lacks member \"code\"");
  record.codeBits = static_cast<uint8_t>(NarrowNumber(item, "codeBits", 0, 2));
  record.cabinet = static_cast<uint16_t>(NarrowNumber(item, "cabinet", 0, 16));
  record.objectId = static_cast<uint16_t>(NarrowNumber(item, "oid", 0, 16));
  record.order = item.Number("order", 0);
  if (const Value* args = item.Array("args")) {
    for (const Value& arg : args->GetArray()) {
      uint32_t value = 0;
      if (!ObjectReader::ToNumber(arg, value)) {
        item.Fail("member \"args\" holds something other than numbers");
        break;
      }
      record.args.push_back(value);
    }
  }
  if (item.Find("argCount") != nullptr) {
    record.argCount = static_cast<uint8_t>(NarrowNumber(item, "argCount", 0, 8));
  }
  return item.ok();
}

bool ReadUnifiedRecord(ObjectReader& item, SimUnifiedRecord& record) {
  item.AllowOnly({"code", "css", "flags", "order", "recordId", "aux", "codeBits", "strings"});
  if (item.ok() && item.Find("code") == nullptr) item.Fail("lacks member \"code\"");
  record.code = item.Number("code", 0);
  record.flags = item.Number("flags", 0);
  if (const Value* css = item.Find("css")) {
    if (css->IsBool()) {
      record.flags = css->GetBool() ? (record.flags | 1u) : (record.flags & ~1u);
    } else {
      item.Fail("member \"css\" is not a boolean");
    }
  }
  record.order = item.Number("order", 0);
  record.recordId = static_cast<int32_t>(item.Number("recordId", 0xFFFFFFFF));
  record.aux = static_cast<uint8_t>(NarrowNumber(item, "aux", 0, 8));
  record.codeBits = static_cast<uint8_t>(NarrowNumber(item, "codeBits", 0, 8));
  if (const Value* strings = item.Array("strings")) {
    for (const Value& text : strings->GetArray()) {
      if (!text.IsString()) {
        item.Fail("member \"strings\" holds something other than strings");
        break;
      }
      record.strings.emplace_back(text.GetString(), text.GetStringLength());
    }
  }
  return item.ok();
}

// A module's log member: an array of records, encoded and answered as log `oi` of `oc`.
template <class Record, class ReadFn>
bool ReadLog(ObjectReader& module, const std::string& where, const char* key, uint32_t oc,
             std::optional<uint32_t> oi, ReadFn read, SimModule& scratch, std::string& error) {
  const Value* list = module.Array(key);
  if (list == nullptr) return module.ok();
  std::vector<Record> records;
  for (rapidjson::SizeType r = 0; r < list->Size(); ++r) {
    ObjectReader item((*list)[r], where + "." + Where(key, r), error);
    Record record;
    if (!item.ok() || !read(item, record)) return false;
    records.push_back(record);
  }
  scratch.SetLog(oc, oi, EncodeLog(records));
  return true;
}

// A fault: what an opcode suffers (one of late, timeout, st, stText, wrongType, replies),
// optionally only every n-th time.
bool ReadFault(ObjectReader& item, SimModule& scratch) {
  item.AllowOnly({"oc", "oe", "oi", "ca", "every", "lateMs", "timeout", "st", "stText",
                  "wrongType", "replies"});
  ReplyRule rule;
  rule.oc = item.RequiredNumber("oc");
  rule.oe = item.OptionalNumber("oe");
  rule.oi = item.OptionalNumber("oi");
  rule.ca = item.OptionalNumber("ca");
  rule.every = item.Number("every", 1);
  if (item.ok() && rule.every == 0) item.Fail("member \"every\" must be 1 or more");
  int kinds = 0;
  if (item.Find("lateMs") != nullptr) {
    rule.lateMs = item.Number("lateMs", 0);
    ++kinds;
  }
  if (item.Find("st") != nullptr) {
    rule.status = item.Number("st", 0);
    ++kinds;
  }
  if (const Value* text = item.Find("stText")) {
    if (text->IsString()) {
      rule.statusText = std::string(text->GetString(), text->GetStringLength());
    } else {
      item.Fail("member \"stText\" must be a string");
    }
    ++kinds;
  }
  if (item.Find("replies") != nullptr) {
    rule.replies = item.Number("replies", 1);
    ++kinds;
  }
  for (const char* flag : {"timeout", "wrongType"}) {
    const Value* value = item.Find(flag);
    if (value == nullptr) continue;
    if (!value->IsBool() || !value->GetBool()) {
      item.Fail(std::string("member \"") + flag + "\" must be true");
    }
    ++kinds;
  }
  if (item.ok() && kinds != 1) {
    item.Fail("needs exactly one of \"lateMs\", \"timeout\", \"st\", \"stText\", "
              "\"wrongType\" and \"replies\"");
  }
  if (item.Find("timeout") != nullptr) rule.delayMs = kNeverInTime;
  rule.wrongType = item.Find("wrongType") != nullptr;
  if (item.ok()) scratch.AddFault(rule);
  return item.ok();
}

// Reads one module entry; the rules are expanded by a scratch SimModule so that they
// end up in exactly the order and with the replacements its setters produce.
bool ReadModule(const Value& entry, rapidjson::SizeType i, ScenarioModule& out,
                std::string& error) {
  const std::string where = Where("modules", i);
  ObjectReader module(entry, where, error);
  module.AllowOnly({"mid", "rules", "counts", "config", "statusOverrides", "errorLog",
                    "eventLog", "messageLog", "faults", "keepsConfigWrites"});
  const uint32_t mid = module.RequiredNumber("mid");
  if (!module.ok()) return false;
  SimModule scratch(mid);

  if (const Value* rules = module.Array("rules")) {
    for (rapidjson::SizeType r = 0; r < rules->Size(); ++r) {
      ObjectReader item((*rules)[r], where + "." + Where("rules", r), error);
      item.AllowOnly({"oc", "oe", "oi", "ca", "whenDa", "st", "da", "delayMs"});
      ReplyRule rule;
      rule.oc = item.RequiredNumber("oc");
      rule.oe = item.OptionalNumber("oe");
      rule.oi = item.OptionalNumber("oi");
      rule.ca = item.OptionalNumber("ca");
      rule.whenDa = item.OptionalNumber("whenDa");
      rule.status = item.Number("st", kStatusOk);
      rule.dataJson = item.Json("da");
      rule.delayMs = item.Number("delayMs", 0);
      if (!item.ok()) return false;
      scratch.AddRule(rule);
    }
  }
  if (const Value* counts = module.Array("counts")) {
    for (rapidjson::SizeType c = 0; c < counts->Size(); ++c) {
      ObjectReader item((*counts)[c], where + "." + Where("counts", c), error);
      item.AllowOnly({"oc", "oe", "ca", "count"});
      const uint32_t oc = item.RequiredNumber("oc");
      const uint32_t oe = item.Number("oe", 0);
      const uint32_t ca = item.Number("ca", 0);
      const uint32_t count = item.RequiredNumber("count");
      if (!item.ok()) return false;
      scratch.SetInstanceCount(oc, oe, ca, count);
    }
  }
  if (const Value* config = module.Array("config")) {
    for (rapidjson::SizeType c = 0; c < config->Size(); ++c) {
      ObjectReader item((*config)[c], where + "." + Where("config", c), error);
      item.AllowOnly({"oe", "da"});
      const uint32_t oe = item.RequiredNumber("oe");
      if (item.ok() && item.Find("da") == nullptr) item.Fail("lacks member \"da\"");
      const std::string data = item.Json("da");
      if (!item.ok()) return false;
      scratch.SetConfigJson(oe, data);
    }
  }
  if (const Value* overrides = module.Array("statusOverrides")) {
    for (rapidjson::SizeType o = 0; o < overrides->Size(); ++o) {
      ObjectReader item((*overrides)[o], where + "." + Where("statusOverrides", o), error);
      item.AllowOnly({"oc", "st"});
      const uint32_t oc = item.RequiredNumber("oc");
      const uint32_t st = item.RequiredNumber("st");
      if (!item.ok()) return false;
      scratch.SetStatusOverride(oc, st);
    }
  }
  if (!ReadLog<SimOldStyleRecord>(module, where, "errorLog", kOcLogEntry, kLogCritical,
                                  ReadOldStyleRecord, scratch, error) ||
      !ReadLog<SimOldStyleRecord>(module, where, "eventLog", kOcLogEntry, kLogNonCritical,
                                  ReadOldStyleRecord, scratch, error) ||
      !ReadLog<SimUnifiedRecord>(module, where, "messageLog", kOcLogMessageArguments,
                                 std::nullopt, ReadUnifiedRecord, scratch, error)) {
    return false;
  }
  if (const Value* faults = module.Array("faults")) {
    for (rapidjson::SizeType f = 0; f < faults->Size(); ++f) {
      ObjectReader item((*faults)[f], where + "." + Where("faults", f), error);
      if (!ReadFault(item, scratch)) return false;
    }
  }
  if (const Value* keep = module.Find("keepsConfigWrites")) {
    if (keep->IsBool()) {
      out.keepsConfigWrites = keep->GetBool();
    } else {
      module.Fail("member \"keepsConfigWrites\" is not a boolean");
    }
  }
  if (!module.ok()) return false;
  out.mid = mid;
  out.rules = scratch.Rules();
  return true;
}

void ReadCommand(ObjectReader& item, ScenarioRequest& out) {
  out.oc = item.RequiredNumber("oc");
  out.oe = item.Number("oe", 0);
  out.oi = item.Number("oi", 0);
  out.ca = item.Number("ca", 0);
  out.mi = item.OptionalNumber("mi");
  out.dataJson = item.Json("da");
}

bool ReadRequest(const Value& entry, rapidjson::SizeType i, ScenarioRequest& out,
                 std::string& error) {
  ObjectReader item(entry, Where("requests", i), error);
  item.AllowOnly({"oc", "oe", "oi", "ca", "mi", "da"});
  ReadCommand(item, out);
  return item.ok();
}

// An event of the timeline; a log event's "record" is encoded as its raw data.
bool ReadEvent(const Value& entry, rapidjson::SizeType i, ScenarioEvent& out,
               std::string& error) {
  const std::string where = Where("events", i);
  ObjectReader item(entry, where, error);
  item.AllowOnly({"atMs", "mid", "oc", "oe", "oi", "ca", "da", "record"});
  out.atMs = item.RequiredNumber("atMs");
  out.mid = item.RequiredNumber("mid");
  ReadCommand(item, out.command);
  const Value* record = item.Find("record");
  if (record == nullptr || !item.ok()) return item.ok();
  if (item.Find("da") != nullptr) item.Fail("has both \"da\" and \"record\"");
  ObjectReader fields(*record, where + ".record", error);
  if (out.command.oc == kOcLogMessageArguments) {
    SimUnifiedRecord unified;
    if (ReadUnifiedRecord(fields, unified)) {
      out.command.dataJson = RawDataJson(EncodeLog(std::vector<SimUnifiedRecord>{unified}));
    }
  } else if (out.command.oc == kOcLogEntry) {
    SimOldStyleRecord old;
    if (ReadOldStyleRecord(fields, old)) {
      out.command.dataJson = RawDataJson(EncodeLog(std::vector<SimOldStyleRecord>{old}));
    }
  } else {
    item.Fail("has a \"record\" but its \"oc\" is no log event (0x0B00, 0x0B16)");
  }
  return item.ok();
}

// Finds where the value at `path` ("modules[0].rules[2]", "" for the top) starts, or
// the member `member` inside it when there is one, and gives its line (0: not found).
class PathLocator : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, PathLocator> {
 public:
  PathLocator(const std::string& path, const std::string& member,
              rapidjson::StringStream& stream)
      : path_(path), member_(path.empty() ? member : path + "." + member), stream_(stream) {}

  // The offset of the member or the value, or npos.
  size_t offset() const { return memberAt_ != std::string::npos ? memberAt_ : valueAt_; }

  bool Default() { return Scalar(); }
  bool StartObject() { return Open(false); }
  bool StartArray() { return Open(true); }
  bool EndObject(rapidjson::SizeType) { return Close(); }
  bool EndArray(rapidjson::SizeType) { return Close(); }
  bool Key(const char* text, rapidjson::SizeType length, bool) {
    key_.assign(text, length);
    // Strings are read from a copy of the stream: Tell() still gives the opening quote.
    if (memberAt_ == std::string::npos && !member_.empty() && Child() == member_) {
      memberAt_ = stream_.Tell();
    }
    return true;
  }

 private:
  struct Frame {
    std::string path;
    bool array;
    size_t next = 0;
  };
  std::string Child() {
    if (frames_.empty()) return "";
    Frame& top = frames_.back();
    if (top.array) return top.path + "[" + std::to_string(top.next) + "]";
    return top.path.empty() ? key_ : top.path + "." + key_;
  }
  bool Scalar() {
    Mark(Child(), stream_.Tell());
    if (!frames_.empty() && frames_.back().array) ++frames_.back().next;
    return true;
  }
  bool Open(bool array) {
    const std::string path = Child();
    Mark(path, stream_.Tell() - 1);  // the bracket is taken already
    if (!frames_.empty() && frames_.back().array) ++frames_.back().next;
    frames_.push_back(Frame{path, array});
    return true;
  }
  bool Close() {
    frames_.pop_back();
    return true;
  }
  void Mark(const std::string& path, size_t at) {
    if (valueAt_ == std::string::npos && path == path_) valueAt_ = at;
  }

  std::string path_, member_, key_;
  rapidjson::StringStream& stream_;
  std::vector<Frame> frames_;
  size_t valueAt_ = std::string::npos, memberAt_ = std::string::npos;
};

size_t LineAt(const std::string& text, size_t offset) {
  offset = std::min(offset, text.size());
  return 1 + static_cast<size_t>(std::count(text.begin(), text.begin() + offset, '\n'));
}

// The line of the member an error names: its text starts with the path of the object
// ("scenario" for the top), and a member it names in quotes is looked for inside it.
size_t LineOfError(const std::string& text, const std::string& error) {
  std::string path = error.substr(0, error.find(' '));
  if (path == "scenario") path.clear();
  std::string member;
  const size_t quote = error.find('"');
  if (quote != std::string::npos) {
    member = error.substr(quote + 1, error.find('"', quote + 1) - quote - 1);
  }
  rapidjson::StringStream stream(text.c_str());
  PathLocator locator(path, member, stream);
  rapidjson::Reader reader;
  reader.Parse(stream, locator);
  return locator.offset() == std::string::npos ? 0 : LineAt(text, locator.offset());
}

}  // namespace

SipJson ScenarioRequest::ToMessage() const {
  SipJson msg(oc, oe, oi, ca);
  if (mi) msg.SetKey("MI", *mi, false);
  if (!dataJson.empty()) {
    rapidjson::Document data;
    data.Parse(dataJson.c_str(), dataJson.size());
    Value& command = msg.CurrentCommand();
    if (!data.HasParseError() && command.IsObject()) {
      command.AddMember("DA", Value(static_cast<const Value&>(data), msg.GetAllocator()),
                        msg.GetAllocator());
    }
  }
  return msg;
}

bool Scenario::Parse(const std::string& text, std::string& error) {
  error.clear();
  rapidjson::Document doc;
  doc.Parse(text.c_str(), text.size());
  if (doc.HasParseError()) {
    error = std::to_string(LineAt(text, doc.GetErrorOffset())) +
            ": scenario is not valid JSON: " +
            rapidjson::GetParseError_En(doc.GetParseError());
    return false;
  }
  Scenario parsed;
  ObjectReader root(doc, "scenario", error);
  root.AllowOnly({"name", "hostKind", "serverCabinet", "seCabinets", "seEnumeration",
                  "modules", "requests", "events"});
  if (const Value* name = root.Find("name")) {
    if (name->IsString()) {
      parsed.name = name->GetString();
    } else {
      root.Fail("member \"name\" is not a string");
    }
  }
  parsed.hostKind = root.Number("hostKind", 0);
  parsed.serverCabinet = root.Number("serverCabinet", 0);
  if (const Value* enumeration = root.Find("seEnumeration")) {
    if (enumeration->IsBool()) {
      parsed.seEnumerationSucceeds = enumeration->GetBool();
    } else {
      root.Fail("member \"seEnumeration\" is not a boolean");
    }
  }
  if (const Value* cabinets = root.Array("seCabinets")) {
    for (rapidjson::SizeType i = 0; i < cabinets->Size(); ++i) {
      uint32_t cabinet = 0;
      if (!ObjectReader::ToNumber((*cabinets)[i], cabinet)) {
        root.Fail("member \"seCabinets\" holds something other than cabinet numbers");
        break;
      }
      parsed.seCabinets.push_back(cabinet);
    }
  }
  if (const Value* modules = root.Array("modules")) {
    for (rapidjson::SizeType i = 0; i < modules->Size() && root.ok(); ++i) {
      ScenarioModule module;
      if (ReadModule((*modules)[i], i, module, error)) parsed.modules.push_back(module);
    }
  }
  if (const Value* requests = root.Array("requests")) {
    for (rapidjson::SizeType i = 0; i < requests->Size() && root.ok(); ++i) {
      ScenarioRequest request;
      if (ReadRequest((*requests)[i], i, request, error)) parsed.requests.push_back(request);
    }
  }
  if (const Value* events = root.Array("events")) {
    for (rapidjson::SizeType i = 0; i < events->Size() && root.ok(); ++i) {
      ScenarioEvent event;
      if (ReadEvent((*events)[i], i, event, error)) parsed.events.push_back(event);
    }
    std::stable_sort(parsed.events.begin(), parsed.events.end(),
                     [](const ScenarioEvent& a, const ScenarioEvent& b) { return a.atMs < b.atMs; });
  }
  if (!root.ok()) {
    error = std::to_string(LineOfError(text, error)) + ": " + error;
    return false;
  }
  *this = std::move(parsed);
  return true;
}

bool Scenario::Load(const std::string& path, std::string& error) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    error = "cannot open scenario file " + path;
    return false;
  }
  std::ostringstream text;
  text << file.rdbuf();
  if (!Parse(text.str(), error)) {
    error = path + ":" + error;
    return false;
  }
  return true;
}

void Scenario::ApplyTo(SimHost& host) const {
  host.SetHostKind(hostKind);
  host.SetSeCabinets(seCabinets, seEnumerationSucceeds);
  for (const ScenarioModule& entry : modules) {
    SimModule& module = host.AddModule(entry.mid);
    module.SetKeepsConfigWrites(entry.keepsConfigWrites);
    for (const ReplyRule& rule : entry.rules) module.AddRule(rule);
  }
}

}  // namespace em_oidmap::hostsim
