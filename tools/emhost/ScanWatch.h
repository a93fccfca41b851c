// ScanWatch: follows the log scans that a re-scan makes the module queue, one per
// cabinet, from what the module sends the simulated modules and from its trace.
//
// The module's task queue holds 19 tasks; while the first scans are slow, the scans of
// the cabinets after them are refused, and the module only traces that ("Task queue for
// priority 0 is full"). A refused cabinet's log is never collected: a query for it waits
// the module's full 120 s and answers 0x0F. So emhost never asks a refused cabinet. It
// knows how many scans were refused from the trace lines during the re-scan, and which
// ones once that many cabinets are left whose scans never began (scans run in the order
// they were queued).
#ifndef EM_TOOLS_EMHOST_SCANWATCH_H
#define EM_TOOLS_EMHOST_SCANWATCH_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "HostSession.h"

namespace em_oidmap::emhost {

class ScanWatch {
 public:
  // Records where the host's records stand; call before the re-scan, on the thread that
  // sends the clients' requests (the scans are what other threads send).
  explicit ScanWatch(HostSession& session);
  // Call after the re-scan returned: the refusals it made are known then.
  void Rescanned();

  // Waits until each cabinet's scan has ended or is known refused; on a terminal shows
  // how far it has come. A cabinet whose scan ran is asked for its number of entries
  // (answered once the scan has ended; the module waits at most 120 s).
  void Await(bool showProgress);

  // Lines for the run's summary: refused scans, scans answered 0x0F. Empty when clean.
  std::vector<std::string> Report();
  bool Clean();
  // The cabinets whose scans were refused, once that is known (empty before).
  std::set<uint32_t> Refused();
  // Reads the records the host made since the last call (before they are forgotten).
  void Poll() { Update(); }
  // The first host record it still needs (a scan request not answered yet, or unread).
  size_t FirstNeeded() const;

 private:
  void Update();
  // Notes what one record of the host tells; false when it has not been answered yet.
  bool Inspect(const hostsim::SentRequest& request);
  // Waits for the host's next record; false when the module has been silent for longer
  // than the longest time-out it uses (a scan that will not begin).
  bool WaitForActivity();
  bool Started(uint32_t cabinet) const { return started_.count(cabinet) != 0; }

  HostSession& session_;
  std::vector<uint32_t> cabinets_;
  size_t refusalsBefore_ = 0;
  size_t refused_ = 0;  // scans the queue refused
  size_t seen_ = 0;     // host records read
  std::vector<size_t> unanswered_;  // scan requests read before they were answered
  size_t begun_ = 0;    // scans that began
  std::chrono::steady_clock::time_point lastActivity_;
  const std::thread::id caller_ = std::this_thread::get_id();
  std::set<uint32_t> started_;
  std::set<uint32_t> unfinished_;  // scans that had not ended within the module's 120 s
  // Cabinet -> "MI 0x.. OC 0x.." of the scan requests answered 0x0F.
  std::map<uint32_t, std::set<std::string>> timedOut_;
};

}  // namespace em_oidmap::emhost

#endif  // EM_TOOLS_EMHOST_SCANWATCH_H
