#include <sys/stat.h>

#include <cstring>
#include <string>

#include "platform/Profile.h"
#include "tests/platform/PlatformTestUtil.h"

namespace {

using hostsim::Sink;

class ProfileTest : public platform_test::TempDirTest {
 protected:
  std::string Get(const char* section, const char* key, const char* def = "DEF",
                  uint32_t size = 256) {
    std::string buffer(size, '#');
    uint32_t n = GetPrivateProfileString(section, key, def, &buffer[0], size, file().c_str());
    return buffer.substr(0, n);
  }
  bool Put(const char* section, const char* key, const char* value) {
    return WritePrivateProfileString(section, key, value, file().c_str());
  }
  std::string file() const { return Path("test.ini"); }
};

TEST_F(ProfileTest, ReadsTrimmedValuesAndFallsBackToDefault) {
  Write("test.ini",
        "; top comment\n  [s]  \n\n  key =  value with blanks   ; comment\nempty=\n"
        "nokey\nsemi=;all comment\n[t]\nkey=other\n");
  EXPECT_EQ(Get("s", "key"), "value with blanks");
  EXPECT_EQ(Get("s", "empty"), "DEF");
  EXPECT_EQ(Get("s", "semi"), "DEF");
  EXPECT_EQ(Get("s", "missing"), "DEF");
  EXPECT_EQ(Get("t", "key"), "other");
  EXPECT_EQ(Get("S", "key"), "DEF");  // names compare case-sensitively
  EXPECT_EQ(Get("s", "missing", nullptr), "");

  std::remove(file().c_str());
  EXPECT_EQ(Get("s", "key"), "DEF");
  EXPECT_TRUE(Sink().HasLine("GetPrivateProfileString: Cannot open " + file() + "\n"));
  EXPECT_EQ(Get("s", nullptr), "");
}

TEST_F(ProfileTest, ListsSectionsAndKeysWithNulsAndFinalNul) {
  Write("test.ini", "[a]\nx=1\n y = 2\nno equals\n[b]\n[broken\n[c]\nz=3\n");
  char buffer[32];
  memset(buffer, '#', sizeof buffer);
  uint32_t n = GetPrivateProfileString(nullptr, nullptr, nullptr, buffer, sizeof buffer,
                                       file().c_str());
  EXPECT_EQ(std::string(buffer, n + 1), std::string("a\0b\0c\0\0", 7));
  n = GetPrivateProfileString("a", nullptr, "DEF", buffer, sizeof buffer, file().c_str());
  EXPECT_EQ(std::string(buffer, n + 1), std::string("x\0y\0\0", 5));
  EXPECT_EQ(GetPrivateProfileString("b", nullptr, "DEF", buffer, sizeof buffer, file().c_str()),
            0u);
  EXPECT_EQ(buffer[0], '\0');
}

TEST_F(ProfileTest, NeverWritesPastTheBuffer) {
  // Read in 1,023-byte pieces, the long line's tail would pose as "z=wrong".
  Write("test.ini", "[alpha]\nk=abcdef\n" + std::string(1023, 'L') + "z=wrong\nz=1\n[beta]\n");
  char buffer[8];
  auto get = [&](const char* section, const char* key, uint32_t size) {
    memset(buffer, '#', sizeof buffer);
    return GetPrivateProfileString(section, key, "default", buffer, size, file().c_str());
  };
  EXPECT_EQ(get("alpha", "k", 4), 3u);  // a value is cut to size - 1
  EXPECT_STREQ(buffer, "abc");
  EXPECT_EQ(buffer[4], '#');
  EXPECT_EQ(get("alpha", "k", 7), 6u);
  EXPECT_STREQ(buffer, "abcdef");
  EXPECT_EQ(get(nullptr, nullptr, 4), 2u);  // a cut list ends with two NULs
  EXPECT_EQ(std::string(buffer, 5), std::string("al\0\0#", 5));
  EXPECT_EQ(get("alpha", "k", 2), 1u);  // room for one character: the value's, not the default's
  EXPECT_STREQ(buffer, "a");
  EXPECT_EQ(get("alpha", "k", 1), 0u);  // no room: the default, cut to nothing
  EXPECT_EQ(buffer[0], '\0');
  EXPECT_EQ(buffer[1], '#');
  EXPECT_EQ(get("alpha", "missing", 5), 4u);
  EXPECT_STREQ(buffer, "defa");
  EXPECT_EQ(get("alpha", "z", 8), 1u);
  EXPECT_STREQ(buffer, "1");
}

TEST_F(ProfileTest, CreatesFileWithMode0644AndAppendsSections) {
  const mode_t oldMask = umask(0077);
  EXPECT_TRUE(Put("s", nullptr, nullptr));  // nothing to delete
  EXPECT_FALSE(Exists("test.ini"));
  ASSERT_TRUE(Put("s", "k", "v"));
  struct stat st;
  ASSERT_EQ(stat(file().c_str(), &st), 0);
  umask(oldMask);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  EXPECT_EQ(Read("test.ini"), "\n[s]\n\nk=v\n");
  EXPECT_TRUE(Put("s", "k2", "v2"));
  EXPECT_TRUE(Put("t", "k", "w"));
  EXPECT_EQ(Read("test.ini"), "\n[s]\n\nk=v\nk2=v2\n\n[t]\n\nk=w\n");
  EXPECT_TRUE(Sink().HasLine("WritePrivateProfileString(t, k, w, " + file() + ")\n"));

  EXPECT_FALSE(Put("s", "missing", nullptr));
  EXPECT_FALSE(WritePrivateProfileString(nullptr, "k", "v", file().c_str()));
  EXPECT_TRUE(Sink().HasLine("WritePrivateProfileString: ## WARNING: invalid pointer to AppName\n"));
  EXPECT_FALSE(WritePrivateProfileString("s", "k", "v", nullptr));
}

TEST_F(ProfileTest, WritesKeysInPlace) {
  Write("test.ini", "[empty]\n\n[a]\nx=1\n; about y\n;more\n\ny = 2\nz=3\n\n[b]\n\nfirst=1\n");
  EXPECT_TRUE(Put("empty", "k", "v"));  // before the blank line, which stays
  EXPECT_TRUE(Put("a", "y", "9"));      // the comments above the line go with it
  EXPECT_TRUE(Put("a", "new", "n"));    // after the last key, before the blank line
  EXPECT_TRUE(Put("b", "first", "2"));  // the blank line after the header is kept
  EXPECT_EQ(Read("test.ini"), "[empty]\nk=v\n\n[a]\nx=1\ny=9\nz=3\nnew=n\n\n[b]\n\nfirst=2\n");
  EXPECT_TRUE(Put("a", "x", nullptr));
  EXPECT_TRUE(Put("b", "first", nullptr));
  EXPECT_EQ(Read("test.ini"), "[empty]\nk=v\n\n[a]\n\ny=9\nz=3\nnew=n\n\n[b]\n\n");
}

TEST_F(ProfileTest, DeletesSectionsWithTheBlankLinesBeforeThem) {
  Write("test.ini", "[a]\nx=1\n\n[b]\ny=2\n\n[c]\nz=3\n");
  EXPECT_TRUE(Put("b", nullptr, nullptr));
  EXPECT_EQ(Read("test.ini"), "[a]\nx=1\n\n[c]\nz=3\n");
  EXPECT_TRUE(Put("c", nullptr, nullptr));  // the last one: truncated at its start
  EXPECT_EQ(Read("test.ini"), "[a]\nx=1\n");
  EXPECT_FALSE(Put("zz", nullptr, nullptr));
}

TEST_F(ProfileTest, IndentedHeaderIsReadButNotWritten) {
  Write("test.ini", "  [s]\nk=v");
  EXPECT_EQ(Get("s", "k"), "v");
  EXPECT_TRUE(Put("s", "k", "w"));
  EXPECT_EQ(Read("test.ini"), "  [s]\nk=v\n[s]\n\nk=w\n");
  EXPECT_EQ(Get("s", "k"), "v");
}

TEST_F(ProfileTest, NumbersAndSectionCopy) {
  EXPECT_TRUE(WritePrivateProfileInt("n", "neg", -5, file().c_str()));
  EXPECT_TRUE(WritePrivateProfileUInt("n", "big", 4000000000u, file().c_str()));
  EXPECT_TRUE(Put("n", "text", "abc"));
  EXPECT_EQ(Get("n", "big"), "4000000000");
  EXPECT_EQ(GetPrivateProfileInt("n", "neg", 7, file().c_str()), -5);
  EXPECT_EQ(GetPrivateProfileInt("n", "text", 7, file().c_str()), 7);

  const std::string other = Path("other.ini");
  ASSERT_TRUE(WritePrivateProfileString("dst", "keep", "1", other.c_str()));
  ASSERT_TRUE(WritePrivateProfileString("dst", "neg", "old", other.c_str()));
  EXPECT_TRUE(CopyPrivateProfileSection(file().c_str(), "n", other.c_str(), "dst"));
  EXPECT_EQ(Read("other.ini"), "\n[dst]\n\nkeep=1\nneg=-5\nbig=4000000000\ntext=abc\n");
  EXPECT_TRUE(CopyPrivateProfileSection(file().c_str(), "none", other.c_str(), "dst"));
}

}  // namespace
