// The message log through em_oidmap.so as a host and its clients see it: the scans that
// re-scan queues on the worker, the CSS and designation requests they send, time-outs and
// failures, log events that add an entry and announce it with CM_LogMessageEvent (0x0B11);
// pages of the collected log translated into the client's language, sequence numbers and
// counts, help texts fetched from the lower modules on the task thread and answered later,
// raw records. (The demo scenario's answers are emhost's golden output; many clients at
// once, the soak's.)
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "E2EHost.h"
#include "tests/support/PageRecords.h"

namespace em_oidmap::e2e {
namespace {

using test_support::PageRecord;
using test_support::ParsePage;

class LogCollectionE2ETest : public ModuleHostTest {};

TEST_F(LogCollectionE2ETest, OldStyleRecords_CssAndDesignationAskedOncePerKey) {
  SimModule& a = host_.AddModule(kMidA);
  // Three records of one key (class 0x04, object 2, cabinet 0), one of another object.
  a.SetLog(0x0B00, 0u,
           EncodeLog({OldStyle(0x0401, 1, 2), OldStyle(0x0401, 2, 2), OldStyle(0x0401, 3, 2),
                      OldStyle(0x0401, 4, 3)}));
  a.AddRule(Rule(0x0307, "1"));          // CSS relevant
  a.AddRule(Rule(0x0304, "\"FAN 2\""));  // designation
  // The second module's CSS requests fail: asked again for every record.
  SimModule& b = host_.AddModule(kMidB);
  b.SetLog(0x0B00, 1u, EncodeLog({OldStyle(0x0701, 5, 1), OldStyle(0x0701, 6, 1)}));
  b.AddRule(Rule(0x0505, "", 0x13));
  // The third one's classes have no CSS request; designation rows 0x360A and 0x360C ask
  // nothing, 0x3601 falls back to the class row.
  SimModule& c = host_.AddModule(0x00030001);
  c.SetLog(0x0B00, 0u,
           EncodeLog({OldStyle(0x360A, 7), OldStyle(0x360C, 8), OldStyle(0x3601, 9),
                      OldStyle(0x0501, 10)}));
  c.AddRule(Rule(0xF042, "\"PSU 1\""));
  StartWithCabinets(0, {});
  RescanAndWait();

  EXPECT_EQ(2u, SentWithOpcode(host_, 0x0307)) << "one per key: objects 2 and 3";
  EXPECT_EQ(2u, SentWithOpcode(host_, 0x0304));
  EXPECT_EQ(2u, SentWithOpcode(host_, 0x0505)) << "a failed answer is not kept";
  EXPECT_EQ(1u, SentWithOpcode(host_, 0xF042));
  EXPECT_EQ(1u, SentWithOpcode(host_, 0x0404)) << "class 0x05";
  EXPECT_EQ(4u, Sink().Count("Request CSS support"));
  EXPECT_EQ(4u, Sink().Count("\nEM_OIDMAP           :     CSS: yes"));
  EXPECT_EQ(4u, Sink().Count("Designation string: \"FAN 2\""));
  EXPECT_EQ(1u, Sink().Count("Designation string: \"PSU 1\""));
  EXPECT_TRUE(Traced("    Request CSS support CAB 0 OC 0x0307 OID 0x0002"));
  EXPECT_TRUE(Traced("Add message log entry 0x0401 OID 3"));
  EXPECT_TRUE(Traced("    10 entries stored to messag log cache"));
}

TEST_F(LogCollectionE2ETest, ModuleThatTimesOut_OthersEntriesKeptAndCacheReady) {
  host_.AddModule(kMidA).SetLog(0x0B16, std::nullopt, EncodeLog({Unified(0x123456, 1, {"a"})}));
  host_.AddModule(kMidB).AddRule(Rule(0x0B00, "", 0, 200000));  // answers after the time-out
  StartWithCabinets(0, {});
  RescanAndWait();
  EXPECT_TRUE(Traced("MID 0x00020001: ## CM_LogEntry (CMOID_CriticalErrorLog) - TIMEOUT!! ##"));
  EXPECT_TRUE(Traced("MID 0x00020001: ## CM_LogEntry (CMOID_NonCriticalMessageLog) - "
      "TIMEOUT!! ##"));
  EXPECT_TRUE(Traced(" Add message log entry 0x123456 (CSS: no)"));
  EXPECT_TRUE(Traced("    1 entries stored to messag log cache"));
  EXPECT_TRUE(Traced("Ready event SET for message log cache cabinet 0"));
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
  EXPECT_TRUE(Traced("EXCEPTION during message log scan"));

  // The log scan: the error log stage fails, the event log stage still runs.
  SipJson task(0x0B10, 0, 0, 0);
  CallSlot<void, SipJson*, int32_t>(module_, 25, &task, 0);
  EXPECT_TRUE(Traced("EXCEPTION during error log scan"));
  EXPECT_TRUE(Traced("    1 entries stored to messag log cache"));
  EXPECT_EQ(2u, Sink().Count(kReadySet));
}

TEST_F(LogCollectionE2ETest, LogEvents_StoreTheirRecordAndAnnounceItsSequenceNumber) {
  StartWithCabinets(0, {});
  host_.DeliverEvent(kMidA, LogEvent(0x0B00, EncodeLog({OldStyle(0x0401, 7)})));
  host_.DeliverEvent(kMidA, LogEvent(0x0B16, EncodeLog({Unified(0x10, 8), Unified(0x11, 9)})));
  EXPECT_EQ((std::vector<uint32_t>{1, 2}), FiredSequenceNumbers(host_)) << "the first new one";
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
  CallSlot<void, SipJson*>(module_, 8, &reply);
  EXPECT_EQ(2u, FiredSequenceNumbers(host_).size());
  EXPECT_EQ(2u, Sink().Count("## ERROR! Message log data from MID 0x00010001 malformed"));
  EXPECT_TRUE(Traced("## ERROR! Message log data from MID 0x00010001 is not raw bytes - "
      "ignored"));

  host_.DeliverEvent(kMidA, LogEvent(0x0B00, EncodeLog({OldStyle(0x0403, 2)})));
  EXPECT_EQ((std::vector<uint32_t>{1, 2, 4}), FiredSequenceNumbers(host_))
      << "the reply took no sequence number";

  // An event whose entry the cache holds already is stored again and announced: every
  // log event stored is announced once, with its own new number.
  host_.DeliverEvent(kMidA, LogEvent(0x0B00, EncodeLog({OldStyle(0x0403, 2)})));
  EXPECT_EQ((std::vector<uint32_t>{1, 2, 4, 5}), FiredSequenceNumbers(host_));
}


constexpr uint32_t kEnglish = 0x409;

// A module's answer to a text request about error code `code`.
hostsim::ReplyRule TextRule(uint32_t oc, uint32_t code, const std::string& da) {
  hostsim::ReplyRule rule = Rule(oc, da);
  rule.whenDa = code;
  return rule;
}

class LogQueryE2ETest : public ModuleHostTest {
 protected:
  void SetUp() override {
    ModuleHostTest::SetUp();
    // The module finds the message files in its current directory first.
    ASSERT_NE(nullptr, getcwd(cwd_, sizeof cwd_));
    ASSERT_EQ(0, chdir(EM_SAMPLE_MSGFILES_DIR));
  }
  void TearDown() override {
    if (!released_) Release();  // before the delete, which waits for the worker
    ModuleHostTest::TearDown();
    unsetenv("EM_OIDMAP_CACHE_WAIT_MS");
    EXPECT_EQ(0, chdir(cwd_));
  }

