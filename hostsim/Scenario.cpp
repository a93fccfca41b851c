#include "hostsim/Scenario.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include <rapidjson/error/en.h>

#include "hostsim/ScenarioReader.h"
#include "hostsim/SimHost.h"
#include "hostsim/SimLog.h"

namespace em_oidmap::hostsim {

// The warnings of a scenario read without errors (ScenarioLint.cpp).
std::vector<std::string> LintScenario(const Scenario& scenario);

namespace {

using rapidjson::Value;
using Errors = std::vector<std::string>;

// A module's log member: an array of records, encoded and answered as log `oi` of `oc`.
template <class Record, class ReadFn>
void ReadLog(ObjectReader& module, const char* key, uint32_t oc, std::optional<uint32_t> oi,
             ReadFn read, SimModule& scratch, Errors& errors) {
  const Value* list = module.Array(key);
  if (list == nullptr) return;
  std::vector<Record> records;
  bool whole = true;
  for (rapidjson::SizeType r = 0; r < list->Size(); ++r) {
    ObjectReader item((*list)[r], module.where() + "." + Where(key, r), errors);
    Record record;
    if (item.ok() && read(item, record)) {
      records.push_back(record);
    } else {
      whole = false;
    }
  }
  if (whole) scratch.SetLog(oc, oi, EncodeLog(records));
}

// The one kind of misbehaviour a fault names; false when it names none or several.
bool ReadFaultKind(ObjectReader& item, ReplyRule& rule) {
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
  return item.ok();
}

// A fault: what an opcode suffers, optionally only every n-th time.
void ReadFault(ObjectReader& item, SimModule& scratch) {
  item.AllowOnly({"oc", "oe", "oi", "ca", "every", "lateMs", "timeout", "st", "stText",
                  "wrongType", "replies"});
  ReplyRule rule;
  rule.oc = item.RequiredNumber("oc");
  rule.oe = item.OptionalNumber("oe");
  rule.oi = item.OptionalNumber("oi");
  rule.ca = item.OptionalNumber("ca");
  rule.every = item.Number("every", 1);
  if (item.ok() && rule.every == 0) item.Fail("member \"every\" must be 1 or more");
  if (ReadFaultKind(item, rule)) scratch.AddFault(rule);
}

// Calls read(item) for every object of the array member `key` of `module`.
template <class ReadFn>
void ForEachItem(ObjectReader& module, const char* key, Errors& errors, ReadFn read) {
  const Value* list = module.Array(key);
  if (list == nullptr) return;
  for (rapidjson::SizeType i = 0; i < list->Size(); ++i) {
    ObjectReader item((*list)[i], module.where() + "." + Where(key, i), errors);
    if (item.ok()) read(item);
  }
}

void ReadRules(ObjectReader& module, SimModule& scratch, Errors& errors) {
  ForEachItem(module, "rules", errors, [&](ObjectReader& item) {
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
    if (item.ok()) scratch.AddRule(rule);
  });
}

void ReadShorthands(ObjectReader& module, SimModule& scratch, Errors& errors) {
  ForEachItem(module, "counts", errors, [&](ObjectReader& item) {
    item.AllowOnly({"oc", "oe", "ca", "count"});
    const uint32_t oc = item.RequiredNumber("oc");
    const uint32_t oe = item.Number("oe", 0);
    const uint32_t ca = item.Number("ca", 0);
    const uint32_t count = item.RequiredNumber("count");
    if (item.ok()) scratch.SetInstanceCount(oc, oe, ca, count);
  });
  ForEachItem(module, "config", errors, [&](ObjectReader& item) {
    item.AllowOnly({"oe", "da"});
    const uint32_t oe = item.RequiredNumber("oe");
    if (item.ok() && item.Find("da") == nullptr) item.Fail("lacks member \"da\"");
    const std::string data = item.Json("da");
    if (item.ok()) scratch.SetConfigJson(oe, data);
  });
  ForEachItem(module, "statusOverrides", errors, [&](ObjectReader& item) {
    item.AllowOnly({"oc", "st"});
    const uint32_t oc = item.RequiredNumber("oc");
    const uint32_t st = item.RequiredNumber("st");
    if (item.ok()) scratch.SetStatusOverride(oc, st);
  });
}

// Reads one module entry; the rules are expanded by a scratch SimModule so that they
// end up in exactly the order and with the replacements its setters produce.
bool ReadModule(const Value& entry, rapidjson::SizeType i, ScenarioModule& out, Errors& errors) {
  const size_t errorsBefore = errors.size();
  ObjectReader module(entry, Where("modules", i), errors);
  module.AllowOnly({"mid", "rules", "counts", "config", "statusOverrides", "errorLog",
                    "eventLog", "messageLog", "faults", "keepsConfigWrites"});
  const uint32_t mid = module.RequiredNumber("mid");
  out.mid = mid;
  if (!module.ok()) return false;
  SimModule scratch(mid);
  ReadRules(module, scratch, errors);
  ReadShorthands(module, scratch, errors);
  ReadLog<SimOldStyleRecord>(module, "errorLog", kOcLogEntry, kLogCritical, ReadOldStyleRecord,
                             scratch, errors);
  ReadLog<SimOldStyleRecord>(module, "eventLog", kOcLogEntry, kLogNonCritical,
                             ReadOldStyleRecord, scratch, errors);
  ReadLog<SimUnifiedRecord>(module, "messageLog", kOcLogMessageArguments, std::nullopt,
                            ReadUnifiedRecord, scratch, errors);
  ForEachItem(module, "faults", errors, [&](ObjectReader& item) { ReadFault(item, scratch); });
  out.keepsConfigWrites = module.Bool("keepsConfigWrites", false);
  out.rules = scratch.Rules();
  return errors.size() == errorsBefore;
}

void ReadCommand(ObjectReader& item, ScenarioRequest& out) {
  out.oc = item.RequiredNumber("oc");
  out.oe = item.Number("oe", 0);
  out.oi = item.Number("oi", 0);
  out.ca = item.Number("ca", 0);
  out.mi = item.OptionalNumber("mi");
  out.dataJson = item.Json("da");
  out.writesOe = item.Find("oe") != nullptr;
  out.writesOi = item.Find("oi") != nullptr;
}

bool ReadRequest(const Value& entry, rapidjson::SizeType i, ScenarioRequest& out,
                 Errors& errors) {
  ObjectReader item(entry, Where("requests", i), errors);
  item.AllowOnly({"oc", "oe", "oi", "ca", "mi", "da"});
  ReadCommand(item, out);
  return item.ok();
}

// A log event's "record", encoded as its raw data.
void ReadEventRecord(ObjectReader& item, const Value& record, ScenarioEvent& out,
                     Errors& errors) {
  if (item.Find("da") != nullptr) item.Fail("has both \"da\" and \"record\"");
  ObjectReader fields(record, item.where() + ".record", errors);
  if (out.command.oc == kOcLogMessageArguments) {
    SimUnifiedRecord unified;
    if (fields.ok() && ReadUnifiedRecord(fields, unified)) {
      out.command.dataJson = RawDataJson(EncodeLog(std::vector<SimUnifiedRecord>{unified}));
    }
  } else if (out.command.oc == kOcLogEntry) {
    SimOldStyleRecord old;
    if (fields.ok() && ReadOldStyleRecord(fields, old)) {
      out.command.dataJson = RawDataJson(EncodeLog(std::vector<SimOldStyleRecord>{old}));
    }
  } else {
    item.Fail("has a \"record\" but its \"oc\" is no log event (0x0B00, 0x0B16)");
  }
}

bool ReadEvent(const Value& entry, rapidjson::SizeType i, ScenarioEvent& out, Errors& errors) {
  const size_t errorsBefore = errors.size();
  ObjectReader item(entry, Where("events", i), errors);
  item.AllowOnly({"atMs", "mid", "oc", "oe", "oi", "ca", "da", "record", "updatesModule"});
  out.entry = i;
  out.atMs = item.RequiredNumber("atMs");
  out.mid = item.RequiredNumber("mid");
  ReadCommand(item, out.command);
  out.updatesModule = item.Bool("updatesModule", false);
  const Value* record = item.Find("record");
  if (record != nullptr && item.ok()) ReadEventRecord(item, *record, out, errors);
  return errors.size() == errorsBefore;
}

void ReadTop(ObjectReader& root, Scenario& parsed) {
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
  parsed.seEnumerationSucceeds = root.Bool("seEnumeration", true);
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
}

// Reads every entry of the top-level array `key` with read(entry, i, out, errors).
template <class Item, class ReadFn>
void ReadList(const Value& doc, const char* key, std::vector<Item>& out, Errors& errors,
              ReadFn read) {
  const auto list = doc.FindMember(key);
  if (list == doc.MemberEnd() || !list->value.IsArray()) return;
  // Entries with errors are kept too, for the warnings; the errors void the whole.
  for (rapidjson::SizeType i = 0; i < list->value.Size(); ++i) {
    Item item;
    read(list->value[i], i, item, errors);
    out.push_back(item);
  }
}

}  // namespace

SipJson ScenarioRequest::ToMessage() const {
  SipJson msg(oc, oe, oi, ca);
  if (writesOe) msg.SetKey("OE", oe, false);
  if (writesOi) msg.SetKey("OI", oi, false);
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

bool Scenario::Check(const std::string& text, std::vector<ScenarioFinding>& findings) {
  findings.clear();
  rapidjson::Document doc;
  doc.Parse(text.c_str(), text.size());
  if (doc.HasParseError()) {
    findings.push_back({LineAt(text, doc.GetErrorOffset()), false,
                        std::string("scenario is not valid JSON: ") +
                            rapidjson::GetParseError_En(doc.GetParseError())});
    return false;
  }
  Scenario parsed;
  Errors errors;
  ObjectReader root(doc, "scenario", errors);
  ReadTop(root, parsed);
  if (doc.IsObject()) {
    ReadList(doc, "modules", parsed.modules, errors, ReadModule);
    ReadList(doc, "requests", parsed.requests, errors, ReadRequest);
    ReadList(doc, "events", parsed.events, errors, ReadEvent);
    std::stable_sort(parsed.events.begin(), parsed.events.end(),
                     [](const ScenarioEvent& a, const ScenarioEvent& b) { return a.atMs < b.atMs; });
  }
  const bool clean = errors.empty();
  std::vector<std::string> warnings = LintScenario(parsed);
  for (size_t i = 0; i < errors.size() + warnings.size() && findings.size() < kMaxFindings; ++i) {
    const bool warning = i >= errors.size();
    const std::string& what = warning ? warnings[i - errors.size()] : errors[i];
    findings.push_back({LineOfFinding(text, what), warning, what});
  }
  std::stable_sort(findings.begin(), findings.end(),
                   [](const ScenarioFinding& a, const ScenarioFinding& b) {
                     return a.line < b.line;
                   });
  if (clean) *this = std::move(parsed);
  return clean;
}

bool Scenario::Parse(const std::string& text, std::string& error) {
  error.clear();
  std::vector<ScenarioFinding> findings;
  if (Check(text, findings)) return true;
  for (const ScenarioFinding& finding : findings) {
    if (finding.warning) continue;
    error = std::to_string(finding.line) + ": " + finding.what;
    break;
  }
  return false;
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
