#include "msglog/LogMsgFile.h"
#include "msglog/XmlDocument.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>
#include <vector>

#include "tests/support/TestSupport.h"

namespace em_oidmap {

namespace {

using test_support::TempDir;

const char* kMessages = R"(<EventMsg>
  <LanguageTable><Language locale="0x409" lang="en"/><Language locale="0x40c" lang="fr"/>
  </LanguageTable>
  <Events>
    <Event ErrorCode="0x0c0001"><Messages lang="EN">
      <LongMsg>Memory error</LongMsg>
      <Cause>first cause</Cause><Resolution>r0</Resolution><Cause>second cause</Cause>
    </Messages></Event>
    <Event ErrorCode="0x0C0001"><Messages lang="de"><LongMsg>shadowed</LongMsg></Messages></Event>
  </Events>
</EventMsg>)";

std::string NoDirectory() { return std::string(); }

TEST(LogMsgFileTest, SearchMatchesCodeAndLanguageIgnoringCaseAndCountsParagraphs) {
  CLogMsgFile file(".", NoDirectory);
  ASSERT_TRUE(file.OpenFromText(kMessages));
  EXPECT_EQ("Memory error", file.SearchMessage("0X0C0001", kKeyLongMsg, "eN", 0));
  EXPECT_EQ("Memory error", file.SearchMessage("0x0c0001", kKeyLongMsg, nullptr, 0));
  // The first Event of a code is taken; its missing language is not looked up elsewhere.
  EXPECT_EQ("", file.SearchMessage("0x0C0001", kKeyLongMsg, "de", 0));
  EXPECT_EQ("", file.SearchMessage("0x999999", kKeyLongMsg, "en", 0));
  EXPECT_EQ("second cause", file.SearchMessage("0x0C0001", kKeyCause, "en", 1));
  EXPECT_EQ("", file.SearchMessage("0x0C0001", kKeyCause, "en", 2));
  EXPECT_EQ("fr", file.LanguageName(0x40C));
  EXPECT_EQ("en", file.LanguageName(0x407));  // not in the table
  // Texts and attributes come out as valid UTF-8 from a file that declares it and is not.
  ASSERT_TRUE(file.OpenFromText(
      "<EventMsg><LanguageTable><Language locale='0x407' lang='d\xFC'/></LanguageTable>"
      "<Events><Event ErrorCode='0x1'><Messages lang='en'><LongMsg>L\xFC"
      "fter "
      "<![CDATA[\xC0]]></LongMsg></Messages></Event></Events></EventMsg>"));
  EXPECT_EQ(
      "L\xEF\xBF\xBD"
      "fter \xEF\xBF\xBD",
      file.SearchMessage("0x1", kKeyLongMsg, "en", 0));
  EXPECT_EQ("d\xEF\xBF\xBD", file.LanguageName(0x407));
  ASSERT_TRUE(file.OpenFromText("<EventMsg><Events/></EventMsg>"));
  EXPECT_EQ("en", file.LanguageName(0x40C));  // no table
}

TEST(LogMsgFileTest, ConcurrentSearchesWhileTheFileIsReloaded) {
  CLogMsgFile file(".", NoDirectory);
  ASSERT_TRUE(file.OpenFromText(kMessages));
  std::vector<int> mismatches(4, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&file, &mismatches, t] {
      for (int i = 0; i < 200; ++i)
        mismatches[t] += file.SearchMessage("0x0C0001", kKeyCause, "en", i % 2) !=
                         (i % 2 ? "second cause" : "first cause");
    });
  }
  // Each reload swaps in a new document under the readers.
  for (int i = 0; i < 20; ++i) file.OpenFromText(kMessages);
  for (auto& th : threads) th.join();
  EXPECT_EQ(std::vector<int>(4, 0), mismatches);
}

TEST(LogMsgFileTest, OpenLooksInCurrentThenRegisteredDirectory) {
  TempDir current, registered;
  const std::string doc = "<EventMsg><Events><Event ErrorCode=\"0x0105\"><Messages lang=\"en\">"
                          "<LongMsg>%1</LongMsg></Messages></Event></Events></EventMsg>";
  for (const char* name : {"ERRMSG.XML", "EVENTMSG.XML"}) registered.Write(name, doc);
  current.Write("EVENTMSG.XML", doc);
  CLogMsgFile file(current.Dir(), [&] { return registered.Dir(); });

  ASSERT_TRUE(file.Open(LogMsgFormat::kUnified));
  EXPECT_EQ(current.Path("EVENTMSG.XML"), file.Path());
  current.Write("ERRMSG.XML", "<EventMsg>");  // malformed: the search goes on
  ASSERT_TRUE(file.Open(LogMsgFormat::kOldStyle));
  EXPECT_EQ(registered.Path("ERRMSG.XML"), file.Path());
  EXPECT_EQ("%1", file.SearchMessage("0x0105", kKeyLongMsg, "en", 0));

  CLogMsgFile nowhere(registered.Path("none"), NoDirectory);
  ASSERT_TRUE(nowhere.OpenFromText(doc));
  EXPECT_FALSE(nowhere.Open(LogMsgFormat::kUnified));  // drops the earlier document
  EXPECT_EQ("", nowhere.SearchMessage("0x0105", kKeyLongMsg, "en", 0));
}

TEST(LogMsgFileTest, ParsesAFileAgainOnlyWhenItChanged) {
  TempDir dir;
  const std::string path = dir.Path("ERRMSG.XML");
  const auto write = [&dir](const std::string& text) {
    dir.Write("ERRMSG.XML",
              "<EventMsg><Events><Event ErrorCode=\"0x0105\"><Messages lang=\"en\"><LongMsg>" +
                  text + "</LongMsg></Messages></Event></Events></EventMsg>");
  };
  // Moves the modification time on, so that a rewrite within one clock tick still counts.
  const auto touch = [&path](int seconds) {
    std::filesystem::last_write_time(
        path, std::filesystem::last_write_time(path) + std::chrono::seconds(seconds));
  };
  const auto text = [](const CLogMsgFile& file) {
    return file.SearchMessage("0x0105", kKeyLongMsg, "en", 0);
  };
  CLogMsgFile file(dir.Dir(), NoDirectory);
  write("first");
  ASSERT_TRUE(file.Open(LogMsgFormat::kOldStyle));
  const CLogMsgFile::Document first = file.CurrentDocument();

  ASSERT_TRUE(file.Open(LogMsgFormat::kOldStyle));  // unchanged: the same document
  EXPECT_EQ(1u, file.ParseCount());
  EXPECT_EQ(first, file.CurrentDocument());

  const auto reopen = [&](uint64_t parses, const std::string& expected) {
    EXPECT_EQ(!expected.empty(), file.Open(LogMsgFormat::kOldStyle));
    EXPECT_EQ(parses, file.ParseCount());
    EXPECT_EQ(expected, text(file));
  };
  write("second");  // new size
  touch(1);
  reopen(2, "second");
  write("SECOND");  // same size and inode, new mtime
  touch(2);
  reopen(3, "SECOND");
  touch(3);  // only the mtime
  reopen(4, "SECOND");
  dir.Write("ERRMSG.XML", "<EventMsg>");
  touch(4);
  reopen(5, "");
  reopen(5, "");  // a broken file is not parsed again either while unchanged
  // Whoever still holds the first document keeps reading it.
  EXPECT_EQ("first", first->SearchMessage("0x0105", kKeyLongMsg, "en", 0));
}

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