  // Holds the worker in the first request of opcode `oc` it sends until Release(); true
  // once it is held. The hook's state is the fixture's: it outlives the test's body.
  void HoldFirst(uint32_t oc) {
    host_.SetRequestHook([this, oc](const SipJson& request) {
      if (request.GetOpcode(request.CurrentIndex()) != oc || !armed_.exchange(false)) return;
      held_.set_value();
      releasedSignal_.wait();
    });
  }
  bool Held() {
    return held_.get_future().wait_for(std::chrono::seconds(60)) == std::future_status::ready;
  }
  void Release() {
    released_ = true;
    release_.set_value();
  }

  // Module A, speaking English and German as the re-scan learns them.
  SimModule& AddSpeaker() {
    SimModule& a = host_.AddModule(kMidA);
    a.AddRule(Rule(0x0B20, R"({"RAW":[9,4,7,4]})"));
    return a;
  }

  void StartAndRescan() {
    StartWithCabinets(0, {});
    module_->Rescan();
  }

  std::vector<PageRecord> Page(uint32_t lang, uint32_t page, uint32_t sequence,
                               uint32_t* status = nullptr) {
    SipJson msg = Ask(0x0B10, lang, page, sequence);
    if (status != nullptr) *status = msg.GetStatus(0);
    std::vector<uint8_t> data;
    msg.GetDataBytes(0, data);
    std::vector<PageRecord> records;
    EXPECT_TRUE(ParsePage(data, &records));
    return records;
  }

