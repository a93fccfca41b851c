// Arbitrary bytes as a log record, decoded in both formats against a small message file,
// and as a format string filled with the record's arguments and with the input's
// NUL-separated strings as a unified entry's: nothing may crash or read past the record,
// and a decoded record always yields text. Tracing is on at the highest level (into a sink
// that keeps nothing), so the arguments are formatted into trace lines too.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "fuzz/FuzzHarness.h"
#include "hostsim/DebugSink.h"
#include "msglog/LogMsgDecoder.h"

using namespace em_oidmap;  // a program of its own: its names are short
using fuzz::Check;

namespace {

const char* kMessages =
    "<EventMsg><LanguageTable><Language locale='0x409' lang='en'/></LanguageTable><Events>"
    "<Event ErrorCode='0x0105'><Messages lang='en'>"
    "<LongMsg>%D: %0/%1 %2X %3S %10 %11u1 %255 %% %HD% %s</LongMsg>"
    "<ShortMsg>%1</ShortMsg></Messages></Event>"
    "<Event ErrorCode='0x010005'><Messages lang='en'>"
    "<LongMsg>%0 %1 %2 %3 %4 %5 %6 %7 %8 %9 %10 %11 %12 %13 %14 %15 %16S</LongMsg>"
    "</Messages></Event></Events></EventMsg>";

const CLogMsgFile& File() {
  static const CLogMsgFile* file = [] {
    hostsim::Sink().SetKeepLines(false);
    TraceClient().SetTraceLevel(5);
    auto* f = new CLogMsgFile(".", [] { return std::string(); });
    Check(f->OpenFromText(kMessages));
    return f;
  }();
  return *file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Copy into a buffer of exactly `size` bytes so that ASan reports any overread.
  const std::vector<uint8_t> record(data, data + size);
  const uint8_t* bytes = record.empty() ? nullptr : record.data();
  const bool flags = size > 2 && (data[2] & 1);
  for (LogMsgFormat format : {LogMsgFormat::kUnified, LogMsgFormat::kOldStyle}) {
    const CLogMsgDecoder decoder(File(), format);
    std::string out;
    const int32_t result = decoder.Decode(bytes, record.size(), out, flags, !flags, "D", nullptr);
    Check(result == (size >= 4 ? 1 : 0));
  }

  std::vector<CLogMsgDecoder::Argument> args;
  for (size_t i = 0; i + 4 <= size && args.size() < 20; i += 4) {
    args.push_back({static_cast<uint32_t>(data[i] | data[i + 1] << 8 | data[i + 2] << 16 |
                                          static_cast<uint32_t>(data[i + 3]) << 24),
                    (data[i] & 1) != 0});
  }
  const std::string format = fuzz::Text(data, size);
  CLogMsgDecoder::FillFormat(format, args, "", LogMsgFormat::kOldStyle, flags);
  std::map<int32_t, std::string> strings;
  for (size_t start = 0, n = 0; start < size && n < 20; ++n) {
    const size_t end = format.find('\0', start);
    strings[static_cast<int32_t>(n)] = format.substr(start, end - start);
    start = end == std::string::npos ? size : end + 1;
  }
  MsgLogEntry entry;
  entry.SetArguments(strings);
  CLogMsgDecoder::FillTextArguments(format, entry);
  return 0;
}
