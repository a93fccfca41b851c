// emhost run: sets the scenario's host up, starts and re-scans the module, sends it the
// scenario's requests and those read from a file, and plays the scenario's event
// timeline. Answers, late answers (matched by the CI that emhost gives every request) and
// the messages the module hands up are printed as they happen, one block at a time: a
// request is not interleaved with an event.
#include "RunCommand.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include <fmt/format.h>

#include "RequestShorthand.h"
#include "hostsim/SimModule.h"

using namespace em_oidmap;  // emhost is not in the project namespace yet

namespace {

constexpr uint32_t kStatusPending = 0x16;
constexpr uint32_t kOcCount = 0x0300;  // the first count the start-up scan sends per cabinet
constexpr size_t kMaxCabinets = 100;
constexpr uint32_t kOcLogEntryCount = 0x0B13;  // answered once the cabinet's log scan ended
// How long emhost waits for a late answer.
constexpr auto kLateAnswerWait = std::chrono::seconds(30);

// Reads one request a line (blank lines and "#" comments skipped); false on a bad line.
bool ReadRequests(const std::string& path, std::vector<SipJson>& requests) {
  std::ifstream file;
  if (path != "-") {
    file.open(path);
    if (!file) {
      Fail(kExitInput, "cannot open " + path);
      return false;
    }
  }
  std::istream& in = path == "-" ? std::cin : file;
  std::string line;
  for (size_t number = 1; std::getline(in, line); ++number) {
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#') continue;
    SipJson request;
    std::string error;
    if (!ParseRequestLine(line, request, error)) {
      Fail(kExitInput, fmt::format("{}:{}: the request {}", path, number, error));
      return false;
    }
    requests.push_back(std::move(request));
  }
  return true;
}

// Shows, on a terminal, how far the start-up scan of the cabinets has come: a cabinet is
// done once the module asks the modules about the next one.
std::function<void()> ScanProgress(hostsim::SimHost& host, const hostsim::Scenario& scenario) {
  if (isatty(STDERR_FILENO) == 0) return {};
  const size_t queued =
      std::min(kMaxCabinets, 1 + (scenario.seEnumerationSucceeds ? scenario.seCabinets.size() : 0));
  return [&host, queued] {
    std::set<uint32_t> begun;
    for (const hostsim::SentRequest& sent : host.SentRequests()) {
      SipJson msg;
      if (msg.Parse(sent.json) && msg.GetOpcode(sent.index) == kOcCount) {
        begun.insert(msg.GetKey(sent.index, "CA"));
      }
    }
    fmt::print(stderr, "\remhost: scanning cabinets: {} of {} done ",
               begun.empty() ? 0 : begun.size() - 1, queued);
  };
}

// Shows, on a terminal, how far the log scans that re-scan queued have come: the number of
// entries of a cabinet (OC 0x0B13) is answered once that cabinet's scan has finished.
void ShowLogScanProgress(HostSession& session) {
  if (isatty(STDERR_FILENO) == 0) return;
  const hostsim::Scenario& scenario = session.scenario();
  std::vector<uint32_t> cabinets{scenario.serverCabinet};
  if (scenario.seEnumerationSucceeds) {
    for (uint32_t cabinet : scenario.seCabinets) {
      if (cabinets.size() == kMaxCabinets) break;
      cabinets.push_back(cabinet);
    }
  }
  size_t done = 0;
  for (uint32_t cabinet : cabinets) {
    fmt::print(stderr, "\r\033[Kemhost: log scans: {} of {} cabinets done ", done,
               cabinets.size());
    SipJson query(kOcLogEntryCount, 0, 0, cabinet);
    session.module().OnRequest(query);
    ++done;
  }
  fmt::print(stderr, "\r\033[K");
}

// Plays one run: the requests on the calling thread, the timeline on its own, and a
// watcher that sorts what the module hands up into late answers and other messages.
class Player {
 public:
  Player(HostSession& session, Output& output) : session_(session), output_(output) {}

  void Watch() {
    watcher_ = std::thread([this] {
      size_t seen = 0;
      while (!stop_) {
        session_.host().WaitForHandBacks(seen + 1, std::chrono::milliseconds(50));
        const std::vector<hostsim::HandedBack> all = session_.host().HandedBackMessages();
        for (; seen < all.size(); ++seen) Sort(all[seen].message);
        {
          std::lock_guard<std::mutex> lock(mutex_);
          sorted_ = seen;
        }
        changed_.notify_all();
      }
    });
  }

  void PlayTimeline(std::chrono::steady_clock::time_point start) {
    timeline_ = std::thread([this, start] {
      for (const hostsim::ScenarioEvent& event : session_.scenario().events) {
        std::this_thread::sleep_until(start + std::chrono::milliseconds(event.atMs));
        std::lock_guard<std::mutex> turn(turn_);
        SipJson message = event.ToMessage();
        output_.EventSent(event.atMs, event.mid, message);
        session_.host().DeliverEvent(event.mid, message);
        AwaitSorted();
      }
    });
  }

