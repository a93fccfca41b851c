// SipJson: construction, copies, and the host API of the SIP message record (parse and
// serialise). The readers are in SipJsonRead.cpp, the builders in SipJsonBuild.cpp.
#include "sip/SipJson.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstring>
#include <utility>

#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "sip/SipJsonValues.h"

using namespace sipjson_detail;  // the helpers shared by SipJson's sources

namespace {

// Forwards SAX events to the document and stops the parse once objects and arrays nest
// deeper than the limit.
class DepthLimitedHandler {
 public:
  DepthLimitedHandler(Document& doc, unsigned maxDepth) : doc_(doc), max_depth_(maxDepth) {}

  bool Null() { return doc_.Null(); }
  bool Bool(bool b) { return doc_.Bool(b); }
  bool Int(int i) { return doc_.Int(i); }
  bool Uint(unsigned u) { return doc_.Uint(u); }
  bool Int64(int64_t i) { return doc_.Int64(i); }
  bool Uint64(uint64_t u) { return doc_.Uint64(u); }
  bool Double(double d) { return doc_.Double(d); }
  // Every number arrives as its text and is converted here (see NumberFromText).
  bool RawNumber(const char* s, rapidjson::SizeType n, bool /*copy*/) {
    return NumberFromText(s, s + n);
  }
  bool String(const char* s, rapidjson::SizeType n, bool copy) { return doc_.String(s, n, copy); }
  bool Key(const char* s, rapidjson::SizeType n, bool copy) { return doc_.Key(s, n, copy); }
  bool StartObject() { return Enter() && doc_.StartObject(); }
  bool EndObject(rapidjson::SizeType n) {
    --depth_;
    return doc_.EndObject(n);
  }
  bool StartArray() { return Enter() && doc_.StartArray(); }
  bool EndArray(rapidjson::SizeType n) {
    --depth_;
    return doc_.EndArray(n);
  }

 private:
  bool Enter() { return ++depth_ <= max_depth_; }

  // Integers as the reader gives them, exactly; other numbers correctly rounded, so that
  // the text Serialize writes reads back as the same double. The reader's own conversion
  // of fractions is off by some units in the last place, and its exact one reads outside
  // a table for long fractions. A number beyond the largest double is refused, one below
  // the smallest is 0.
  bool NumberFromText(const char* first, const char* last) {
    const bool minus = first != last && *first == '-';
    if (std::none_of(first, last, [](char c) { return c == '.' || c == 'e' || c == 'E'; })) {
      if (minus) {
        int64_t v = 0;
        if (std::from_chars(first, last, v).ec == std::errc()) {
          return v >= INT_MIN ? doc_.Int(static_cast<int>(v)) : doc_.Int64(v);
        }
      } else {
        uint64_t v = 0;
        if (std::from_chars(first, last, v).ec == std::errc()) {
          return v <= UINT_MAX ? doc_.Uint(static_cast<unsigned>(v)) : doc_.Uint64(v);
        }
      }
    }
    double d = 0;
    const std::from_chars_result result = std::from_chars(first, last, d);
    if (result.ec == std::errc::result_out_of_range) {
      long double wide = 0;  // the reader bounds exponents, so a too large one fits here
      if (std::from_chars(first, last, wide).ec == std::errc() && std::fabs(wide) >= 1) {
        return false;
      }
      d = minus ? -0.0 : 0.0;
    } else if (result.ec != std::errc() || result.ptr != last) {
      return false;
    }
    return doc_.Double(d);
  }

  Document& doc_;
  unsigned max_depth_;
  unsigned depth_ = 0;
};

}  // namespace

// ---- Construction, copies ---------------------------------------------------------------

SipJson::SipJson() { BuildEnvelope(); }

SipJson::SipJson(uint32_t oc, uint32_t oe, uint32_t oi, uint32_t ca) {
  BuildEnvelope();
  SetCommandHeader(oc, oe, oi, ca);
}

