// Arbitrary bytes as a SIP message: no reader may crash or read out of range, and what
// Parse accepted must serialise to text that Parse accepts again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "sip/SipJson.h"

namespace {

void ReadEverything(const SipJson& msg, int32_t index) {
  uint32_t value = 0;
  std::string text;
  std::vector<uint8_t> bytes;
  std::vector<std::string> strings;
  msg.GetOpcode(index);
  msg.GetStatus(index);
  for (const char* key : {"OC", "OE", "OI", "CA", "MI", "ST", "CI", "DA"}) {
    msg.GetKey(index, key);
    msg.GetKey(index, key, 0xABCD);
    msg.HasKey(index, key);
  }
  msg.GetDataValue(index, value);
  const uint32_t length = msg.GetDataLength(index);
  for (uint32_t start : {0u, 1u, 3u, length, length + 1}) msg.GetDataString(index, text, start);
  if (msg.GetDataBytes(index, bytes) && msg.GetDataForm(index) != SipDataForm::kRawBytes &&
      !bytes.empty() && bytes.size() != length && msg.GetDataForm(index) != SipDataForm::kInteger)
    abort();  // text and multi-string byte images match their length
  msg.GetDataStrings(index, strings);
  msg.GetDataForm(index);
  msg.GetDataJsonText(index);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SipJson msg;
  const bool parsed = msg.Parse(std::string(reinterpret_cast<const char*>(data), size));
  const int32_t count = static_cast<int32_t>(msg.CommandCount());
  for (int32_t i = -1; i <= count + 1; ++i) ReadEverything(msg, i);
  msg.CountCommandsWithData();
  if (msg.HasCommands()) {
    do {
      msg.HasData();
    } while (msg.NextCommand());
  }
  const std::string out = msg.Serialize();
  if (parsed) {
    SipJson copy(msg);
    if (!copy.Parse(out) || copy.Serialize() != out) abort();  // round trip is stable
  }
  return 0;
}
