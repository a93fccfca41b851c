// Cost of answering one log-entry query: a page of 2000 entries (old-style and unified
// mixed) translated with message files of 5000 events in 3 languages.
//  - The whole answer as a client gets it from the module (the page copied out of the
//    cache, translated and written into the message), against the floor of writing the
//    same answer bytes into the message with RapidJSON alone.
//  - The page alone (BuildMsgLogPage) with the files loaded, against the same page when
//    both files are parsed for every query.
//  - Loading one message file (parse and index), against pugixml parsing it alone.
// The files are written into a temporary directory at start.

#include <malloc.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <pugixml.hpp>

#include "bench/BenchRatio.h"
#include "hostsim/SimHost.h"
#include "hostsim/SimLog.h"
#include "msglog/MsgLogPage.h"
#include "msglog/XmlDocument.h"
#include "oidmap/OidMapExtModule.h"
#include "sip/SipStatus.h"
#include "trace/DebugClient.h"

using namespace em_oidmap;  // a program of its own: its names are short

namespace {

constexpr int kEvents = 5000;
constexpr uint32_t kLangId = 0x407;  // the second of the three languages
const char* const kLanguages[][2] = {{"0x409", "en"}, {"0x407", "de"}, {"0x40C", "fr"}};

// Error code of event `i`: unified class * 65536 + low byte, old style class * 256 + low.
uint32_t UnifiedCode(int i) { return static_cast<uint32_t>((i / 200 + 1) << 16 | (i % 200)); }
uint32_t OldStyleCode(int i) { return static_cast<uint32_t>((i / 200 + 1) << 8 | (i % 200)); }

// The same texts in both files; the argument numbers follow each record layout.
void WriteMessageFile(const std::string& path, bool unified) {
  std::ofstream out(path);
  out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<EventMsg>\n  <LanguageTable>\n";
  for (const auto& language : kLanguages)
    out << "    <Language locale=\"" << language[0] << "\" lang=\"" << language[1] << "\"/>\n";
  out << "  </LanguageTable>\n  <Events>\n";
  char code[16];
  for (int i = 0; i < kEvents; ++i) {
    snprintf(code, sizeof(code), unified ? "0x%06X" : "0x%04X",
             unified ? UnifiedCode(i) : OldStyleCode(i));
    out << "    <Event ErrorCode=\"" << code << "\">\n";
    for (const auto& language : kLanguages) {
      const std::string lang = language[1];
      out << "      <Messages lang=\"" << lang << "\">\n"
          << "        <LongMsg>[" << lang << "] Sensor %D of event " << i
          << (unified ? " reads %1, limit %2." : " reads %2, limit %3.") << "</LongMsg>\n"
          << "        <ShortMsg>[" << lang << "] Sensor %D event " << i << "</ShortMsg>\n"
          << "        <Summary>[" << lang << "] Summary of event " << i << ".</Summary>\n"
          << "        <Cause>First cause.</Cause>\n        <Cause>Second cause.</Cause>\n"
          << "        <Resolution>Check the sensor.</Resolution>\n"
          << "        <Resolution>Contact %HD%.</Resolution>\n"
          << "      </Messages>\n";
    }
    out << "    </Event>\n";
  }
  out << "  </Events>\n</EventMsg>\n";
}

// The message files, written once and removed at exit.
class MessageDirectory {
 public:
  MessageDirectory() {
    path_ = (std::filesystem::temp_directory_path() / "msglogbenchXXXXXX").string();
    if (!mkdtemp(&path_[0])) {
      path_.clear();
      return;
    }
    WriteMessageFile(path_ + "/EVENTMSG.XML", true);
    WriteMessageFile(path_ + "/ERRMSG.XML", false);
  }
  ~MessageDirectory() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  const std::string& Path() const { return path_; }

