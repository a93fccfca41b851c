// How long the module waits: for the lower modules' answers to what it sends, for a start
// that runs on another thread, and the size of its task queue.
#ifndef EM_OIDMAP_TIMEOUTS_H
#define EM_OIDMAP_TIMEOUTS_H

#include <cstdint>

namespace em_oidmap {

// Single requests and most broadcasts.
constexpr uint32_t kSingleRequestTimeoutMs = 5000;
// The broadcast that clears the logs of a cabinet (OC 0x0B03).
constexpr uint32_t kLogClearTimeoutMs = 15000;
// The write that every module must see (OC 0x0310).
constexpr uint32_t kWriteToAllTimeoutMs = 30000;
// Log-entry broadcasts and log reads: a module may have a long log to read.
constexpr uint32_t kLogReadTimeoutMs = 150000;
// How long a request that arrives while start is still running waits for it to finish.
constexpr uint32_t kStartWaitMs = 120000;
// The task serializer's one level holds 19 tasks (8 bytes each, one slot always free).
constexpr uint32_t kTaskQueueBytes = 160;

}  // namespace em_oidmap

#endif  // EM_OIDMAP_TIMEOUTS_H
