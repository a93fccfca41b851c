#include "msglog/XmlDocument.h"

#include <gtest/gtest.h>

#include "MsgTextTestUtil.h"

namespace {

const char* kDoc =
    "<Root>"
    "  <A id='1'>first</A>"
    "  <B/>"
    "  <A id='2'>x &amp; <![CDATA[<y>]]><Inner>skipped</Inner> z</A>"
    "  <A id='3'><Child name='c'/></A>"
    "</Root>";

TEST(XmlDocumentTest, CursorWalksOneLevelAndKeepsPositionOnMiss) {
  CXmlDocument doc;
  ASSERT_TRUE(doc.LoadFromText(kDoc));
  ASSERT_TRUE(doc.FindElem("Root"));
  EXPECT_FALSE(doc.FindElem("Root"));  // no second root
  ASSERT_TRUE(doc.IntoElem());

  ASSERT_TRUE(doc.FindElem("A"));
  EXPECT_EQ("1", doc.GetAttrib("id"));
  EXPECT_EQ("first", doc.GetData());
  ASSERT_TRUE(doc.FindElem("A"));  // skips B
  EXPECT_EQ("2", doc.GetAttrib("id"));
  // Entities and CDATA are text of the element; a child element's text is not.
  EXPECT_EQ("x & <y> z", doc.GetData());
  EXPECT_EQ("", doc.GetAttrib("missing"));

  EXPECT_FALSE(doc.FindElem("B"));  // B lies before the current element
  ASSERT_TRUE(doc.FindElem("A"));   // the miss left the cursor on A 2
  EXPECT_EQ("3", doc.GetAttrib("id"));
  ASSERT_TRUE(doc.IntoElem());
  ASSERT_TRUE(doc.FindElem(nullptr));
  EXPECT_EQ("Child", doc.GetTagName());
  EXPECT_EQ("", doc.GetData());
  ASSERT_TRUE(doc.OutOfElem());
  EXPECT_EQ("3", doc.GetAttrib("id"));
  ASSERT_TRUE(doc.OutOfElem());
  EXPECT_EQ("Root", doc.GetTagName());
  EXPECT_FALSE(doc.OutOfElem());

  doc.Reset();
  EXPECT_FALSE(doc.FindElem("A"));  // not on the document level
  EXPECT_TRUE(doc.FindElem("Root"));
}

TEST(XmlDocumentTest, CopiesShareTheDocumentButNotTheCursor) {
  CXmlDocument doc;
  ASSERT_TRUE(doc.LoadFromText(kDoc));
  ASSERT_TRUE(doc.FindElem("Root") && doc.IntoElem() && doc.FindElem("A"));
  CXmlDocument copy(doc);
  ASSERT_TRUE(copy.FindElem("A"));
  EXPECT_EQ("2", copy.GetAttrib("id"));
  EXPECT_EQ("1", doc.GetAttrib("id"));
}

TEST(XmlDocumentTest, BadInputLoadsAsFailureAndFindsNothing) {
  msgtext_test::TempDir dir;
  const std::vector<std::pair<std::string, std::string>> files = {
      {"empty.xml", ""},
      {"malformed.xml", "<EventMsg><Events></EventMsg>"},
      {"textonly.xml", "just text"},
      {"truncated.xml", "<?xml version=\"1.0\"?><EventMsg attr=\"x"},
  };
  for (const auto& f : files) {
    CXmlDocument doc;
    EXPECT_FALSE(doc.Load(dir.Write(f.first, f.second))) << f.first;
    EXPECT_FALSE(doc.IsLoaded());
    EXPECT_FALSE(doc.LoadError().empty());
    EXPECT_FALSE(doc.FindElem(nullptr)) << f.first;
    EXPECT_FALSE(doc.IntoElem());
    EXPECT_EQ("", doc.GetData());
  }
  CXmlDocument missing;
  EXPECT_FALSE(missing.Load(dir.Path() + "/none.xml"));

  // A failed load drops an earlier document.
  CXmlDocument reused;
  ASSERT_TRUE(reused.LoadFromText(kDoc));
  EXPECT_FALSE(reused.LoadFromText("<A>"));
  EXPECT_FALSE(reused.FindElem("Root"));
}

TEST(XmlDocumentTest, DeclaredLatin1IsReadAsUtf8) {
  msgtext_test::TempDir dir;
  const std::string path =
      dir.Write("l1.xml", "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><T a=\"\xE9\">L\xFC"
                          "fter</T>");
  CXmlDocument doc;
  ASSERT_TRUE(doc.Load(path));
  ASSERT_TRUE(doc.FindElem("T"));
  EXPECT_EQ("L\xC3\xBC" "fter", doc.GetData());
  EXPECT_EQ("\xC3\xA9", doc.GetAttrib("a"));
}

}  // namespace
