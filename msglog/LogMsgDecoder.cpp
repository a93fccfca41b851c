#include "msglog/LogMsgDecoder.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "trace/DebugClient.h"

namespace em_oidmap {

namespace {

// The bytes a record must hold to name its code and argument count.
constexpr size_t kMinRecordBytes = 4;
// Offset of the inline text and of the first 16-bit argument.
constexpr size_t kArgsOffset = 8;
// Offset of the first 32-bit argument.
constexpr size_t kWideArgsOffset = 12;
// Longest argument number a placeholder may carry (digits).
constexpr size_t kMaxPlaceholderDigits = 3;

CLogMsgDecoder::Argument Read16(const uint8_t* record, size_t length, size_t offset) {
  CLogMsgDecoder::Argument arg;
  if (offset + 2 <= length) {
    arg.value =
        static_cast<uint32_t>(record[offset]) | (static_cast<uint32_t>(record[offset + 1]) << 8);
    arg.present = true;
  }
  return arg;
}

CLogMsgDecoder::Argument Read32(const uint8_t* record, size_t length, size_t offset) {
  CLogMsgDecoder::Argument arg;
  if (offset + 4 <= length) {
    arg.value = static_cast<uint32_t>(record[offset]) |
                (static_cast<uint32_t>(record[offset + 1]) << 8) |
                (static_cast<uint32_t>(record[offset + 2]) << 16) |
                (static_cast<uint32_t>(record[offset + 3]) << 24);
    arg.present = true;
  }
  return arg;
}

std::string MissingArgument(size_t number) { return "<?" + std::to_string(number) + ">"; }

std::string Hex(uint32_t value) {
  char buf[16];
  snprintf(buf, sizeof(buf), "%X", value);
  return buf;
}

// A 32-bit argument that carries a short tag: its bytes, low first, up to the first NUL;
// bytes that are not printable ASCII show as '?'.
std::string ValueAsText(uint32_t value) {
  std::string text;
  for (int i = 0; i < 4; ++i) {
    const unsigned char c = static_cast<unsigned char>(value >> (8 * i));
    if (c == 0) break;
    text += (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : '?';
  }
  return text;
}

// A placeholder of a format string.
struct Token {
  enum Kind { kArgument, kDesignation } kind = kArgument;
  size_t number = 0;      // kArgument
  char conversion = 'u';  // kArgument: 'u' decimal, 'X' hexadecimal, 'S' quoted text
};

// Walks `format` once, handing each run of literal text to `literal(data, length)` and
// each placeholder to `placeholder(token)`; allocates nothing.
template <typename Literal, typename Placeholder>
void ScanFormat(std::string_view format, Literal literal, Placeholder placeholder) {
  const size_t size = format.size();
  size_t i = 0;
  while (i < size) {
    const size_t percent = format.find('%', i);
    if (percent == std::string_view::npos) {
      literal(format.data() + i, size - i);
      break;
    }
    literal(format.data() + i, percent - i);
    i = percent + 1;
    if (i < size && format[i] == '%') {
      literal("%", 1);
      ++i;
    } else if (i < size && format[i] == 'D') {
      Token token;
      token.kind = Token::kDesignation;
      placeholder(token);
      ++i;
    } else if (i < size && format[i] >= '0' && format[i] <= '9') {
      Token token;
      for (size_t digits = 0;
           digits < kMaxPlaceholderDigits && i < size && format[i] >= '0' && format[i] <= '9';
           ++digits, ++i) {
        token.number = token.number * 10 + static_cast<size_t>(format[i] - '0');
      }
      if (i < size && (format[i] == 'u' || format[i] == 'X' || format[i] == 'S')) {
        token.conversion = format[i++];
      }
      placeholder(token);
    } else {
      // Not ours (e.g. "%HD%", "50 %"): keep it as written.
      literal("%", 1);
    }
  }
}

// Fills `format` and appends it to `text`; `argument(token, text)` appends the text of an
// argument placeholder.
template <typename RenderArgument>
void RenderTo(std::string_view format, std::string_view designation, RenderArgument argument,
              std::string& text) {
  text.reserve(text.size() + format.size() + 32);
  ScanFormat(
      format, [&text](const char* data, size_t length) { text.append(data, length); },
      [&](const Token& token) {
        if (token.kind == Token::kArgument)
          argument(token, text);
        else if (designation.empty())
          text += "<?D>";
        else
          text += designation;
      });
}

template <typename RenderArgument>
std::string Render(std::string_view format, std::string_view designation, RenderArgument argument) {
  std::string text;
  RenderTo(format, designation, argument, text);
  return text;
}

}  // namespace

std::string CLogMsgDecoder::FillFormat(std::string_view format, const std::vector<Argument>& args,
                                       std::string_view designation, LogMsgFormat logFormat,
                                       bool argsNotSet) {
  if (TraceClient().IsTraceActive()) {
    std::vector<bool> asText(args.size(), false);
    int present = 0;
    ScanFormat(
        format, [](const char*, size_t) {},
        [&asText](const Token& token) {
          if (token.kind == Token::kArgument && token.conversion == 'S' &&
              token.number < asText.size())
            asText[token.number] = true;
        });
    for (const Argument& arg : args) present += arg.present ? 1 : 0;
    EM_TRACE(5, "\nCLogMsgDecoder      : Format %s SEL message:",
             logFormat == LogMsgFormat::kUnified ? "Unified" : "old style");
    EM_TRACE(5, "\nCLogMsgDecoder      :   Message format string: \"%s\"",
             std::string(format).c_str());
    EM_TRACE(5, "\nCLogMsgDecoder      :   Message arguments (%d):", present);
    for (size_t k = 0; k < args.size(); ++k) {
      if (!args[k].present) continue;
      if (asText[k]) {
        EM_TRACE(5, "\nCLogMsgDecoder      :     Arg[%d]: %d (\"%s\")", static_cast<int>(k),
                 static_cast<int>(args[k].value), ValueAsText(args[k].value).c_str());
      } else {
        EM_TRACE(5, "\nCLogMsgDecoder      :     Arg[%d]: 0x%X (%d)", static_cast<int>(k),
                 args[k].value, static_cast<int>(args[k].value));
      }
    }
  }

  return Render(format, designation, [&](const Token& token, std::string& text) {
    if (argsNotSet) {
      text += "<not set>";
    } else if (token.number >= args.size() || !args[token.number].present) {
      text += MissingArgument(token.number);
    } else if (token.conversion == 'X') {
      text += Hex(args[token.number].value);
    } else if (token.conversion == 'S') {
      text += '"';
      text += ValueAsText(args[token.number].value);
      text += '"';
    } else {
      text += std::to_string(args[token.number].value);
    }
  });
}

std::string CLogMsgDecoder::FillTextArguments(std::string_view format, const MsgLogEntry& entry) {
  std::string text;
  AppendTextArguments(format, entry, text);
  return text;
}

void CLogMsgDecoder::AppendTextArguments(std::string_view format, const MsgLogEntry& entry,
                                         std::string& text) {
  EM_TRACE(5, "\nCLogMsgDecoder      : Format %s SEL message:", "Unified");
  EM_TRACE(5, "\nCLogMsgDecoder      :   Message format string: \"%s\"",
           std::string(format).c_str());
  if (TraceClient().IsTraceActive()) {
    EM_TRACE(5, "\nCLogMsgDecoder      :   Message arguments (%d):",
             static_cast<int>(entry.ArgumentCount()));
    entry.ForEachArgument([](const MsgLogArgument& arg) {
      EM_TRACE(5, "\nCLogMsgDecoder      :     Arg[%d]: \"%s\"", arg.number,
               std::string(arg.text).c_str());
    });
  }
  std::string_view designation;
  entry.FindArgument(0, &designation);
  RenderTo(
      format, designation,
      [&entry](const Token& token, std::string& out) {
        std::string_view arg;
        if (!entry.FindArgument(static_cast<int32_t>(token.number), &arg)) {
          out += MissingArgument(token.number);
        } else if (token.conversion == 'S') {
          out += '"';
          out += arg;
          out += '"';
        } else {
          out += arg;
        }
      },
      text);
}

std::vector<CLogMsgDecoder::Argument> CLogMsgDecoder::CollectArguments(
    const uint8_t* record, size_t length, uint32_t errorCode, const char* langForTrace) const {
  const unsigned n = record[3];
  std::vector<Argument> args;
  size_t first32;  // list index of the first 32-bit argument
  if (format_ == LogMsgFormat::kUnified) {
    EM_TRACE(4, "\nCLogMsgDecoder      : Unified SEL error code: 0x%X (Lang: \"%s\")", errorCode,
             langForTrace);
    EM_TRACE(4, "\nCLogMsgDecoder      : Unified SEL arg(s):");
    args.resize(std::max(1u, n));
    args[0] = Read16(record, length, 10);
    first32 = 1;
  } else {
    EM_TRACE(4, "\nCLogMsgDecoder      : Old SEL error code: 0x%X (Lang: \"%s\")", errorCode,
             langForTrace);
    EM_TRACE(4, "\nCLogMsgDecoder      : Old SEL args:");
    args.resize(std::max(2u, n + 1));
    args[0] = Read16(record, length, kArgsOffset);
    args[1] = Read16(record, length, 10);
    first32 = 2;
  }
  for (size_t k = first32; k < args.size(); ++k) {
    args[k] = Read32(record, length, kWideArgsOffset + 4 * (k - first32));
  }

  int present = 0;
  for (size_t k = 0; k < args.size(); ++k) {
    if (!args[k].present) continue;
    ++present;
    EM_TRACE(4, "\nCLogMsgDecoder      :     Arg[%d]: 0x%08X (%d)", static_cast<int>(k),
             args[k].value, static_cast<int>(args[k].value));
  }
  if (present < static_cast<int>(args.size())) {
    EM_TRACE(2, "\nCLogMsgDecoder      : WARNING! record of %d bytes holds only %d of %d arguments",
             static_cast<int>(length), present, static_cast<int>(args.size()));
  }
  return args;
}

std::string CLogMsgDecoder::FallbackText(uint32_t errorCode, const std::vector<Argument>& args,
                                         bool shortText) const {
  char code[32];
  snprintf(code, sizeof(code), format_ == LogMsgFormat::kUnified ? "%s0x%06X " : "%s0x%04X ",
           shortText ? "" : "ERROR ", errorCode);
  std::string text = code;
  const size_t count = shortText ? std::min<size_t>(3, args.size()) : args.size();
  for (size_t k = 0; k < count; ++k) {
    text += k == 0 ? "(" : ", ";
    text += args[k].present ? "0x" + Hex(args[k].value) : MissingArgument(k);
  }
  text += ")";
  return text;
}

std::string CLogMsgDecoder::DecodeFormatted(const uint8_t* record, size_t length, bool shortText,
                                            std::string_view designation,
                                            const char* languageName) const {
  const uint8_t low = record[0];
  const uint8_t cls = record[1] & 0x3F;
  EM_TRACE(4, "\nCLogMsgDecoder      :     Number Args (pLogEntry): %d",
           static_cast<int>(record[3]));
  const bool unified = format_ == LogMsgFormat::kUnified;
  const uint32_t errorCode = unified ? (cls * 65536u + low) : (cls * 256u + low);
  const std::vector<Argument> args =
      CollectArguments(record, length, errorCode, languageName ? languageName : "");

  const std::string codeText = ErrorCodeText(errorCode, format_);
  const std::string_view format =
      file_ ? file_->FindMessage(codeText, shortText ? kKeyShortMsg : kKeyLongMsg, languageName, 0)
            : std::string_view();
  EM_TRACE(4, "\nCLogMsgDecoder      :  %s Message: \"%s\"", shortText ? "Short" : "Long",
           std::string(format).c_str());
  if (format.empty()) {
    return FallbackText(errorCode, args, shortText);
  }
  const Argument marker0 = Read16(record, length, kArgsOffset);
  const Argument marker1 = Read16(record, length, 10);
  const bool notSet = marker0.present && marker1.present && marker0.value == kArgsNotSetMarker &&
                      marker1.value == kArgsNotSetMarker;
  return FillFormat(format, args, designation, format_, notSet);
}

int32_t CLogMsgDecoder::Decode(const uint8_t* record, size_t length, std::string& out,
                               bool withCodePrefix, bool shortText, std::string_view designation,
                               const char* languageName) const {
  if (record == nullptr) return 0;
  if (length < kMinRecordBytes) {
    EM_TRACE(2, "\nCLogMsgDecoder      : ## ERROR record of %d bytes is too short to decode",
             static_cast<int>(length));
    return 0;
  }
  try {
    const uint8_t low = record[0];
    const uint8_t cls = record[1] & 0x3F;
    const unsigned n = record[3];
    std::string text;

    if (cls == kInlineTextClass && low == 0) {
      const size_t end = std::min(length, kArgsOffset + 4 * static_cast<size_t>(n));
      if (end > kArgsOffset) {
        const char* begin = reinterpret_cast<const char*>(record + kArgsOffset);
        text.assign(begin, strnlen(begin, end - kArgsOffset));
      }
    } else {
      text = DecodeFormatted(record, length, shortText, designation, languageName);
    }

    std::string result;
    if (withCodePrefix) {
      char prefix[16];
      snprintf(prefix, sizeof(prefix),
               format_ == LogMsgFormat::kUnified ? "[%02X%04X] " : "[%02X%02X] ", cls, low);
      result = prefix;
    }
    result += text;
    out += result;  // strong guarantee: on failure `out` keeps what it had
    return 1;
  } catch (...) {
    return 0;
  }
}

}  // namespace em_oidmap
