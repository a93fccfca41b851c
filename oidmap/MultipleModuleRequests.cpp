#include "oidmap/MultipleModuleRequests.h"

#include <utility>
#include <vector>

#include "module/ExtensionModule.h"
#include "msglog/OldStyleRecord.h"
#include "oidmap/ModuleTrace.h"
#include "oidmap/Opcodes.h"
#include "oidmap/Timeouts.h"
#include "sip/SipStatus.h"

namespace em_oidmap {
namespace {

// Failure statuses of a configuration write that the client is told, in this order of
// precedence, before "the lower request failed".
constexpr uint32_t kWriteFailureOrder[] = {0x04, 0x18, 0x06};
// The retry-zero actions that win a merge, best first; none of them reported gives 2.
constexpr uint32_t kRetryZeroActionOrder[] = {5, 4, 3, 1, 0};
constexpr uint32_t kRetryZeroActionNone = 2;

// A reply that takes part in a merge: an object with a numeric, valid ST and a DA.
bool IsValidReply(const SipJson& msg, int32_t i) {
  const SipJson::Value* command = msg.Command(i);
  if (command == nullptr) {
    return false;
  }
  const auto st = command->FindMember("ST");
  return st != command->MemberEnd() && st->value.IsUint() &&
         IsValidReplyStatus(st->value.GetUint()) && command->HasMember("DA");
}

bool AnyValidReply(const SipJson& work) {
  for (uint32_t r = 0; r < work.CommandCount(); ++r) {
    if (IsValidReply(work, static_cast<int32_t>(r))) {
      return true;
    }
  }
  return false;
}

bool AnyReplyWithStatus(const SipJson& work, uint32_t status) {
  for (uint32_t r = 0; r < work.CommandCount(); ++r) {
    if (work.GetStatus(static_cast<int32_t>(r)) == status) {
      return true;
    }
  }
  return false;
}

// The values of the valid replies, in reply order. A valid reply whose data is not a
// number has no value to merge and is passed over (traced).
std::vector<uint32_t> ValidReplyValues(const SipJson& work) {
  std::vector<uint32_t> values;
  for (uint32_t r = 0; r < work.CommandCount(); ++r) {
    const int32_t i = static_cast<int32_t>(r);
    if (!IsValidReply(work, i)) {
      continue;
    }
    uint32_t value = 0;
    if (work.GetDataValue(i, value)) {
      values.push_back(value);
    } else if (TraceClient().IsTraceActive()) {
      const uint32_t mi = work.GetKey(i, "MI", 0);
      MMR_TRACE(3, "  reply from MID 0x%04X%04X has no number; ignored", MidHigh(mi), MidLow(mi));
    }
  }
  return values;
}

bool Carries(const std::vector<uint32_t>& values, uint32_t wanted) {
  for (uint32_t value : values) {
    if (value == wanted) return true;
  }
  return false;
}

// Appends the whole old-style records of a reply's data; a record cut short at the end of
// the data is left out, so that the records of the next reply still line up.
void AppendWholeRecords(const std::vector<uint8_t>& data, std::vector<uint8_t>& out) {
  size_t offset = 0;
  while (data.size() - offset >= kOldStyleRecordMinBytes) {
    const size_t length = OldStyleRecordLength(data[offset], data[offset + 1], data[offset + 3]);
    if (length > data.size() - offset) {
      break;
    }
    out.insert(out.end(), data.begin() + static_cast<std::ptrdiff_t>(offset),
               data.begin() + static_cast<std::ptrdiff_t>(offset + length));
    offset += length;
  }
}

// Every valid reply's records, in reply order: the records carry global object ids once
// patched, so no module id is needed to read them.
std::vector<uint8_t> RecordsOfValidReplies(const SipJson& work) {
  std::vector<uint8_t> records;
  for (uint32_t r = 0; r < work.CommandCount(); ++r) {
    const int32_t ri = static_cast<int32_t>(r);
    std::vector<uint8_t> data;
    if (IsValidReplyStatus(work.GetStatus(ri)) && work.GetDataBytes(ri, data)) {
      AppendWholeRecords(data, records);
    }
  }
  return records;
}

void TraceMergeRule(uint32_t oe) {
  switch (oe) {
    case CKT_ConfNextBootSource:
      MMR_TRACE(3, "CKT_ConfNextBootSource - check broadcast results...");
      break;
    case CKT_ConfRetryZeroAction:
      MMR_TRACE(3, "CKT_ConfRetryZeroAction - check broadcast results...");
      break;
    case CKT_ConfTempCriticalBiosOff:
      MMR_TRACE(3, "CKT_ConfTempCriticalBiosOff - check broadcast results...");
      break;
    default:
      MMR_TRACE(3,
                "CKT_ConfRebootRetryCounter or CKT_ConfErrorOffRestartTime - check broadcast "
                "results...");
      break;
  }
}

// The smallest value, as wide as the value it answers: one byte for the retry counter,
// 16 bits for the restart time.
void AnswerMinimum(SipJson& msg, uint32_t oe, const std::vector<uint32_t>& values) {
  uint32_t smallest = values.front();
  for (uint32_t value : values) {
    if (value < smallest) smallest = value;
  }
  std::vector<uint8_t> bytes{static_cast<uint8_t>(smallest & 0xFF)};
  if (oe == CKT_ConfErrorOffRestartTime) {
    bytes.push_back(static_cast<uint8_t>((smallest >> 8) & 0xFF));
  }
  msg.SetRawData(bytes, ST_SUCCESS);
  uint32_t answered = 0;
  msg.GetDataValue(msg.CurrentIndex(), answered);
  MMR_TRACE(3, "  min reply data value found; return value = %d", static_cast<int>(answered));
}

// One reply: its value. More: the retry-zero action by priority, the others 1 when some
// reply is 1.
void AnswerByPriority(SipJson& msg, uint32_t oe, const std::vector<uint32_t>& values) {
  uint32_t answer = values.front();
  if (values.size() == 1) {
    MMR_TRACE(3, "  1 reply, use that value; return value = %d", static_cast<int>(answer));
  } else {
    if (oe == CKT_ConfRetryZeroAction) {
      answer = kRetryZeroActionNone;
      for (uint32_t preferred : kRetryZeroActionOrder) {
        if (Carries(values, preferred)) {
          answer = preferred;
          break;
        }
      }
    } else {
      answer = Carries(values, 1) ? 1 : 0;
    }
    MMR_TRACE(3, "  %d replies, use priority list; return value = %d",
              static_cast<int>(values.size()), static_cast<int>(answer));
  }
  msg.SetDataValue(answer, ST_SUCCESS);
}

}  // namespace

uint32_t CMultipleModuleRequests::Handle(SipJson& msg) {
  const int32_t i = msg.CurrentIndex();
  const uint32_t oe = msg.GetKey(i, "OE", 0);
  switch (msg.GetOpcode(i)) {
    case CM_WriteToAllModules:
      return WriteToAllModules(msg);
    case CM_LogEntry:
      return ReadLogEntries(msg);
    case CM_LogClear:
      return ClearLogs(msg);
    case CM_WriteConfigurationSpace:
      return WriteConfiguration(msg, oe);
    case CM_ReadConfigurationSpace:
      return ReadConfiguration(msg, oe);
    default:
      return 0;
  }
}

uint32_t CMultipleModuleRequests::WriteToAllModules(SipJson& msg) {
  MMR_TRACE(3, "write to ALL modules");
  SipJson work = CopyOfCurrentCommand(msg);
  host_.SendToAllModules(work, kWriteToAllTimeoutMs);
  msg.RemoveData();
  if (AnyValidReply(work)) {
    msg.SetStatus(ST_SUCCESS);
  } else {
    msg.SetStatus(AnyReplyWithStatus(work, ST_TIMEOUT) ? ST_TIMEOUT : ST_NOT_HANDLED);
  }
  return 1;
}

uint32_t CMultipleModuleRequests::ReadLogEntries(SipJson& msg) {
  MMR_TRACE(2, "CM_LogEntry needs to be sent to all modules; do module broadcast...");
  // The working copy is the client's request as it came, taken before the client's status
  // is set to 0 below: a lower module reads a valid status as a reply. Without a status
  // it goes down as pending, as the request handler reads a missing one.
  SipJson work = CopyOfCurrentCommand(msg);
  if (!work.HasKey(0, "ST") || IsValidReplyStatus(work.GetStatus(0))) work.SetStatus(ST_PENDING);
  msg.RemoveData();
  msg.SetStatus(ST_SUCCESS);
  host_.SendToAllModules(work, kLogReadTimeoutMs);
  const uint32_t replies = work.CommandCount();
  MMR_TRACE(4, "  %d replies received, analysing...", static_cast<int>(replies));
  for (uint32_t r = 0; r < replies; ++r) {
    const int32_t ri = static_cast<int32_t>(r);
    if (!IsValidReplyStatus(work.GetStatus(ri))) {
      continue;
    }
    const uint32_t mi = work.GetKey(ri, "MI", 0);
    MMR_TRACE(4, "    got CM_LogEntry reply from MID 0x%04X%04X", MidHigh(mi), MidLow(mi));
    mapper_.PatchLogReply(work, ri);
    MMR_TRACE(4, "    CM_LogEntry Oid's patched for reply from MID 0x%04X%04X", MidHigh(mi),
              MidLow(mi));
  }
  if (replies >= 2) {
    msg.SetRawData(RecordsOfValidReplies(work), ST_SUCCESS);
  } else {
    const int32_t index = msg.CurrentIndex();
    msg = std::move(work);
    msg.SetCurrentIndex(index);
  }
  return 1;
}

uint32_t CMultipleModuleRequests::ClearLogs(SipJson& msg) {
  SipJson work = CopyOfCurrentCommand(msg);
  host_.SendToAllModules(work, kLogClearTimeoutMs);
  if (AnyValidReply(work)) {
    store_.ClearCabinet(msg.GetKey(msg.CurrentIndex(), "CA", 0));
    msg.RemoveData();
    msg.SetStatus(ST_SUCCESS);
  } else {
    msg.SetStatus(ST_NOT_AVAILABLE);
  }
  return 1;
}

uint32_t CMultipleModuleRequests::WriteConfiguration(SipJson& msg, uint32_t oe) {
  MMR_TRACE(2, "Write 0x%X", oe);
  const uint32_t group = (oe >> 8) & 0xFF;
  if (oe == CKT_ConfGabiSetting || group == CKT_ConfGabiGroupA || group == CKT_ConfGabiGroupB) {
    msg.SetStatus(ST_NOT_HANDLED);
    MMR_TRACE(3, "handled by EM_GABI - do not broadcast");
    return 0;
  }
  if (oe == CKT_ConfIdentification) {
    // Answered here with "not handled", unlike the values above: the identification
    // module is asked by its own clients directly.
    msg.SetStatus(ST_NOT_HANDLED);
    MMR_TRACE(3, "handled by EM_IDENT");
    return 1;
  }
  MMR_TRACE(3, "write to ALL modules");
  SipJson work = CopyOfCurrentCommand(msg);
  host_.SendToAllModules(work, kSingleRequestTimeoutMs);
  uint32_t status = ST_NOT_AVAILABLE;
  if (AnyValidReply(work)) {
    status = ST_SUCCESS;
  } else {
    for (uint32_t failure : kWriteFailureOrder) {
      if (AnyReplyWithStatus(work, failure)) {
        status = failure;
        break;
      }
    }
  }
  msg.SetStatus(status);
  return 1;
}

uint32_t CMultipleModuleRequests::ReadConfiguration(SipJson& msg, uint32_t oe) {
  MMR_TRACE(2, "CM_ReadConfigurationSpace 0x%04X", oe);
  const bool anyOfOne = oe == CKT_ConfNextBootSource || oe == CKT_ConfTempCriticalBiosOff;
  const bool minimum = oe == CKT_ConfRebootRetryCounter || oe == CKT_ConfErrorOffRestartTime;
  if (!anyOfOne && !minimum && oe != CKT_ConfRetryZeroAction) {
    return 0;
  }
  SipJson work = CopyOfCurrentCommand(msg);
  host_.SendToAllModules(work, kSingleRequestTimeoutMs);
  TraceMergeRule(oe);
  const std::vector<uint32_t> values = ValidReplyValues(work);
  if (values.empty()) {
    msg.RemoveData();
    msg.SetStatus(ST_NOT_AVAILABLE);
    MMR_TRACE(3, "  no replies, CmdStatus=0x%02X", ST_NOT_AVAILABLE);
  } else if (minimum) {
    AnswerMinimum(msg, oe, values);
  } else {
    AnswerByPriority(msg, oe, values);
  }
  return 1;
}

}  // namespace em_oidmap
