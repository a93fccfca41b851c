#include "hostsim/SimHost.h"

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "module/CIExtensionModule.h"

namespace hostsim {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr uint32_t kMidA = 0x00010001;
constexpr uint32_t kMidB = 0x00020001;
constexpr uint32_t kMidC = 0x00030001;

ReplyRule Rule(uint32_t oc, std::string data = "", uint32_t delayMs = 0) {
  ReplyRule rule;
  rule.oc = oc;
  rule.dataJson = std::move(data);
  rule.delayMs = delayMs;
  return rule;
}

// A bare extension module: it records every reply the host passes to it.
class RecordingModule : public CIExtensionModule {
 public:
  struct Reply {
    int32_t index;
    uint32_t commandCount;
    uint32_t mid;
    uint32_t status;
    std::thread::id thread;
  };

  std::vector<Reply> Replies() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return replies_;
  }

  void OnReply(SipJson& reply) override {
    const int32_t i = reply.CurrentIndex();
    Reply r{i, reply.CommandCount(), reply.GetKey(i, "MI"), reply.GetStatus(i),
            std::this_thread::get_id()};
    {
      std::lock_guard<std::mutex> lock(mutex_);
      replies_.push_back(r);
    }
    reply.SetCurrentIndex(7);  // the host must restore the index, whatever a module does
  }

  // Nothing else is used by the host tests.
  uint32_t GetModuleInfo(void*) override { return 0; }
  uint32_t Query4() override { return 1; }
  uint32_t Start(CIModuleHost*, uint64_t) override { return 1; }
  uint32_t Stop() override { return 1; }
  void Rescan() override {}
  uint32_t OnRequest(SipJson&) override { return 0; }
  uint32_t SetServerCabinet(uint32_t) override { return 1; }
  uint32_t Notify(uint32_t, uint32_t, uintptr_t) override { return 0; }
  const char* GetModuleTag() override { return "EM_TEST"; }
  uint32_t Query10() override { return 0; }
  uint32_t Query12() override { return 0; }
  uint32_t Query13() override { return 0; }
  void Hook16() override {}
  void Hook17() override {}
  void Hook18() override {}
  void Hook19() override {}
  uint32_t Query20() override { return 0; }
  uint32_t Query21() override { return 0; }
  uint32_t Query22() override { return 0; }
  uint32_t Query23() override { return 0; }
  uint32_t OnModuleNotification(uint32_t, uint32_t, uintptr_t) override { return 0; }

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
  SimHost host;
  RecordingModule module;
  uint64_t context = host.Attach(&module);
};

TEST_F(SimHostTest, Broadcast_OneReplyPerModuleInHostOrder) {
  host.AddModule(kMidA).SetInstanceCount(0x0300, 0, 0, 3);
  host.AddModule(kMidB).SetInstanceCount(0x0300, 0, 0, 2);
  host.AddModule(kMidC);  // handles nothing

  SipJson msg(0x0999, 0, 0, 0);  // an earlier command, gone after the broadcast
  msg.SetCurrentIndex(1);
  msg.SetCommandHeader(0x0300, 0, 0, 0);
  msg.SetDataValue(99, 0x16);  // request data is not kept
  msg.SetKey("MI", kAllModules, false);
  host.SendRequest(context, msg, 5000);

  ASSERT_EQ(msg.CommandCount(), 3u);
  EXPECT_EQ(msg.CurrentIndex(), 0);
  const uint32_t mids[] = {kMidA, kMidB, kMidC};
  const uint32_t statuses[] = {0x00, 0x00, 0x01};
  const auto replies = module.Replies();
  ASSERT_EQ(replies.size(), 3u);  // one OnReply per reply command, at its index
  for (int32_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(msg.GetOpcode(i), 0x0300u);
    EXPECT_EQ(msg.GetKey(i, "MI"), mids[i]);
    EXPECT_EQ(msg.GetStatus(i), statuses[i]);
    EXPECT_EQ(replies[i].index, i);
    EXPECT_EQ(replies[i].mid, mids[i]);
    EXPECT_EQ(replies[i].commandCount, 3u);
  }
  EXPECT_EQ(DataValue(msg, 0), 3u);
  EXPECT_EQ(DataValue(msg, 1), 2u);
  EXPECT_FALSE(msg.HasKey(2, "DA"));
}

