#include "msglog/MultiStringParameter.h"

#include <gtest/gtest.h>

#include "hostsim/DebugSink.h"
#include "module/DebugClient.h"

namespace {

using Paragraphs = std::vector<std::string>;

TEST(MultiStringParameterTest, ReplacesTheFirstOccurrencePerParagraph) {
  Paragraphs p = {"Call %HD% now.", "No placeholder.", "%HD% or %HD%"};
  EXPECT_TRUE(ReplaceParameter(p, kHelpDeskParameter, "the help desk", 0));
  EXPECT_EQ((Paragraphs{"Call the help desk now.", "No placeholder.", "the help desk or %HD%"}),
            p);
}

TEST(MultiStringParameterTest, StartIndexBoundsTheSearch) {
  Paragraphs p = {"%HD%", "x %HD%"};
  EXPECT_FALSE(ReplaceParameter(p, "%HD%", "desk", 2));
  EXPECT_FALSE(ReplaceParameter(p, "%HD%", "desk", 99));
  EXPECT_TRUE(ReplaceParameter(p, "%HD%", "desk", 1));
  EXPECT_EQ((Paragraphs{"%HD%", "x desk"}), p);

  Paragraphs empty;
  EXPECT_FALSE(ReplaceParameter(empty, "%HD%", "desk", 0));
  Paragraphs none = {"nothing", "%hd% is another name"};
  EXPECT_FALSE(ReplaceParameter(none, "%HD%", "desk", 0));
  EXPECT_EQ((Paragraphs{"nothing", "%hd% is another name"}), none);
}

TEST(MultiStringParameterTest, EmptyValueEmptiesParagraphsButKeepsTheirPlace) {
  Paragraphs p = {"Replace the fan.", "Contact %HD%.", "Or write to %HD%."};
  TraceClient().SetTraceLevel(4);
  hostsim::Sink().Clear();
  EXPECT_TRUE(ReplaceParameter(p, "%HD%", "", 0));
  TraceClient().SetTraceLevel(0);
  EXPECT_EQ((Paragraphs{"Replace the fan.", "", ""}), p);
  EXPECT_EQ(2u, hostsim::Sink().Count(
                    "\nEM_OIDMAP           :   -> param \"%HD%\" is empty - remove message "
                    "from multi string"));
}

}  // namespace
