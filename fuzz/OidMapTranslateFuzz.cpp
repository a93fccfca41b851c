// Arbitrary bytes through the OID map table as start-up leaves it for two cabinets answered
// by two modules: once parsed as a SIP message, translated and log-patched on every command
// index, and once as the raw data of a log reply, so that the record walk sees arbitrary
// records. Nothing may crash or read past the data, a patched log block keeps its size and
// holds bytes only, and a translated message still serialises to text that parses.
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "fuzz/FuzzHarness.h"
#include "oidmap/CountOpcodeTable.h"
#include "oidmap/OidMapTable.h"
#include "oidmap/Opcodes.h"
#include "sip/SipJson.h"
#include "sip/SipStatus.h"

using namespace em_oidmap;  // a program of its own: its names are short
using fuzz::Check;

namespace {

constexpr uint32_t kCabinets = 2;
constexpr uint32_t kMidFirst = 0x00010001;
constexpr uint32_t kMidSecond = 0x00020001;

// Every count request of every cabinet answered by two modules with 3 and 2 instances.
const COidMapTable& Table() {
  static const COidMapTable* table = [] {
    auto* t = new COidMapTable;
    for (uint32_t ca = 0; ca < kCabinets; ++ca) {
      std::set<uint32_t> requested;
      for (const CountOpcodeRow* row = kCountOpcodeTable; row->countOc != 0; ++row) {
        if (!requested.insert(CountOpcodeKey(*row)).second) continue;
        t->AddInstances(row->countOc, row->countOe, ca, kMidFirst, 3);
        t->AddInstances(row->countOc, row->countOe, ca, kMidSecond, 2);
      }
    }
    return t;
  }();
  return *table;
}

void CheckRawBlock(const SipJson& msg, size_t expectedSize) {
  const SipJson::Value* command = msg.Command(0);
  Check(command != nullptr);
  const auto da = command->FindMember("DA");
  Check(da != command->MemberEnd() && da->value.IsObject());
  const auto raw = da->value.FindMember("RAW");
  Check(raw != da->value.MemberEnd() && raw->value.IsArray());
  Check(raw->value.Size() == expectedSize);
  for (const SipJson::Value& byte : raw->value.GetArray()) Check(byte.IsUint() && byte.GetUint() <= 0xFF);
}

void FuzzMessage(const uint8_t* data, size_t size) {
  SipJson parsed;
  if (!parsed.Parse(fuzz::Text(data, size))) return;
  const int32_t count = static_cast<int32_t>(parsed.CommandCount());
  const COidMapTable& table = Table();
  SipJson msg(parsed);
  for (int32_t i = -1; i <= count; ++i) {
    table.TranslateMessage(msg, i);
    table.PatchMessageLogReply(msg, i);
    table.PatchLogRecords(msg, i, true);
    table.PatchLogRecords(msg, i, false);
  }
  Check(msg.CommandCount() == static_cast<uint32_t>(count));
  fuzz::CheckWellFormed(msg);
}

void FuzzLogBlock(const uint8_t* data, size_t size) {
  if (size == 0) return;  // an empty block is no raw data at all
  const std::vector<uint8_t> bytes(data, data + size);
  // Cabinet and module from the size, so that both cabinets and both owners are walked.
  SipJson reply(CM_MessageLogReply, 0, 0, static_cast<uint32_t>(size % kCabinets));
  reply.SetModuleId((size & 2) ? kMidSecond : kMidFirst);
  reply.SetRawData(bytes, ST_SUCCESS);
  const COidMapTable& table = Table();

  SipJson up(reply);
  table.TranslateMessage(up, 0);
  CheckRawBlock(up, size);
  SipJson down(reply);
  table.PatchLogRecords(down, 0, true);
  CheckRawBlock(down, size);
  table.PatchLogRecords(down, 0, false);
  CheckRawBlock(down, size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Quiet();
  FuzzMessage(data, size);
  FuzzLogBlock(data, size);
  return 0;
}
