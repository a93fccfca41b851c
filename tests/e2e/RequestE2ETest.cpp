// Requests and replies through em_oidmap.so as a host sees them: forwarding to the module
// that owns an instance, events turned back to the global index, merged broadcasts, bad
// input, and requests on several host threads while start is still running.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <optional>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "E2EHost.h"

namespace em_oidmap::e2e {
namespace {

// Every fan answers with its owner and local id, so a misrouted request shows.
void AddFans(SimModule& module, const char* owner, uint32_t count) {
  module.SetInstanceCount(kFanCount, 0, 0, count);
  for (uint32_t oi = 0; oi < count; ++oi) {
    hostsim::ReplyRule rule = Rule(kFanGet, "\"" + std::string(owner) + std::to_string(oi) + "\"");
    rule.oi = oi;
    module.AddRule(rule);
  }
}

// The one command a simulated module received, as a message.
SipJson OnlyReceived(const SimModule& module) {
  const auto received = module.Received();
  EXPECT_EQ(1u, received.size());
  SipJson msg;
  msg.Parse("{\"SIP\":{\"V\":1,\"CMD\":[" + (received.empty() ? "{}" : received[0]) + "]}}");
  return msg;
}

class RequestE2ETest : public ModuleHostTest {
 protected:
  // Fans: A has 3 (global 0..2), B has 2 (global 3..4).
  void StartWithFans() {
    AddFans(host_.AddModule(kMidA), "A", 3);
    AddFans(host_.AddModule(kMidB), "B", 2);
    StartWithCabinets(0, {});
  }

