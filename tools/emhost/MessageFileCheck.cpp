#include "MessageFileCheck.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <map>
#include <pugixml.hpp>
#include <set>
#include <string_view>

namespace em_oidmap::emhost {

namespace {

constexpr size_t kMaxOldStyleArgument = 16;  // 16 arguments after the cabinet
constexpr size_t kMaxUnifiedArgument = 255;  // the string count is one byte
constexpr size_t kMaxPlaceholderDigits = 3;  // as the decoder reads them

std::string Lower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

// Parses "0x" and hexadecimal digits; false for anything else or more than 32 bits.
bool ParseHexCode(std::string_view text, uint32_t& value) {
  if (text.size() < 3 || text.size() > 10 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X'))
    return false;
  value = 0;
  for (char c : text.substr(2)) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    value = value * 16 + static_cast<uint32_t>(std::isdigit(static_cast<unsigned char>(c))
                                                   ? c - '0'
                                                   : std::tolower(c) - 'a' + 10);
  }
  return true;
}

// pugixml reports offsets into the UTF-8 text it converted the file to; this maps them to
// the file's lines. Only Latin-1 grows in that conversion among the encodings message
// files use (a byte from 0x80 up becomes two).
class LineTable {
 public:
  LineTable(const std::string& bytes, pugi::xml_encoding encoding) {
    size_t converted = 0;
    for (unsigned char c : bytes) {
      if (c == '\n') line_starts_.push_back(converted + 1);
      converted += (encoding == pugi::encoding_latin1 && c >= 0x80) ? 2 : 1;
    }
  }
  size_t Line(ptrdiff_t offset) const {
    return 1 + static_cast<size_t>(
                   std::upper_bound(line_starts_.begin(), line_starts_.end(),
                                    static_cast<size_t>(std::max<ptrdiff_t>(offset, 0))) -
                   line_starts_.begin());
  }

 private:
  std::vector<size_t> line_starts_;  // converted offset of each line after the first
};

class Checker {
 public:
  Checker(const LineTable& lines, MessageFileReport& report) : lines_(lines), report_(report) {}

  void Add(const pugi::xml_node& node, std::string what) {
    report_.findings.push_back({lines_.Line(node.offset_debug()), std::move(what)});
  }

  // Reports every child element of `parent` not named in `allowed`, and a second one of a
  // name in `once` (the lookups read only the first).
  void Layout(const pugi::xml_node& parent, std::initializer_list<std::string_view> allowed,
              std::initializer_list<std::string_view> once) {
    std::set<std::string_view> seen;
    for (const pugi::xml_node& child : parent.children()) {
      if (child.type() != pugi::node_element) continue;
      const std::string_view name = child.name();
      if (std::find(allowed.begin(), allowed.end(), name) == allowed.end()) {
        Add(child, fmt::format("unexpected element <{}> in <{}>", name, parent.name()));
      } else if (std::find(once.begin(), once.end(), name) != once.end() &&
                 !seen.insert(name).second) {
        Add(child, fmt::format("second <{}> in <{}>, never read", name, parent.name()));
      }
    }
  }

  // The languages of the table, lower-cased.
  std::set<std::string> Languages(const pugi::xml_node& table) {
    std::set<std::string> languages;
    std::map<std::string, size_t> locales;  // lower-cased locale, its line
    for (const pugi::xml_node& language : table.children("Language")) {
      const std::string locale = language.attribute("locale").value();
      const std::string lang = Lower(language.attribute("lang").value());
      uint32_t id = 0;
      if (!ParseHexCode(locale, id) || Lower(locale) != Lower(fmt::format("0x{:X}", id))) {
        Add(language, fmt::format("locale \"{}\" is not a language id written 0x%X "
                                  "(such as 0x409)",
                                  locale));
      } else if (const auto [first, added] =
                     locales.emplace(Lower(locale), lines_.Line(language.offset_debug()));
                 !added) {
        Add(language,
            fmt::format("locale {} listed twice (first on line {})", locale, first->second));
      }
      if (lang.empty()) {
        Add(language, "<Language> without a lang name");
      } else {
        languages.insert(lang);
      }
    }
    return languages;
  }

  void Placeholders(const pugi::xml_node& element, std::string_view text, size_t maxArgument) {
    for (size_t i = text.find('%'); i != std::string_view::npos; i = text.find('%', i)) {
      const size_t start = i++;
      if (i == text.size()) {
        Add(element,
            fmt::format("<{}> ends in a lone %; write %% for a percent sign", element.name()));
        break;
      }
      if (text[i] == '%' || text[i] == 'D') {
        ++i;
        continue;
      }
      if (!std::isdigit(static_cast<unsigned char>(text[i]))) {
        Add(element, fmt::format("<{}> has the unknown placeholder \"{}\" (shown as written)",
                                 element.name(), text.substr(start, 2)));
        continue;
      }
      size_t number = 0;
      for (size_t digits = 0; digits < kMaxPlaceholderDigits && i < text.size() &&
                              std::isdigit(static_cast<unsigned char>(text[i]));
           ++digits, ++i) {
        number = number * 10 + static_cast<size_t>(text[i] - '0');
      }
      if (number > maxArgument) {
        Add(element, fmt::format("<{}> uses argument %{}, a record carries at most %{}",
                                 element.name(), number, maxArgument));
      }
      // Habits from printf: a lower-case letter here is no conversion, it stays as text.
      if (i < text.size() && (text[i] == 'x' || text[i] == 's')) {
        Add(element, fmt::format("<{}> has \"{}\": the conversion letters are u, X and S",
                                 element.name(), text.substr(start, i + 1 - start)));
      }
    }
  }

