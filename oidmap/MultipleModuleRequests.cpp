// Requests that concern all modules: a copy of the client's command (the working copy)
// is broadcast, and the replies are merged into the client's command by a fixed rule per
// request. The client's message never carries the broadcast's reply commands.
#include <vector>

#include "trace/DebugClient.h"
#include "msglog/OldStyleRecord.h"
#include "oidmap/OidMapExtModule.h"
#include "oidmap/Opcodes.h"
#include "sip/SipStatus.h"

namespace em_oidmap {

namespace {

constexpr uint32_t kWriteToAllTimeoutMs = 30000;
constexpr uint32_t kLogEntryTimeoutMs = 150000;
constexpr uint32_t kLogClearTimeoutMs = 15000;
constexpr uint32_t kConfigTimeoutMs = 5000;

// Failure statuses of a configuration write that the client is told, in this order of
// precedence, before "the lower request failed".
constexpr uint32_t kWriteFailureOrder[] = {0x04, 0x18, 0x06};

uint32_t MidHigh(uint32_t mid) { return mid >> 16; }
uint32_t MidLow(uint32_t mid) { return mid & 0xFFFF; }

// The working copy: a new message holding a copy of the client's current command
// (with its "CI") as its only command.
SipJson MakeWorkingCopy(const SipJson& client) {
  SipJson work;
  const SipJson::Value* command = client.Command(client.CurrentIndex());
  if (command != nullptr) {
    work.CurrentCommand().CopyFrom(*command, work.GetAllocator());
  }
  return work;
}

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
      EM_TRACE(3, "\nEM_OIDMAP (MMR)     :   reply from MID 0x%04X%04X has no number; ignored",
               MidHigh(mi), MidLow(mi));
    }
  }
  return values;
}

// Appends the whole old-style records of a reply's data; a record cut short at the end of
// the data is left out, so that the records of the next reply still line up.
void AppendWholeRecords(const std::vector<uint8_t>& data, std::vector<uint8_t>& out) {
  size_t offset = 0;
  while (data.size() - offset >= kOldStyleRecordMinBytes) {
    const size_t length =
        OldStyleRecordLength(data[offset], data[offset + 1], data[offset + 3]);
    if (length > data.size() - offset) {
      break;
    }
    out.insert(out.end(), data.begin() + static_cast<std::ptrdiff_t>(offset),
               data.begin() + static_cast<std::ptrdiff_t>(offset + length));
    offset += length;
  }
}

}  // namespace

