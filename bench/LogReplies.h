// The log replies that the collection benchmarks feed to the module: unified records with
// two strings, and old-style records of class 0x3F, which asks no module for CSS or
// designation.
#ifndef EM_BENCH_LOGREPLIES_H
#define EM_BENCH_LOGREPLIES_H

#include <cstdint>
#include <vector>

#include "hostsim/SimLog.h"
#include "sip/SipJson.h"
#include "sip/SipStatus.h"

namespace em_oidmap {

constexpr int kUnifiedForm = 0;
constexpr int kOldStyleForm = 1;

// Record i of module m in `form`, with merge order value `order`. The records of a form
// are all of one length.
inline std::vector<uint8_t> LogRecord(int form, uint32_t order, uint32_t i, uint32_t m) {
  return form == kUnifiedForm ? hostsim::Unified(0x190004, order, {"FAN SYS 1", "1200"}).Encode()
                              : hostsim::OldStyle(0x3F00, order, 0, 0, {i, m}).Encode();
}

// Appends module m's reply of `count` records of `form` for cabinet `ca`; entry i has order
// value i * modules + m + 1, so that the merge interleaves the replies of `modules` modules.
inline void AppendLogReply(SipJson& msg, int form, uint32_t ca, uint32_t m, uint32_t modules,
                           uint32_t count) {
  std::vector<uint8_t> bytes;
  for (uint32_t i = 0; i < count; ++i) {
    const std::vector<uint8_t> record = LogRecord(form, i * modules + m + 1, i, m);
    bytes.insert(bytes.end(), record.begin(), record.end());
  }
  SipJson reply(form == kUnifiedForm ? 0x0B16 : 0x0B00, 0, 0, ca);
  reply.SetModuleId(0x00010001 + (m << 16));
  reply.SetRawData(bytes, ST_SUCCESS);
  msg.AppendCommand(*reply.Command(0));
}

}  // namespace em_oidmap

#endif  // EM_BENCH_LOGREPLIES_H
