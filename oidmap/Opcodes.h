// SIP opcodes ("OC"), object ids ("OI") and configuration value ids (the "OE" of a
// configuration-space request) that the module sends, answers or inspects. Every other
// file names these constants instead of repeating the numbers.
//
// The count opcode table (CountOpcodeTable.h) keeps its rows as plain numbers: it is a
// data table whose rows are compared as a whole, and naming every counted kind would add
// names that nothing else uses.
#ifndef EM_OIDMAP_OPCODES_H
#define EM_OIDMAP_OPCODES_H

#include <cstdint>

namespace em_oidmap {

// ---- Object requests whose ids are remapped ------------------------------------------
// Broadcast write that every module must see (answered once all modules replied).
constexpr uint32_t CM_WriteToAllModules = 0x0310;
// Extended objects: the count opcode, and the two requests whose OE carries the count OE
// in its high byte.
constexpr uint32_t CM_ExtObjectCount = 0x0C21;
constexpr uint32_t CM_ExtObjectGet = 0x0C00;
constexpr uint32_t CM_ExtObjectSet = 0x0C01;

// ---- Message log ----------------------------------------------------------------------
constexpr uint32_t CM_LogEntry = 0x0B00;               // old-style log records
constexpr uint32_t CM_MessageLogAvailable = 0x0B01;    // is a message log available
constexpr uint32_t CM_MessageLogReply = 0x0B02;        // log records whose OIDs are patched
constexpr uint32_t CM_LogClear = 0x0B03;               // clear a cabinet's log / log cleared
constexpr uint32_t CM_GetMsgLogCacheEntries = 0x0B10;  // page of translated cache entries
constexpr uint32_t CM_LogMessageEvent = 0x0B11;        // fired upward: new sequence number
constexpr uint32_t CM_MsgLogLastSequenceNumber = 0x0B12;
constexpr uint32_t CM_MsgLogNumberOfEntries = 0x0B13;
constexpr uint32_t CM_LogMessageArgumentsRead = 0x0B16;  // unified log records
constexpr uint32_t CM_LogMessageAllResolutions = 0x0B17;
constexpr uint32_t CM_IdentProbe = 0x0B18;  // is the identification module there
constexpr uint32_t CM_LogMessageRaw = 0x0B19;
constexpr uint32_t CM_LogMessageAllCauses = 0x0B1A;
constexpr uint32_t CM_SupportedSelLanguages = 0x0B20;
constexpr uint32_t CM_LogMessageLongText = 0x0B21;
constexpr uint32_t CM_LogMessageSummary = 0x0B23;
constexpr uint32_t CM_LogMessageCause = 0x0B24;       // one cause paragraph
constexpr uint32_t CM_LogMessageResolution = 0x0B25;  // one resolution paragraph
// The text requests: answered from the text cache or fetched below on the task thread.
inline bool IsMessageTextOpcode(uint32_t oc) {
  return oc == CM_LogMessageAllResolutions || oc == CM_LogMessageAllCauses ||
         oc == CM_LogMessageLongText || oc == CM_LogMessageSummary || oc == CM_LogMessageCause ||
         oc == CM_LogMessageResolution;
}
// The opcodes from here to there belong to the message log; others are not ours.
constexpr uint32_t CM_MessageLogFirst = 0x0B01;
constexpr uint32_t CM_MessageLogLast = 0x0B25;

// Opcodes of the module's own background tasks.
constexpr uint32_t CM_TaskLogScan = 0x0B10;         // error and event log scan of a cabinet
constexpr uint32_t CM_TaskMessageLogScan = 0x0B16;  // message log scan of a cabinet
// Long texts that pages could not wait for; no request of the message log has this OC.
constexpr uint32_t CM_TaskFetchLongTexts = 0x0B22;

// ---- Configuration space ----------------------------------------------------------------
constexpr uint32_t CM_ReadConfigurationSpace = 0xE001;
constexpr uint32_t CM_WriteConfigurationSpace = 0xE002;

// ---- Object ids -------------------------------------------------------------------------
constexpr uint32_t CMOID_CriticalErrorLog = 0;       // OI of CM_LogEntry
constexpr uint32_t CMOID_NonCriticalMessageLog = 1;  // OI of CM_LogEntry

// ---- Configuration value ids (OE of CM_ReadConfigurationSpace / Write) ------------------
constexpr uint32_t CKT_ConfIdentification = 0x00;  // written only by the ident module
constexpr uint32_t CKT_ConfNextBootSource = 0x11;
constexpr uint32_t CKT_ConfRebootRetryCounter = 0x30;
constexpr uint32_t CKT_ConfRetryZeroAction = 0x31;
constexpr uint32_t CKT_ConfErrorOffRestartTime = 0x32;
constexpr uint32_t CKT_ConfGabiSetting = 0x70;  // owned by the GABI module
constexpr uint32_t CKT_ConfTempCriticalBiosOff = 0x77;
constexpr uint32_t CKT_ConfHelpDeskMessage = 0x211;  // SEL resolution help-desk text
// Values whose bits 8..15 hold one of these groups belong to the GABI module.
constexpr uint32_t CKT_ConfGabiGroupA = 0x1C;
constexpr uint32_t CKT_ConfGabiGroupB = 0x1D;
// Values whose OE with the low four bits cleared is one of these belong to the threshold
// module.
constexpr uint32_t CKT_ConfThresholdGroupA = 0x310;
constexpr uint32_t CKT_ConfThresholdGroupB = 0x320;

}  // namespace em_oidmap

#endif  // EM_OIDMAP_OPCODES_H