TEST_F(SimHostTest, Broadcast_ToAllCabinetsMatchesRulesOfEveryCabinet) {
  host.AddModule(kMidA).SetInstanceCount(0x0300, 0, 0, 3);
  host.AddModule(kMidB).SetInstanceCount(0x0300, 0, 7, 2);
  SipJson msg(0x0300, 0, 0, kAllCabinets);
  host.SendRequest(context, msg, 5000);
  ASSERT_EQ(msg.CommandCount(), 2u);
  EXPECT_EQ(DataValue(msg, 0), 3u);
  EXPECT_EQ(DataValue(msg, 1), 2u);
  EXPECT_EQ(msg.GetKey(1, "CA"), kAllCabinets);
}

TEST_F(SimHostTest, SingleDelivery_ByMi_ReplacesTheCurrentCommandOnly) {
  host.AddModule(kMidA).AddRule(Rule(0x0301, "\"from A\""));
  host.AddModule(kMidB).AddRule(Rule(0x0301, "{\"RAW\":[1,2,3]}"));
  SipJson msg(0x0100, 0, 0, 0);
  msg.SetCurrentIndex(2);
  msg.SetCommandHeader(0x0200, 0, 0, 0);
  msg.SetCurrentIndex(1);
  msg.SetCommandHeader(0x0301, 0, 4, 0);
  msg.SetKey("MI", kMidB, false);

  host.SendRequest(context, msg, 5000);

  ASSERT_EQ(msg.CommandCount(), 3u);
  EXPECT_EQ(msg.CurrentIndex(), 1);
  EXPECT_EQ(msg.GetOpcode(0), 0x0100u);
  EXPECT_EQ(msg.GetOpcode(2), 0x0200u);
  EXPECT_EQ(msg.GetKey(1, "MI"), kMidB);
  EXPECT_EQ(msg.GetStatus(1), 0u);
  EXPECT_EQ(msg.GetDataForm(1), SipDataForm::kRawBytes);
  const auto replies = module.Replies();
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(replies[0].index, 1);
  EXPECT_TRUE(host.FindModule(kMidA)->Received().empty());
}

TEST_F(SimHostTest, SingleDelivery_WithoutMi_GoesToFirstModuleWithAMatchingRule) {
  host.AddModule(kMidA).SetInstanceCount(0x0300, 0, 0, 3);
  ReplyRule oneOnly = Rule(0x0301, "1");
  oneOnly.oi = 1;
  host.AddModule(kMidB).AddRule(oneOnly);
  host.AddModule(kMidC).AddRule(Rule(0x0301, "2"));

  SipJson first(0x0301, 0, 1, 0);
  host.SendRequest(context, first, 5000);
  EXPECT_EQ(first.GetKey(0, "MI"), kMidB);

  SipJson second(0x0301, 0, 2, 0);
  host.SendRequest(context, second, 5000);
  EXPECT_EQ(second.GetKey(0, "MI"), kMidC);
  EXPECT_EQ(DataValue(second, 0), 2u);
  EXPECT_TRUE(host.FindModule(kMidA)->Received().empty());
}

TEST_F(SimHostTest, NotHandled_UnknownMiUnhandledOpcodeOrNoTakerAnswerStatus1) {
  host.AddModule(kMidA).SetInstanceCount(0x0300, 0, 0, 3);

  SipJson unknown(0x0300, 0, 0, 0);
  unknown.SetKey("MI", 0x00990001, false);
  unknown.SetDataValue(5, 0x16);
  host.SendRequest(context, unknown, 5000);
  EXPECT_EQ(unknown.GetStatus(0), 1u);
  EXPECT_EQ(unknown.GetKey(0, "MI"), 0x00990001u);
  EXPECT_FALSE(unknown.HasKey(0, "DA"));

  SipJson unhandled(0x0B18, 0, 0, 0);
  unhandled.SetKey("MI", kMidA, false);
  host.SendRequest(context, unhandled, 5000);
  EXPECT_EQ(unhandled.GetStatus(0), 1u);
  EXPECT_EQ(unhandled.GetKey(0, "MI"), kMidA);

  SipJson noTaker(0x0B18, 0, 0, 0);
  host.SendRequest(context, noTaker, 5000);
  EXPECT_EQ(noTaker.GetStatus(0), 1u);
  EXPECT_FALSE(noTaker.HasKey(0, "MI"));

  EXPECT_EQ(module.Replies().size(), 3u);  // the sender sees every answer
}