 private:
  std::string path_;
};

const MessageDirectory& Messages() {
  static const MessageDirectory directory;
  return directory;
}

// A full cache: every other entry old style, codes spread over the whole file.
std::vector<MsgLogEntry> FullCache() {
  std::vector<MsgLogEntry> entries(kMsgLogPageSize);
  for (uint32_t k = 0; k < kMsgLogPageSize; ++k) {
    MsgLogEntry& e = entries[k];
    const int event = static_cast<int>((k * 2503u) % kEvents);
    e.SequenceNumber = k + 1;
    e.OrderValue = k;
    e.Flags = k & 1;
    if (k % 2 == 0) {
      const uint32_t code = OldStyleCode(event);
      e.OldStyle = 1;
      e.ErrorCode = code;
      // Cabinet 1, object id 3, two 32-bit values.
      e.SetRawRecord({static_cast<uint8_t>(code), static_cast<uint8_t>(code >> 8), 0, 3, 0, 0, 0,
                      0, 1, 0, 3, 0, 40, 0, 0, 0, 60, 0, 0, 0});
      e.SetArgument(0, "TEMP" + std::to_string(k % 16));
    } else {
      e.ErrorCode = UnifiedCode(event);
      e.SetArguments({{1, std::to_string(k % 90)}, {2, "85"}});
    }
  }
  return entries;
}

CLogMsgFile::DirectoryProvider NoRegisteredDirectory() {
  return [] { return std::string(); };
}

void RunPage(benchmark::State& state, CLogMsgFile& files, const std::vector<MsgLogEntry>& entries,
             std::vector<uint8_t>& data) {
  const MsgLogTextSources sources{&files, nullptr, nullptr};
  data.clear();
  if (!BuildMsgLogPage({kLangId, 0, 0}, entries, sources, &data))
    state.SkipWithError("empty page");
}

// A text that shows the files were used: the old-style and the unified text of event 0.
bool PageUsedTheFiles(const std::vector<uint8_t>& data) {
  const std::string bytes(data.begin(), data.end());
  return bytes.find("[de] Sensor TEMP0 of event 0 reads 40, limit 60.") != std::string::npos &&
         bytes.find("[de] Sensor <?D> of event 2503 reads 1, limit 85.") != std::string::npos;
}

void BM_PageWarm(benchmark::State& state) {
  const std::vector<MsgLogEntry> entries = FullCache();
  CLogMsgFile files(Messages().Path(), NoRegisteredDirectory());
  std::vector<uint8_t> data;
  RunPage(state, files, entries, data);  // loads both files
  for (auto _ : state) {
    RunPage(state, files, entries, data);
    benchmark::DoNotOptimize(data.data());
  }
  if (!PageUsedTheFiles(data)) state.SkipWithError("texts did not come from the files");
  if (files.ParseCount() != 2) state.SkipWithError("a file was parsed again");
  state.counters["answer_bytes"] = static_cast<double>(data.size());
}
BENCHMARK(BM_PageWarm)->Unit(benchmark::kMillisecond);

void BM_PageParsedEachQuery(benchmark::State& state) {
  const std::vector<MsgLogEntry> entries = FullCache();
  std::vector<uint8_t> data;
  for (auto _ : state) {
    CLogMsgFile files(Messages().Path(), NoRegisteredDirectory());
    RunPage(state, files, entries, data);
    benchmark::DoNotOptimize(data.data());
  }
  if (!PageUsedTheFiles(data)) state.SkipWithError("texts did not come from the files");
}
BENCHMARK(BM_PageParsedEachQuery)->Unit(benchmark::kMillisecond);

// ---- The answer through the module ---------------------------------------------------

constexpr uint32_t kOcLogPage = 0x0B10;
constexpr uint32_t kOcSelLanguages = 0x0B20;
constexpr uint32_t kMidUnified = 0x00010001;
constexpr uint32_t kMidOldStyle = 0x00020001;

// A started module whose cabinet 0 holds a full cache from its own scan: 1000 unified
// records of one module and 1000 old-style records of another (which has no unified log),
// interleaved by order value, with the codes spread over the message files; the first
// module reports the three languages.
class PageHost {
 public:
  PageHost() : module_(Messages().Path()) {
    std::vector<hostsim::SimUnifiedRecord> unified;
    std::vector<hostsim::SimOldStyleRecord> oldStyle;
    for (uint32_t k = 0; k < kMsgLogPageSize / 2; ++k) {
      const int event = static_cast<int>((k * 2503u) % kEvents);
      unified.push_back(
          hostsim::Unified(UnifiedCode(event), 2 * k + 1, {std::to_string(k % 90), "85"}));
      oldStyle.push_back(hostsim::OldStyle(OldStyleCode(event), 2 * k + 2, 3, 1, {40, 60}));
    }
    hostsim::SimModule& a = host_.AddModule(kMidUnified);
    hostsim::ReplyRule languages;
    languages.oc = kOcSelLanguages;
    languages.dataJson = R"({"RAW":[9,4,7,4,12,4]})";
    a.AddRule(languages);
    a.SetLog(hostsim::kOcLogMessageArguments, std::nullopt, hostsim::EncodeLog(unified));
    host_.AddModule(kMidOldStyle)
        .SetLog(hostsim::kOcLogEntry, hostsim::kLogCritical, hostsim::EncodeLog(oldStyle));
    module_.SetServerCabinet(0);
    module_.Start(&host_, host_.Attach(&module_));
    module_.Rescan();
    ready_ = module_.LogStore().WaitForReady(0, 60000);
  }
  ~PageHost() { module_.Stop(); }

  bool Ready() const { return ready_; }
  // The page request as a client sends it, answered.
  SipJson Ask() {
    SipJson msg(kOcLogPage, kLangId, 0, 0);
    module_.OnRequest(msg);
    return msg;
  }