  // The late answer of a queued request, matched by its CI.
  static std::optional<SipJson> LateAnswer(const SimHost& host, uint32_t ci) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
      for (const auto& handed : host.HandedBackMessages()) {
        if (handed.message.GetKey(0, "CI") == ci) return handed.message;
      }
      host.WaitForHandBacks(host.HandedBackMessages().size() + 1, std::chrono::milliseconds(50));
    }
    return std::nullopt;
  }

  char cwd_[4096] = {};
  std::promise<void> held_, release_;
  std::shared_future<void> releasedSignal_ = release_.get_future().share();
  std::atomic<bool> armed_{true};
  bool released_ = false;
};

TEST_F(LogQueryE2ETest, FullLife_PageInTheClientsLanguageFromEverySource) {
  SimModule& a = AddSpeaker();
  hostsim::SimUnifiedRecord fans = Unified(0x040005, 10, {"2", "3"});
  fans.flags = 0x0301;  // only the low byte is answered
  fans.codeBits = 24;
  a.SetLog(0x0B16, std::nullopt, EncodeLog({fans, Unified(0x0A0001, 30), Unified(0x0A0002, 40)}));
  // 0x0A0001 is in no message file, but module A knows its long text.
  a.AddRule(TextRule(0x0B21, 0x0A0001, "\"Chassis intrusion detected.\""));
  // B keeps the old style only: its entries come through the fall-back, with designations.
  SimModule& b = host_.AddModule(kMidB);
  b.SetLog(0x0B00, 0, EncodeLog({OldStyle(0x0403, 20, 1, 0)}));
  b.AddRule(Rule(0x0304, "\"FAN SYS 2\""));
  StartAndRescan();

  // A's unified log is stored first, B's old-style fall-back after it.
  const std::vector<PageRecord> english = Page(kEnglish, 0, 0);
  ASSERT_EQ(4u, english.size());
  EXPECT_EQ("Fan redundancy lost: 2 of 3 fans are working.", english[0].text);
  EXPECT_EQ("Chassis intrusion detected.", english[1].text);
  EXPECT_EQ("Unknown error 0xA0002", english[2].text);
  EXPECT_EQ("Fan FAN SYS 2 was removed.", english[3].text);
  EXPECT_EQ(0x0405, english[0].shortCode);
  EXPECT_EQ(0x0403, english[3].shortCode);
  EXPECT_EQ(24, english[0].codeBits);
  EXPECT_EQ(0x01, english[0].flags);
  const uint32_t orders[] = {10, 30, 40, 20};
  for (size_t r = 0; r < english.size(); ++r) {
    EXPECT_EQ(orders[r], english[r].order);
    EXPECT_EQ(english[0].sequence + r, english[r].sequence);
  }
  EXPECT_TRUE(Sink().Contains("WARNING! Missing translation for language en"));

  // A text found below is kept; a code known nowhere is asked for again.
  const size_t asked = SentWithOpcode(host_, 0x0B21);
  EXPECT_EQ(english[1].text, Page(kEnglish, 0, 0)[1].text);
  EXPECT_EQ(asked + 1, SentWithOpcode(host_, 0x0B21));

  // Counts and sequence numbers of the same cache.
  EXPECT_EQ(4u, AskValue(0x0B13));
  EXPECT_EQ(english.back().sequence, AskValue(0x0B12));
  EXPECT_EQ(1u, AskValue(0x0B01));
  EXPECT_EQ(0x14u, Ask(0x0B01, 0, 0, std::nullopt, 7).GetStatus(0));
}

