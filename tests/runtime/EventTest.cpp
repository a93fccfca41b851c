#include "runtime/Event.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "TestUtil.h"

namespace {

using hostsim::Sink;
using runtime_test::TracedTest;
using runtime_test::WaitForTrace;
using runtime_test::WaitUntil;

constexpr uint32_t kLongWaitMs = 10000;
const char* const kPrepare = "prepare time for waiting on event";

std::string Fmt(const char* format, const void* p, const char* name = "") {
  char buf[256];
  snprintf(buf, sizeof buf, format, p, name);
  return buf;
}

// Threads waiting on a shared handle, each recording its wait result.
class Waiters {
 public:
  Waiters(CEvent& event, int n) : results_(n) {
    for (int i = 0; i < n; ++i) {
      results_[i] = -2;
      threads_.emplace_back([this, &event, i] {
        results_[i] = event.Wait(kLongWaitMs, true);
        ++done_;
      });
    }
  }
  ~Waiters() { Join(); }
  void Join() {
    for (auto& t : threads_) {
      if (t.joinable()) t.join();
    }
  }
  int Done() const { return done_.load(); }
  int Count(int32_t result) const {
    int n = 0;
    for (const auto& r : results_) n += r.load() == result ? 1 : 0;
    return n;
  }

 private:
  std::vector<std::atomic<int32_t>> results_;
  std::atomic<int> done_{0};
  std::vector<std::thread> threads_;
};

class EventTest : public TracedTest {};

TEST(EventDeadlineTest, CarriesNanosecondsIntoSeconds) {
  timespec d = EventDeadline({10, 0}, 1999);
  EXPECT_EQ(d.tv_sec, 11);
  EXPECT_EQ(d.tv_nsec, 999000000);
  d = EventDeadline({10, 1000000}, 1999);  // sum reaches exactly 1 s
  EXPECT_EQ(d.tv_sec, 12);
  EXPECT_EQ(d.tv_nsec, 0);
  d = EventDeadline({10, 999999999}, 1999);
  EXPECT_EQ(d.tv_sec, 12);
  EXPECT_EQ(d.tv_nsec, 998999999);
  d = EventDeadline({5, 123}, 0);
  EXPECT_EQ(d.tv_sec, 5);
  EXPECT_EQ(d.tv_nsec, 123);
  d = EventDeadline({0, 999999999}, 0xFFFFFFFEu);  // largest timed wait: no overflow
  EXPECT_EQ(d.tv_sec, 4294967 + 1);
  EXPECT_EQ(d.tv_nsec, 293999999);
}

TEST_F(EventTest, AutoReset_SetTwiceBeforeWait_SatisfiesOneWaitOnly) {
  CEvent ev;
  ev.Create(false, false, nullptr);
  EXPECT_TRUE(ev.Set());
  EXPECT_TRUE(ev.Set());
  EXPECT_EQ(ev.Wait(0, true), EVENT_WAIT_SIGNAL);
  EXPECT_FALSE(ev.Check());
  EXPECT_EQ(ev.Wait(0, true), EVENT_WAIT_TIMEOUT);
  EXPECT_TRUE(Sink().HasLine(Fmt(
      "event %p <anon> (IsManual=0) has been already signaled --> New state: IsSignaled=0\n",
      ev.Object())));
  EXPECT_TRUE(Sink().Contains("TIMEOUT(0,110) on event"));
  ev.Release();
}

TEST_F(EventTest, AutoReset_SetWakesOneWaiterAndIsConsumed) {
  CEvent ev;
  ev.Create(false, false, nullptr);
  Waiters waiters(ev, 2);
  ASSERT_TRUE(WaitForTrace(kPrepare, 2));
  ev.Set();
  ASSERT_TRUE(WaitUntil([&] { return waiters.Done() >= 1; }));
  EXPECT_EQ(waiters.Count(EVENT_WAIT_SIGNAL), 1);
  EXPECT_FALSE(ev.Check());  // the returning waiter consumed it
  ev.Set();
  waiters.Join();
  EXPECT_EQ(waiters.Count(EVENT_WAIT_SIGNAL), 2);
  EXPECT_FALSE(ev.Check());
  ev.Release();
}

TEST_F(EventTest, ManualReset_SetReleasesAllWaitersAndStaysSignalled) {
  CEvent ev;
  ev.Create(false, true, nullptr);
  Waiters waiters(ev, 3);
  ASSERT_TRUE(WaitForTrace(kPrepare, 3));
  ev.Set();
  waiters.Join();
  EXPECT_EQ(waiters.Count(EVENT_WAIT_SIGNAL), 3);
  EXPECT_TRUE(ev.Check());
  EXPECT_EQ(ev.Wait(0, false), EVENT_WAIT_SIGNAL);
  EXPECT_TRUE(ev.Check());  // a manual event is not consumed by waits
  EXPECT_TRUE(ev.Reset());
  EXPECT_EQ(ev.Wait(0, false), EVENT_WAIT_TIMEOUT);
  ev.Release();
}

TEST_F(EventTest, Pulse_WithoutWaiter_LeavesEventClear) {
  CEvent ev;
  ev.Create(true, false, nullptr);
  EXPECT_TRUE(ev.Pulse());
  EXPECT_FALSE(ev.Check());
  EXPECT_EQ(ev.Wait(0, false), EVENT_WAIT_TIMEOUT);
  ev.Release();
}

TEST_F(EventTest, Pulse_AutoReset_WakesOneWaiterWithSignal) {
  CEvent ev;
  ev.Create(false, false, nullptr);
  Waiters waiters(ev, 2);
  ASSERT_TRUE(WaitForTrace(kPrepare, 2));
  EXPECT_TRUE(ev.Pulse());
  ASSERT_TRUE(WaitUntil([&] { return waiters.Done() >= 1; }));
  EXPECT_EQ(waiters.Count(EVENT_WAIT_SIGNAL), 1);
  EXPECT_FALSE(ev.Check());
  ev.Set();  // release the other one
  waiters.Join();
  EXPECT_EQ(waiters.Count(EVENT_WAIT_SIGNAL), 2);
  ev.Release();
}

TEST_F(EventTest, WaitTrace_LinesTellTimeoutAndRequestedTime) {
  CEvent ev;
  ev.Create(false, true, nullptr);
  EXPECT_EQ(ev.Wait(0, true), EVENT_WAIT_TIMEOUT);
  EXPECT_TRUE(Sink().HasLine(Fmt("\nwaiting 0ms on event %p", ev.Object())));
  EXPECT_TRUE(Sink().HasLine(
      Fmt("TIMEOUT(0,110) on event %p <anon> (IsSignaled=0)\n", ev.Object())));
  Sink().Clear();
  EXPECT_EQ(ev.Wait(0, false), EVENT_WAIT_TIMEOUT);  // trace flag off: silent
  EXPECT_EQ(Sink().Lines().size(), 0u);
  ev.Release();
}

TEST_F(EventTest, NamedEvent_SharedByNameAndFreedWithLastReference) {
  NamedEventTableStats before = GetNamedEventTableStats();
  CEvent a, b;
  a.Create(false, true, "rt.shared");
  b.Create(false, false, "rt.shared");  // other reset mode: warning only
  ASSERT_NE(a.Object(), nullptr);
  EXPECT_EQ(a.Object(), b.Object());
  EXPECT_TRUE(Sink().HasLine(Fmt("WARNING: manual setting mismatch for event %p <%s>\n",
                                 a.Object(), "rt.shared")));
  EXPECT_TRUE(Sink().HasLine(Fmt("refCount for event %p <%s> incremented (IsSignaled=0)\n",
                                 a.Object(), "rt.shared")));
  EXPECT_EQ(GetNamedEventTableStats().count, before.count + 1);

  EXPECT_TRUE(a.Set());
  EXPECT_TRUE(b.Check());
  EXPECT_EQ(b.Wait(0, false), EVENT_WAIT_SIGNAL);
  EXPECT_TRUE(a.Check());  // still manual: the first creator's mode won

  a.Release();
  EXPECT_TRUE(Sink().Contains("decr refcount on event"));
  EXPECT_FALSE(Sink().Contains("deleting event"));
  EXPECT_TRUE(b.Check());
  b.Release();
  EXPECT_TRUE(Sink().Contains("deleting event"));
  EXPECT_EQ(GetNamedEventTableStats().count, before.count);

  CEvent c;
  c.Create(false, false, "rt.shared");  // a new event, not the old signalled one
  EXPECT_FALSE(c.Check());
  EXPECT_EQ(c.Wait(0, false), EVENT_WAIT_TIMEOUT);
  c.Release();
}

TEST_F(EventTest, NamedTable_GrowsAndFindsEveryName) {
  NamedEventTableStats before = GetNamedEventTableStats();
  constexpr int kN = 40;  // crosses several 16-entry growth steps
  std::vector<CEvent> first(kN), second(kN);
  for (int i = kN - 1; i >= 0; --i) {  // reverse order: the table must sort
    first[i].Create(false, true, ("rt.grow." + std::to_string(i)).c_str());
  }
  NamedEventTableStats grown = GetNamedEventTableStats();
  EXPECT_EQ(grown.count, before.count + kN);
  EXPECT_GE(grown.capacity, grown.count);
  EXPECT_LT(grown.capacity, grown.count + 16);

  for (int i = 0; i < kN; i += 3) first[i].Set();
  for (int i = 0; i < kN; ++i) {
    second[i].Create(false, true, ("rt.grow." + std::to_string(i)).c_str());
    EXPECT_EQ(second[i].Object(), first[i].Object()) << i;
    EXPECT_EQ(second[i].Check(), i % 3 == 0) << i;
  }
  for (int i = 0; i < kN; ++i) {
    first[i].Release();
    second[i].Release();
  }
  EXPECT_EQ(GetNamedEventTableStats().count, before.count);
}

TEST_F(EventTest, Close_ReleasesWaitersAndRefusesFurtherUse) {
  CEvent ev;
  ev.Create(false, true, "rt.close");
  Waiters waiters(ev, 2);
  ASSERT_TRUE(WaitForTrace(kPrepare, 2));
  EXPECT_TRUE(ev.Close());
  waiters.Join();
  EXPECT_EQ(waiters.Count(EVENT_WAIT_SIGNAL), 2);

  Sink().Clear();
  EXPECT_FALSE(ev.IsOpen());
  EXPECT_EQ(ev.Wait(0, true), EVENT_WAIT_FAILURE);
  EXPECT_FALSE(ev.Set());
  EXPECT_FALSE(ev.Pulse());
  EXPECT_FALSE(ev.Reset());
  EXPECT_FALSE(ev.Check());
  EXPECT_FALSE(ev.Close());
  EXPECT_FALSE(ev.ChangeAttributes(false, false));
  EXPECT_EQ(Sink().Lines().size(), 0u);  // refused silently

  NamedEventTableStats open = GetNamedEventTableStats();
  ev.Release();  // Close left the reference in place
  EXPECT_EQ(GetNamedEventTableStats().count, open.count - 1);
}

TEST_F(EventTest, EmptyHandle_RefusesEverything) {
  CEvent ev;
  EXPECT_EQ(ev.Wait(0, true), EVENT_WAIT_FAILURE);
  EXPECT_FALSE(ev.Set());
  EXPECT_FALSE(ev.Check());
  EXPECT_FALSE(ev.Close());
  ev.Release();  // nothing to drop
  EXPECT_EQ(Sink().Lines().size(), 0u);
}

TEST_F(EventTest, ChangeAttributes_RefusedWhileAThreadWaits) {
  CEvent ev;
  ev.Create(false, false, nullptr);
  Waiters waiters(ev, 1);
  ASSERT_TRUE(WaitForTrace(kPrepare));
  EXPECT_FALSE(ev.ChangeAttributes(true, true));
  EXPECT_FALSE(ev.Check());
  ev.Set();
  waiters.Join();

  Sink().Clear();
  EXPECT_TRUE(ev.ChangeAttributes(false, false));  // already so: no change, no line
  EXPECT_EQ(Sink().Count("changing attributes"), 0u);
  EXPECT_TRUE(ev.ChangeAttributes(true, true));
  EXPECT_EQ(Sink().Count("changing attributes (IsSignaled=0,IsManual=0) --> "
                         "(IsSignaled=1,IsManual=1)"),
            1u);
  EXPECT_EQ(ev.Wait(0, false), EVENT_WAIT_SIGNAL);
  EXPECT_TRUE(ev.Check());  // now manual: not consumed
  ev.Release();
}

TEST_F(EventTest, CopyAssignment_SharesEventReopensHandleAndKeepsOldReference) {
  CEvent a, b;
  a.Create(false, false, nullptr);
  b.Create(false, false, nullptr);
  const CEventObject* old = b.Object();
  CEvent keep = b;  // second reference to b's first event
  b.Close();
  b = a;
  EXPECT_TRUE(b.IsOpen());
  EXPECT_EQ(b.Object(), a.Object());
  EXPECT_TRUE(Sink().Contains(Fmt("incr refcount on event %p", a.Object())));

  a.Set();
  a.Release();  // b still holds the event
  EXPECT_FALSE(Sink().Contains(Fmt("deleting event %p", b.Object())));
  EXPECT_EQ(b.Wait(0, false), EVENT_WAIT_SIGNAL);
  b.Release();
  EXPECT_TRUE(Sink().Contains(Fmt("deleting event %p", a.Object())));

  // The assignment left b's reference to its old event in place: two drops free it.
  Sink().Clear();
  keep.Release();
  EXPECT_TRUE(Sink().Contains(Fmt("decr refcount on event %p", old)));
  keep.Release();
  EXPECT_TRUE(Sink().Contains(Fmt("deleting event %p", old)));
}

}  // namespace
