#include "msglog/MultiStringParameter.h"

#include <gtest/gtest.h>

namespace em_oidmap {

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

}  // namespace

}  // namespace em_oidmap