uint32_t COidMapExtModule::MultipleModuleRequest(SipJson& msg) {
  const int32_t i = msg.CurrentIndex();
  const uint32_t oc = msg.GetOpcode(i);
  const uint32_t oe = msg.GetKey(i, "OE", 0);

  switch (oc) {
    case CM_WriteToAllModules: {
      EM_TRACE(3, "\nEM_OIDMAP (MMR)     : write to ALL modules");
      SipJson work = MakeWorkingCopy(msg);
      SendToAllModules(work, kWriteToAllTimeoutMs);
      msg.RemoveData();
      if (AnyValidReply(work)) {
        msg.SetStatus(ST_SUCCESS);
      } else {
        msg.SetStatus(AnyReplyWithStatus(work, ST_TIMEOUT) ? ST_TIMEOUT : ST_NOT_HANDLED);
      }
      return 1;
    }

    case CM_LogEntry: {
      EM_TRACE(2,
               "\nEM_OIDMAP (MMR)     : CM_LogEntry needs to be sent to all modules; do module "
               "broadcast...");
      msg.RemoveData();
      msg.SetStatus(ST_SUCCESS);
      SipJson work = MakeWorkingCopy(msg);
      SendToAllModules(work, kLogEntryTimeoutMs);
      const uint32_t replies = work.CommandCount();
      EM_TRACE(4, "\nEM_OIDMAP (MMR)     :   %d replies received, analysing...",
               static_cast<int>(replies));
      const COidMapTable* table = active_table_.load(std::memory_order_acquire);
      for (uint32_t r = 0; r < replies; ++r) {
        const int32_t ri = static_cast<int32_t>(r);
        if (!IsValidReplyStatus(work.GetStatus(ri))) {
          continue;
        }
        const uint32_t mi = work.GetKey(ri, "MI", 0);
        EM_TRACE(4, "\nEM_OIDMAP (MMR)     :     got CM_LogEntry reply from MID 0x%04X%04X",
                 MidHigh(mi), MidLow(mi));
        if (table != nullptr) {
          table->PatchMessageLogReply(work, ri);
        }
        EM_TRACE(4,
                 "\nEM_OIDMAP (MMR)     :     CM_LogEntry Oid's patched for reply from MID "
                 "0x%04X%04X",
                 MidHigh(mi), MidLow(mi));
      }
      if (replies >= 2) {
        // Every valid reply's records, in reply order, in the client's one command: the
        // records carry global object ids now, so no module id is needed to read them.
        std::vector<uint8_t> records;
        for (uint32_t r = 0; r < replies; ++r) {
          const int32_t ri = static_cast<int32_t>(r);
          std::vector<uint8_t> data;
          if (IsValidReplyStatus(work.GetStatus(ri)) && work.GetDataBytes(ri, data)) {
            AppendWholeRecords(data, records);
          }
        }
        msg.SetRawData(records, ST_SUCCESS);
      } else {
        const int32_t index = msg.CurrentIndex();
        msg = std::move(work);
        msg.SetCurrentIndex(index);
      }
      return 1;
    }

    case CM_LogClear: {
      SipJson work = MakeWorkingCopy(msg);
      SendToAllModules(work, kLogClearTimeoutMs);
      if (AnyValidReply(work)) {
        ClearCabinetCache(msg.GetKey(i, "CA", 0));
        msg.RemoveData();
        msg.SetStatus(ST_SUCCESS);
      } else {
        msg.SetStatus(ST_NOT_AVAILABLE);
      }
      return 1;
    }

    case CM_WriteConfigurationSpace: {
      EM_TRACE(2, "\nEM_OIDMAP (MMR)     : Write 0x%X", oe);
      const uint32_t group = (oe >> 8) & 0xFF;
      if (oe == CKT_ConfGabiSetting || group == CKT_ConfGabiGroupA ||
          group == CKT_ConfGabiGroupB) {
        msg.SetStatus(ST_NOT_HANDLED);
        EM_TRACE(3, "\nEM_OIDMAP (MMR)     : handled by EM_GABI - do not broadcast");
        return 0;
      }
      if (oe == CKT_ConfIdentification) {
        // Answered here with "not handled", unlike the values above: the identification
        // module is asked by its own clients directly.
        msg.SetStatus(ST_NOT_HANDLED);
        EM_TRACE(3, "\nEM_OIDMAP (MMR)     : handled by EM_IDENT");
        return 1;
      }
      EM_TRACE(3, "\nEM_OIDMAP (MMR)     : write to ALL modules");
      SipJson work = MakeWorkingCopy(msg);
      SendToAllModules(work, kConfigTimeoutMs);
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

    case CM_ReadConfigurationSpace:
      return MergeConfigurationRead(msg, oe);

    default:
      return 0;
  }
}

uint32_t COidMapExtModule::MergeConfigurationRead(SipJson& msg, uint32_t oe) {
  EM_TRACE(2, "\nEM_OIDMAP (MMR)     : CM_ReadConfigurationSpace 0x%04X", oe);
  const bool anyOfOne = oe == CKT_ConfNextBootSource || oe == CKT_ConfTempCriticalBiosOff;
  const bool minimum = oe == CKT_ConfRebootRetryCounter || oe == CKT_ConfErrorOffRestartTime;
  if (!anyOfOne && !minimum && oe != CKT_ConfRetryZeroAction) {
    return 0;
  }
  SipJson work = MakeWorkingCopy(msg);
  SendToAllModules(work, kConfigTimeoutMs);
  switch (oe) {
    case CKT_ConfNextBootSource:
      EM_TRACE(3, "\nEM_OIDMAP (MMR)     : CKT_ConfNextBootSource - check broadcast results...");
      break;
    case CKT_ConfRetryZeroAction:
      EM_TRACE(3, "\nEM_OIDMAP (MMR)     : CKT_ConfRetryZeroAction - check broadcast results...");
      break;
    case CKT_ConfTempCriticalBiosOff:
      EM_TRACE(3,
               "\nEM_OIDMAP (MMR)     : CKT_ConfTempCriticalBiosOff - check broadcast results...");
      break;
    default:
      EM_TRACE(3,
               "\nEM_OIDMAP (MMR)     : CKT_ConfRebootRetryCounter or CKT_ConfErrorOffRestartTime "
               "- check broadcast results...");
      break;
  }

  const std::vector<uint32_t> values = ValidReplyValues(work);
  if (values.empty()) {
    msg.RemoveData();
    msg.SetStatus(ST_NOT_AVAILABLE);
    EM_TRACE(3, "\nEM_OIDMAP (MMR)     :   no replies, CmdStatus=0x%02X", ST_NOT_AVAILABLE);
    return 1;
  }

  if (minimum) {
    uint32_t smallest = values.front();
    for (uint32_t value : values) {
      if (value < smallest) smallest = value;
    }
    // The answer has the value's own width: one byte for the retry counter, 16 bits for
    // the restart time.
    std::vector<uint8_t> bytes{static_cast<uint8_t>(smallest & 0xFF)};
    if (oe == CKT_ConfErrorOffRestartTime) {
      bytes.push_back(static_cast<uint8_t>((smallest >> 8) & 0xFF));
    }
    msg.SetRawData(bytes, ST_SUCCESS);
    uint32_t answered = 0;
    msg.GetDataValue(msg.CurrentIndex(), answered);
    EM_TRACE(3, "\nEM_OIDMAP (MMR)     :   min reply data value found; return value = %d",
             static_cast<int>(answered));
    return 1;
  }

  uint32_t answer = values.front();
  if (values.size() == 1) {
    EM_TRACE(3, "\nEM_OIDMAP (MMR)     :   1 reply, use that value; return value = %d",
             static_cast<int>(answer));
  } else {
    auto carried = [&values](uint32_t wanted) {
      for (uint32_t value : values) {
        if (value == wanted) return true;
      }
      return false;
    };
    if (oe == CKT_ConfRetryZeroAction) {
      answer = 2;  // none of the listed actions was reported
      for (uint32_t preferred : {5u, 4u, 3u, 1u, 0u}) {
        if (carried(preferred)) {
          answer = preferred;
          break;
        }
      }
    } else {
      answer = carried(1) ? 1 : 0;
    }
    EM_TRACE(3, "\nEM_OIDMAP (MMR)     :   %d replies, use priority list; return value = %d",
             static_cast<int>(values.size()), static_cast<int>(answer));
  }
  msg.SetDataValue(answer, ST_SUCCESS);
  return 1;
}

}  // namespace em_oidmap
