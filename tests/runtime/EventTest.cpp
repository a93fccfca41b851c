#include "runtime/Event.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/TestSupport.h"

namespace em_oidmap {

namespace {

using hostsim::Sink;
using test_support::WaitForTrace;
using test_support::WaitUntil;

std::string Deleted(const void* event) {
  char buf[64];
  snprintf(buf, sizeof buf, "deleting event %p", event);
  return buf;
}

// Threads waiting (bounded) on a shared handle, each recording its result.
class Waiters {
 public:
  Waiters(CEvent& event, int n) : results_(n) {
    const char* const kInside = "prepare time for waiting on event";
    const size_t before = Sink().Count(kInside);
    for (int i = 0; i < n; ++i) {
      results_[i] = -2;
      threads_.emplace_back([this, &event, i] {
        results_[i] = event.Wait(10000, true);
        ++done_;
      });
    }
    EXPECT_TRUE(WaitForTrace(kInside, before + n));  // all inside the wait
  }
  ~Waiters() { Join(); }
  void Join() {
    for (auto& t : threads_) if (t.joinable()) t.join();
  }
  bool SomeDone() const { return WaitUntil([this] { return done_ >= 1; }); }
  int Signalled() const {
    int n = 0;
    for (const auto& r : results_) n += r == EVENT_WAIT_SIGNAL ? 1 : 0;
    return n;
  }

 private:
  std::vector<std::atomic<int32_t>> results_;
  std::atomic<int> done_{0};
  std::vector<std::thread> threads_;
};

class EventTest : public test_support::TracedTest<> {};

TEST(EventDeadlineTest, CarriesNanosecondsIntoSeconds) {
  timespec d = EventDeadline({10, 0}, 1999);
  EXPECT_EQ(d.tv_sec, 11);
  EXPECT_EQ(d.tv_nsec, 999000000);
  d = EventDeadline({10, 1000000}, 1999);  // the sum reaches exactly one second
  EXPECT_EQ(d.tv_sec, 12);
  EXPECT_EQ(d.tv_nsec, 0);
}

TEST_F(EventTest, AutoReset_OneSignalSatisfiesOneWait) {
  CEvent ev;
  ev.Create(false, false, nullptr);
  ev.Set();
  ev.Set();  // not counted twice
  EXPECT_EQ(ev.Wait(0, true), EVENT_WAIT_SIGNAL);
  EXPECT_EQ(ev.Wait(0, true), EVENT_WAIT_TIMEOUT);

  // A condition variable may wake a second waiter spuriously, and any wake-up counts as
  // a signal, so only "at least one" is certain; the flag must be consumed either way.
  Waiters waiters(ev, 2);
  ev.Set();
  ASSERT_TRUE(waiters.SomeDone());
  EXPECT_FALSE(ev.Check());
  ev.Set();
  waiters.Join();
  EXPECT_EQ(waiters.Signalled(), 2);
  ev.Release();
}

TEST_F(EventTest, ManualSetReleasesAllAndStays_PulseLeavesItClear) {
  CEvent ev;
  ev.Create(false, true, nullptr);
  {
    Waiters waiters(ev, 3);
    ev.Set();
    waiters.Join();
    EXPECT_EQ(waiters.Signalled(), 3);
  }
  EXPECT_TRUE(ev.Check());
  ev.Reset();
  EXPECT_EQ(ev.Wait(0, false), EVENT_WAIT_TIMEOUT);

  ev.ChangeAttributes(true, false);
  EXPECT_TRUE(ev.Pulse());  // no waiter: nobody woken, nothing pending
  EXPECT_EQ(ev.Wait(0, false), EVENT_WAIT_TIMEOUT);
  Waiters waiters(ev, 2);
  EXPECT_TRUE(ev.Pulse());
  ASSERT_TRUE(waiters.SomeDone());
  EXPECT_GE(waiters.Signalled(), 1);
  EXPECT_FALSE(ev.Check());
  ev.Set();
  waiters.Join();
  ev.Release();
}

TEST_F(EventTest, NamedEvents_SharedUntilLastReleaseThenCreatedAnew) {
  size_t before = GetNamedEventTableStats().count;
  CEvent a, b, c;
  a.Create(false, true, "rt.shared");
  b.Create(false, false, "rt.shared");  // other reset mode: only a warning
  ASSERT_EQ(a.Object(), b.Object());
  EXPECT_TRUE(Sink().Contains("WARNING: manual setting mismatch"));
  a.Set();
  EXPECT_EQ(b.Wait(0, false), EVENT_WAIT_SIGNAL);
  EXPECT_TRUE(b.Check());  // still manual: the first creator's mode won
  a.Release();
  EXPECT_FALSE(Sink().Contains("deleting event"));
  b.Release();
  EXPECT_TRUE(Sink().Contains("deleting event"));
  c.Create(false, false, "rt.shared");
  EXPECT_FALSE(c.Check());  // a new event, not the old signalled one
  c.Release();

  constexpr int kN = 40;  // several growths of the name table
  std::vector<CEvent> first(kN), second(kN);
  for (int i = kN - 1; i >= 0; --i) first[i].Create(false, true, ("rt." + std::to_string(i)).c_str());
  for (int i = 0; i < kN; ++i) {
    second[i].Create(false, true, ("rt." + std::to_string(i)).c_str());
    EXPECT_EQ(second[i].Object(), first[i].Object()) << i;
    first[i].Release();
    second[i].Release();
  }
  EXPECT_EQ(GetNamedEventTableStats().count, before);
}

TEST_F(EventTest, Close_ReleasesWaitersAndRefusesFurtherUseSilently) {
  CEvent ev;
  ev.Create(false, true, nullptr);
  Waiters waiters(ev, 2);
  EXPECT_TRUE(ev.Close());
  waiters.Join();
  EXPECT_EQ(waiters.Signalled(), 2);
  EXPECT_EQ(ev.Wait(0, true), EVENT_WAIT_FAILURE);
  EXPECT_FALSE(ev.Set());
  ev.Release();  // Close left the reference in place
  EXPECT_TRUE(Sink().Contains("deleting event"));
}

TEST_F(EventTest, ChangeAttributes_RefusedWhileAThreadWaits) {
  CEvent ev;
  ev.Create(false, false, nullptr);
  EXPECT_TRUE(ev.ChangeAttributes(false, false));  // as they are: nothing to change
  {
    Waiters waiters(ev, 1);
    EXPECT_FALSE(ev.ChangeAttributes(true, true));
    EXPECT_FALSE(ev.Check());
    ev.Set();
  }
  EXPECT_TRUE(ev.ChangeAttributes(true, true));
  EXPECT_EQ(ev.Wait(0, false), EVENT_WAIT_SIGNAL);
  EXPECT_TRUE(ev.Check());  // now manual: not consumed
  ev.Release();
}

TEST_F(EventTest, CopyAssignment_ReopensHandleAndKeepsTheOldReference) {
  CEvent a, b;
  a.Create(true, false, nullptr);
  b.Create(false, false, nullptr);
  const CEventObject* old = b.Object();
  CEvent keep = b;  // a second reference to b's first event
  b.Close();
  b = a;
  a.Release();
  EXPECT_EQ(b.Wait(0, false), EVENT_WAIT_SIGNAL);  // open again, on a's event
  b.Release();
  keep.Release();  // the assignment did not drop b's reference: this one is not the last
  EXPECT_FALSE(Sink().Contains(Deleted(old)));
  keep.Release();
  EXPECT_TRUE(Sink().Contains(Deleted(old)));
}

}  // namespace

}  // namespace em_oidmap