  void Event(const pugi::xml_node& event, LogMsgFormat format,
             const std::set<std::string>& languages) {
    const std::string code = event.attribute("ErrorCode").value();
    std::map<std::string, bool> texts;  // language of each Messages: has a LongMsg
    for (const pugi::xml_node& messages : event.children()) {
      if (messages.type() != pugi::node_element) continue;
      if (std::string_view(messages.name()) != "Messages") {
        Add(messages, fmt::format("unexpected element <{}> in <Event>", messages.name()));
        continue;
      }
      const std::string lang = Lower(messages.attribute("lang").value());
      if (lang.empty()) {
        Add(messages, "<Messages> without a lang name");
        continue;
      }
      if (languages.count(lang) == 0) {
        Add(messages,
            fmt::format("language {} of event {} is not in the LanguageTable", lang, code));
      }
      if (texts.count(lang) != 0) {
        Add(messages,
            fmt::format("second <Messages lang=\"{}\"> in event {}, never read", lang, code));
        continue;
      }
      Layout(messages, {kKeyLongMsg, kKeyShortMsg, kKeySummary, kKeyCause, kKeyResolution}, {});
      bool hasLongText = false;
      for (const char* key : {kKeyLongMsg, kKeyShortMsg}) {
        for (const pugi::xml_node& text : messages.children(key)) {
          const std::string value = text.text().get();
          if (std::string_view(key) == kKeyLongMsg && !value.empty()) hasLongText = true;
          Placeholders(text, value, MaxArgumentNumber(format));
        }
      }
      texts[lang] = hasLongText;
    }
    for (const std::string& lang : languages) {
      const auto text = texts.find(lang);
      if (text == texts.end()) {
        Add(event, fmt::format("event {} has no text in {}", code, lang));
      } else if (!text->second) {
        Add(event, fmt::format("event {} has no LongMsg text in {}", code, lang));
      }
    }
  }

 private:
  const LineTable& lines_;
  MessageFileReport& report_;
};

// Without a name or an option to go by, the format is how most codes are written, so
// that one misspelt code is one finding, not one for each of the others.
LogMsgFormat FormatOfMost(const pugi::xml_node& events) {
  size_t unified = 0, oldStyle = 0;
  for (const pugi::xml_node& event : events.children("Event")) {
    const size_t length = std::string_view(event.attribute("ErrorCode").value()).size();
    unified += length == 8 ? 1 : 0;
    oldStyle += length == 6 ? 1 : 0;
  }
  return unified > oldStyle ? LogMsgFormat::kUnified : LogMsgFormat::kOldStyle;
}

}  // namespace

size_t MaxArgumentNumber(LogMsgFormat format) {
  return format == LogMsgFormat::kOldStyle ? kMaxOldStyleArgument : kMaxUnifiedArgument;
}

MessageFileReport CheckMessageFile(const std::string& bytes, std::optional<LogMsgFormat> format) {
  MessageFileReport report;
  pugi::xml_document doc;
  const pugi::xml_parse_result parsed =
      doc.load_buffer(bytes.data(), bytes.size(), pugi::parse_default, pugi::encoding_auto);
  const LineTable lines(bytes, parsed.encoding);
  Checker checker(lines, report);
  if (!parsed) {
    report.findings.push_back(
        {lines.Line(parsed.offset), fmt::format("not well-formed XML: {}", parsed.description())});
    return report;
  }
  const pugi::xml_node root = doc.document_element();
  if (std::string_view(root.name()) != "EventMsg") {
    report.findings.push_back(
        {root ? lines.Line(root.offset_debug()) : 1, "the root element is not <EventMsg>"});
    return report;
  }
  checker.Layout(root, {"LanguageTable", "Events"}, {"LanguageTable", "Events"});
  const pugi::xml_node table = root.child("LanguageTable");
  const pugi::xml_node events = root.child("Events");
  if (!table) checker.Add(root, "no <LanguageTable>: every language reads as en");
  if (!events) checker.Add(root, "no <Events>");
  if (table) checker.Layout(table, {"Language"}, {});
  std::set<std::string> languages = checker.Languages(table);
  if (languages.empty()) languages.insert("en");
  report.languages = languages.size();
  if (events) checker.Layout(events, {"Event"}, {});

  report.format = format ? *format : FormatOfMost(events);
  std::map<std::string, size_t> codes;  // lower-cased code, its line
  for (const pugi::xml_node& event : events.children("Event")) {
    ++report.events;
    const std::string code = event.attribute("ErrorCode").value();
    uint32_t value = 0;
    if (!ParseHexCode(code, value) || Lower(code) != Lower(ErrorCodeText(value, report.format))) {
      checker.Add(
          event,
          fmt::format("ErrorCode \"{}\" is not written as the {} format writes "
                      "codes (0x and {} hexadecimal digits)",
                      code, report.format == LogMsgFormat::kUnified ? "unified" : "old-style",
                      report.format == LogMsgFormat::kUnified ? 6 : 4));
    } else if (const auto [first, added] =
                   codes.emplace(Lower(code), lines.Line(event.offset_debug()));
               !added) {
      checker.Add(event, fmt::format("error code {} again (first on line {}), never read", code,
                                     first->second));
    }
    checker.Event(event, report.format, languages);
  }
  // An event's missing languages are found after its Messages, but belong on its line.
  std::stable_sort(
      report.findings.begin(), report.findings.end(),
      [](const MessageFileFinding& a, const MessageFileFinding& b) { return a.line < b.line; });
  return report;
}

}  // namespace em_oidmap::emhost
