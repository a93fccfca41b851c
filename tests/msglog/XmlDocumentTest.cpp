#include "msglog/XmlDocument.h"

#include <gtest/gtest.h>

namespace em_oidmap {

namespace {

TEST(XmlDocumentTest, CursorWalksOneLevelAndKeepsPositionOnMiss) {
  CXmlDocument doc;
  ASSERT_TRUE(doc.LoadFromText(
      "<Root><A id='1'>first</A><B/><A id='2'>x &amp; <![CDATA[<y>]]><I>no</I> z</A>"
      "<A id='3'><Child/></A></Root>"));
  ASSERT_TRUE(doc.FindElem("Root") && doc.IntoElem() && doc.FindElem("A"));
  CXmlDocument copy(doc);  // own cursor over the same document
  ASSERT_TRUE(doc.FindElem("A"));  // skips B
  EXPECT_EQ("2", doc.GetAttrib("id"));
  EXPECT_EQ("1", copy.GetAttrib("id"));
  EXPECT_EQ("x & <y> z", doc.GetData());  // a child element's text is not its own

  EXPECT_FALSE(doc.FindElem("B"));  // B lies before the current element
  ASSERT_TRUE(doc.FindElem("A"));   // the miss left the cursor on A 2
  EXPECT_EQ("3", doc.GetAttrib("id"));
  ASSERT_TRUE(doc.IntoElem() && doc.FindElem(nullptr));
  EXPECT_EQ("Child", doc.GetTagName());
  ASSERT_TRUE(doc.OutOfElem() && doc.OutOfElem());
  EXPECT_EQ("Root", doc.GetTagName());
  EXPECT_FALSE(doc.OutOfElem());
  doc.Reset();
  EXPECT_FALSE(doc.FindElem("A"));
  EXPECT_TRUE(doc.FindElem("Root"));
}

TEST(XmlDocumentTest, BadInputLoadsAsFailureAndFindsNothing) {
  CXmlDocument doc;
  for (const char* content : {"", "<EventMsg><Events></EventMsg>", "just text", "<E a=\"x"}) {
    ASSERT_TRUE(doc.LoadFromText("<Root/>"));
    EXPECT_FALSE(doc.LoadFromText(content)) << content;
    EXPECT_FALSE(doc.LoadError().empty());
    EXPECT_FALSE(doc.FindElem(nullptr) || doc.IntoElem()) << content;  // the old one is gone
    EXPECT_EQ("", doc.GetData());
  }
  ASSERT_TRUE(doc.LoadFromText("<Root/>"));
  EXPECT_FALSE(doc.Load("/nonexistent-dir/none.xml"));
  EXPECT_FALSE(doc.FindElem(nullptr));
}

}  // namespace

}  // namespace em_oidmap
