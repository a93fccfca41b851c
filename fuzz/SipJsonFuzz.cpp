// Arbitrary bytes as a SIP message: no reader may crash or read out of range, and what
// Parse accepted must serialise to text that Parse accepts again. Then every builder is
// applied on command indexes -1 to count: what a setter wrote into an existing command
// reads back, and the result still serialises to text that parses.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/FuzzHarness.h"
#include "sip/SipJson.h"

using em_oidmap::fuzz::Check;
using em_oidmap::fuzz::Text;

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
  // Text and multi-string byte images match their length.
  const SipDataForm form = msg.GetDataForm(index);
  Check(!msg.GetDataBytes(index, bytes) || form == SipDataForm::kRawBytes || bytes.empty() ||
        bytes.size() == length || form == SipDataForm::kInteger);
  msg.GetDataStrings(index, strings);
  msg.GetDataJsonText(index);
  // The one-walk header and the static readers see what the readers by index see.
  if (const SipJson::Value* command = msg.Command(index)) {
    const SipJson::Header h = SipJson::HeaderOf(*command);
    Check(h.oc == msg.GetKey(index, "OC", 0) && h.oe == msg.GetKey(index, "OE", 0) &&
          h.oi == msg.GetKey(index, "OI", 0) && h.ca == msg.GetKey(index, "CA", 0) &&
          h.mi == msg.GetKey(index, "MI", 0) && h.st == msg.GetStatus(index) &&
          h.ci == msg.GetKey(index, "CI", 0) &&
          SipJson::KeyOf(*command, "CI", 7) == msg.GetKey(index, "CI", 7) &&
          SipJson::HasKeyOf(*command, "DA") == msg.HasKey(index, "DA"));
  }
}

// On any command, removing one header member through the places the walk found and then
// writing every other one through them gives what the same by name gives: the places
// follow the member a removal moves, repeated names included.
void RemoveByPlaceAsByName(const SipJson& msg, int32_t index) {
  static const char* const kNames[SipJson::Header::kCount] = {"OC", "OE", "OI", "CA",
                                                              "MI", "ST", "CI"};
  if (msg.Command(index) == nullptr) return;
  for (unsigned removed = 0; removed < SipJson::Header::kCount; ++removed) {
    SipJson byName(msg);
    SipJson byPlace(msg);
    SipJson::Value& named = *byName.Command(index);
    SipJson::Value& placed = *byPlace.Command(index);
    SipJson::Header header = SipJson::HeaderOf(placed);
    byName.SetKey(named, kNames[removed], 0, true);
    byPlace.RemoveHeaderKey(placed, header, 1u << removed);
    for (unsigned other = 0; other < SipJson::Header::kCount; ++other) {
      if (other == removed) continue;
      byName.SetKey(named, kNames[other], other, false);
      byPlace.SetHeaderKey(placed, header, 1u << other, other);
    }
    Check(byName.Serialize() == byPlace.Serialize());
  }
}

// Builds on `msg` at `index` with values taken from the input, as the module builds its
// replies on a client's message, and reads back what it wrote.
void BuildEverything(SipJson& msg, int32_t index, const uint8_t* data, size_t size) {
  const uint32_t value = size >= 4 ? static_cast<uint32_t>(data[0] | data[1] << 8 |
                                                           data[2] << 16 | data[3] << 24)
                                   : static_cast<uint32_t>(size);
  const std::string text = Text(data, std::min<size_t>(size, 40));
  msg.SetCurrentIndex(index);
  const bool existed = msg.Command(index) != nullptr;
  msg.SetKey("CI", value, (value & 1) != 0);
  msg.SetModuleId(value ^ 0x5A5A);
  msg.SetDataValue(value, value & 0xFF);
  uint32_t read = 0;
  Check(!existed ||
        (msg.GetDataValue(index, read) && read == value && msg.GetStatus(index) == (value & 0xFF)));
  msg.SetDataString(text, 0x00);
  msg.SetDataStrings({text, "", text}, 0x0C);
  msg.SetRawData(std::vector<uint8_t>(data, data + std::min<size_t>(size, 16)), 0x15);
  std::vector<uint8_t> bytes;
  Check(!existed || (msg.GetDataBytes(index, bytes) && bytes.size() == std::min<size_t>(size, 16)));
  msg.SetStatus(value >> 8);
  msg.RemoveKey((value & 2) != 0 ? "DA" : "CI");
  if ((value & 4) != 0) msg.SetCommandHeader(value & 0xFFFF, value >> 16, value >> 8, 7);
  if (const SipJson::Value* command = msg.Command(0)) msg.AppendCommand(*command);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SipJson msg;
  const bool parsed = msg.Parse(Text(data, size));
  const int32_t count = static_cast<int32_t>(msg.CommandCount());
  for (int32_t i = -1; i <= count + 1; ++i) ReadEverything(msg, i);
  for (int32_t i = 0; i < count && i < 4; ++i) RemoveByPlaceAsByName(msg, i);
  msg.CountCommandsWithData();
  if (msg.HasCommands()) {
    do {
      msg.HasData();
    } while (msg.NextCommand());
  }
  const std::string out = msg.Serialize();
  if (parsed) {
    SipJson copy(msg);
    Check(copy.Parse(out) && copy.Serialize() == out);  // round trip is stable
  }
  for (int32_t i = -1; i <= count; ++i) {
    SipJson built(msg);
    BuildEverything(built, i, data, size);
    SipJson again(0x0B10, 0x409, 1, 2);
    const std::string text = built.Serialize();
    Check(again.Parse(text));
    // Copies and moves keep the message whole.
    SipJson moved(std::move(again));
    again = moved;
    moved = std::move(built);
    Check(again.Serialize() == text && moved.Serialize() == text);
  }
  return 0;
}
