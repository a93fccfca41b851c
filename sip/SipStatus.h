// SIP status values ("ST") that the module writes or compares against.
#ifndef EM_SIP_SIPSTATUS_H
#define EM_SIP_SIPSTATUS_H

#include <cstdint>

constexpr uint32_t ST_SUCCESS = 0x00;
constexpr uint32_t ST_NOT_HANDLED = 0x01;       // not handled here, or declined
constexpr uint32_t ST_PARAGRAPH_TOO_HIGH = 0x02;
constexpr uint32_t ST_NO_HOST = 0x06;           // no host interface to send through
constexpr uint32_t ST_DATA_0C = 0x0C;           // valid reply that carries data
constexpr uint32_t ST_TIMEOUT = 0x0F;
constexpr uint32_t ST_INVALID_ARGUMENTS = 0x12;
constexpr uint32_t ST_NOT_AVAILABLE = 0x13;     // lower request failed / item or language missing
constexpr uint32_t ST_LOG_INVALID = 0x14;       // message log invalid / request not accepted
constexpr uint32_t ST_DATA_15 = 0x15;           // valid reply that carries data
constexpr uint32_t ST_PENDING = 0x16;           // not yet answered; read when ST is missing
constexpr uint32_t ST_EVENT = 0xFF;             // event; also held during a hand-back

// A reply counts as valid with one of the data-bearing statuses.
inline bool IsValidReplyStatus(uint32_t st) {
  return st == ST_SUCCESS || st == ST_DATA_0C || st == ST_DATA_15 || st == ST_EVENT;
}

#endif  // EM_SIP_SIPSTATUS_H
