#include "hostsim/SimHost.h"

#include <chrono>
#include <mutex>
#include <optional>
#include <thread>

#include <gtest/gtest.h>

#include "hostsim/SimLog.h"
#include "module/ExtensionModule.h"
#include "tests/sip/SipJsonTestUtil.h"

namespace em_oidmap::hostsim {
namespace {

using std::chrono::milliseconds;

constexpr uint32_t kMidA = 0x00010001;
constexpr uint32_t kMidB = 0x00020001;
constexpr uint32_t kMidC = 0x00030001;

ReplyRule Rule(uint32_t oc, std::string data = "", uint32_t delayMs = 0,
               std::optional<uint32_t> oi = std::nullopt) {
  ReplyRule rule;
  rule.oc = oc;
  rule.dataJson = std::move(data);
  rule.delayMs = delayMs;
  rule.oi = oi;
  return rule;
}

// Records every reply the host passes to it, then moves the cursor, which the host must undo.
class RecordingModule : public CExtensionModule {
 public:
  struct Reply {
    int32_t index;
    uint32_t commandCount, mid;
    std::thread::id thread;
  };
  std::vector<Reply> Replies() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return replies_;
  }
  void OnReply(SipJson& reply) override {
    const int32_t i = reply.CurrentIndex();
    std::lock_guard<std::mutex> lock(mutex_);
    replies_.push_back(
        {i, reply.CommandCount(), reply.GetKey(i, "MI"), std::this_thread::get_id()});
    reply.SetCurrentIndex(7);
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Reply> replies_;
};

uint32_t DataValue(const SipJson& msg, int32_t index) {
  uint32_t value = 0xDEAD;
  msg.GetDataValue(index, value);
  return value;
}

class SimHostTest : public ::testing::Test {
 protected:
  SipJson Send(SipJson msg, uint32_t mi = 0, uint32_t timeoutMs = 5000) {
    if (mi != 0) msg.SetKey("MI", mi, false);
    host.SendRequest(context, msg, timeoutMs);
    return msg;
  }

