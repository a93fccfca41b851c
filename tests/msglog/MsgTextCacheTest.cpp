#include "msglog/MsgTextCache.h"
#include "msglog/MultiStringParameter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace em_oidmap {

namespace {

TEST(MsgTextCacheTest, LookupsByKindCodeAndLanguage) {
  CMsgTextCache cache;
  ASSERT_TRUE(cache.PutText(MsgTextKind::kLongText, 0x040001, 0x409, "Fan failed"));
  ASSERT_TRUE(cache.PutParagraphs(MsgTextKind::kCauses, 0x040001, 0x409, {"c0", "c1"}));
  ASSERT_TRUE(cache.PutResolutions(0x040001, 0x409, {"r0", "call %HD%", "%HD%"}, "the desk"));
  // Failed lookups are never cached.
  EXPECT_FALSE(cache.PutText(MsgTextKind::kSummary, 0x040001, 0x409, ""));
  EXPECT_FALSE(cache.PutParagraphs(MsgTextKind::kCauses, 0x040002, 0x409, {}));

  std::string text;
  EXPECT_TRUE(cache.FindText(MsgTextKind::kLongText, 0x040001, 0x409, &text));
  EXPECT_EQ("Fan failed", text);
  EXPECT_FALSE(cache.FindText(MsgTextKind::kLongText, 0x040001, 0x407, &text));
  EXPECT_FALSE(cache.FindText(MsgTextKind::kSummary, 0x040001, 0x409, &text));
  EXPECT_FALSE(cache.FindText(MsgTextKind::kLongText, 0x04000001, 0x409, &text));

  std::vector<std::string> list;
  EXPECT_TRUE(cache.FindParagraphs(MsgTextKind::kResolutions, 0x040001, 0x409, &list));
  EXPECT_EQ((std::vector<std::string>{"r0", "call the desk", "the desk"}), list);
  EXPECT_FALSE(cache.FindParagraphs(MsgTextKind::kCauses, 0x040002, 0x409, &list));

  const struct {
    MsgTextKind kind;
    uint32_t code, number;
    ParagraphLookup result;
    const char* text;
  } cases[] = {
      {MsgTextKind::kCauses, 0x040001, 0, ParagraphLookup::kFound, "c0"},
      {MsgTextKind::kCauses, 0x040001, 1, ParagraphLookup::kFound, "c1"},
      {MsgTextKind::kCauses, 0x040001, 2, ParagraphLookup::kTooHigh, ""},
      {MsgTextKind::kResolutions, 0x040001, 2, ParagraphLookup::kFound, "the desk"},
      {MsgTextKind::kResolutions, 0x040001, 0xFFFFFFFF, ParagraphLookup::kTooHigh, ""},
      {MsgTextKind::kCauses, 0x040002, 0, ParagraphLookup::kNotCached, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.number);
    std::string paragraph;
    EXPECT_EQ(c.result, cache.FindParagraph(c.kind, c.code, 0x409, c.number, &paragraph));
    EXPECT_EQ(c.text, paragraph);
  }

  // A key stored again holds the new text, counted once.
  const size_t bytes = cache.Bytes();
  ASSERT_TRUE(cache.PutText(MsgTextKind::kLongText, 0x040001, 0x409, "Fan failed again"));
  EXPECT_TRUE(cache.FindText(MsgTextKind::kLongText, 0x040001, 0x409, &text));
  EXPECT_EQ("Fan failed again", text);
  EXPECT_EQ(bytes - CMsgTextCache::TextBytes({"Fan failed"}) +
                CMsgTextCache::TextBytes({"Fan failed again"}),
            cache.Bytes());
}

// Clients choose the keys: the cache keeps its newest texts within its ceiling.
TEST(MsgTextCacheTest, Ceiling_OldestTextsGoLargerThanAllRefused) {
  CMsgTextCache cache;
  const std::string text(64 * 1024, 't');
  const size_t fit = kMaxTextCacheBytes / CMsgTextCache::TextBytes({text});
  for (uint32_t code = 0; code <= fit; ++code) {
    ASSERT_TRUE(cache.PutText(MsgTextKind::kLongText, code, 0x409, text));
  }
  EXPECT_LE(cache.Bytes(), kMaxTextCacheBytes);
  EXPECT_EQ(fit, cache.Size(MsgTextKind::kLongText));
  std::string found;
  EXPECT_FALSE(cache.FindText(MsgTextKind::kLongText, 0, 0x409, &found)) << "the oldest went";
  EXPECT_TRUE(cache.FindText(MsgTextKind::kLongText, static_cast<uint32_t>(fit), 0x409, &found));
  EXPECT_FALSE(cache.PutText(MsgTextKind::kSummary, 1, 0x409, std::string(kMaxTextCacheBytes, 's')));
  EXPECT_EQ(0u, cache.Size(MsgTextKind::kSummary));
}

using Paragraphs = std::vector<std::string>;

TEST(MultiStringParameterTest, ReplacesTheFirstOccurrenceFromTheStartIndexOn) {
  Paragraphs p = {"Call %HD% now.", "No placeholder.", "%HD% or %HD%", "%hd% is another name"};
  EXPECT_FALSE(ReplaceParameter(p, kHelpDeskParameter, "desk", 4));
  EXPECT_FALSE(ReplaceParameter(p, kHelpDeskParameter, "desk", 3));
  EXPECT_TRUE(ReplaceParameter(p, kHelpDeskParameter, "the desk", 1));
  EXPECT_EQ((Paragraphs{"Call %HD% now.", "No placeholder.", "the desk or %HD%",
                        "%hd% is another name"}), p);
}

}  // namespace

}  // namespace em_oidmap