TEST_F(LogQueryE2ETest, SequenceNumbers_StartIndexAndEmptyAnswer) {
  SimModule& a = AddSpeaker();
  std::vector<hostsim::SimUnifiedRecord> records;
  for (uint32_t n = 1; n <= 2500; ++n) records.push_back(Unified(0x040005, n, {"1", "2"}));
  a.SetLog(0x0B16, std::nullopt, EncodeLog(records));
  StartAndRescan();

  // 2500 collected, the oldest 500 evicted: 501..2500 remain.
  const std::vector<PageRecord> page = Page(kEnglish, 0, 1000);
  ASSERT_EQ(1501u, page.size());
  EXPECT_EQ(1000u, page.front().sequence);
  EXPECT_EQ(2500u, page.back().sequence);
  EXPECT_TRUE(Traced("found start index 499 for message log sequence number 1000"));

  uint32_t status = 0xFF;
  EXPECT_TRUE(Page(kEnglish, 0, 2501, &status).empty());
  EXPECT_EQ(0x00u, status);
  EXPECT_TRUE(Traced("Empty log cache"));
  EXPECT_TRUE(Page(kEnglish, 1, 0).empty()) << "page 1 starts behind the 2000 entries";
}

// What a client is refused, and how soon: a language not learnt yet (no re-scan ran) at
// once, a cache that no scan makes ready after the wait, and a text to fetch while the
// worker is busy and its queue full at once.
TEST_F(LogQueryE2ETest, Refusals_LanguageCacheNeverReadyAndFullQueue) {
  setenv("EM_OIDMAP_CACHE_WAIT_MS", "200", 1);  // read when the module is created
  AddSpeaker();
  // The worker is held in its first text fetch below, and texts no message file knows
  // fill its queue of 19.
  HoldFirst(0x0B21);
  StartWithCabinets(0, {});
  EXPECT_EQ(0x16u, Ask(0x0B21, kEnglish, 0, 0x3E0000).GetStatus(0));
  ASSERT_TRUE(Held());
  for (uint32_t code = 0x3E0001; code < 0x3E0014; ++code) {
    EXPECT_EQ(0x16u, Ask(0x0B21, kEnglish, 0, code).GetStatus(0)) << "queued";
  }
  const struct {
    const char* name;
    uint32_t oc, oe;
    std::optional<uint32_t> da;
    uint32_t st;
    const char* line;  // traced by the refusal
    bool waits;
  } cases[] = {
      {"language", 0x0B10, kEnglish, 0, 0x13,
       "\nEM_OIDMAP           : Language ID 0x409 not supported!", false},
      {"cache never ready", 0x0B13, 0, std::nullopt, 0x0F,
       "\nEM_OIDMAP           : ERROR! Timeout (120 sec) waiting for message log cache", true},
      {"full queue", 0x0B21, kEnglish, 0x3E0014, 0x14,
       "\nCTaskSerializer     : ## ERROR! Task queue for priority 0 is full", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Sink().Clear();
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(c.st, Ask(c.oc, c.oe, 0, c.da).GetStatus(0));
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(20));
    EXPECT_TRUE(Sink().HasLine(c.line)) << Sink().Text();
    EXPECT_EQ(c.waits, Sink().Contains("Wait on event"));
  }
}

