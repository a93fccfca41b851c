#include "msglog/MultiStringParameter.h"

#include <gtest/gtest.h>

#include "hostsim/DebugSink.h"
#include "module/DebugClient.h"

namespace {

using Paragraphs = std::vector<std::string>;

TEST(MultiStringParameterTest, ReplacesTheFirstOccurrenceFromTheStartIndexOn) {
  Paragraphs p = {"Call %HD% now.", "No placeholder.", "%HD% or %HD%", "%hd% is another name"};
  EXPECT_FALSE(ReplaceParameter(p, kHelpDeskParameter, "desk", 4));
  EXPECT_FALSE(ReplaceParameter(p, kHelpDeskParameter, "desk", 3));
  EXPECT_TRUE(ReplaceParameter(p, kHelpDeskParameter, "the desk", 1));
  EXPECT_EQ((Paragraphs{"Call %HD% now.", "No placeholder.", "the desk or %HD%",
                        "%hd% is another name"}), p);
}

TEST(MultiStringParameterTest, EmptyValueEmptiesParagraphsButKeepsTheirPlace) {
  Paragraphs p = {"Replace the fan.", "Contact %HD%.", "Or write to %HD%."};
  TraceClient().SetTraceLevel(4);
  hostsim::Sink().Clear();
  EXPECT_TRUE(ReplaceParameter(p, kHelpDeskParameter, "", 0));
  TraceClient().SetTraceLevel(0);
  EXPECT_EQ((Paragraphs{"Replace the fan.", "", ""}), p);
  EXPECT_EQ(2u, hostsim::Sink().Count("\nEM_OIDMAP           :   -> param \"%HD%\" is empty - "
                                      "remove message from multi string"));
}

}  // namespace
