// emhost shell [SCENARIO]: loads the module once, starts it over the scenario's simulated
// host and reads commands: requests (shorthand or JSON), events, re-scans, stop and start,
// the trace level, the OID map, log pages, and `follow`, which prints what the module
// hands up as it happens. The exit code is that of stopping the module at the end.
#include "ShellCommand.h"

#include <unistd.h>

#include <atomic>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <thread>

#include <fmt/format.h>

#include "Console.h"
#include "HostSession.h"
#include "LineEditor.h"
#include "MapCommand.h"
#include "Opcodes.h"
#include "Player.h"
#include "RequestShorthand.h"
#include "ScanWatch.h"

namespace em_oidmap::emhost {

namespace {

struct Command {
  const char* name;
  const char* usage;
  const char* help;
};
constexpr Command kCommands[] = {
    {"send", "send REQUEST", "send a request: OC=.. OE=.. OI=.. CA=.. MI=.. DA=json, or SIP "
                             "JSON (a line that starts with OC= or { is sent as it is)"},
    {"event", "event [--updates] MID REQUEST",
     "simulated module MID reports an event; --updates: it answers so from then on"},
    {"log", "log CABINET [LANG] [SEQ]", "page 0 of a cabinet's log in a language (default "
                                        "0x409), from sequence number SEQ (default 0)"},
    {"map", "map", "the OID map"},
    {"rescan", "rescan", "the host's re-scan: the module queues a log scan per cabinet"},
    {"stop", "stop", "stop and delete the module"},
    {"start", "start", "create the module (when stopped), start and re-scan it"},
    {"trace", "trace N", "trace level 0..5 (the module reads it when loaded: it is loaded "
                         "again and started)"},
    {"follow", "follow [on|off]", "print what the module hands up as it happens"},
    {"play", "play", "send the scenario's requests and events, as emhost run does"},
    {"opcodes", "opcodes", "the opcodes the module maps, merges or answers, and the statuses"},
    {"history", "history", "the lines entered so far"},
    {"help", "help [COMMAND]", "this list, or one command"},
    {"quit", "quit", "stop the module and leave (also exit, Ctrl-D)"},
};
constexpr const char* kKeys[] = {"OC=", "OE=", "OI=", "CA=", "MI=", "ST=", "DA="};

std::vector<std::string> Words(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

// What the word being typed may become, given the line before it.
std::vector<std::string> Candidates(const std::string& before, const std::string& /*word*/) {
  const std::vector<std::string> words = Words(before);
  std::vector<std::string> out;
  if (words.empty()) {
    for (const Command& command : kCommands) out.emplace_back(command.name);
    out.emplace_back("exit");
    return out;
  }
  if (words[0] == "help") {
    for (const Command& command : kCommands) out.emplace_back(command.name);
  } else if (words[0] == "follow") {
    out = {"on", "off"};
  } else if (before.size() >= 3 && before.compare(before.size() - 3, 3, "OC=") == 0) {
    out = OpcodeNames();
  } else {
    out.assign(std::begin(kKeys), std::end(kKeys));
    if (words[0] == "event" && words.size() == 1) out.emplace_back("--updates");
  }
  return out;
}

class Shell {
 public:
  Shell(HostSession& session, LineEditor& editor)
      : session_(session), editor_(editor), player_(session, output_, PlayOptions{}) {}
  ~Shell() { Follow(false); }

  void Start();
  void Loop();

 private:
  bool Execute(const std::string& line);  // false: leave
  bool Running();
  void Rescan();
  void SendLine(const std::string& text);
  void Event(const std::string& line);
  void Log(const std::vector<std::string>& words);
  void Trace(const std::vector<std::string>& words);
  void Follow(bool on);
  void Help(const std::vector<std::string>& words);
  void Say(const std::string& text) { console::Out(text + "\n"); }

  HostSession& session_;
  LineEditor& editor_;
  Output output_{OutputFormat::kTable};
  Player player_;
  std::set<uint32_t> refused_;  // cabinets whose last log scan the module refused
  std::atomic<bool> following_{false};
  std::thread follower_;
};

void Shell::Start() {
  const size_t before = session_.host().SentCount();
  ScanWatch scans(session_);
  session_.Start({});
  scans.Rescanned();
  scans.Await(isatty(STDERR_FILENO) != 0);
  for (const std::string& line : scans.Report()) Say("emhost: " + line);
  refused_ = scans.Refused();
  player_.LearnStart(before);
  Say(fmt::format("emhost: module {} started over {} cabinets", session_.moduleName(),
                  session_.Cabinets().size()));
}

void Shell::Rescan() {
  ScanWatch scans(session_);
  session_.module().Rescan();
  scans.Rescanned();
  scans.Await(isatty(STDERR_FILENO) != 0);
  refused_ = scans.Refused();
  const std::vector<std::string> report = scans.Report();
  for (const std::string& line : report) Say("emhost: " + line);
  if (report.empty()) Say("emhost: every cabinet's log was collected");
}

bool Shell::Running() {
  if (session_.Started()) return true;
  Say("emhost: the module is stopped; start it first");
  return false;
}

void Shell::SendLine(const std::string& text) {
  SipJson request;
  std::string error;
  if (!ParseRequestLine(text, request, error)) {
    Say("emhost: the request " + error);
    return;
  }
  if (Running()) player_.Send(std::move(request));
}

void Shell::Event(const std::string& line) {
  std::istringstream in(line);
  std::string word, midText;
  in >> word >> midText;  // "event", then the module id or "--updates"
  const bool updates = midText == "--updates";
  if (updates) in >> midText;
  const std::optional<uint32_t> mid = ParseNumber(midText);
  std::string rest(std::istreambuf_iterator<char>(in), {});
  if (!mid || rest.find_first_not_of(" \t") == std::string::npos) {
    Say("emhost: usage: event [--updates] MID REQUEST");
    return;
  }
  SipJson event;
  std::string error;
  if (!ParseRequestLine(rest, event, error)) {
    Say("emhost: the event " + error);
    return;
  }
  if (Running()) player_.Deliver(static_cast<uint32_t>(player_.ClockMs()), *mid, event, updates);
}

void Shell::Log(const std::vector<std::string>& words) {
  const std::optional<uint32_t> cabinet = words.size() > 1 ? ParseNumber(words[1]) : std::nullopt;
  const std::optional<uint32_t> lang = words.size() > 2 ? ParseNumber(words[2]) : 0x409u;
  const std::optional<uint32_t> seq = words.size() > 3 ? ParseNumber(words[3]) : 0u;
  if (!cabinet || !lang || !seq) {
    Say("emhost: usage: log CABINET [LANG] [SEQ]");
    return;
  }
  if (refused_.count(*cabinet) != 0) {
    Say(fmt::format("emhost: the log scan of cabinet {} was refused: the module waits 120 s "
                    "for it and answers 0x0F (rescan once the queue has drained)",
                    *cabinet));
  }
  SendLine(fmt::format("OC=0x0B10 OE=0x{:X} OI=0 CA={} DA={}", *lang, *cabinet, *seq));
}

void Shell::Trace(const std::vector<std::string>& words) {
  const std::optional<uint32_t> level = words.size() > 1 ? ParseNumber(words[1]) : std::nullopt;
  if (!level || *level > 5) {
    Say("emhost: usage: trace N (0..5)");
    return;
  }
  Say(fmt::format("emhost: the module reads its trace level when it is loaded: loading it "
                  "again at level {}",
                  *level));
  if (session_.Reload(static_cast<int>(*level)) == kExitOk) Start();
}

void Shell::Follow(bool on) {
  if (on == following_) return;
  following_ = on;
  if (!on) {
    if (follower_.joinable()) follower_.join();
    return;
  }
  follower_ = std::thread([this] {
    while (following_) {
      const size_t seen = session_.host().HandBackCount();
      session_.host().WaitForHandBacks(seen + 1, std::chrono::milliseconds(200));
      player_.Drain();
    }
  });
}

void Shell::Help(const std::vector<std::string>& words) {
  std::string text;
  for (const Command& command : kCommands) {
    if (words.size() > 1 && words[1] != command.name) continue;
    text += fmt::format("  {:<30} {}\n", command.usage, command.help);
  }
  console::Out(text.empty() ? "emhost: no such command; help lists them\n" : text);
}

bool Shell::Execute(const std::string& line) {
  const std::vector<std::string> words = Words(line);
  if (words.empty()) return true;
  const std::string& name = words[0];
  if (name.rfind("OC=", 0) == 0 || name[0] == '{') {
    SendLine(line);
  } else if (name == "send") {
    SendLine(line.substr(line.find("send") + 4));
  } else if (name == "event") {
    Event(line);
  } else if (name == "log") {
    Log(words);
  } else if (name == "map") {
    if (Running()) PrintMap(session_);
  } else if (name == "rescan") {
    if (Running()) Rescan();
  } else if (name == "stop") {
    session_.Destroy();
    Say("emhost: the module is stopped and deleted");
  } else if (name == "start") {
    if (session_.Started()) {
      Say("emhost: the module runs already");
    } else if (session_.Create() == kExitOk) {
      Start();
    }
  } else if (name == "trace") {
    Trace(words);
  } else if (name == "follow") {
    Follow(words.size() > 1 ? words[1] == "on" : !following_);
    Say(following_ ? "emhost: following what the module hands up" : "emhost: follow is off");
  } else if (name == "play") {
    if (Running()) {
      player_.SetTimeline(session_.scenario().events);
      for (const hostsim::ScenarioRequest& request : session_.scenario().requests) {
        player_.Send(request.ToMessage());
      }
      player_.PlayDueEvents(true);
    }
  } else if (name == "opcodes") {
    PrintOpcodes();
  } else if (name == "history") {
    for (const std::string& entry : editor_.History()) Say("  " + entry);
  } else if (name == "help" || name == "?") {
    Help(words);
  } else if (name == "quit" || name == "exit") {
    return false;
  } else {
    Say("emhost: unknown command \"" + name + "\"; help lists them");
  }
  return true;
}

void Shell::Loop() {
  std::string line;
  while (editor_.ReadLine(line)) {
    if (!Execute(line)) break;
    player_.Drain();
    player_.Forget(session_.host().SentCount());
  }
}

}  // namespace

void AddShellCommand(CLI::App& app, int* exitCode) {
  auto options = std::make_shared<HostOptions>();
  CLI::App* shell = app.add_subcommand(
      "shell", "load the module once and drive it from a prompt (help lists the commands)");
  AddHostOptions(*shell, *options);
  shell->callback([options, exitCode] {
    HostSession session;
    *exitCode = session.Open(*options);
    if (*exitCode != kExitOk) return;
    LineEditor editor("emhost> ", Candidates);
    console::SetInterjector([&editor](const std::function<void()>& print) {
      editor.Interject(print);
    });
    {
      Shell shell(session, editor);
      console::Out(fmt::format("emhost shell: module {}{}; help lists the commands\n",
                               session.moduleName(),
                               session.scenario().name.empty()
                                   ? ""
                                   : ", scenario " + session.scenario().name));
      shell.Start();
      shell.Loop();
    }
    console::SetInterjector(nullptr);
    *exitCode = session.Close();
    console::Finish();
  });
}

}  // namespace em_oidmap::emhost