  // Sends one request and prints its answer and, for ST 0x16, its late answer.
  void Send(SipJson request) {
    std::lock_guard<std::mutex> turn(turn_);
    const size_t number = ++number_;
    request.SetKey("CI", static_cast<uint32_t>(number), true);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      pending_.insert(number);
    }
    const SipJson sent = request;
    const size_t sentBefore = session_.host().SentRequests().size();
    const auto begin = std::chrono::steady_clock::now();
    const uint32_t result = session_.module().OnRequest(request);
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - begin);
    output_.Answer(number, sent, result, request, took.count(), MergedFrom(sent, sentBefore));
    if (request.GetStatus(request.CurrentIndex()) == kStatusPending) {
      std::unique_lock<std::mutex> lock(mutex_);
      if (changed_.wait_for(lock, kLateAnswerWait, [&] { return late_.count(number) != 0; })) {
        const SipJson late = late_[number];
        lock.unlock();
        output_.Late(number, late);
      } else {
        missingLate_ = true;
        lock.unlock();
        output_.LateMissing(number, kLateAnswerWait.count());
      }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    pending_.erase(number);
  }

  // Waits for the timeline, prints what is still handed up and stops the watcher. True
  // when every late answer came.
  bool Finish() {
    if (timeline_.joinable()) timeline_.join();
    {
      std::lock_guard<std::mutex> turn(turn_);
      AwaitSorted();
    }
    stop_ = true;
    if (watcher_.joinable()) watcher_.join();
    return !missingLate_;
  }

 private:
  void Sort(const SipJson& message) {
    const uint32_t ci = message.GetKey(message.CurrentIndex(), "CI", 0);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (pending_.count(ci) != 0) {
        late_[ci] = message;
        return;
      }
    }
    output_.HandedBack(message);
  }

  // Waits until the watcher has printed everything handed up so far.
  void AwaitSorted() {
    const size_t count = session_.host().HandedBackMessages().size();
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(5), [&] { return sorted_ >= count; });
  }

  // The reply commands of the broadcasts of `request` that the module sent to answer it
  // (on this thread): what a merged answer was merged from.
  std::vector<std::string> MergedFrom(const SipJson& request, size_t sentBefore) const {
    const uint32_t oc = request.GetOpcode(request.CurrentIndex());
    std::vector<std::string> replies;
    const std::vector<hostsim::SentRequest> sent = session_.host().SentRequests();
    for (size_t i = sentBefore; i < sent.size(); ++i) {
      if (sent[i].thread != std::this_thread::get_id()) continue;
      SipJson msg;
      if (!msg.Parse(sent[i].json)) continue;
      if (msg.GetOpcode(sent[i].index) == oc &&
          (msg.GetKey(sent[i].index, "MI", 0) == hostsim::kAllModules ||
           msg.GetKey(sent[i].index, "CA", 0) == hostsim::kAllCabinets)) {
        replies.push_back(sent[i].repliesJson);
      }
    }
    return replies;
  }

  HostSession& session_;
  Output& output_;
  std::mutex turn_;  // one request or one event at a time
  std::mutex mutex_;
  std::condition_variable changed_;
  std::set<size_t> pending_;
  std::map<size_t, SipJson> late_;
  size_t sorted_ = 0;
  size_t number_ = 0;
  bool missingLate_ = false;
  std::atomic<bool> stop_{false};
  std::thread watcher_, timeline_;
};

}  // namespace

int RunScenario(const HostOptions& options, const std::string& requestsPath,
                OutputFormat format) {
  std::vector<SipJson> extra;
  if (!requestsPath.empty() && !ReadRequests(requestsPath, extra)) return kExitInput;

  HostSession session;
  if (const int code = session.Open(options); code != kExitOk) return code;
  Output output(format);
  output.Note(fmt::format("emhost: module {} loaded{}", session.moduleName(),
                          options.modulePath == EM_OIDMAP_SO ? "" : " from " + options.modulePath));
  if (!session.scenario().name.empty()) {
    output.Note("emhost: scenario " + session.scenario().name);
  }
  session.Start(ScanProgress(session.host(), session.scenario()));
  ShowLogScanProgress(session);

  Player player(session, output);
  player.Watch();
  player.PlayTimeline(std::chrono::steady_clock::now());
  for (const hostsim::ScenarioRequest& request : session.scenario().requests) {
    player.Send(request.ToMessage());
  }
  for (SipJson& request : extra) player.Send(std::move(request));
  const bool allLate = player.Finish();

  output.Note(fmt::format("emhost: the module sent {} requests and handed back {} messages",
                          session.host().SentRequests().size(),
                          session.host().HandedBackMessages().size()));
  const int code = session.Close();
  if (!allLate) return Fail(kExitModule, "a late answer did not come");
  return code;
}

void AddRunCommand(CLI::App& app, int* exitCode) {
  struct Options {
    HostOptions host;
    std::string requests;
    std::string format;
  };
  auto options = std::make_shared<Options>();
  CLI::App* run = app.add_subcommand(
      "run", "start the module over a scenario, send its requests and print the answers");
  AddHostOptions(*run, options->host);
  run->add_option("--requests", options->requests,
                  "more requests, one a line (raw SIP JSON or OC=.. OI=.. CA=..), - for "
                  "standard input")
      ->type_name("FILE");
  run->add_option("--format", options->format,
                  "json: a JSON line per answer; table: a readable view (default: table on "
                  "a terminal, else json)")
      ->type_name("FORMAT")
      ->check(CLI::IsMember({"json", "table"}));
  run->callback([options, exitCode] {
    OutputFormat format = isatty(STDOUT_FILENO) != 0 ? OutputFormat::kTable : OutputFormat::kJson;
    if (!options->format.empty()) {
      format = options->format == "json" ? OutputFormat::kJson : OutputFormat::kTable;
    }
    *exitCode = RunScenario(options->host, options->requests, format);
  });
}