TEST_F(SimHostTest, Timeout_LongDelayAnswers0x0FAtOnceShortDelayReallyWaits) {
  host.AddModule(kMidA).AddRule(Rule(0x0301, "7", 600000));
  host.AddModule(kMidB).AddRule(Rule(0x0301, "8", 30));

  SipJson slow(0x0301, 0, 0, 0);
  slow.SetKey("MI", kAllModules, false);
  const auto start = steady_clock::now();
  host.SendRequest(context, slow, 1000);
  const auto elapsed = steady_clock::now() - start;
  EXPECT_GE(elapsed, milliseconds(30));
  EXPECT_LT(elapsed, milliseconds(1000));
  EXPECT_EQ(slow.GetStatus(0), 0x0Fu);
  EXPECT_FALSE(slow.HasKey(0, "DA"));
  EXPECT_EQ(DataValue(slow, 1), 8u);

  // The same short delay above a shorter time-out is a time-out too.
  SipJson tight(0x0301, 0, 0, 0);
  tight.SetKey("MI", kMidB, false);
  host.SendRequest(context, tight, 10);
  EXPECT_EQ(tight.GetStatus(0), 0x0Fu);
}

TEST_F(SimHostTest, RequestHook_HoldsTheSenderUntilTheTestReleasesIt) {
  host.AddModule(kMidA).AddRule(Rule(0x0B16));
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  host.SetRequestHook([released](const SipJson& request) {
    if (request.GetOpcode(request.CurrentIndex()) == 0x0B16) released.wait();
  });
  std::atomic<bool> done{false};
  SipJson msg(0x0B16, 0, 0, 0);
  std::thread sender([&] {
    host.SendRequest(context, msg, 5000);
    done = true;
  });
  ASSERT_TRUE(host.WaitForRequests(1, milliseconds(5000)));
  EXPECT_FALSE(done.load());
  release.set_value();
  sender.join();
  EXPECT_TRUE(done.load());
  EXPECT_EQ(msg.GetStatus(0), 0u);
}

TEST_F(SimHostTest, ConcurrentSenders_EachGetTheirOwnAnswer) {
  SimModule& a = host.AddModule(kMidA);
  for (uint32_t oi = 0; oi < 8; ++oi) {
    ReplyRule rule = Rule(0x0301, std::to_string(100 + oi));
    rule.oi = oi;
    a.AddRule(rule);
  }
  constexpr int kThreads = 4;
  constexpr int kPerThread = 50;
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int n = 0; n < kPerThread; ++n) {
        const uint32_t oi = static_cast<uint32_t>((t + n) % 8);
        SipJson msg(0x0301, 0, oi, 0);
        host.SendRequest(context, msg, 5000);
        if (DataValue(msg, 0) != 100 + oi) ++wrong;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(host.SentRequests().size(), static_cast<size_t>(kThreads * kPerThread));
  EXPECT_EQ(module.Replies().size(), static_cast<size_t>(kThreads * kPerThread));
}

TEST_F(SimHostTest, Records_SentRequestsAlternateSendsAndHandBacks) {
  SipJson request(0x0300, 0, 0, 2);
  host.SendRequest(context, request, 150000);
  SipJson other(0x0301, 0, 0, 0);
  host.SendRequest(context + 1, other, 5000);  // not the attached module's context
  const auto sent = host.SentRequests();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].timeoutMs, 150000u);
  EXPECT_EQ(sent[0].context, context);
  EXPECT_EQ(sent[0].json, "{\"SIP\":{\"V\":1,\"CMD\":[{\"OC\":768,\"CA\":2}]}}");
  EXPECT_EQ(module.Replies().size(), 1u);  // a stranger's replies go nowhere

  SipJson alternate(0x0400, 0, 0, 0);
  host.AlternateSend(&module, alternate, 0);
  EXPECT_EQ(alternate.GetStatus(0), 1u);
  EXPECT_EQ(host.AlternateSends().size(), 1u);

  // Hand-backs come from the module's worker: wait for them, and keep what the host saw.
  std::thread worker([&] {
    SipJson event(0x0B10, 0, 0, 0);
    event.SetDataValue(17, 0xFF);
    host.HandBack(&module, event);
    event.SetStatus(0x00);
    event.SetDataValue(18, 0x00);
  });
  ASSERT_TRUE(host.WaitForHandBacks(1, milliseconds(5000)));
  worker.join();
  const auto handed = host.HandedBackMessages();
  ASSERT_EQ(handed.size(), 1u);
  EXPECT_EQ(handed[0].statusDuringCall, 0xFFu);
  EXPECT_EQ(DataValue(handed[0].message, 0), 17u);
  EXPECT_FALSE(host.WaitForHandBacks(2, milliseconds(1)));
}

