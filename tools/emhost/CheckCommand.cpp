// emhost check FILE...: checks scenario files and message files without loading the module.
// Findings go to standard output, one line each ("FILE:LINE: what", "FILE:LINE: warning:
// what" for what plays but hardly as meant); a file without any gets one "FILE: ok (...)"
// line. Exit 0 without findings, 1 with findings, 2 when a file cannot be read.
#include "CheckCommand.h"

#include <fmt/format.h>

#include <cctype>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "Console.h"
#include "HostSession.h"
#include "MessageFileCheck.h"
#include "hostsim/Scenario.h"

namespace em_oidmap::emhost {

namespace {

struct CheckOptions {
  std::vector<std::string> files;
  std::string format;  // "", "old" or "unified"
};

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// A scenario is JSON: by its name, or else by its first character.
bool IsScenario(const std::string& path, const std::string& bytes) {
  const std::string lower = Lower(path);
  if (EndsWith(lower, ".json")) return true;
  if (EndsWith(lower, ".xml")) return false;
  const size_t first = bytes.find_first_not_of(" \t\r\n");
  return first != std::string::npos && bytes[first] == '{';
}

// The format of a message file: the option, else its well-known name, else its codes.
std::optional<LogMsgFormat> MessageFormat(const CheckOptions& options, const std::string& path) {
  if (options.format == "old") return LogMsgFormat::kOldStyle;
  if (options.format == "unified") return LogMsgFormat::kUnified;
  const std::string name = Lower(path.substr(path.find_last_of('/') + 1));
  if (name == Lower(kUnifiedMessageFile)) return LogMsgFormat::kUnified;
  if (name == Lower(kOldStyleMessageFile)) return LogMsgFormat::kOldStyle;
  return std::nullopt;
}

// Checks one file; returns its number of findings.
size_t CheckOne(const CheckOptions& options, const std::string& path, const std::string& bytes) {
  if (IsScenario(path, bytes)) {
    hostsim::Scenario scenario;
    std::vector<hostsim::ScenarioFinding> findings;
    scenario.Check(bytes, findings);
    for (const hostsim::ScenarioFinding& finding : findings) {
      fmt::print("{}:{}: {}{}\n", path, finding.line, finding.warning ? "warning: " : "",
                 finding.what);
    }
    if (findings.empty()) {
      fmt::print("{}: ok (scenario{}, {} modules, {} requests)\n", path,
                 scenario.name.empty() ? "" : " \"" + scenario.name + "\"",
                 scenario.modules.size(), scenario.requests.size());
    }
    return findings.size();
  }
  const MessageFileReport report = CheckMessageFile(bytes, MessageFormat(options, path));
  for (const MessageFileFinding& finding : report.findings) {
    fmt::print("{}:{}: {}\n", path, finding.line, finding.what);
  }
  if (report.findings.empty()) {
    fmt::print("{}: ok ({} message file, {} events, {} languages)\n", path,
               report.format == LogMsgFormat::kUnified ? "unified" : "old-style", report.events,
               report.languages);
  }
  return report.findings.size();
}

int RunCheck(const CheckOptions& options) {
  size_t findings = 0;
  size_t faultyFiles = 0;
  bool unreadable = false;
  for (const std::string& path : options.files) {
    std::string bytes, error;
    if (!ReadInputFile(path, bytes, error)) {
      std::fflush(stdout);
      console::Err("emhost check: " + error + "\n");
      unreadable = true;
      continue;
    }
    const size_t found = CheckOne(options, path, bytes);
    findings += found;
    faultyFiles += found != 0 ? 1 : 0;
  }
  std::fflush(stdout);
  if (findings != 0) {
    fmt::print(stderr, "emhost check: {} finding{} in {} file{}\n", findings,
               findings == 1 ? "" : "s", faultyFiles, faultyFiles == 1 ? "" : "s");
  }
  if (unreadable) return 2;
  return findings != 0 ? 1 : 0;
}

}  // namespace

void AddCheckCommand(CLI::App& app, int* exitCode) {
  auto options = std::make_shared<CheckOptions>();
  CLI::App* check = app.add_subcommand(
      "check", "Check scenario files and message files without running the module");
  check
      ->add_option("FILE", options->files,
                   "Scenario (.json) or message file (.xml) to check; - for standard input. "
                   "A scenario gets every error and warnings for what plays, but hardly as "
                   "meant")
      ->required();
  check
      ->add_option("--format", options->format,
                   "Format of the message files (default: EVENTMSG.XML is unified, "
                   "ERRMSG.XML old style, others by how most of their codes are written)")
      ->check(CLI::IsMember({"old", "unified"}));
  check->footer(
      "Exit status: 0 without findings, 1 with findings, 2 on a bad command line or a file "
      "that cannot be read.");
  check->callback([options, exitCode] { *exitCode = RunCheck(*options); });
}

}  // namespace em_oidmap::emhost