// EM_OIDMAP_CACHE_WAIT_MS is read when the module is created: only a positive number of
// milliseconds changes the wait; anything else is ignored with one line.
TEST_F(LogQueryE2ETest, CacheWaitKnob_OnlyAPositiveNumberChangesTheWait) {
  const struct {
    const char* value;
    const char* wait;
    bool warned;
  } cases[] = {
      {"3000", "(Timeout: 3)", false}, {"", "(Timeout: 120)", false},
      {"abc", "(Timeout: 120)", true}, {"0", "(Timeout: 120)", true},
      {"-5", "(Timeout: 120)", true},  {"12x", "(Timeout: 120)", true},
      {"99999999999", "(Timeout: 120)", true}, {"4294967296", "(Timeout: 120)", true},
      {"4294967295", "(Timeout: 4294967)", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value);
    Sink().Clear();
    setenv("EM_OIDMAP_CACHE_WAIT_MS", c.value, 1);
    SimHost host;
    StartOn(host);
    const size_t ready = Sink().Count("Ready event SET");
    module_->Rescan();  // no module has a log: the scan makes the cache ready at once
    ASSERT_TRUE(WaitForTrace("Ready event SET", ready + 1));
    EXPECT_EQ(0x00u, Ask(0x0B13).GetStatus(0));
    EXPECT_TRUE(Traced(std::string("Wait on event for message log cache cabinet 0 ") + c.wait));
    EXPECT_EQ(c.warned ? 1u : 0u, Sink().Count("EM_OIDMAP_CACHE_WAIT_MS=\"" + std::string(c.value) +
                                               "\" is no positive number"));
    Destroy();
  }
}

// A page of 2000 codes that no message file knows, and a module that never answers text
// requests: the request thread waits one request time-out in all, every entry gets the
// fallback text now, and the worker fetches the texts for the next page, all of them in
// one task at a time, so that the task queue keeps room for clients.
TEST_F(LogQueryE2ETest, SilentModule_PageWaitsOneTimeOutAndTheWorkerFetchesForTheNext) {
  constexpr uint32_t kCodes = 2000;
  SimModule& a = AddSpeaker();
  std::vector<hostsim::SimUnifiedRecord> records;
  for (uint32_t n = 0; n < kCodes; ++n) records.push_back(Unified(0x3E0000 + n, n + 1));
  a.SetLog(0x0B16, std::nullopt, EncodeLog(records));
  a.AddFault(Rule(0x0B21, "", 0, hostsim::kNeverInTime));
  StartAndRescan();

  // The worker is held in a summary request meanwhile, so that what it does after the page
  // can be told apart.
  HoldFirst(0x0B23);
  EXPECT_EQ(0x16u, Ask(0x0B23, kEnglish, 0, 0x040001).GetStatus(0));
  ASSERT_TRUE(Held());

  const size_t before = host_.SentCount();
  const std::vector<PageRecord> page = Page(kEnglish, 0, 0);
  ASSERT_EQ(kCodes, page.size());
  size_t fallbacks = 0;
  for (const PageRecord& record : page) fallbacks += record.text.rfind("Unknown error", 0) == 0;
  EXPECT_EQ(kCodes, fallbacks);
  uint32_t waitedMs = 0;
  size_t asked = 0;
  for (const hostsim::SentRequest& sent : host_.SentRequestsFrom(before)) {
    SipJson msg;
    msg.Parse(sent.json);
    if (msg.GetOpcode(sent.index) != 0x0B21) continue;
    EXPECT_EQ(std::this_thread::get_id(), sent.thread) << "the worker is held";
    waitedMs += sent.timeoutMs;
    ++asked;
  }
  EXPECT_EQ(1u, asked) << "the first fetch timed out: nothing was left for the others";
  EXPECT_LE(waitedMs, 5000u);
  EXPECT_TRUE(Traced("2000 long texts not fetched in time - fetched on the task thread for "
                          "the next page"));
  EXPECT_EQ(0x16u, Ask(0x0B21, kEnglish, 0, 0x3E0000 + kCodes).GetStatus(0))
      << "the queue has room for a client";

  // The module knows the texts now: once the worker goes on, it fetches every code.
  a.ClearRules();
  a.AddRule(Rule(0x0B21, "\"Text from below.\""));
  Release();
  ASSERT_TRUE(WaitForTrace("put \"long text\" message into cache", kCodes + 1, 120));
  host_.SetRequestHook(nullptr);
  const size_t after = host_.SentCount();
  size_t fetched = 0;
  for (const PageRecord& record : Page(kEnglish, 0, 0)) fetched += record.text == "Text from below.";
  EXPECT_EQ(kCodes, fetched);
  EXPECT_EQ(after, host_.SentCount()) << "the next page asks nothing";
}

