// emhost decode [RECORD...]: shows log records, given in hexadecimal, as the module's log
// page would: the records become cache entries and go through BuildMsgLogPage with the
// message file and language asked for. One output line per record, "CODE TEXT", CODE the
// page's short error code; a record without a text shows the page's fall-back text.
#include "DecodeCommand.h"

#include <fmt/format.h>
#include <stdlib.h>
#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "msglog/LogRecords.h"
#include "msglog/MsgLogPage.h"

namespace em_oidmap::emhost {

namespace {

struct DecodeOptions {
  std::vector<std::string> records;
  std::string format;  // "", "old" or "unified"
  std::string msgFile;
  std::string lang = "0x409";
  std::string designation;
};

struct InputRecord {
  std::string where;  // "argument 2", "line 7"
  std::vector<uint8_t> bytes;
};

int Fail(const std::string& message) {
  fmt::print(stderr, "emhost decode: {}\n", message);
  return 2;
}

// Hexadecimal words, bytes in the order written; blanks between words are allowed.
bool ParseHex(const std::string& text, std::vector<uint8_t>& bytes, std::string& error) {
  int pending = -1;  // the high digit of a byte, until its low one comes
  for (char c : text) {
    if (std::isspace(static_cast<unsigned char>(c))) {
      if (pending >= 0) break;  // a word of an odd number of digits
      continue;
    }
    if (!std::isxdigit(static_cast<unsigned char>(c))) {
      error = fmt::format("\"{}\" is not a hexadecimal digit", c);
      return false;
    }
    const int digit =
        std::isdigit(static_cast<unsigned char>(c)) ? c - '0' : std::tolower(c) - 'a' + 10;
    if (pending < 0) {
      pending = digit;
    } else {
      bytes.push_back(static_cast<uint8_t>(pending << 4 | digit));
      pending = -1;
    }
  }
  if (pending >= 0) {
    error = "a hexadecimal word has an odd number of digits";
    return false;
  }
  if (bytes.empty()) error = "no bytes";
  return !bytes.empty();
}

// The length the header of a record at `bytes` gives; 0 when too few bytes tell it.
size_t HeaderLength(const std::vector<uint8_t>& bytes, LogMsgFormat format) {
  if (format == LogMsgFormat::kOldStyle) {
    return bytes.size() < kOldStyleRecordHeaderBytes
               ? 0
               : OldStyleRecordLength(bytes[0], bytes[1], bytes[3]);
  }
  return bytes.size() < 2 ? 0 : static_cast<size_t>(bytes[0] | bytes[1] << 8);
}

// Whether `bytes` hold exactly one whole record of the format, as the module's walks take it.
bool IsWholeRecord(const std::vector<uint8_t>& bytes, LogMsgFormat format) {
  if (format == LogMsgFormat::kOldStyle) {
    const LogBlockWalk walk =
        WalkOldStyleRecords(bytes.data(), bytes.size(), [](const OldStyleRecord&) {});
    return walk.whole && walk.records == 1;
  }
  std::vector<MsgLogEntry> entries;
  const LogBlockWalk walk = ParseUnifiedRecords(bytes.data(), bytes.size(), 0, entries);
  return walk.whole && walk.records == 1;
}

// Makes a message file of any name findable by CLogMsgFile, which looks for its fixed name
// in a directory: a file of another name is linked under that name in a directory of its own.
class MessageDirectory {
 public:
  bool Prepare(const std::string& file, const char* fixedName, std::string& error) {
    namespace fs = std::filesystem;
    std::error_code ec;
    const fs::path path = fs::absolute(file, ec);
    if (ec || !fs::is_regular_file(path, ec)) {
      error = fmt::format("cannot read the message file {}", file);
      return false;
    }
    if (path.filename() == fixedName) {
      dir_ = path.parent_path().string();
      return true;
    }
    std::string pattern = (fs::temp_directory_path(ec) / "emhost-decode.XXXXXX").string();
    if (ec || mkdtemp(pattern.data()) == nullptr) {
      error = "cannot make a temporary directory";
      return false;
    }
    temporary_ = pattern;
    dir_ = pattern;
    fs::create_symlink(path, fs::path(dir_) / fixedName, ec);
    if (ec) error = fmt::format("cannot link {} as {}", file, fixedName);
    return !ec;
  }
  ~MessageDirectory() {
    std::error_code ec;
    if (!temporary_.empty()) std::filesystem::remove_all(temporary_, ec);
  }
  const std::string& Dir() const { return dir_; }