TEST_F(SimHostTest, SeCabinets_ListFailureAndTheCountLimit) {
  const uint32_t* cabinets = nullptr;
  uint8_t count = 99;
  EXPECT_TRUE(host.EnumerateSeCabinets(0, &cabinets, &count));
  EXPECT_EQ(count, 0u);

  host.SetSeCabinets({1, 2});
  ASSERT_TRUE(host.EnumerateSeCabinets(4, &cabinets, &count));
  ASSERT_EQ(count, 2u);
  EXPECT_EQ(cabinets[0], 1u);
  EXPECT_EQ(cabinets[1], 2u);
  EXPECT_EQ(host.LastEnumeratedServerCabinet(), 4);

  std::vector<uint32_t> many(300);
  for (uint32_t i = 0; i < many.size(); ++i) many[i] = 1000 + i;
  host.SetSeCabinets(many);
  ASSERT_TRUE(host.EnumerateSeCabinets(0, &cabinets, &count));
  ASSERT_EQ(count, 255u);
  EXPECT_EQ(cabinets[254], 1254u);

  host.SetSeCabinets({1}, false);
  const uint32_t* untouched = nullptr;
  count = 42;
  EXPECT_FALSE(host.EnumerateSeCabinets(0, &untouched, &count));
  EXPECT_EQ(untouched, nullptr);
  EXPECT_EQ(count, 42u);
}

TEST_F(SimHostTest, DeliverEvent_MarksTheEventAndCallsOnReplyOnTheChosenThread) {
  SipJson event(0x0B10, 0, 3, 0);
  event.SetStatus(0x00);
  SipJson delivered = host.DeliverEvent(kMidB, event);
  EXPECT_EQ(delivered.GetStatus(0), 0xFFu);
  EXPECT_EQ(delivered.GetKey(0, "MI"), kMidB);
  host.DeliverEventOnThread(kMidA, event);

  const auto replies = module.Replies();
  ASSERT_EQ(replies.size(), 2u);
  EXPECT_EQ(replies[0].thread, std::this_thread::get_id());
  EXPECT_EQ(replies[0].status, 0xFFu);
  EXPECT_NE(replies[1].thread, std::this_thread::get_id());
  EXPECT_EQ(replies[1].mid, kMidA);
}

TEST(SimModuleTest, RulesMatchInOrder_SettersReplace_OverridesComeFirst) {
  SimHost host;
  SimModule& a = host.AddModule(kMidA);
  a.SetConfigValue(0x31, 3);
  a.SetConfigValue(0x31, 4);  // replaces the first value
  a.SetConfigText(0x211, "call \"us\"");
  a.AddRule(Rule(0x0301, "1"));
  a.AddRule(Rule(0x0301, "2"));  // never reached
  EXPECT_EQ(a.Rules().size(), 4u);

  auto ask = [&](uint32_t oc, uint32_t oe) {
    SipJson msg(oc, oe, 0, 0);
    msg.SetKey("MI", kMidA, false);
    host.SendRequest(0, msg, 5000);
    return msg;
  };
  EXPECT_EQ(DataValue(ask(0xE001, 0x31), 0), 4u);
  std::string text;
  ASSERT_TRUE(ask(0xE001, 0x211).GetDataString(0, text));
  EXPECT_EQ(text, "call \"us\"");
  EXPECT_EQ(DataValue(ask(0x0301, 0), 0), 1u);

  a.SetStatusOverride(0xE001, 0x13);
  SipJson overridden = ask(0xE001, 0x31);
  EXPECT_EQ(overridden.GetStatus(0), 0x13u);
  EXPECT_FALSE(overridden.HasKey(0, "DA"));
  EXPECT_EQ(ask(0x0301, 0).GetStatus(0), 0u);
}

}  // namespace
}  // namespace hostsim