  SimHost host;
  RecordingModule module;
  uint64_t context = host.Attach(&module);
};

TEST_F(SimHostTest, Broadcast_OneReplyPerModuleInHostOrder) {
  host.AddModule(kMidA).SetInstanceCount(0x0300, 0, 0, 3);
  host.AddModule(kMidB).SetInstanceCount(0x0300, 0, 0, 2);
  host.AddModule(kMidC);  // handles nothing
  // The earlier command and the request's data are gone after the broadcast.
  SipJson msg = FromText(R"({"SIP":{"CMD":[{"OC":9},{"OC":768,"MI":4294967295,"DA":99}]}})");
  msg.SetCurrentIndex(1);
  host.SendRequest(context, msg, 5000);

  ASSERT_EQ(msg.CommandCount(), 3u);
  EXPECT_EQ(msg.CurrentIndex(), 0);
  const uint32_t mids[] = {kMidA, kMidB, kMidC};
  const uint32_t statuses[] = {0x00, 0x00, 0x01};
  const uint32_t data[] = {3, 2, 0xDEAD};
  const auto replies = module.Replies();
  ASSERT_EQ(replies.size(), 3u);  // one OnReply per reply command, at its index
  for (int32_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(msg.GetOpcode(i), 0x0300u);
    EXPECT_EQ(msg.GetKey(i, "MI"), mids[i]);
    EXPECT_EQ(msg.GetStatus(i), statuses[i]);
    EXPECT_EQ(DataValue(msg, i), data[i]);
    EXPECT_EQ(replies[i].index, i);
    EXPECT_EQ(replies[i].mid, mids[i]);
    EXPECT_EQ(replies[i].commandCount, 3u);
  }

  // To all cabinets, the rules of every cabinet match.
  host.FindModule(kMidB)->SetInstanceCount(0x0301, 0, 7, 5);
  SipJson all = Send({0x0301, 0, 0, kAllCabinets}, kAllModules);
  EXPECT_EQ(DataValue(all, 1), 5u);
  EXPECT_EQ(all.GetKey(1, "CA"), kAllCabinets);
}

TEST_F(SimHostTest, SingleDelivery_ByMiOrFirstTakerElseStatus1) {
  host.AddModule(kMidA).SetInstanceCount(0x0300, 0, 0, 3);
  host.AddModule(kMidB).AddRule(Rule(0x0301, "7", 0, 1));
  host.AddModule(kMidC).AddRule(Rule(0x0301, "2"));
  const struct { const char* command; uint32_t mid, status, data; } cases[] = {
      {R"({"OC":769,"OI":1,"MI":196609})", kMidC, 0, 2},  // the MI wins over the first taker
      {R"({"OC":769,"OI":1})", kMidB, 0, 7},              // the first module with a matching rule
      {R"({"OC":769,"OI":2})", kMidC, 0, 2},
      {R"({"OC":768,"MI":10027009,"DA":5})", 0x00990001, 1, 0xDEAD},  // unknown MI: data dropped
      {R"({"OC":2840,"MI":65537})", kMidA, 1, 0xDEAD},                // opcode not handled
      {R"({"OC":2840})", 0, 1, 0xDEAD},                               // no taker, no MI
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    // Only the current command is replaced, and the cursor stays on it.
    SipJson msg = FromText(std::string(R"({"SIP":{"CMD":[{"OC":1},)") + c.command +
                           R"(,{"OC":2}]}})");
    msg.SetCurrentIndex(1);
    const size_t before = module.Replies().size();
    host.SendRequest(context, msg, 5000);
    ASSERT_EQ(msg.CommandCount(), 3u);
    EXPECT_EQ(msg.CurrentIndex(), 1);
    EXPECT_EQ(msg.GetOpcode(0), 1u);
    EXPECT_EQ(msg.GetOpcode(2), 2u);
    EXPECT_EQ(msg.GetKey(1, "MI"), c.mid);
    EXPECT_EQ(msg.GetStatus(1), c.status);
    EXPECT_EQ(DataValue(msg, 1), c.data);
    ASSERT_EQ(module.Replies().size(), before + 1);  // the sender sees every answer
    EXPECT_EQ(module.Replies().back().index, 1);
  }
}

TEST_F(SimHostTest, Timeout_LongDelayAnswers0x0FAtOnceShortDelayReallyWaits) {
  host.AddModule(kMidA).AddRule(Rule(0x0301, "7", 600000));
  host.AddModule(kMidB).AddRule(Rule(0x0301, "8", 30));
  // A host that waited for the time-out would take all of it; a long time-out keeps a
  // loaded machine under a sanitizer far from that bound.
  constexpr uint32_t kTimeoutMs = 30000;
  const auto start = std::chrono::steady_clock::now();
  SipJson slow = Send({0x0301, 0, 0, 0}, kAllModules, kTimeoutMs);
  const auto elapsedMs =
      std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start).count();
  EXPECT_GE(elapsedMs, 30);
  EXPECT_LT(elapsedMs, kTimeoutMs);
  EXPECT_EQ(slow.GetStatus(0), 0x0Fu);
  EXPECT_FALSE(slow.HasKey(0, "DA"));
  EXPECT_EQ(DataValue(slow, 1), 8u);
  // The simulated time: the delay waited and the whole time-out of the late reply.
  EXPECT_EQ(host.SentRequests().back().simulatedMs, 30u + kTimeoutMs);
  // The same short delay above a shorter time-out is a time-out too.
  EXPECT_EQ(Send({0x0301, 0, 0, 0}, kMidB, 10).GetStatus(0), 0x0Fu);
}

// A host that runs all day forgets old records; the others keep their numbers, so that a
// reader goes on from the number it stopped at.
TEST_F(SimHostTest, Records_KeepTheirNumbersWhenOlderOnesAreForgotten) {
  host.AddModule(kMidA).AddRule(Rule(0x0301, "1"));
  for (uint32_t oi = 0; oi < 3; ++oi) Send({0x0301, 0, oi, 0}, kMidA);
  host.ForgetRecordsBefore(2, 0);
  EXPECT_EQ(host.SentCount(), 3u);
  EXPECT_EQ(host.SentRequests().size(), 1u);
  ASSERT_EQ(host.SentRequestsFrom(1).size(), 1u) << "from the first one kept";
  EXPECT_NE(host.SentRequestsFrom(2)[0].json.find("\"OI\":2"), std::string::npos);
  EXPECT_TRUE(host.SentRequestsFrom(3).empty());
  EXPECT_TRUE(host.WaitForMore(2, 0, milliseconds(1)));
  EXPECT_FALSE(host.WaitForMore(3, 0, milliseconds(1)));
}

// A log event's record joins its module's log (the golden runs never read a log again
// after an event); an event delivered on a thread reaches the module on that thread.
TEST_F(SimHostTest, Events_LogRecordsJoinTheLogAndOnThreadMeansAnotherThread) {
  SimModule& a = host.AddModule(kMidA);
  a.SetLog(kOcLogMessageArguments, std::nullopt, {1, 2});
  rapidjson::Document event;
  event.Parse(R"({"OC":2838,"CA":0,"DA":{"RAW":[3]}})");
  EXPECT_TRUE(a.ApplyEvent(event));
  event.Parse(R"({"OC":2838,"CA":0,"DA":5})");
  EXPECT_FALSE(a.ApplyEvent(event)) << "no raw bytes";
  const SipJson log = Send({0x0B16, 0, 0, 0}, kMidA);
  EXPECT_EQ(ToJsonText(log.Command(0)->FindMember("DA")->value), R"({"RAW":[1,2,3]})");

  host.DeliverEventOnThread(kMidA, SipJson(0x0B10, 0, 3, 0));
  const auto replies = module.Replies();
  ASSERT_EQ(replies.size(), 2u);  // the log's answer and the event
  EXPECT_EQ(replies[0].thread, std::this_thread::get_id());
  EXPECT_NE(replies[1].thread, std::this_thread::get_id());
}

}  // namespace
}  // namespace em_oidmap::hostsim
