// Player: sends requests to the module one at a time and prints each answer and its late
// answer, plays the scenario's events, and prints what the module hands up. Used by
// `emhost run` and `emhost shell`.
//
// Runs repeat exactly: events are placed on a virtual clock, not the wall clock. The
// clock starts at 0 once the module has started, re-scanned and collected its logs, and
// moves on only by the time the simulated modules take to answer the requests the module
// sends while it answers a client's request (SentRequest::simulatedMs). Before each
// request, the events due by then are sent; the rest follow the last request. Nothing
// the module hands up is printed in the middle of an answer: a late answer (matched by
// the CI that emhost gives every request) is printed with its request, everything else
// after it.
//
// A late answer is waited for as long as the module would itself wait for the work that
// produces it: the time-out of the lower request that the queued task sends (5000 ms for
// a text, 150000 ms for a raw record), and while the module keeps sending requests (a
// scan queued before the task), until the time-out of the last one; or a fixed time.
//
// Thread safety: Drain may be called from any thread; everything else from one.
#ifndef EM_TOOLS_EMHOST_PLAYER_H
#define EM_TOOLS_EMHOST_PLAYER_H

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <vector>

#include "Explain.h"
#include "HostSession.h"
#include "Output.h"

namespace em_oidmap::emhost {

// What the module's start and re-scan decided, from the host's records numbered
// `firstRecord` on: whether it maps, which languages it was told.
StartFacts LearnStartFacts(const hostsim::SimHost& host, size_t firstRecord);

struct PlayOptions {
  std::optional<long long> lateWaitMs;  // unset: from the module's own time-outs
};

class Player {
 public:
  Player(HostSession& session, Output& output, PlayOptions options);

  // Learns what the start and re-scan decided (for hints), see LearnStartFacts.
  void LearnStart(size_t firstRecord) { facts_ = LearnStartFacts(session_.host(), firstRecord); }
  // The timeline: events in order of time, played from its first.
  void SetTimeline(std::vector<hostsim::ScenarioEvent> events) {
    events_ = std::move(events);
    nextEvent_ = 0;
  }

  // Sends the events due, then `request`; prints its answer and waits for a late one.
  void Send(SipJson request);
  // Sends the timeline's events that are due by the virtual clock (all: every one left).
  void PlayDueEvents(bool all);
  // Has the simulated module `event.mid` report the event (and change, when it says so).
  void Deliver(const hostsim::ScenarioEvent& event);
  void Deliver(uint32_t atMs, uint32_t mid, SipJson message, bool updatesModule);
  // Prints what the module handed up since the last call, except pending late answers.
  void Drain();
  // Forgets the host's records read so far, up to `needed` (a long run keeps no history).
  void Forget(size_t needed);

  bool AllLateAnswersCame() const { return !missingLate_; }
  uint64_t ClockMs() const { return clockMs_; }
  size_t RequestCount() const { return number_; }

 private:
  // Waits for the late answer of request `number` (opcode `oc`).
  std::optional<SipJson> AwaitLate(size_t number, uint32_t oc, long long& waitedMs);

  HostSession& session_;
  Output& output_;
  const PlayOptions options_;
  StartFacts facts_;
  std::vector<hostsim::ScenarioEvent> events_;
  size_t nextEvent_ = 0;
  uint64_t clockMs_ = 0;
  size_t number_ = 0;
  bool missingLate_ = false;

  std::mutex mutex_;  // guards the members below, and Drain
  size_t handedSeen_ = 0;
  std::set<size_t> pending_;
  std::map<size_t, SipJson> late_;
};

}  // namespace em_oidmap::emhost

#endif  // EM_TOOLS_EMHOST_PLAYER_H
