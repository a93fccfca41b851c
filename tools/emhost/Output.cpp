#include "Output.h"

#include <cstdio>

#include <fmt/format.h>

#include "RequestShorthand.h"
#include "hostsim/SimModule.h"

using namespace em_oidmap;  // emhost is not in the project namespace yet

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
  text += fmt::format(" CA {}", hostsim::CommandKey(command, "CA", 0));
  if (command.HasMember("MI")) text += fmt::format(" MI 0x{:08X}", hostsim::CommandKey(command, "MI", 0));
  return text;
}

// " DA <json>", or "" without data.
std::string DataText(const rapidjson::Value& command) {
  const auto data = command.FindMember("DA");
  return data == command.MemberEnd() ? "" : " DA " + hostsim::ToJsonText(data->value);
}

std::string StatusAndData(const rapidjson::Value& command) {
  return (command.HasMember("ST")
              ? fmt::format("ST 0x{:02X}", hostsim::CommandKey(command, "ST", 0))
              : std::string("no ST")) +
         DataText(command);
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

void Output::Line(const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
}

void Output::Note(const std::string& text) {
  if (format_ == OutputFormat::kTable) {
    Line(text + "\n");
  } else {
    std::lock_guard<std::mutex> lock(mutex_);
    std::fputs((text + "\n").c_str(), stderr);
  }
}

void Output::Answer(size_t number, const SipJson& request, uint32_t result,
                    const SipJson& answer, long long tookMs,
                    const std::vector<std::string>& mergedFrom) {
  if (format_ == OutputFormat::kJson) {
    std::string merged;
    for (const std::string& replies : mergedFrom) merged += (merged.empty() ? "" : ",") + replies;
    Line(fmt::format("{{\"request\":{},\"sent\":{},\"result\":{},\"answer\":{}{}}}\n", number,
                     request.Serialize(), result, answer.Serialize(),
                     merged.empty() ? "" : ",\"mergedFrom\":[" + merged + "]"));
    return;
  }
  const rapidjson::Value* sent = CommandAt(request);
  const rapidjson::Value* reply = CommandAt(answer);
  if (sent == nullptr || reply == nullptr) return;
  std::string text = fmt::format("request {}: {}{}\n", number, Describe(*sent), DataText(*sent));
  const bool page = hostsim::CommandKey(*reply, "OC", 0) == kOcLogPage &&
                    answer.GetStatus(answer.CurrentIndex()) == 0 && reply->HasMember("DA");
  text += fmt::format("answer  {}: result {} after {} ms, {}", number, result, tookMs,
                      page ? "ST 0x00, " + LogPageTable(answer) : StatusAndData(*reply) + "\n");
  for (const std::string& replies : mergedFrom) {
    rapidjson::Document commands;
    commands.Parse(replies.c_str());
    if (!commands.IsArray()) continue;
    for (const rapidjson::Value& command : commands.GetArray()) {
      text += fmt::format("          merged from MI 0x{:08X}: {}\n",
                          hostsim::CommandKey(command, "MI", 0), StatusAndData(command));
    }
  }
  Line(text);
}

void Output::Late(size_t number, const SipJson& answer) {
  if (format_ == OutputFormat::kJson) {
    Line(fmt::format("{{\"late\":{},\"answer\":{}}}\n", number, answer.Serialize()));
  } else if (const rapidjson::Value* reply = CommandAt(answer)) {
    Line(fmt::format("late    {}: {}\n", number, StatusAndData(*reply)));
  }
}

void Output::LateMissing(size_t number, long long waitedSeconds) {
  if (format_ == OutputFormat::kJson) {
    Line(fmt::format("{{\"late\":{},\"answer\":null}}\n", number));
  } else {
    Line(fmt::format("late    {}: no answer within {} s\n", number, waitedSeconds));
  }
}

void Output::EventSent(uint32_t atMs, uint32_t mid, const SipJson& event) {
  if (format_ == OutputFormat::kJson) {
    Line(fmt::format("{{\"event\":{{\"atMs\":{},\"mid\":{},\"sent\":{}}}}}\n", atMs, mid,
                     event.Serialize()));
  } else if (const rapidjson::Value* command = CommandAt(event)) {
    Line(fmt::format("event   at {} ms: MI 0x{:08X} reports {}{}\n", atMs, mid,
                     Describe(*command), DataText(*command)));
  }
}

void Output::HandedBack(const SipJson& message) {
  if (format_ == OutputFormat::kJson) {
    Line(fmt::format("{{\"handedBack\":{}}}\n", message.Serialize()));
  } else if (const rapidjson::Value* command = CommandAt(message)) {
    Line(fmt::format("handed back: {}: {}\n", Describe(*command), StatusAndData(*command)));
  }
}
