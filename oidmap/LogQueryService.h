// CLogQueryService: answers what clients ask of the message log. Whether a log is
// available (OC 0x0B01); after the cabinet's readiness wait, a page of translated entries
// (0x0B10), the last sequence number (0x0B12) and the number of entries (0x0B13); the raw
// record of an entry (0x0B19, fetched on the worker); the supported SEL languages (0x0B20);
// and the message texts of an error code (0x0B17, 0x0B1A, 0x0B21, 0x0B23..0x0B25): from
// the text cache, or fetched from the lower modules on the worker and handed up.
//
// It owns the message files (parsed again only when they change), the text cache of what
// the lower modules gave, and the readiness wait (kCacheWaitMs, or
// EM_OIDMAP_CACHE_WAIT_MS for tests and diagnosis).
//
// A page waits for the long texts it fetches from the lower modules one request time-out
// in all; the codes it could not wait for get the fallback text and are fetched on the
// worker for the next page (oidmap/PendingLongTexts.h).
//
// Threads: Answer on request threads, which a readiness wait blocks up to 120 s; the
// tasks on the worker. Locks: none of its own. The text cache, the pending long texts and
// the message files are thread-safe; a page's entries are copied under the log store's
// locks and translated without them, since a long text may have to be fetched from the
// lower modules.
#ifndef EM_OIDMAP_LOGQUERYSERVICE_H
#define EM_OIDMAP_LOGQUERYSERVICE_H

#include <cstdint>
#include <string>
#include <vector>

#include "msglog/LogMsgFile.h"
#include "msglog/MsgTextCache.h"
#include "oidmap/CabinetDirectory.h"
#include "oidmap/HostLink.h"
#include "oidmap/LogCollector.h"
#include "oidmap/LogStore.h"
#include "oidmap/PendingLongTexts.h"
#include "sip/SipJson.h"

namespace em_oidmap {

class CLogQueryService {
 public:
  // `messageFileDir` is where the message files are looked for first.
  CLogQueryService(const CHostLink& host, const CCabinetDirectory& cabinets, CLogStore& store,
                   const CLogCollector& collector, std::string messageFileDir);
  CLogQueryService(const CLogQueryService&) = delete;
  CLogQueryService& operator=(const CLogQueryService&) = delete;

  // Request thread: answers the message log opcode `oc` of the client's current command.
  // Returns the request handler's result: 1 when answered (ST 0x16 for what the worker
  // completes), 0 when the opcode is not one of those above (ST 0x01).
  uint32_t Answer(SipJson& msg, uint32_t oc);

  // Worker: a queued text request, or raw record request; the answer is handed up.
  void RunTextTask(SipJson& task);
  void RunRawLogTask(SipJson& task);
  // Worker: fetches pending long texts into the text cache for one request time-out,
  // and queues the next such task when some are left.
  void RunLongTextTask();

 private:
  // ---- Log queries (LogQueryService.cpp) ----
  uint32_t AnswerLogAvailable(SipJson& msg);
  uint32_t AnswerLogQuery(SipJson& msg, uint32_t oc);
  uint32_t AnswerCounts(SipJson& msg, uint32_t oc);
  // Fills the page of the query into msg; false when it holds no record.
  bool GetMsgLogCacheEntries(SipJson& msg);
  uint32_t QueueRawLogRequest(SipJson& msg);
  uint32_t AnswerSelLanguages(SipJson& msg);
  // The module and record id of the cabinet's entry with this sequence number; false
  // when it is not (or no longer) cached.
  bool FindRecord(uint32_t cabinet, uint32_t sequence, uint32_t* module, int32_t* recordId);

  // ---- Message texts (MessageTexts.cpp) ----
  uint32_t AnswerTextRequest(SipJson& msg, uint32_t oc);
  // Answers a text request from the text cache; false when nothing is cached for it.
  bool AnswerFromTextCache(SipJson& msg, uint32_t oc);
  // A long text, a summary, all causes or all resolutions; one cause or resolution.
  bool AnswerWholeText(SipJson& msg, uint32_t oc, uint32_t errorCode, uint16_t langId);
  bool AnswerParagraph(SipJson& msg, uint32_t oc, uint32_t errorCode, uint16_t langId);
  // Stores what the lower modules gave for a text task; false when nothing was stored.
  bool StoreTexts(uint32_t oc, uint32_t errorCode, uint16_t langId, std::vector<std::string> texts,
                  bool handled);
  // Asks the lower modules for the texts of `textOc` (0x0B21, 0x0B23, 0x0B1A, 0x0B17),
  // waiting up to `timeoutMs`; the texts come back as valid UTF-8. `handled` tells
  // whether any module took the request at all, `timedOut` whether one did not answer in
  // time.
  std::vector<std::string> FetchTexts(uint32_t textOc, uint32_t errorCode, uint16_t langId,
                                      uint32_t cabinet, uint32_t timeoutMs, bool* handled,
                                      bool* timedOut) const;
  // A page's long text from the lower modules within the page's deadline; empty when
  // none has one. A text not fetched in time is added to `deferred`.
  std::string FetchPageLongText(uint32_t errorCode, uint16_t langId, uint32_t cabinet,
                                CFetchDeadline& deadline, std::vector<PendingLongText>* deferred);
  // Hands the page's deferred texts to the worker.
  void DeferLongTexts(const std::vector<PendingLongText>& deferred);
  // Queues the task that fetches pending long texts.
  void QueueLongTextTask();

  const CHostLink& host_;
  const CCabinetDirectory& cabinets_;
  CLogStore& store_;
  const CLogCollector& collector_;
  CLogMsgFile message_files_;             // both message files, parsed again only when changed
  CMsgTextCache text_cache_;              // texts the lower modules gave
  CPendingLongTexts pending_long_texts_;  // what pages could not wait for
  const uint32_t cache_wait_ms_;
};

}  // namespace em_oidmap

#endif  // EM_OIDMAP_LOGQUERYSERVICE_H
