// emhost run: sets the scenario's host up, starts and re-scans the module, waits for the
// log scans it queued, sends it the scenario's requests and those read from a file, and
// plays the scenario's events (Player.h says in which order). A run is clean when every
// late answer came and every cabinet's log was collected: no scan refused, none answered
// 0x0F, none unfinished after the module's 120 s; else it exits 1 and says why.
#include "RunCommand.h"

#include <unistd.h>

#include <set>
#include <sstream>

#include <fmt/format.h>

#include "Console.h"
#include "Expect.h"
#include "Player.h"
#include "RequestShorthand.h"
#include "ScanWatch.h"

namespace em_oidmap::emhost {

namespace {

constexpr uint32_t kOcCount = 0x0300;  // the first count the start-up scan sends per cabinet

// Shows, on a terminal, how far the start-up scan of the cabinets has come: a cabinet is
// done once the module asks the modules about the next one.
std::function<void()> StartProgress(HostSession& session) {
  if (isatty(STDERR_FILENO) == 0) return {};
  const size_t cabinets = session.Cabinets().size();
  auto seen = std::make_shared<size_t>(session.host().SentCount());
  auto begun = std::make_shared<std::set<uint32_t>>();
  return [&session, cabinets, seen, begun] {
    for (const hostsim::SentRequest& sent : session.host().SentRequestsFrom(*seen)) {
      ++*seen;
      SipJson msg;
      if (msg.Parse(sent.json) && msg.GetOpcode(sent.index) == kOcCount) {
        begun->insert(msg.GetKey(sent.index, "CA"));
      }
    }
    console::Status(fmt::format("emhost: scanning cabinets: {} of {} done",
                                begun->empty() ? 0 : begun->size() - 1, cabinets));
  };
}

// Compares the output with the saved one; the exit code.
int CompareWithSaved(const RunOptions& options, const std::string& saved,
                     const std::string& output, int code) {
  const std::string diff = DiffOutputs(saved, output, options.expectPath, "this run");
  if (!diff.empty()) {
    console::Out(diff);
    return Fail(kExitModule, "the output differs from " + options.expectPath);
  }
  console::Err("emhost: the output matches " + options.expectPath + "\n");
  return code;
}

void PrintSummary(HostSession& session, Output& output, ScanWatch& scans, bool allLate) {
  output.Note(fmt::format("emhost: the module sent {} requests and handed back {} messages",
                          session.host().SentCount(), session.host().HandBackCount()));
  for (const std::string& line : scans.Report()) output.Note("emhost: not clean: " + line);
  if (!allLate) output.Note("emhost: not clean: a late answer did not come");
}

}  // namespace

bool ReadRequests(const std::string& path, std::vector<std::string>& requests) {
  std::string text, error;
  if (!ReadInputFile(path, text, error)) {
    Fail(kExitInput, error);
    return false;
  }
  std::istringstream in(text);
  std::string line;
  for (size_t number = 1; std::getline(in, line); ++number) {
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#') continue;
    SipJson request;
    if (!ParseRequestLine(line, request, error)) {
      Fail(kExitInput, fmt::format("{}:{}: the request {}", path, number, error));
      return false;
    }
    // Kept as text, parsed again when sent: a message costs far more than its line.
    requests.push_back(line);
  }
  return true;
}

int RunScenario(const RunOptions& options) {
  if (options.host.scenarioPath == "-" && options.requestsPath == "-") {
    return Fail(kExitInput, "the scenario and the requests cannot both come from standard input");
  }
  std::vector<std::string> extra;
  if (!options.requestsPath.empty() && !ReadRequests(options.requestsPath, extra)) {
    return kExitInput;
  }
  // Read now: the session changes into the message file directory.
  std::string saved, error;
  if (!options.expectPath.empty() && !ReadInputFile(options.expectPath, saved, error)) {
    return Fail(kExitInput, error);
  }
  HostSession session;
  if (const int code = session.Open(options.host); code != kExitOk) return code;
  Output output(options.format);
  std::string collected;
  if (!options.expectPath.empty()) output.CollectInto(&collected);
  output.Note(fmt::format("emhost: module {} loaded{}", session.moduleName(),
                          options.host.modulePath == EM_OIDMAP_SO
                              ? ""
                              : " from " + options.host.modulePath));
  if (!session.scenario().name.empty()) {
    output.Note("emhost: scenario " + session.scenario().name);
  }
  ScanWatch scans(session);
  session.Start(StartProgress(session));
  scans.Rescanned();
  scans.Await(isatty(STDERR_FILENO) != 0);

  Player player(session, output, PlayOptions{options.lateWaitMs});
  player.LearnStart(0);
  player.SetTimeline(session.scenario().events);
  auto send = [&](SipJson request) {
    player.Send(std::move(request));
    scans.Poll();
    player.Forget(scans.FirstNeeded());
  };
  for (const hostsim::ScenarioRequest& request : session.scenario().requests) {
    send(request.ToMessage());
  }
  for (const std::string& line : extra) {
    SipJson request;
    std::string error;
    ParseRequestLine(line, request, error);
    send(std::move(request));
  }
  player.PlayDueEvents(true);
  player.Drain();
  PrintSummary(session, output, scans, player.AllLateAnswersCame());
  const bool clean = player.AllLateAnswersCame() && scans.Clean();
  int code = session.Close();
  console::Finish();
  if (code == kExitOk && !clean) code = kExitModule;
  if (!options.expectPath.empty()) return CompareWithSaved(options, saved, collected, code);
  return code;
}

void AddRunCommand(CLI::App& app, int* exitCode) {
  struct Options {
    RunOptions run;
    std::string format;
    long long lateWaitMs = -1;
  };
  auto options = std::make_shared<Options>();
  CLI::App* run = app.add_subcommand(
      "run", "start the module over a scenario, send its requests and print the answers");
  AddHostOptions(*run, options->run.host);
  run->add_option("--requests", options->run.requestsPath,
                  "more requests, one a line (raw SIP JSON or OC=.. OI=.. CA=..), - for "
                  "standard input")
      ->type_name("FILE");
  run->add_option("--format", options->format,
                  "json: a JSON line per answer; table: a readable view (default: table on "
                  "a terminal, else json)")
      ->type_name("FORMAT")
      ->check(CLI::IsMember({"json", "table"}));
  run->add_option("--expect", options->run.expectPath,
                  "compare the output with a saved one (times masked): exit 1 and show the "
                  "differences when it differs")
      ->type_name("FILE");
  run->add_option("--late-wait", options->lateWaitMs,
                  "wait this long for a late answer (default: as long as the module waits "
                  "for the work behind it)")
      ->type_name("MS")
      ->check(CLI::Range(0LL, 3600000LL));
  run->footer("Exit status: 0 for a clean run, 1 when the module misbehaves, cannot be "
              "loaded, or the run is not clean (a late answer missing, a cabinet's log "
              "scan refused or answered 0x0F), 2 on a bad command line or input file.");
  run->callback([options, exitCode] {
    RunOptions run = options->run;
    run.format = isatty(STDOUT_FILENO) != 0 ? OutputFormat::kTable : OutputFormat::kJson;
    if (!options->format.empty()) {
      run.format = options->format == "json" ? OutputFormat::kJson : OutputFormat::kTable;
    }
    if (options->lateWaitMs >= 0) run.lateWaitMs = options->lateWaitMs;
    *exitCode = RunScenario(run);
  });
}

}  // namespace em_oidmap::emhost