SipJson::SipJson(const SipJson& other) : current_(other.current_) {
  doc_.CopyFrom(other.doc_, doc_.GetAllocator());
}

SipJson& SipJson::operator=(const SipJson& other) {
  if (this != &other) {
    // Copy into a fresh document so that the old allocator's memory is released.
    Document fresh;
    fresh.CopyFrom(other.doc_, fresh.GetAllocator());
    doc_.Swap(fresh);
    current_ = other.current_;
  }
  return *this;
}

// The moved-from message keeps a null root: readers see no commands, and the first
// builder recreates the envelope.
SipJson::SipJson(SipJson&& other) noexcept : current_(other.current_) {
  doc_.Swap(other.doc_);
  other.current_ = 0;
}

SipJson& SipJson::operator=(SipJson&& other) noexcept {
  if (this != &other) {
    doc_.Swap(other.doc_);
    std::swap(current_, other.current_);
  }
  return *this;
}

SipJson::~SipJson() = default;

void SipJson::BuildEnvelope() {
  Allocator& a = doc_.GetAllocator();
  Value sip(rapidjson::kObjectType);
  sip.AddMember(rapidjson::StringRef("V"), Value(1u), a);
  sip.AddMember(rapidjson::StringRef("CMD"), Value(rapidjson::kArrayType), a);
  doc_.SetObject();
  doc_.AddMember(rapidjson::StringRef("SIP"), sip, a);
}

// ---- Host API ----------------------------------------------------------------------------

bool SipJson::Parse(const std::string& text) {
  current_ = 0;
  // Valid JSON never holds a raw NUL; the reader would take one as the end of the text.
  bool ok = text.find('\0') == std::string::npos;
  Document parsed;
  if (ok) {
    rapidjson::MemoryStream ms(text.data(), text.size());
    rapidjson::Reader reader;
    rapidjson::ParseResult result;
    // Numbers as text, converted by the handler: not kParseFullPrecisionFlag, since in the
    // RapidJSON release we build with its decimal conversion reads outside a table for
    // numbers with long fractions, which any peer could send.
    auto generate = [&](Document& handler) {
      DepthLimitedHandler limited(handler, kMaxParseDepth);
      result = reader.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag>(
          ms, limited);
      return !result.IsError();
    };
    parsed.Populate(generate);
    ok = !result.IsError() && parsed.IsObject();
  }
  if (!ok) {
    Document empty;
    doc_.Swap(empty);
    BuildEnvelope();
    return false;
  }
  doc_.Swap(parsed);
  return true;
}

std::string SipJson::Serialize() const {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  doc_.Accept(writer);
  return std::string(buffer.GetString(), buffer.GetSize());
}

// ---- Helpers -----------------------------------------------------------------------------

bool SipJson::IsDataBearingStatus(uint32_t status) {
  if (status < kStatusUnread) return ((kDataBearingMask >> status) & 1u) != 0;
  return status == 0xFF;
}

uint32_t SipJson::ParseLenientNumber(const char* text) {
  if (text == nullptr) return 0;
  const size_t length = std::strlen(text);
  uint32_t base = 10;
  const char* p = text;
  if (length >= 3 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    p = text + 2;
  } else if (length >= 2 && text[0] == '0') {
    base = 8;
    p = text + 1;
  }
  uint64_t value = 0;
  for (; *p != '\0'; ++p) {
    uint32_t digit;
    const char c = *p;
    if (c >= '0' && c <= '9')
      digit = static_cast<uint32_t>(c - '0');
    else if (c >= 'a' && c <= 'f')
      digit = static_cast<uint32_t>(c - 'a' + 10);
    else if (c >= 'A' && c <= 'F')
      digit = static_cast<uint32_t>(c - 'A' + 10);
    else
      break;
    if (digit >= base) break;
    value = value * base + digit;
    if (value > 0xFFFFFFFFu) return 0xFFFFFFFFu;
  }
  return static_cast<uint32_t>(value);
}
