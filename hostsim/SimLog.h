// The message logs of simulated modules: log records written readably (by tests or in a
// scenario file) and encoded into the raw bytes that a lower module's CM_LogEntry
// (old-style) or CM_LogMessageArgumentsRead (unified) reply carries.
//
// The encoders write exactly what the record says, so that a test can also write data
// that is wrong (a count that does not fit the arguments, a length that cannot be).
#ifndef EM_HOSTSIM_SIMLOG_H
#define EM_HOSTSIM_SIMLOG_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <rapidjson/document.h>

namespace em_oidmap::hostsim {

constexpr uint32_t kOcLogEntry = 0x0B00;             // old-style records, OI 0 or 1
constexpr uint32_t kOcLogMessageArguments = 0x0B16;  // unified records
constexpr uint32_t kLogCritical = 0;                 // OI of the critical error log
constexpr uint32_t kLogNonCritical = 1;              // OI of the non-critical message log

// 12 bytes: code (class in bits 8-13, low byte in 0-7), code bits (top two bits of byte
// 1), argument count, order value, cabinet, object id; then 4 bytes per value of `args`
// (the arguments beyond the first).
struct SimOldStyleRecord {
  uint32_t code = 0;
  uint8_t codeBits = 0;
  uint16_t cabinet = 0;
  uint16_t objectId = 0;
  uint32_t order = 0;
  std::vector<uint32_t> args;
  std::optional<uint8_t> argCount;  // unset: args.size() + 1 with args, else 0

  std::vector<uint8_t> Encode() const;
};

// 26 bytes: length, aux byte, code, flags (bit 0 CSS), order value, record id, code bits,
// string count; then the strings, each with its NUL.
struct SimUnifiedRecord {
  uint32_t code = 0;
  uint32_t flags = 0;
  uint32_t order = 0;
  int32_t recordId = -1;
  uint8_t aux = 0;
  uint8_t codeBits = 0;
  std::vector<std::string> strings;
  std::optional<uint16_t> length;  // unset: the record's real length

  std::vector<uint8_t> Encode() const;
};

// Records with the members most tests set; the others keep their defaults.
SimOldStyleRecord OldStyle(uint32_t code, uint32_t order = 0, uint16_t objectId = 0,
                           uint16_t cabinet = 0, std::vector<uint32_t> args = {});
SimUnifiedRecord Unified(uint32_t code, uint32_t order = 0,
                         std::vector<std::string> strings = {});

// A log's records one after the other.
std::vector<uint8_t> EncodeLog(const std::vector<SimOldStyleRecord>& records);
std::vector<uint8_t> EncodeLog(const std::vector<SimUnifiedRecord>& records);
// Raw bytes as the JSON data of a reply: {"RAW":[...]}.
std::string RawDataJson(const std::vector<uint8_t>& bytes);
// The bytes of such data; false for any other value (a member that is not a byte).
bool RawBytesOf(const rapidjson::Value& data, std::vector<uint8_t>& bytes);

}  // namespace em_oidmap::hostsim

#endif  // EM_HOSTSIM_SIMLOG_H
