#include "msglog/LogMsgFile.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "MsgTextTestUtil.h"
#include "hostsim/DebugSink.h"
#include "module/DebugClient.h"

namespace {

const char* kMessages = R"(<?xml version="1.0"?>
<EventMsg>
  <LanguageTable>
    <Language locale="0x409" lang="en"/>
    <Language locale="0x40c" lang="fr"/>
  </LanguageTable>
  <Events>
    <Event ErrorCode="0x0c0001">
      <Messages lang="EN">
        <LongMsg>Memory error</LongMsg>
        <Cause>first cause</Cause>
        <Resolution>r0</Resolution>
        <Cause>second cause</Cause>
      </Messages>
    </Event>
    <Event ErrorCode="0x0C0001">
      <Messages lang="de"><LongMsg>shadowed: the first match wins</LongMsg></Messages>
    </Event>
    <Event ErrorCode="0x040001">
      <Messages lang="de"><LongMsg>Lüfter</LongMsg></Messages>
    </Event>
  </Events>
</EventMsg>)";

class LogMsgFileTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(file_.OpenFromText(kMessages)); }
  std::string Search(const char* code, const char* key, const char* lang, int index) const {
    return file_.SearchMessage(code, key, lang, index);
  }
  CLogMsgFile file_{".", [] { return std::string(); }};
};

TEST_F(LogMsgFileTest, SearchComparesCodeAndLanguageIgnoringCase) {
  EXPECT_EQ("Memory error", Search("0x0C0001", kKeyLongMsg, "en", 0));
  EXPECT_EQ("Memory error", Search("0X0C0001", kKeyLongMsg, "eN", 0));
  EXPECT_EQ("Memory error", Search("0x0c0001", kKeyLongMsg, nullptr, 0));  // null: "en"
  // The first Event of the code is taken even when it lacks the language.
  EXPECT_EQ("", Search("0x0C0001", kKeyLongMsg, "de", 0));
  EXPECT_EQ("", Search("0x040001", kKeyLongMsg, "en", 0));  // no fall-back language
  EXPECT_EQ("Lüfter", Search("0x040001", kKeyLongMsg, "de", 0));
  EXPECT_EQ("", Search("0x999999", kKeyLongMsg, "en", 0));
}

TEST_F(LogMsgFileTest, SearchCountsParagraphsOfTheKeyOnly) {
  EXPECT_EQ("first cause", Search("0x0C0001", kKeyCause, "en", 0));
  EXPECT_EQ("second cause", Search("0x0C0001", kKeyCause, "en", 1));
  EXPECT_EQ("", Search("0x0C0001", kKeyCause, "en", 2));
  EXPECT_EQ("", Search("0x0C0001", kKeyCause, "en", -1));
  EXPECT_EQ("", Search("0x0C0001", kKeySummary, "en", 0));
  EXPECT_EQ("", Search("0x0C0001", "", "en", 0));
}

TEST_F(LogMsgFileTest, LanguageNameFromTableElseEnglish) {
  EXPECT_EQ("fr", file_.LanguageName(0x40C));
  EXPECT_EQ("en", file_.LanguageName(0x409));
  EXPECT_EQ("en", file_.LanguageName(0x407));  // not in the table

  CLogMsgFile noTable(".", [] { return std::string(); });
  ASSERT_TRUE(noTable.OpenFromText("<EventMsg><Events/></EventMsg>"));
  EXPECT_EQ("en", noTable.LanguageName(0x40C));
  CLogMsgFile notOpen(".", [] { return std::string(); });
  EXPECT_EQ("en", notOpen.LanguageName(0x40C));
  EXPECT_EQ("", notOpen.SearchMessage("0x0C0001", kKeyLongMsg, "en", 0));
}