// Peers that send ill-formed UTF-8 where text is expected (a Latin-1 byte, a lone
// surrogate, an overlong form): what the module builds from it reaches the client with
// U+FFFD in its place; what the module only passes on reaches it untouched.
TEST_F(LogQueryE2ETest, IllFormedUtf8FromPeers_ReplacedInWhatTheModuleBuilds) {
  const std::string latin1 = "\xFC", surrogate = "\xED\xA0\x80", overlong = "\xC0\x80";
  const std::string fffd = "\xEF\xBF\xBD";
  SimModule& a = AddSpeaker();
  a.SetLog(0x0B16, std::nullopt, EncodeLog({Unified(0x040005, 10, {latin1, surrogate})}));
  a.AddRule(TextRule(0x0B21, 0x0A0001, "\"Chassis " + overlong + " open\""));
  SimModule& b = host_.AddModule(kMidB);
  b.SetLog(0x0B00, 0, EncodeLog({OldStyle(0x0403, 20, 1, 0)}));
  b.AddRule(Rule(0x0304, "\"FAN " + surrogate + "\""));
  StartAndRescan();

  const std::vector<PageRecord> page = Page(kEnglish, 0, 0);
  ASSERT_EQ(2u, page.size());
  EXPECT_EQ("Fan redundancy lost: " + fffd + " of " + fffd + fffd + fffd + " fans are working.",
            page[0].text);
  EXPECT_EQ("Fan FAN " + fffd + fffd + fffd + " was removed.", page[1].text);

  Ask(0x0B21, kEnglish, 0, 0x0A0001, 0, 8);
  const std::optional<SipJson> late = LateAnswer(host_, 8);
  ASSERT_TRUE(late.has_value());
  EXPECT_EQ("Chassis " + fffd + fffd + " open", DataText(*late));

  SipJson event(0x0301, 0, 1, 0);
  event.SetDataString("Fan " + latin1, 0xFF);
  host_.DeliverEvent(kMidA, event);
  EXPECT_EQ("Fan " + latin1, DataText(host_.HandedBackMessages().back().message))
      << "an event is passed on as it came";
}