  uint32_t Send(SipJson& msg) { return module_->OnRequest(msg); }
};

TEST_F(RequestE2ETest, RequestAndEvent_TranslatedBetweenGlobalIndexAndOwnersLocalId) {
  StartWithFans();
  ASSERT_TRUE(Traced("OID mapping needed!"));
  host_.FindModule(kMidB)->ClearReceived();
  host_.ClearRecords();

  SipJson request(kFanGet, 0, 3, 0);
  request.SetKey("CI", 77, true);
  EXPECT_EQ(1u, Send(request));
  EXPECT_EQ(0x00u, request.GetStatus(0));
  EXPECT_EQ("B0", DataText(request));
  EXPECT_EQ(3u, request.GetKey(0, "OI"));
  EXPECT_FALSE(request.HasKey(0, "MI")) << "the client's view: no lower module id";
  EXPECT_EQ(77u, request.GetKey(0, "CI"));

  const SipJson forwarded = OnlyReceived(*host_.FindModule(kMidB));
  EXPECT_EQ(kMidB, forwarded.GetKey(0, "MI"));
  EXPECT_EQ(0u, forwarded.GetKey(0, "OI"));
  ASSERT_EQ(1u, host_.SentRequests().size());
  EXPECT_EQ(5000u, host_.SentRequests()[0].timeoutMs);
  EXPECT_TRUE(Sink().HasLine(
      "\nEM_OIDMAP (TRANSLAT): CABID 0000: OC 0x0301-0x0000 OID 0x0000 MID 0x00020001"));
  EXPECT_TRUE(Sink().HasLine(
      "\nEM_OIDMAP (REPLY)   : CABID 0000: OC 0x0301-0x0000 OID 0x0003 MID 0x00020001 Stat 0x00"));
  EXPECT_TRUE(Sink().HasLine(
      "\nEM_OIDMAP (RET)     : OC 0x0301-0x0000 OID 0x0003 CABID 0000 MID 0x00000000 Stat 0x00 "
      "Len 3"));
  EXPECT_TRUE(host_.HandedBackMessages().empty()) << "a reply is not an event";

  // A request that already carries an answer is returned at once.
  SipJson answered(kFanGet, 0, 1, 0);
  answered.SetStatus(0x00);
  answered.SetModuleId(kMidB);
  EXPECT_EQ(1u, Send(answered));
  EXPECT_EQ(1u, host_.SentRequests().size());

  // B's second fan reports: the event goes up with its global index.
  host_.DeliverEventOnThread(kMidB, SipJson(kFanGet, 0, 1, 0));
  const auto handed = host_.HandedBackMessages();
  ASSERT_EQ(1u, handed.size());
  EXPECT_EQ(4u, handed[0].message.GetKey(0, "OI"));
  EXPECT_EQ(0xFFu, handed[0].statusDuringCall);
  EXPECT_TRUE(Sink().HasLine(
      "\nEM_OIDMAP (REPLY)   : Forward translated event from MID 0x00020001"));
}

TEST_F(RequestE2ETest, ObjectIdsOfEveryKind_ReachTheirOwner) {
  // Configuration value 0x71 counts through 0x0300; extended objects 0x0C00 with OE 0x1C06
  // count through 0x0C21 with the OE's high byte.
  SimModule& a = host_.AddModule(kMidA);
  SimModule& b = host_.AddModule(kMidB);
  a.SetInstanceCount(kFanCount, 0, 0, 3);
  b.SetInstanceCount(kFanCount, 0, 0, 2);
  for (SimModule* m : {&a, &b}) {
    const std::string owner = m == &a ? "A" : "B";
    m->SetInstanceCount(0x0C21, 0x1C, 0, 4);
    m->AddRule(Rule(0xE001, "\"" + owner + "-config\""));
    m->AddRule(Rule(0x0C00, "\"" + owner + "-sensor\""));
  }
  StartWithCabinets(0, {});

  struct Case {
    uint32_t oc, oe, globalOi;
    SimModule& owner;
    uint32_t localOi;
    const char* answer;
  };
  const Case cases[] = {
      {0xE001, 0x71, 4, b, 1, "B-config"},   {0xE001, 0x71, 2, a, 2, "A-config"},
      {0x0C00, 0x1C06, 5, b, 1, "B-sensor"}, {0x0C00, 0x1C06, 0, a, 0, "A-sensor"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << "OC 0x" << c.oc << " OI " << c.globalOi);
    c.owner.ClearReceived();
    SipJson request(c.oc, c.oe, c.globalOi, 0);
    EXPECT_EQ(1u, Send(request));
    EXPECT_EQ(c.answer, DataText(request));
    EXPECT_EQ(c.globalOi, request.GetKey(0, "OI"));
    EXPECT_EQ(c.localOi, OnlyReceived(c.owner).GetKey(0, "OI"));
  }
}

// Configuration reads merged by the value's rule; writes and declines, with the result the
// host gets and the status the client gets.
TEST_F(RequestE2ETest, Broadcasts_MergedResultAndStatus) {
  struct Case {
    uint32_t oc, oe;
    std::vector<std::pair<uint32_t, std::string>> replies;  // ST and DA of each module
    uint32_t result, st;
    std::optional<uint32_t> value;  // else: no data
    uint32_t length;
    bool broadcast;
    const char* trace;
  };
  constexpr uint32_t kTimeOut = 0x0F;  // the module answers later than the request waits
  const Case cases[] = {
      // RetryZeroAction: 3 outranks 0; 2 is none of the list; 0 is on it, 2 is not.
      {0xE001, 0x31, {{0, "0"}, {0, "3"}}, 1, 0, 3, 8, true,
       "\nEM_OIDMAP (MMR)     :   2 replies, use priority list; return value = 3"},
      {0xE001, 0x31, {{0, "2"}, {0, "2"}}, 1, 0, 2, 8, true, nullptr},
      {0xE001, 0x31, {{0, "0"}, {0, "2"}}, 1, 0, 0, 8, true, nullptr},
      {0xE001, 0x31, {{0, "4"}, {1, ""}}, 1, 0, 4, 8, true, nullptr},  // one reply: its value
      // ErrorOffRestartTime: the minimum in 16 bits (RebootRetryCounter's in one byte is
      // emhost's run_changes golden output).
      {0xE001, 0x32, {{0, "300"}, {0, "120"}}, 1, 0, 120, 2, true,
       "\nEM_OIDMAP (MMR)     :   min reply data value found; return value = 120"},
      // TempCriticalBiosOff: any 1.
      {0xE001, 0x77, {{0, "0"}, {0, "1"}}, 1, 0, 1, 8, true, nullptr},
      {0xE001, 0x77, {{0, "0"}, {1, ""}}, 1, 0, 0, 8, true, nullptr},
      {0xE001, 0x11, {{0, "\"3\""}, {0, "0"}}, 1, 0, 0, 8, true, nullptr},  // a text is no value
      {0xE001, 0x11, {{1, ""}, {1, ""}}, 1, 0x13, std::nullopt, 0, true,
       "\nEM_OIDMAP (MMR)     :   no replies, CmdStatus=0x13"},
      {0xE002, 0x315, {}, 0, 0x01, std::nullopt, 0, false,
       "\nEM_OIDMAP (MMR)     : no broadcast - always handled by EM_THRESH"},
      {0xE002, 0x1C05, {}, 0, 0x01, std::nullopt, 0, false,
       "\nEM_OIDMAP (MMR)     : handled by EM_GABI - do not broadcast"},
      {0xE002, 0x70, {}, 0, 0x01, std::nullopt, 0, false,
       "\nEM_OIDMAP (MMR)     : handled by EM_GABI - do not broadcast"},
      {0xE002, 0x00, {}, 1, 0x01, std::nullopt, 0, false,
       "\nEM_OIDMAP (MMR)     : handled by EM_IDENT"},
      {0xE002, 0x40, {{0x18, ""}, {0x00, "1"}}, 1, 0x00, std::nullopt, 0, true,
       "\nEM_OIDMAP (MMR)     : Write 0x40"},
      {0xE002, 0x40, {{0x18, ""}, {0x04, ""}}, 1, 0x04, std::nullopt, 0, true, nullptr},
      {0xE002, 0x40, {{0x06, ""}, {0x18, ""}}, 1, 0x18, std::nullopt, 0, true, nullptr},
      {0xE002, 0x40, {{0x06, ""}, {0x01, ""}}, 1, 0x06, std::nullopt, 0, true, nullptr},
      {0xE002, 0x40, {{kTimeOut, ""}, {0x01, ""}}, 1, 0x13, std::nullopt, 0, true, nullptr},
      {0x0310, 0, {{0x01, ""}, {0x00, "1"}}, 1, 0x00, std::nullopt, 0, true,
       "\nEM_OIDMAP (MMR)     : write to ALL modules"},
      {0x0310, 0, {{kTimeOut, ""}, {0x01, ""}}, 1, 0x0F, std::nullopt, 0, true, nullptr},
      {0x0310, 0, {{0x01, ""}, {0x01, ""}}, 1, 0x01, std::nullopt, 0, true, nullptr},
      // A log clear: done when any module did it, and the client's data dropped; else
      // 0x13 with the client's data as it was.
      {0x0B03, 0, {{0x01, ""}, {0x00, "1"}}, 1, 0x00, std::nullopt, 0, true, nullptr},
      {0x0B03, 0, {{0x01, ""}, {0x01, ""}}, 1, 0x13, 7, 8, true, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << &c - cases);
    SimHost host;
    for (size_t m = 0; m < c.replies.size(); ++m) {
      const auto& [st, da] = c.replies[m];
      hostsim::ReplyRule rule = st == kTimeOut ? Rule(c.oc, da, 0, 60000) : Rule(c.oc, da, st);
      rule.oe = c.oe;
      host.AddModule(m == 0 ? kMidA : kMidB).AddRule(rule);
    }
    Sink().Clear();
    StartOn(host);
    host.ClearRecords();
    SipJson request(c.oc, c.oe, 0, 0);
    if (c.oc != 0xE001) request.SetDataValue(7, 0x16);
    request.SetKey("CI", 9, true);
    EXPECT_EQ(c.result, Send(request));
    EXPECT_EQ(c.st, request.GetStatus(0));
    EXPECT_EQ(c.broadcast ? 1u : 0u, SentWithOpcode(host, c.oc));
    uint32_t value = 0;
    if (c.value) {
      EXPECT_TRUE(request.GetDataValue(0, value));
      EXPECT_EQ(*c.value, value);
      EXPECT_EQ(c.length, request.GetDataLength(0));
    } else if (c.oc != 0xE002) {
      EXPECT_FALSE(request.HasKey(0, "DA"));
    }
    if (c.trace != nullptr) {
      EXPECT_TRUE(Sink().HasLine(c.trace));
    }
    EXPECT_EQ(1u, request.CommandCount()) << "only the merged result reaches the client";
    EXPECT_EQ(9u, request.GetKey(0, "CI"));
    EXPECT_EQ(1u, Sink().Count("(RET)")) << "every way out is traced";
    Destroy();
  }
}

TEST_F(RequestE2ETest, LogEntryBroadcast_EveryModulesRecordsReachTheClient) {
  // Two whole 12-byte records from A, one from B followed by a cut one, nothing from a
  // module that does not keep a log.
  SimModule& a = host_.AddModule(kMidA);
  a.AddRule(Rule(0x0B00, R"({"RAW":[1,4,0,0, 5,0,0,0, 0,0, 0,0, 2,4,0,0, 6,0,0,0, 0,0, 0,0]})"));
  host_.AddModule(kMidB).AddRule(
      Rule(0x0B00, R"({"RAW":[3,4,0,0, 7,0,0,0, 0,0, 0,0, 9,9,0,2, 1]})"));
  host_.AddModule(0x00030001);
  StartWithCabinets(0, {});
  SipJson request(0x0B00, 0, 0, 0);
  EXPECT_EQ(1u, Send(request));
  EXPECT_EQ(0x00u, request.GetStatus(0));
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(request.GetDataBytes(0, bytes));
  ASSERT_EQ(36u, bytes.size());
  EXPECT_EQ((std::vector<uint8_t>{1, 2, 3}),
            (std::vector<uint8_t>{bytes[0], bytes[12], bytes[24]}));
  EXPECT_EQ(150000u, host_.SentRequests().back().timeoutMs);
  EXPECT_TRUE(Sink().HasLine("\nEM_OIDMAP (MMR)     :   3 replies received, analysing..."));
  EXPECT_EQ(2u, Sink().Count("got CM_LogEntry reply from MID"));
  // The lower modules get the client's request as it came, as a request: pending, not
  // the 0 that the client's answer is given.
  rapidjson::Document received;
  received.Parse(a.Received().back().c_str());
  EXPECT_EQ(0x0B00u, hostsim::CommandKey(received, "OC", 0));
  EXPECT_EQ(0x16u, hostsim::CommandKey(received, "ST", 0));
}

TEST_F(RequestE2ETest, BadInput_DefinedAnswersNoCrash) {
  SimModule& a = host_.AddModule(kMidA);
  AddFans(a, "A", 3);
  // A peer that claims 2^32-1 fans: start must neither hang nor map them all.
  a.SetInstanceCount(0x0400, 0, 0, 0xFFFFFFFF);
  AddFans(host_.AddModule(kMidB), "B", 2);
  host_.FindModule(kMidB)->AddRule(Rule(0x0310, "1"));
  StartWithCabinets(0, {});

  struct Case {
    std::string json;
    int32_t index;
    uint32_t result, st;
    const char* answer;  // DA text, or nullptr
  };
  const Case cases[] = {
      {R"({"SIP":{"V":1}})", 0, 0, 0x01, nullptr},                              // no CMD
      {R"({"SIP":{"V":1,"CMD":{"OC":769}}})", 0, 0, 0x16, nullptr},             // CMD not an array
      {R"({"SIP":{"V":1,"CMD":[{"OC":769,"OI":3}]}})", 4, 0, 0x01, nullptr},    // index past the end
      {R"({"SIP":{"V":1,"CMD":[{"OC":769,"OI":3}]}})", -1, 0, 0x16, nullptr},   // negative index
      {R"({"SIP":{"V":1,"CMD":[{"OC":"0x0301","OI":"4","CA":0}]}})", 0, 1, 0x00, "B1"},
      {R"({"SIP":{"V":1,"CMD":[{"OC":769,"OI":[3],"CA":{}}]}})", 0, 1, 0x00, "A0"},
      {R"({"SIP":{"V":1,"CMD":[{"OC":"0x0310","CA":0,"DA":"x"}]}})", 0, 1, 0x00, nullptr},
      {R"({"SIP":{"V":1,"CMD":[{"OC":57345,"OE":49,"DA":"3"}]}})", 0, 1, 0x13, nullptr},
      {R"({"SIP":{"V":1,"CMD":[7]}})", 0, 0, 0x16, nullptr},                    // command not an object
      {R"({"SIP":{"V":1,"CMD":[{"OC":2854,"CA":0}]}})", 0, 0, 0x01, nullptr},    // 0x0B26: not ours
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    SipJson msg;
    ASSERT_TRUE(msg.Parse(c.json));
    msg.SetCurrentIndex(c.index);
    EXPECT_EQ(c.result, Send(msg));
    EXPECT_EQ(c.st, msg.GetStatus(c.index));
    if (c.answer != nullptr) {
      EXPECT_EQ(c.answer, DataText(msg, c.index));
    }
  }
  EXPECT_TRUE(Sink().HasLine(
      "\nEM_OIDMAP (REQ)     : OC 0x0310-0x0000 OID 0x0000 CABID 0000 MID 0x00000000 Stat 0x16 Len 2"))
      << "an opcode sent as text is traced by its value";
}

// A host whose hand-back fails: the reply handler must report it and stay usable.
class ThrowingHandBackHost : public SimHost {
 public:
  uint32_t HandBack(CIExtensionModule* module, SipJson& msg) override {
    if (msg.GetOpcode(msg.CurrentIndex()) == 0x0B03) throw std::runtime_error("host failure");
    return SimHost::HandBack(module, msg);
  }
};

// Each case makes the reply handler fail at another point: the host's hand-back before
// any lock is taken, and the host's trace output (the sink's observer throws) while the
// cabinet's entry lock or the module's cache lock is held. A clear of the cache needs both
// locks afterwards.
TEST_F(RequestE2ETest, ExceptionInReplyHandler_BannerAndNoLockLeftHeld) {
  const std::string stars(96, '*');
  const std::vector<uint8_t> record = EncodeLog({Unified(0x77, 1)});
  const struct {
    const char* name;
    const char* throwOn;  // trace line at which the host's output fails
    uint32_t oc;
    uint32_t ca;
    uint32_t events;  // log events delivered (1000, 1001, ... once beyond cabinet 3)
  } cases[] = {
      {"hand-back", nullptr, 0x0B03, 3, 1},
      {"entry lock", "entries stored to messag log cache", 0x0B16, 3, 1},
      // Cabinet 3's cache and 199 others fill the table; the next cabinet is refused.
      {"cache lock", "too many cabinets", 0x0B16, 1199, 200},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ThrowingHandBackHost host;
    host.AddModule(kMidA).AddRule(Rule(0x0B03, "1"));
    Sink().Clear();
    Create();
    module_->SetServerCabinet(3);
    module_->Start(&host, host.Attach(module_));

    // The host's output fails once, at the case's line, as a failing host's would.
    bool thrown = false;
    if (c.throwOn != nullptr) {
      Sink().SetObserver([&](const std::string& line) {
        if (!thrown && line.find(c.throwOn) != std::string::npos) {
          thrown = true;
          throw std::runtime_error("trace output failed");
        }
      });
    }
    if (c.oc == 0x0B03) {
      host.DeliverEventOnThread(kMidA, SipJson(0x0B03, 0, 0, 3));
    } else if (c.events == 1) {
      host.DeliverEventOnThread(kMidA, LogEvent(0x0B16, record, c.ca));
    } else {
      for (uint32_t n = 0; n < c.events; ++n) host.DeliverEvent(kMidA, LogEvent(0x0B16, record, 1000 + n));
    }
    Sink().SetObserver(nullptr);
    EXPECT_EQ(c.throwOn != nullptr, thrown);
    EXPECT_TRUE(Sink().HasLine("\n\n" + stars));
    char banner[96];
    snprintf(banner, sizeof banner, "CAB %04u: FATAL ERROR! EXCEPTION in Reply Handler at OpCode 0x%04X!",
             c.ca, c.oc);
    EXPECT_TRUE(Traced(banner));
    EXPECT_TRUE(Sink().HasLine("\n" + stars + "\n"));

    // Another thread clears the same cabinet's cache: it needs the cache lock.
    auto clear = std::async(std::launch::async, [&] {
      SipJson request(0x0B03, 0, 0, 3);
      module_->OnRequest(request);
      return request.GetStatus(0);
    });
    if (clear.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
      ADD_FAILURE() << c.name << ": the clear still waits for a lock the handler kept";
      fflush(stdout);
      std::_Exit(1);  // the waiting thread can never be joined
    }
    EXPECT_EQ(0x00u, clear.get());
    EXPECT_EQ(1u, Lib().destroy());  // before the local host goes
    module_ = nullptr;
  }
}

TEST_F(RequestE2ETest, ConcurrentRequestsAndEvents_WhileStartIsRunning) {
  AddFans(host_.AddModule(kMidA), "A", 3);
  AddFans(host_.AddModule(kMidB), "B", 2);
  host_.FindModule(kMidA)->SetConfigValue(0x31, 3);
  host_.FindModule(kMidB)->SetConfigValue(0x31, 0);

  // Start's first count broadcast is held until every request thread is on its way.
  std::mutex gate_mutex;
  std::condition_variable gate;
  bool start_entered = false;
  int ready_threads = 0;
  constexpr int kRequestThreads = 4;
  std::atomic<bool> hold_start{true};
  host_.SetRequestHook([&](const SipJson&) {
    if (!hold_start.exchange(false)) return;
    std::unique_lock<std::mutex> lock(gate_mutex);
    start_entered = true;
    gate.notify_all();
    gate.wait_for(lock, std::chrono::seconds(10), [&] { return ready_threads == kRequestThreads; });
    lock.unlock();
    // Start goes on once every request thread's first request has entered the module
    // (each is traced on entry, before the request waits for start).
    EXPECT_TRUE(WaitForTrace("EM_OIDMAP (REQ)     : OC 0x0301", kRequestThreads, 10));
  });

  Create();
  module_->SetServerCabinet(0);
  std::atomic<bool> started{false};
  std::thread starter([&] {
    module_->Start(&host_, host_.Attach(module_));
    started = true;
  });
  {
    std::unique_lock<std::mutex> lock(gate_mutex);
    ASSERT_TRUE(gate.wait_for(lock, std::chrono::seconds(10), [&] { return start_entered; }));
  }

  constexpr int kRounds = 40;
  const char* const kOwners[] = {"A0", "A1", "A2", "B0", "B1"};
  std::atomic<int> wrong{0};
  std::atomic<int> before_start_done{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kRequestThreads; ++t) {
    threads.emplace_back([&, t] {
      {
        std::lock_guard<std::mutex> lock(gate_mutex);
        ++ready_threads;
        gate.notify_all();
      }
      for (int round = 0; round < kRounds; ++round) {
        if (!started) ++before_start_done;
        const uint32_t oi = static_cast<uint32_t>((t + round) % 5);
        SipJson request(kFanGet, 0, oi, 0);
        if (module_->OnRequest(request) != 1 || DataText(request) != kOwners[oi] ||
            request.GetKey(0, "OI") != oi) {
          ++wrong;
        }
        SipJson read(0xE001, 0x31, 0, 0);
        uint32_t value = 0;
        if (module_->OnRequest(read) != 1 || !read.GetDataValue(0, value) || value != 3) ++wrong;
      }
    });
  }
  std::atomic<int> late_events_wrong{0};
  int late_events = 0;
  std::thread events([&] {
    for (int round = 0; round < kRounds * 2; ++round) {
      const bool after_start = started;
      SipJson event = host_.DeliverEvent(kMidB, SipJson(kFanGet, 0, 1, 0));
      if (after_start) {
        ++late_events;
        if (event.GetKey(0, "OI") != 4) ++late_events_wrong;
      }
    }
  });
  for (auto& thread : threads) thread.join();
  events.join();
  starter.join();

  EXPECT_EQ(0, wrong.load());
  EXPECT_GT(before_start_done.load(), 0) << "some requests were sent while start ran";
  EXPECT_EQ(0, late_events_wrong.load()) << "of " << late_events << " events after start";
}

}  // namespace
}  // namespace em_oidmap::e2e
