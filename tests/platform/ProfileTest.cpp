#include <sys/stat.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/Profile.h"
#include "tests/platform/PlatformTestUtil.h"

namespace em_oidmap {

namespace {

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
  // The bytes written, and the one after them, which must stay '#'.
  const struct { const char* section; const char* key; uint32_t size, n; std::string bytes; }
      cases[] = {
          {"alpha", "k", 4, 3, std::string("abc\0#", 5)},  // a value is cut to size - 1
          {"alpha", "k", 7, 6, std::string("abcdef\0#", 8)},
          {nullptr, nullptr, 4, 2, std::string("al\0\0#", 5)},  // a cut list ends with two NULs
          {"alpha", "k", 2, 1, std::string("a\0#", 3)},  // one character: the value's
          {"alpha", "k", 1, 0, std::string("\0#", 2)},   // no room: the default, cut to nothing
          {"alpha", "missing", 5, 4, std::string("defa\0#", 6)},
          {"alpha", "z", 8, 1, std::string("1\0", 2)},
      };
  for (const auto& c : cases) {
    char buffer[8];
    memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(GetPrivateProfileString(c.section, c.key, "default", buffer, c.size, file().c_str()),
              c.n) << c.size;
    EXPECT_EQ(std::string(buffer, c.bytes.size()), c.bytes) << c.size;
  }
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

  EXPECT_FALSE(Put("s", "missing", nullptr));
  EXPECT_FALSE(WritePrivateProfileString(nullptr, "k", "v", file().c_str()));
  EXPECT_FALSE(WritePrivateProfileString("s", "k", "v", nullptr));
}

TEST_F(ProfileTest, EditsInPlaceKeepTheLayout) {
  struct Op { const char* section; const char* key; const char* value; bool ok; };
  const struct { const char* before; std::vector<Op> ops; const char* after; } cases[] = {
      // A new key goes before the section's trailing blank line; a rewritten key takes the
      // comments above it along; the blank line after a header stays.
      {"[empty]\n\n[a]\nx=1\n; about y\n;more\n\ny = 2\nz=3\n\n[b]\n\nfirst=1\n",
       {{"empty", "k", "v", true}, {"a", "y", "9", true}, {"a", "new", "n", true},
        {"b", "first", "2", true}},
       "[empty]\nk=v\n\n[a]\nx=1\ny=9\nz=3\nnew=n\n\n[b]\n\nfirst=2\n"},
      {"[empty]\nk=v\n\n[a]\nx=1\ny=9\nz=3\nnew=n\n\n[b]\n\nfirst=2\n",
       {{"a", "x", nullptr, true}, {"b", "first", nullptr, true}},
       "[empty]\nk=v\n\n[a]\n\ny=9\nz=3\nnew=n\n\n[b]\n\n"},
      // A section goes with the blank lines before it; the last one is cut at its start.
      {"[a]\nx=1\n\n[b]\ny=2\n\n[c]\nz=3\n",
       {{"b", nullptr, nullptr, true},
        {"c", nullptr, nullptr, true},
        {"zz", nullptr, nullptr, false}},
       "[a]\nx=1\n"},
      // A key trimmed of any white space before '=' is the key a read finds.
      {"[s]\nk\v\t = v\n", {{"s", "k", "w", true}}, "[s]\n\nk=w\n"},
      // An indented header is read, but a write does not find it.
      {"  [s]\nk=v", {{"s", "k", "w", true}}, "  [s]\nk=v\n[s]\n\nk=w\n"},
      // What would read back differently is refused and leaves the file as it was.
      {"[s]\nk=v\n",
       {{"s\nt", "k", "w", false}, {"s", "k\nj", "w", false}, {"s", "k", "w\nj=1", false},
        {"s", "k=j", "w", false}},
       "[s]\nk=v\n"},
  };
  for (const auto& c : cases) {
    Write("test.ini", c.before);
    for (const Op& op : c.ops) EXPECT_EQ(Put(op.section, op.key, op.value), op.ok) << c.before;
    EXPECT_EQ(Read("test.ini"), c.after);
  }
}

// A crash or a full disk at any file call of a write: the file holds the old text or the
// new one, whole and with its mode, and no other key is lost.
TEST_F(ProfileTest, CrashAtAnyCallOfAWriteLeavesTheOldOrTheNewFileWhole) {
  TraceClient().SetTraceLevel(0);  // keep the run short
  const std::string old = "[a]\nx=1\n; y's comment\ny=2\n\n[b]\nz=3\n";
  const struct {
    const char* section;
    const char* key;
    const char* value;
    std::string after;
  } writes[] = {
      {"a", "y", "9", "[a]\nx=1\ny=9\n\n[b]\nz=3\n"},
      {"b", nullptr, nullptr, "[a]\nx=1\n; y's comment\ny=2\n"},
      {"c", "k", "v", old + "\n[c]\n\nk=v\n"},
  };
  for (const auto& w : writes) {
    for (int k = 1;; ++k) {
      SCOPED_TRACE(testing::Message() << w.section << ", crash at call " << k);
      Write("test.ini", old);
      ASSERT_EQ(0, chmod(file().c_str(), 0600));
      platform_test::CrashingIo io;
      io.crash_at = k;
      const bool written = WritePrivateProfileString(w.section, w.key, w.value, file().c_str(), io);
      const std::string now = Read("test.ini");
      EXPECT_TRUE(now == old || now == w.after) << now;
      struct stat st {};
      ASSERT_EQ(0, stat(file().c_str(), &st));
      EXPECT_EQ(0600u, st.st_mode & 0777);
      if (!io.Crashed()) {  // k is past the last call: the write went through
        EXPECT_TRUE(written);
        EXPECT_EQ(w.after, now);
        ASSERT_GT(k, 5);  // the writes were several
        EXPECT_EQ(io.Tail(4), (std::vector<std::string>{"rename", "open", "sync", "close"}))
            << "the directory is synced after the rename";
        break;
      }
    }
  }
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

}  // namespace em_oidmap