TEST_F(LogQueryE2ETest, TextRequests_MissFetchedOnTheTaskThreadThenHit) {
  struct Case {
    const char* helpDesk;
    std::vector<std::string> resolutions;
  };
  const Case cases[] = {
      {"the service desk", {"Call the service desk.", "the service desk", "Replace the fan."}},
      {"", {"", "", "Replace the fan."}},  // a paragraph that names it is emptied
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.helpDesk);
    SimHost host;
    SimModule& a = host.AddModule(kMidA);
    if (*c.helpDesk != '\0') a.SetConfigText(0x211, c.helpDesk);
    a.AddRule(TextRule(0x0B17, 0x0401, R"(["Call %HD%.", "%HD%", "Replace the fan."])"));
    a.AddRule(TextRule(0x0B21, 0x0401, "\"The fan failed.\""));
    StartOn(host);

    // A miss: pending now, the answer later through the hand-back, with the client's CI.
    EXPECT_EQ(0x16u, Ask(0x0B17, kEnglish, 0, 0x0401, 0, 41).GetStatus(0));
    const std::optional<SipJson> late = LateAnswer(host, 41);
    ASSERT_TRUE(late.has_value());
    std::vector<std::string> strings;
    EXPECT_TRUE(late->GetDataStrings(0, strings));
    EXPECT_EQ(c.resolutions, strings);

    // Now cached: answered at once, nothing asked below.
    host.ClearRecords();
    struct Hit {
      uint32_t oc, oi, st;
      const char* text;
    };
    for (const Hit& hit : {Hit{0x0B25, 2, 0x00, "Replace the fan."},
                           Hit{0x0B25, 3, 0x02, nullptr}, Hit{0x0B17, 0, 0x00, nullptr}}) {
      const SipJson again = Ask(hit.oc, kEnglish, hit.oi, 0x0401);
      EXPECT_EQ(hit.st, again.GetStatus(0)) << std::hex << hit.oc << " " << hit.oi;
      if (hit.text != nullptr) {
        EXPECT_EQ(hit.text, DataText(again));
      }
    }
    EXPECT_TRUE(host.SentRequests().empty());

    // No error code: invalid arguments; a code nobody knows: not available, not cached.
    EXPECT_EQ(0x12u, Ask(0x0B21, kEnglish).GetStatus(0));
    Destroy();
  }

  // No module takes resolution requests: handed back without texts, and the trace says why.
  SimHost host;
  host.AddModule(kMidA);
  StartOn(host);
  EXPECT_EQ(0x16u, Ask(0x0B17, kEnglish, 0, 0x0401, 0, 42).GetStatus(0));
  const std::optional<SipJson> late = LateAnswer(host, 42);
  ASSERT_TRUE(late.has_value());
  EXPECT_FALSE(late->HasKey(0, "DA"));
  EXPECT_EQ(1u, hostsim::Sink().Count("Message log resolutions are not supported on this system!"));
  Destroy();
}

TEST_F(LogQueryE2ETest, RawRecordAndLanguages_AskedBelow) {
  SimModule& a = AddSpeaker();
  hostsim::SimUnifiedRecord record = Unified(0x040005, 5, {"1", "2"});
  record.recordId = 77;
  a.SetLog(0x0B16, std::nullopt, EncodeLog({record}));
  hostsim::ReplyRule raw = Rule(0x0B19, R"({"RAW":[1,2,3]})");
  raw.oi = 77;
  a.AddRule(raw);
  StartAndRescan();
  const std::vector<PageRecord> page = Page(kEnglish, 0, 0);
  ASSERT_EQ(1u, page.size());

  EXPECT_EQ(0x16u, Ask(0x0B19, 0, 0, page[0].sequence, 0, 5).GetStatus(0));
  const std::optional<SipJson> late = LateAnswer(host_, 5);
  ASSERT_TRUE(late.has_value());
  std::vector<uint8_t> bytes;
  late->GetDataBytes(0, bytes);
  EXPECT_EQ((std::vector<uint8_t>{1, 2, 3}), bytes);
  for (const auto& bad : {Ask(0x0B19, 0, 0, page[0].sequence + 1),
                          Ask(0x0B19, 3, 0, page[0].sequence), Ask(0x0B19)}) {
    EXPECT_EQ(0x12u, bad.GetStatus(0));
  }
  SipJson languages = Ask(0x0B20);
  EXPECT_EQ(0x00u, languages.GetStatus(0));
  languages.GetDataBytes(0, bytes);
  EXPECT_EQ((std::vector<uint8_t>{9, 4, 7, 4}), bytes);
}

}  // namespace
}  // namespace em_oidmap::e2e
