#include "msglog/Utf8.h"

#include <gtest/gtest.h>

#include <string>

#include "msglog/CollectionTables.h"

namespace em_oidmap {

namespace {

const std::string kFffd = "\xEF\xBF\xBD";

// What peers send where text is expected, and the valid UTF-8 the module keeps of it.
TEST(Utf8Test, IllFormedSequencesBecomeOneReplacementPerMaximalSubpart) {
  const struct {
    const char* name;
    std::string in, out;
  } cases[] = {
      {"ASCII", "Fan 2 failed", ""},  // "": valid, kept as it is
      {"two, three and four bytes", "L\xC3\xBC\xE2\x82\xAC\xF0\x9F\x98\x80", ""},
      {"Latin-1 byte",
       "L\xFC"
       "fter",
       "L" + kFffd + "fter"},
      {"Latin-1 at the end", "Stra\xDF", "Stra" + kFffd},
      {"Latin-1 after eight ASCII bytes", "Sensor 12\xFC", "Sensor 12" + kFffd},
      {"two bytes across eight", "Temp 7 \xC3\xBC ok", ""},
      {"lone high surrogate", "a\xED\xA0\x80z", "a" + kFffd + kFffd + kFffd + "z"},
      {"lone low surrogate", "\xED\xBF\xBF", kFffd + kFffd + kFffd},
      {"overlong NUL", "\xC0\x80", kFffd + kFffd},
      {"overlong slash in three bytes", "\xE0\x80\xAF", kFffd + kFffd + kFffd},
      {"overlong in four bytes", "\xF0\x80\x80\x80", kFffd + kFffd + kFffd + kFffd},
      {"beyond U+10FFFF", "\xF4\x90\x80\x80", kFffd + kFffd + kFffd + kFffd},
      {"F5 never starts a character", "\xF5", kFffd},
      {"cut before its end", "\xE2\x82", kFffd},
      {"cut, then ASCII",
       "\xF0\x9F\x98"
       "A",
       kFffd + "A"},
      {"a continuation byte alone",
       "\x80"
       "A",
       kFffd + "A"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string expected = c.out.empty() ? c.in : c.out;
    std::string text = c.in;
    EXPECT_EQ(c.out.empty(), IsValidUtf8(c.in));
    EXPECT_EQ(!c.out.empty(), MakeValidUtf8(text));
    EXPECT_EQ(expected, text);
    EXPECT_TRUE(IsValidUtf8(text));
  }
}

TEST(Utf8Test, CutsOnCharacterBoundaries) {
  const std::string text = "ab\xC3\xBC\xE2\x82\xAC";  // a b ü €
  const size_t lengths[] = {0, 1, 2, 2, 4, 4, 4, 7, 7};
  for (size_t limit = 0; limit < sizeof lengths / sizeof lengths[0]; ++limit) {
    EXPECT_EQ(lengths[limit], Utf8PrefixLength(text, limit)) << limit;
  }
  // A designation is kept valid and within its bound.
  std::string designation(kMaxDesignationBytes - 1, 'x');
  designation += "\xC3\xBC\xFF";
  SanitiseDesignation(designation);
  EXPECT_EQ(std::string(kMaxDesignationBytes - 1, 'x'), designation) << "ü would not fit whole";
}

}  // namespace

}  // namespace em_oidmap
