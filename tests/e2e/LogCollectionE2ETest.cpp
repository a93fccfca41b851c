// Log collection as a host sees it through em_oidmap.so: the scans that re-scan queues on
// the worker, the CSS and designation requests they send, time-outs and failures, and log
// events that add an entry and announce it with CM_LogMessageEvent (0x0B11).
#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <vector>

#include "E2EHost.h"
#include "hostsim/SimLog.h"

namespace em_oidmap {

namespace {

using e2e::kMidA;
using e2e::kMidB;
using e2e::Rule;
using hostsim::EncodeLog;
using hostsim::OldStyle;
using hostsim::Sink;
using hostsim::Unified;

using e2e::LogEvent;
using e2e::kReadySet;

class LogCollectionE2ETest : public e2e::ModuleHostTest {
 protected:
  size_t SentWithOpcode(uint32_t oc) const { return e2e::SentWithOpcode(host_, oc); }
  std::vector<uint32_t> FiredSequenceNumbers() const { return e2e::FiredSequenceNumbers(host_); }
};

TEST_F(LogCollectionE2ETest, OldStyleRecords_CssAndDesignationAskedOncePerKey) {
  hostsim::SimModule& a = host_.AddModule(kMidA);
  // Three records of one key (class 0x04, object 2, cabinet 0), one of another object.
  a.SetLog(0x0B00, 0u,
           EncodeLog({OldStyle(0x0401, 1, 2), OldStyle(0x0401, 2, 2), OldStyle(0x0401, 3, 2),
                      OldStyle(0x0401, 4, 3)}));
  a.AddRule(Rule(0x0307, "1"));          // CSS relevant
  a.AddRule(Rule(0x0304, "\"FAN 2\""));  // designation
  // The second module's CSS requests fail: asked again for every record.
  hostsim::SimModule& b = host_.AddModule(kMidB);
  b.SetLog(0x0B00, 1u, EncodeLog({OldStyle(0x0701, 5, 1), OldStyle(0x0701, 6, 1)}));
  b.AddRule(Rule(0x0505, "", 0x13));
  // The third one's classes have no CSS request; designation rows 0x360A and 0x360C ask
  // nothing, 0x3601 falls back to the class row.
  hostsim::SimModule& c = host_.AddModule(0x00030001);
  c.SetLog(0x0B00, 0u,
           EncodeLog({OldStyle(0x360A, 7), OldStyle(0x360C, 8), OldStyle(0x3601, 9),
                      OldStyle(0x0501, 10)}));
  c.AddRule(Rule(0xF042, "\"PSU 1\""));
  StartWithCabinets(0, {});
  RescanAndWait();

  EXPECT_EQ(2u, SentWithOpcode(0x0307)) << "one per key: objects 2 and 3";
  EXPECT_EQ(2u, SentWithOpcode(0x0304));
  EXPECT_EQ(2u, SentWithOpcode(0x0505)) << "a failed answer is not kept";
  EXPECT_EQ(1u, SentWithOpcode(0xF042));
  EXPECT_EQ(1u, SentWithOpcode(0x0404)) << "class 0x05";
  EXPECT_EQ(4u, Sink().Count("Request CSS support"));
  EXPECT_EQ(4u, Sink().Count("\nEM_OIDMAP           :     CSS: yes"));
  EXPECT_EQ(4u, Sink().Count("Designation string: \"FAN 2\""));
  EXPECT_EQ(1u, Sink().Count("Designation string: \"PSU 1\""));
  EXPECT_TRUE(e2e::Traced("    Request CSS support CAB 0 OC 0x0307 OID 0x0002"));
  EXPECT_TRUE(e2e::Traced("Add message log entry 0x0401 OID 3"));
  EXPECT_TRUE(e2e::Traced("    10 entries stored to messag log cache"));
}

TEST_F(LogCollectionE2ETest, ModuleThatTimesOut_OthersEntriesKeptAndCacheReady) {
  host_.AddModule(kMidA).SetLog(0x0B16, std::nullopt, EncodeLog({Unified(0x123456, 1, {"a"})}));
  host_.AddModule(kMidB).AddRule(Rule(0x0B00, "", 0, 200000));  // answers after the time-out
  StartWithCabinets(0, {});
  RescanAndWait();
  EXPECT_TRUE(e2e::Traced("MID 0x00020001: ## CM_LogEntry (CMOID_CriticalErrorLog) - TIMEOUT!! ##"));
  EXPECT_TRUE(e2e::Traced("MID 0x00020001: ## CM_LogEntry (CMOID_NonCriticalMessageLog) - "
      "TIMEOUT!! ##"));
  EXPECT_TRUE(e2e::Traced(" Add message log entry 0x123456 (CSS: no)"));
  EXPECT_TRUE(e2e::Traced("    1 entries stored to messag log cache"));
  EXPECT_TRUE(e2e::Traced("Ready event SET for message log cache cabinet 0"));
  EXPECT_FALSE(Sink().Contains("FAILED to set"));
}

TEST_F(LogCollectionE2ETest, ExceptionInsideAScan_ReadyEventStillSet) {
  host_.AddModule(kMidA).SetLog(0x0B00, 1u, EncodeLog({OldStyle(0x0401, 1)}));
  StartWithCabinets(0, {});
  host_.SetRequestHook([](const SipJson& request) {
    const int32_t i = request.CurrentIndex();
    if (request.GetKey(i, "MI") == 0xFFFFFFFF &&
        (request.GetOpcode(i) == 0x0B16 || (request.GetOpcode(i) == 0x0B00 && request.GetKey(i, "OI") == 0))) {
      throw std::runtime_error("host failure");
    }
  });
  RescanAndWait();
  EXPECT_TRUE(e2e::Traced("EXCEPTION during message log scan"));

  // The log scan: the error log stage fails, the event log stage still runs.
  SipJson task(0x0B10, 0, 0, 0);
  e2e::CallSlot<void, SipJson*, int32_t>(module_, 25, &task, 0);
  EXPECT_TRUE(e2e::Traced("EXCEPTION during error log scan"));
  EXPECT_TRUE(e2e::Traced("    1 entries stored to messag log cache"));
  EXPECT_EQ(2u, Sink().Count(kReadySet));
}

TEST_F(LogCollectionE2ETest, LogEvents_StoreTheirRecordAndAnnounceItsSequenceNumber) {
  StartWithCabinets(0, {});
  host_.DeliverEvent(kMidA, LogEvent(0x0B00, EncodeLog({OldStyle(0x0401, 7)})));
  host_.DeliverEvent(kMidA, LogEvent(0x0B16, EncodeLog({Unified(0x10, 8), Unified(0x11, 9)})));
  EXPECT_EQ((std::vector<uint32_t>{1, 2}), FiredSequenceNumbers()) << "the first new one";
  EXPECT_TRUE(Sink().HasLine(
      "\nEM_OIDMAP (REPLY)   : FireEvent CM_LogMessageEvent (Sequence Number: 2)"));

  // Events that add nothing announce nothing: no record, no whole record, data that is
  // no raw bytes; a reply (ST 0x00) is not an event and is not stored.
  std::vector<uint8_t> zeroLength = Unified(0x12).Encode();
  zeroLength[0] = zeroLength[1] = 0;
  SipJson text(0x0B16, 0, 0, 0);
  text.SetDataString("not records", 0xFF);
  SipJson reply = LogEvent(0x0B00, EncodeLog({OldStyle(0x0402, 1)}));
  reply.SetStatus(0x00);
  reply.SetModuleId(kMidA);
  host_.DeliverEvent(kMidA, LogEvent(0x0B00, std::vector<uint8_t>(11, 1)));
  host_.DeliverEvent(kMidA, LogEvent(0x0B16, zeroLength));
  host_.DeliverEvent(kMidA, text);
  e2e::CallSlot<void, SipJson*>(module_, 8, &reply);
  EXPECT_EQ(2u, FiredSequenceNumbers().size());
  EXPECT_EQ(2u, Sink().Count("## ERROR! Message log data from MID 0x00010001 malformed"));
  EXPECT_TRUE(e2e::Traced("## ERROR! Message log data from MID 0x00010001 is not raw bytes - "
      "ignored"));

  host_.DeliverEvent(kMidA, LogEvent(0x0B00, EncodeLog({OldStyle(0x0403, 2)})));
  EXPECT_EQ((std::vector<uint32_t>{1, 2, 4}), FiredSequenceNumbers())
      << "the reply took no sequence number";

  // An event whose entry the cache holds already is stored again and announced: every
  // log event stored is announced once, with its own new number.
  host_.DeliverEvent(kMidA, LogEvent(0x0B00, EncodeLog({OldStyle(0x0403, 2)})));
  EXPECT_EQ((std::vector<uint32_t>{1, 2, 4, 5}), FiredSequenceNumbers());
}

}  // namespace

}  // namespace em_oidmap