 private:
  hostsim::SimHost host_;
  COidMapExtModule module_;
  bool ready_ = false;
};

// The answer's bytes, or empty when it is not a successful page.
std::vector<uint8_t> AnswerBytes(const SipJson& answer) {
  std::vector<uint8_t> bytes;
  if (answer.GetStatus(0) == ST_SUCCESS) answer.GetDataBytes(0, bytes);
  return bytes;
}

// Both forms' texts of event 2503, as the second record of each module gives them (the
// modules tell no designation).
bool AnswerUsedTheFiles(const std::vector<uint8_t>& data) {
  const std::string bytes(data.begin(), data.end());
  return bytes.find("[de] Sensor <?D> of event 2503 reads 1, limit 85.") != std::string::npos &&
         bytes.find("[de] Sensor <?D> of event 2503 reads 40, limit 60.") != std::string::npos;
}

void BM_PageAnswer(benchmark::State& state) {
  PageHost host;
  if (!host.Ready()) {
    state.SkipWithError("the cache did not become ready");
    return;
  }
  const std::vector<uint8_t> first = AnswerBytes(host.Ask());  // loads both files
  for (auto _ : state) {
    SipJson answer = host.Ask();
    benchmark::DoNotOptimize(answer.Doc());
  }
  if (!AnswerUsedTheFiles(first)) state.SkipWithError("texts did not come from the files");
  if (AnswerBytes(host.Ask()) != first) state.SkipWithError("the answer changed");
  state.counters["answer_bytes"] = static_cast<double>(first.size());
}
BENCHMARK(BM_PageAnswer)->Unit(benchmark::kMillisecond);

// Floor: the same answer bytes written into the same request as its raw data, with
// RapidJSON alone: whatever the module does, the answer has to be written.
void BM_PageBytesRapidJson(benchmark::State& state) {
  std::vector<uint8_t> bytes;
  {
    PageHost host;
    bytes = host.Ready() ? AnswerBytes(host.Ask()) : std::vector<uint8_t>();
  }
  if (bytes.empty()) {
    state.SkipWithError("no answer to copy");
    return;
  }
  for (auto _ : state) {
    SipJson msg(kOcLogPage, kLangId, 0, 0);
    SipJson::Document& doc = msg.Doc();
    SipJson::Allocator& a = doc.GetAllocator();
    SipJson::Value& command = doc["SIP"]["CMD"][0];
    SipJson::Value raw(rapidjson::kArrayType);
    raw.Reserve(static_cast<rapidjson::SizeType>(bytes.size()), a);
    for (uint8_t b : bytes) raw.PushBack(SipJson::Value(static_cast<unsigned>(b)), a);
    SipJson::Value data(rapidjson::kObjectType);
    data.AddMember("RAW", raw, a);
    command.AddMember("DA", data, a);
    command.AddMember("ST", ST_SUCCESS, a);
    benchmark::DoNotOptimize(doc);
  }
}
BENCHMARK(BM_PageBytesRapidJson)->Unit(benchmark::kMillisecond);

// ---- Loading a message file ---------------------------------------------------------------

// A message file loaded as a query first opens it: parsed and indexed.
void BM_LoadMessageFile(benchmark::State& state) {
  for (auto _ : state) {
    CLogMsgFile files(Messages().Path(), NoRegisteredDirectory());
    if (!files.Open(LogMsgFormat::kUnified)) {
      state.SkipWithError("the file did not load");
      break;
    }
  }
}
BENCHMARK(BM_LoadMessageFile)->Unit(benchmark::kMillisecond);

// Floor: pugixml parsing the same file into its document, as the loader asks it to.
void BM_PugixmlParse(benchmark::State& state) {
  const std::string path = Messages().Path() + "/" + kUnifiedMessageFile;
  for (auto _ : state) {
    pugi::xml_document doc;
    if (!doc.load_file(path.c_str(), CXmlDocument::kParseOptions, pugi::encoding_auto)) {
      state.SkipWithError("the file did not parse");
      break;
    }
  }
}
BENCHMARK(BM_PugixmlParse)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  // Freed memory stays with the allocator for the next iteration. Otherwise whether a
  // parse of several megabytes pays page faults depends on what ran before it in this
  // process (the allocator's trim and mmap thresholds adapt as it goes): the same pugixml
  // parse measured 5 ms or 14 ms by the order the benchmarks ran in.
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 512 << 20);
  // Only the trace-active test remains on the path.
  TraceClient().SetTraceLevel(0);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  if (Messages().Path().empty()) {
    std::fprintf(stderr, "cannot create the message file directory\n");
    return 1;
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const double warm = reporter.Get("BM_PageWarm") / 1e6;
  if (warm > 0) std::printf("\nCPU time per page, warm: %.3f ms\n", warm);
  reporter.PrintRatio("parsed each query / warm page", "BM_PageParsedEachQuery",
                      "BM_PageWarm");
  reporter.PrintRatio("page answer / its bytes written by RapidJSON", "BM_PageAnswer",
                      "BM_PageBytesRapidJson");
  reporter.PrintRatio("message file loaded / parsed by pugixml", "BM_LoadMessageFile",
                      "BM_PugixmlParse");
  benchmark::Shutdown();
  return 0;
}
