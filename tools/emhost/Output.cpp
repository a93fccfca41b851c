#include "Output.h"

#include <cstdio>

#include <fmt/format.h>

#include "Console.h"
#include "Explain.h"
#include "Opcodes.h"
#include "hostsim/SimModule.h"

namespace em_oidmap::emhost {

namespace {

constexpr uint32_t kOcLogPage = 0x0B10;
constexpr size_t kPageRecordHeader = 16;  // then the text and its NUL

const rapidjson::Value* CommandAt(const SipJson& msg) {
  return msg.Command(msg.CurrentIndex() < 0 ? 0 : msg.CurrentIndex());
}

// "OC 0x0301 (name) OE 0x0409 OI 3 CA 0 MI 0x00010001": the members the command has.
std::string Describe(const rapidjson::Value& command) {
  const uint32_t oc = hostsim::CommandKey(command, "OC", 0);
  std::string text = fmt::format("OC 0x{:04X}", oc);
  const std::string name = OpcodeName(oc);
  if (!name.empty()) text += " " + name;
  if (command.HasMember("OE")) text += fmt::format(" OE 0x{:04X}", hostsim::CommandKey(command, "OE", 0));
  if (command.HasMember("OI")) text += fmt::format(" OI {}", hostsim::CommandKey(command, "OI", 0));
  const uint32_t ca = hostsim::CommandKey(command, "CA", 0);
  text += ca == hostsim::kAllCabinets ? " CA 0xFFFFFFFF" : fmt::format(" CA {}", ca);
  if (command.HasMember("MI")) text += fmt::format(" MI 0x{:08X}", hostsim::CommandKey(command, "MI", 0));
  return text;
}

// " DA <json>", or "" without data.
std::string DataText(const rapidjson::Value& command) {
  const auto data = command.FindMember("DA");
  return data == command.MemberEnd() ? "" : " DA " + hostsim::ToJsonText(data->value);
}

std::string StatusAndData(const rapidjson::Value& command) {
  return StatusText(command) + DataText(command);
}

uint32_t Little(const std::vector<uint8_t>& bytes, size_t at, int size) {
  uint32_t value = 0;
  for (int i = size - 1; i >= 0; --i) value = value << 8 | bytes[at + static_cast<size_t>(i)];
  return value;
}

// The page's entries as a table: sequence number, order value, CSS flag, code, text.
std::string LogPageTable(const SipJson& answer) {
  std::vector<uint8_t> data;
  answer.GetDataBytes(answer.CurrentIndex(), data);
  std::string rows;
  size_t entries = 0;
  for (size_t at = 0; data.size() - at > kPageRecordHeader;) {
    const size_t length = Little(data, at, 2);
    if (length <= kPageRecordHeader || length > data.size() - at) break;
    const std::string text(reinterpret_cast<const char*>(&data[at + kPageRecordHeader]),
                           length - kPageRecordHeader - 1);
    rows += fmt::format("          {:>5} {:>10}  {:<3}  {:04X}  {}\n", Little(data, at + 12, 4),
                        Little(data, at + 8, 4), (data[at + 6] & 1) != 0 ? "CSS" : "",
                        Little(data, at + 4, 2), text.c_str());
    at += length;
    ++entries;
  }
  return fmt::format("{} log entries\n          {:>5} {:>10}  {:<3}  {:<4}  {}\n{}", entries,
                     "seq", "order", "CSS", "code", "text", rows);
}

}  // namespace

void Output::CollectInto(std::string* text) {
  std::lock_guard<std::mutex> lock(mutex_);
  collected_ = text;
}

void Output::Line(const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (collected_ != nullptr) {
    *collected_ += text;
  } else {
    console::Out(text);
  }
}

void Output::Note(const std::string& text) {
  if (format_ == OutputFormat::kTable) {
    Line(text + "\n");
  } else {
    console::Err(text + "\n");
  }
}

void Output::Answer(const AnswerView& view) {
  if (format_ == OutputFormat::kJson) {
    std::string merged;
    for (const std::string& replies : view.mergedFrom) {
      merged += (merged.empty() ? "" : ",") + replies;
    }
    Line(fmt::format("{{\"request\":{},\"sent\":{},\"result\":{},\"answer\":{}{}}}\n",
                     view.number, view.request->Serialize(), view.result,
                     view.answer->Serialize(),
                     merged.empty() ? "" : ",\"mergedFrom\":[" + merged + "]"));
    return;
  }
  const rapidjson::Value* sent = CommandAt(*view.request);
  const rapidjson::Value* reply = CommandAt(*view.answer);
  if (sent == nullptr || reply == nullptr) return;
  std::string text =
      fmt::format("request {}: {}{}\n", view.number, Describe(*sent), DataText(*sent));
  const bool page = hostsim::CommandKey(*reply, "OC", 0) == kOcLogPage &&
                    view.answer->GetStatus(view.answer->CurrentIndex()) == 0 &&
                    reply->HasMember("DA");
  text += fmt::format("answer  {}: result {} ({}) after {} ms, {}", view.number, view.result,
                      ResultMeaning(view.result), view.tookMs,
                      page ? "ST 0x00 success, " + LogPageTable(*view.answer)
                           : StatusAndData(*reply) + "\n");
  if (!view.mergedFrom.empty()) {
    const std::string rule = MergeRule(hostsim::CommandKey(*sent, "OC", 0),
                                       hostsim::CommandKey(*sent, "OE", 0));
    if (!rule.empty()) text += "          merge rule: " + rule + "\n";
  }
  for (const std::string& replies : view.mergedFrom) {
    rapidjson::Document commands;
    commands.Parse(replies.c_str());
    if (!commands.IsArray()) continue;
    for (const rapidjson::Value& command : commands.GetArray()) {
      text += fmt::format("          merged from MI 0x{:08X}: {}\n",
                          hostsim::CommandKey(command, "MI", 0), StatusAndData(command));
    }
  }
  if (!view.hint.empty()) text += "          hint: " + view.hint + "\n";
  Line(text);
}

void Output::Late(size_t number, const SipJson& answer) {
  if (format_ == OutputFormat::kJson) {
    Line(fmt::format("{{\"late\":{},\"answer\":{}}}\n", number, answer.Serialize()));
  } else if (const rapidjson::Value* reply = CommandAt(answer)) {
    Line(fmt::format("late    {}: {}\n", number, StatusAndData(*reply)));
  }
}

void Output::LateMissing(size_t number, long long waitedMs) {
  if (format_ == OutputFormat::kJson) {
    Line(fmt::format("{{\"late\":{},\"answer\":null}}\n", number));
  } else {
    Line(fmt::format("late    {}: no answer within {} ms\n", number, waitedMs));
  }
}

void Output::EventSent(uint32_t atMs, uint32_t mid, const SipJson& event, bool updatesModule) {
  if (format_ == OutputFormat::kJson) {
    Line(fmt::format("{{\"event\":{{\"atMs\":{},\"mid\":{},\"sent\":{}}}}}\n", atMs, mid,
                     event.Serialize()));
  } else if (const rapidjson::Value* command = CommandAt(event)) {
    Line(fmt::format("event   at {} ms: MI 0x{:08X} reports {}{}{}\n", atMs, mid,
                     Describe(*command), DataText(*command),
                     updatesModule ? " (and answers so from now on)" : ""));
  }
}

void Output::HandedBack(const SipJson& message) {
  if (format_ == OutputFormat::kJson) {
    Line(fmt::format("{{\"handedBack\":{}}}\n", message.Serialize()));
  } else if (const rapidjson::Value* command = CommandAt(message)) {
    Line(fmt::format("handed back: {}: {}\n", Describe(*command), StatusAndData(*command)));
  }
}

}  // namespace em_oidmap::emhost