 private:
  std::string dir_;
  std::string temporary_;
};

// The language id of --lang; false when it is none.
bool ParseLang(const std::string& text, uint16_t& langId) {
  try {
    size_t used = 0;
    const unsigned long value = std::stoul(text, &used, 0);
    if (used != text.size() || value > 0xFFFF) return false;
    langId = static_cast<uint16_t>(value);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

// The records of the arguments, or of standard input; "" or what is wrong.
std::string ReadInputs(const DecodeOptions& options, std::vector<InputRecord>& inputs) {
  std::string error;
  const bool fromStdin =
      options.records.empty() || (options.records.size() == 1 && options.records[0] == "-");
  if (fromStdin) {
    std::string line;
    for (size_t number = 1; std::getline(std::cin, line); ++number) {
      const size_t first = line.find_first_not_of(" \t\r");
      if (first == std::string::npos || line[first] == '#') continue;  // blank or comment
      inputs.push_back({fmt::format("line {}", number), {}});
      if (!ParseHex(line, inputs.back().bytes, error)) {
        return fmt::format("{}: {}", inputs.back().where, error);
      }
    }
    return "";
  }
  for (size_t k = 0; k < options.records.size(); ++k) {
    inputs.push_back({fmt::format("argument {}", k + 1), {}});
    if (!ParseHex(options.records[k], inputs.back().bytes, error)) {
      return fmt::format("{}: {}", inputs.back().where, error);
    }
  }
  return "";
}

// The records' format: --format, else the one of which every record is a whole record.
// "" or what is wrong.
std::string ChooseFormat(const DecodeOptions& options, const std::vector<InputRecord>& inputs,
                         LogMsgFormat& format) {
  const auto allWhole = [&inputs](LogMsgFormat candidate) {
    for (const InputRecord& input : inputs) {
      if (!IsWholeRecord(input.bytes, candidate)) return false;
    }
    return true;
  };
  if (options.format == "old") {
    format = LogMsgFormat::kOldStyle;
  } else if (options.format == "unified") {
    format = LogMsgFormat::kUnified;
  } else if (allWhole(LogMsgFormat::kUnified)) {
    // A unified record starts with its own length, which an old-style header rarely fits.
    format = LogMsgFormat::kUnified;
  } else if (allWhole(LogMsgFormat::kOldStyle)) {
    format = LogMsgFormat::kOldStyle;
  } else {
    return "the records are neither all unified nor all old-style records; "
           "give --format to learn which one is not";
  }
  for (const InputRecord& input : inputs) {
    if (IsWholeRecord(input.bytes, format)) continue;
    const size_t length = HeaderLength(input.bytes, format);
    return fmt::format("{}: {} bytes are not one whole {} record ({})", input.where,
                       input.bytes.size(),
                       format == LogMsgFormat::kOldStyle ? "old-style" : "unified",
                       length == 0 ? std::string("too short for its header")
                       : length == input.bytes.size()
                           ? std::string("a string lacks its NUL")
                           : fmt::format("its header gives {} bytes", length));
  }
  return "";
}

std::vector<MsgLogEntry> MakeEntries(const std::vector<InputRecord>& inputs,
                                     LogMsgFormat format, const std::string& designation) {
  std::vector<MsgLogEntry> entries;
  for (const InputRecord& input : inputs) {
    if (format == LogMsgFormat::kOldStyle) {
      WalkOldStyleRecords(
          input.bytes.data(), input.bytes.size(), [&](const OldStyleRecord& record) {
            entries.push_back(MakeOldStyleEntry(record, 0, false, designation));
          });
    } else {
      ParseUnifiedRecords(input.bytes.data(), input.bytes.size(), 0, entries);
      if (!designation.empty()) entries.back().SetArgument(0, designation);
    }
    entries.back().SequenceNumber = static_cast<uint32_t>(entries.size());
  }
  return entries;
}

// Prints the page's records, one a line; returns how many.
size_t PrintPage(const std::vector<uint8_t>& page) {
  size_t shown = 0;
  for (size_t at = 0; page.size() - at >= kMsgLogRecordOverhead; ++shown) {
    const size_t length = page[at] | page[at + 1] << 8;
    const unsigned code = page[at + 4] | page[at + 5] << 8;
    const std::string text(reinterpret_cast<const char*>(&page[at + 16]),
                           length - kMsgLogRecordOverhead);
    fmt::print("{:04X} {}{}\n", code, text, (page[at + 6] & 1) != 0 ? "  [CSS]" : "");
    at += length;
  }
  return shown;
}

int RunDecode(const DecodeOptions& options) {
  uint16_t langId = 0;
  if (!ParseLang(options.lang, langId)) {
    return Fail(fmt::format("--lang needs a language id such as 0x409, not \"{}\"", options.lang));
  }
  std::vector<InputRecord> inputs;
  LogMsgFormat format = LogMsgFormat::kUnified;
  std::string error = ReadInputs(options, inputs);
  if (error.empty()) error = ChooseFormat(options, inputs, format);
  if (!error.empty()) return Fail(error);
  const std::vector<MsgLogEntry> entries = MakeEntries(inputs, format, options.designation);

  const char* fixedName = MessageFileName(format);
  const std::string msgFile = options.msgFile.empty()
                                  ? std::string(EM_SAMPLE_MSGFILES_DIR "/") + fixedName
                                  : options.msgFile;
  MessageDirectory dir;
  if (!dir.Prepare(msgFile, fixedName, error)) return Fail(error);
  CLogMsgFile files(dir.Dir(), [] { return std::string(); });
  if (!files.Open(format)) return Fail(fmt::format("cannot load the message file {}", msgFile));

  MsgLogTextSources sources;
  sources.files = &files;
  std::vector<uint8_t> page;
  MsgLogPageQuery query;
  query.opCodeExt = langId;
  for (; static_cast<size_t>(query.pageNumber) * kMsgLogPageSize < entries.size();
       ++query.pageNumber) {
    BuildMsgLogPage(query, entries, sources, &page);
  }
  const size_t shown = PrintPage(page);
  if (shown != entries.size()) {
    fmt::print(stderr, "emhost decode: the module showed {} of {} records\n", shown,
               entries.size());
    return 1;
  }
  return 0;
}

}  // namespace

void AddDecodeCommand(CLI::App& app, int* exitCode) {
  auto options = std::make_shared<DecodeOptions>();
  CLI::App* decode = app.add_subcommand(
      "decode", "Show log records given in hexadecimal as the module's log page shows them");
  decode->add_option("RECORD", options->records,
                     "One record as hexadecimal bytes in the order they lie in memory, "
                     "blanks allowed; none or - reads one record per line from standard input "
                     "(blank lines and lines starting with # are skipped)");
  decode
      ->add_option("--format", options->format,
                   "Record layout (default: unified when every record is a whole unified "
                   "record, else old)")
      ->check(CLI::IsMember({"old", "unified"}));
  decode->add_option("--msgfile", options->msgFile,
                     "Message file (default: the sample EVENTMSG.XML or ERRMSG.XML of the format)");
  decode->add_option("--lang", options->lang, "Language id, looked up in the file's LanguageTable")
      ->capture_default_str();
  decode->add_option("--designation", options->designation,
                     "Designation of the records' object, shown for %D (default: none, <?D>)");
  decode->footer(
      "Exit status: 0 on success, 1 when the module does not show every record, 2 on a bad "
      "command line, malformed hexadecimal or a message file that cannot be loaded.");
  decode->callback([options, exitCode] { *exitCode = RunDecode(*options); });
}

}  // namespace em_oidmap::emhost