TEST_F(LogMsgFileTest, ConcurrentSearchesOnOneFile) {
  std::vector<std::thread> threads;
  std::vector<int> mismatches(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t, &mismatches] {
      for (int i = 0; i < 200; ++i) {
        if (Search("0x0C0001", kKeyCause, "en", i % 2) !=
            (i % 2 ? "second cause" : "first cause"))
          ++mismatches[t];
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(std::vector<int>(4, 0), mismatches);
}

TEST(LogMsgFileOpenTest, CurrentDirectoryFirstThenRegistered) {
  msgtext_test::TempDir current, registered;
  const std::string doc = "<EventMsg><Events><Event ErrorCode=\"0x0105\"><Messages lang=\"en\">"
                          "<LongMsg>%1</LongMsg></Messages></Event></Events></EventMsg>";
  registered.Write("ERRMSG.XML", doc);
  registered.Write("EVENTMSG.XML", doc);
  current.Write("EVENTMSG.XML", doc);

  TraceClient().SetTraceLevel(5);
  hostsim::Sink().Clear();
  CLogMsgFile file(current.Path(), [&] { return registered.Path(); });
  ASSERT_TRUE(file.Open(LogMsgFormat::kUnified));
  EXPECT_EQ(current.Path() + "/EVENTMSG.XML", file.Path());
  EXPECT_TRUE(hostsim::Sink().HasLine(
      "\nCLogMsgFile         : Use event messages file \"EVENTMSG.XML\" for decoding"));
  EXPECT_TRUE(hostsim::Sink().HasLine("\nCLogMsgFile         : Event messages successfully "
                                      "opened in \"" + current.Path() + "\"!"));
  EXPECT_FALSE(hostsim::Sink().Contains("registered directory"));

  // Only the registered directory holds ERRMSG.XML.
  ASSERT_TRUE(file.Open(LogMsgFormat::kOldStyle));
  EXPECT_EQ(registered.Path() + "/ERRMSG.XML", file.Path());
  EXPECT_EQ("%1", file.SearchMessage("0x0105", kKeyLongMsg, "en", 0));

  // A malformed file in the current directory does not end the search.
  current.Write("ERRMSG.XML", "<EventMsg>");
  hostsim::Sink().Clear();
  ASSERT_TRUE(file.Open(LogMsgFormat::kOldStyle));
  EXPECT_EQ(registered.Path() + "/ERRMSG.XML", file.Path());
  EXPECT_TRUE(hostsim::Sink().HasLine("\nCLogMsgFile         : Event messages not opened in \"" +
                                      current.Path() + "\"!"));
  TraceClient().SetTraceLevel(0);
}

TEST(LogMsgFileOpenTest, MissingEverywhereLeavesSearchesEmpty) {
  msgtext_test::TempDir current;
  CLogMsgFile file(current.Path(), [] { return std::string(); });
  EXPECT_FALSE(file.Open(LogMsgFormat::kUnified));
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ("", file.SearchMessage("0x010005", kKeyLongMsg, "en", 0));

  // A failed re-open drops the document opened before.
  ASSERT_TRUE(file.OpenFromText(kMessages));
  EXPECT_FALSE(file.Open(LogMsgFormat::kUnified));
  EXPECT_EQ("", file.SearchMessage("0x0C0001", kKeyLongMsg, "en", 0));
}

TEST(LogMsgFileOpenTest, HugeAttributeIsJustNotAMatch) {
  std::string xml = "<EventMsg><Events><Event ErrorCode=\"";
  xml.append(1 << 20, 'A');
  xml += "\"><Messages lang=\"en\"><LongMsg>x</LongMsg></Messages></Event></Events></EventMsg>";
  CLogMsgFile file(".", [] { return std::string(); });
  ASSERT_TRUE(file.OpenFromText(xml));
  EXPECT_EQ("", file.SearchMessage("0xAAAA", kKeyLongMsg, "en", 0));
}

TEST(LogMsgFileSampleTest, SampleFilesHoldAllKindsInThreeLanguages) {
  CLogMsgFile unified(EM_SAMPLE_MSGFILES_DIR, [] { return std::string(); });
  ASSERT_TRUE(unified.Open(LogMsgFormat::kUnified));
  CLogMsgFile old(EM_SAMPLE_MSGFILES_DIR, [] { return std::string(); });
  ASSERT_TRUE(old.Open(LogMsgFormat::kOldStyle));

  EXPECT_EQ("de", unified.LanguageName(0x407));
  EXPECT_EQ("fr", old.LanguageName(0x40C));
  for (const char* key : {kKeyLongMsg, kKeyShortMsg, kKeySummary, kKeyCause, kKeyResolution}) {
    for (const char* lang : {"en", "de", "fr"}) {
      EXPECT_NE("", unified.SearchMessage("0x040001", key, lang, 0)) << key << lang;
      EXPECT_NE("", old.SearchMessage("0x0401", key, lang, 0)) << key << lang;
    }
  }
  EXPECT_NE(std::string::npos,
            unified.SearchMessage("0x040001", kKeyResolution, "en", 2).find("%HD%"));
  // ERRMSG.XML is ISO-8859-1; texts come out as UTF-8.
  EXPECT_EQ("Lüfter %D ausgefallen", old.SearchMessage("0x0401", kKeyShortMsg, "de", 0));
}

}  // namespace
