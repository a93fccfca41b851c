#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/Registry.h"
#include "platform/RegistryPaths.h"
#include "tests/platform/PlatformTestUtil.h"

namespace em_oidmap {

namespace {

class RegistryTest : public platform_test::TempDirTest {
 protected:
  LSTATUS SetString(CRegistry& reg, HKEY key, const char* name, const std::string& text,
                    int32_t type = REG_SZ) {
    return reg.SetValue(key, name, type, reinterpret_cast<const uint8_t*>(text.c_str()),
                        static_cast<uint32_t>(text.size() + 1));
  }
  std::string GetString(CRegistry& reg, const char* path, const char* name) {
    std::string out = "<missing>";
    reg.GetString(HKEY_LOCAL_MACHINE, path, name, &out);
    return out;
  }
  // The stored bytes, or nothing when the query fails.
  std::vector<uint8_t> Query(CRegistry& reg, HKEY key, const char* name, uint32_t* type) {
    uint8_t data[16] = {};
    uint32_t count = sizeof data;
    if (reg.QueryValue(key, name, type, data, &count) != ERROR_SUCCESS) return {};
    return std::vector<uint8_t>(data, data + count);
  }
};

TEST_F(RegistryTest, SaveWritesExactFormatAndReloadGivesSameValues) {
  const uint8_t bytes[] = {1, 255};
  const uint8_t number[] = {0xfb, 0xff, 0xff, 0xff};  // -5
  {
    CRegistry reg(dir_);
    HKEY key = 0;
    ASSERT_EQ(reg.CreateKey(HKEY_LOCAL_MACHINE, "A\\B", &key), ERROR_SUCCESS);
    EXPECT_EQ(reg.SetValue(key, "bin", REG_BINARY, bytes, 2), ERROR_SUCCESS);
    EXPECT_EQ(reg.SetValue(key, "num", REG_DWORD, number, 4), ERROR_SUCCESS);
    EXPECT_EQ(SetString(reg, key, "str", "x=y"), ERROR_SUCCESS);
    EXPECT_EQ(SetString(reg, key, "exp", "$HOME/x", REG_EXPAND_SZ), ERROR_SUCCESS);
    EXPECT_EQ(reg.SetValue(key, "notext", REG_SZ, nullptr, 0), ERROR_SUCCESS);
    EXPECT_EQ(reg.SetValue(key, "empty", REG_BINARY, nullptr, 0), ERROR_SUCCESS);
    EXPECT_FALSE(reg.IsDirty());
  }
  EXPECT_EQ(Read("registry"),
            "[HKEY_CLASSES_ROOT]\n\n[HKEY_CURRENT_CONFIG]\n\n[HKEY_CURRENT_USER]\n\n"
            "[HKEY_LOCAL_MACHINE]\n[A]\n[B]\n"
            "bin=b=01 ff \nempty=b=\nexp=es=$HOME/x\nnum=d=-5\nstr=s=x=y\n"
            "\n\n\n[HKEY_USERS]\n\n\n");

  CRegistry again(dir_);
  HKEY key = 0;
  ASSERT_EQ(again.OpenKey(HKEY_LOCAL_MACHINE, "\\A\\\\B\\", &key), ERROR_SUCCESS);
  uint32_t type = 0;
  EXPECT_EQ(Query(again, key, "bin", &type), std::vector<uint8_t>(bytes, bytes + 2));
  EXPECT_EQ(type, static_cast<uint32_t>(REG_BINARY));
  EXPECT_EQ(Query(again, key, "num", &type), std::vector<uint8_t>(number, number + 4));
  EXPECT_EQ(GetString(again, "A\\B", "str"), "x=y");
  EXPECT_EQ(GetString(again, "A\\B", "exp"), "$HOME/x");
  EXPECT_EQ(GetString(again, "A\\B", "notext"), "<missing>");  // never written
}

TEST_F(RegistryTest, RestoreFallsBackToBackupThenDefault) {
  Write("registry.default", "[HKEY_LOCAL_MACHINE]\nfrom=s=default\n\n");
  Write("registry.old", "[HKEY_LOCAL_MACHINE]\nfrom=s=old\n\n");
  Write("registry", std::string("\x01\x02\0\xff garbage\n\x7f", 15));
  {
    CRegistry reg(dir_);
    EXPECT_EQ(GetString(reg, "", "from"), "old");
  }
  Write("registry", "");
  std::remove(Path("registry.old").c_str());
  {
    CRegistry reg(dir_);
    EXPECT_EQ(GetString(reg, "", "from"), "default");
    EXPECT_TRUE(reg.IsDirty());  // the missing predefined keys were added, not yet saved
    EXPECT_EQ(Read("registry"), "");
  }
  std::remove(Path("registry.default").c_str());
  CRegistry reg(dir_);
  reg.SetupTree(false);
  EXPECT_EQ(reg.Root()->KeyNames().size(), 5u);
  EXPECT_TRUE(reg.SaveTree());  // an empty "registry" is replaced, not kept as backup
  EXPECT_FALSE(Exists("registry.old"));

  CRegistry reloaded(dir_);
  reloaded.SetupTree(false);
  EXPECT_FALSE(reloaded.IsDirty());  // an unchanged tree is not written back
  Write("registry.old", "marker");
  EXPECT_TRUE(reloaded.SaveTree());
  EXPECT_EQ(Read("registry.old"), "marker");
}

TEST_F(RegistryTest, EmptyLineEndsSectionAndBadLinesAreSkipped) {
  const std::string longLine = std::string(1023, 'x') + "[Evil]\n";
  // "a=b=s=v": a name holding '=' reads back as "a" with junk after a binary marker.
  Write("registry",
        "[HKEY_LOCAL_MACHINE]\n[K]\na=s=1\n\nb=s=2\n" + longLine +
            "junk without marker\nq=q=1\nd=d=abc\nn=d=42\nbin=b=01 zz 02\na=b=s=v\n[noclose\n"
            "last=s=no line feed");
  CRegistry reg(dir_);
  EXPECT_EQ(GetString(reg, "K", "a"), "1");
  EXPECT_EQ(GetString(reg, "K", "b"), "<missing>");
  EXPECT_EQ(GetString(reg, "", "b"), "2");
  EXPECT_EQ(GetString(reg, "", "last"), "no line feed");
  std::shared_ptr<CRegistryNode> hklm = reg.Root()->FindKey("HKEY_LOCAL_MACHINE");
  EXPECT_EQ(hklm->KeyNames(), std::vector<std::string>{"K"});  // no "Evil", no "noclose"
  EXPECT_EQ(hklm->ValueNames(), (std::vector<std::string>{"a", "b", "bin", "last", "n"}));
  EXPECT_EQ(Query(reg, HKEY_LOCAL_MACHINE, "bin", nullptr), std::vector<uint8_t>{1});
}

TEST_F(RegistryTest, DeepNestingIsBoundedAndKeepsStructure) {
  std::string text = "[HKEY_LOCAL_MACHINE]\n";
  for (int i = 0; i < 200; ++i) text += "[k]\n";
  text += "deep=s=1\n" + std::string(200, '\n') + "after=s=2\n\n";
  Write("registry", text);
  CRegistry reg(dir_);
  EXPECT_EQ(GetString(reg, "", "after"), "2");
  std::shared_ptr<CRegistryNode> node = reg.Root()->FindKey("HKEY_LOCAL_MACHINE");
  int depth = 1;
  while ((node = node->FindKey("k")) != nullptr) ++depth;
  EXPECT_EQ(depth, kRegistryMaxDepth);
}

TEST_F(RegistryTest, FailedSaveLeavesPreviousFilesInPlace) {
  CRegistry reg(dir_);
  ASSERT_EQ(SetString(reg, HKEY_LOCAL_MACHINE, "v", "one"), ERROR_SUCCESS);
  ASSERT_EQ(SetString(reg, HKEY_LOCAL_MACHINE, "v", "two"), ERROR_SUCCESS);
  const std::string saved = Read("registry");
  ASSERT_NE(saved.find("v=s=two"), std::string::npos);
  ASSERT_NE(Read("registry.old").find("v=s=one"), std::string::npos);

  ASSERT_EQ(mkdir(Path("registry.new").c_str(), 0755), 0);
  EXPECT_EQ(SetString(reg, HKEY_LOCAL_MACHINE, "v", "three"), ERROR_SUCCESS);
  EXPECT_TRUE(reg.IsDirty());
  EXPECT_FALSE(reg.SaveTree());
  EXPECT_EQ(Read("registry"), saved);
  EXPECT_NE(Read("registry.old").find("v=s=one"), std::string::npos);

  ASSERT_EQ(rmdir(Path("registry.new").c_str()), 0);
  EXPECT_TRUE(reg.SaveTree());
  EXPECT_FALSE(Exists("registry.new"));
  EXPECT_EQ(Read("registry.old"), saved);
  CRegistry reread(dir_);
  EXPECT_EQ(GetString(reread, "", "v"), "three");
}

TEST_F(RegistryTest, HandleMisuseFailsCleanly) {
  CRegistry reg(dir_);
  HKEY parent = 0, child = 0, stale = 0x1234;
  EXPECT_EQ(reg.OpenKey(stale, "x", &parent), ERROR_INVALID_HANDLE);
  EXPECT_EQ(reg.OpenKey(HKEY_LOCAL_MACHINE, "Nope", &parent), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(reg.CreateKey(HKEY_LOCAL_MACHINE, "bad]name", &parent), ERROR_INVALID_PARAMETER);
  std::string deep;
  for (int i = 0; i < kRegistryMaxDepth; ++i) deep += "d\\";
  EXPECT_EQ(reg.CreateKey(HKEY_LOCAL_MACHINE, deep.c_str(), &parent), ERROR_INVALID_PARAMETER);
  ASSERT_EQ(reg.CreateKey(HKEY_LOCAL_MACHINE, "P", &parent), ERROR_SUCCESS);
  ASSERT_EQ(reg.CreateKey(parent, "C", &child), ERROR_SUCCESS);
  ASSERT_EQ(SetString(reg, child, nullptr, "default value"), ERROR_SUCCESS);

  uint32_t count = 4;
  uint8_t small[4];
  EXPECT_EQ(reg.QueryValue(child, "", nullptr, small, &count), ERROR_MORE_DATA);
  EXPECT_EQ(count, 14u);
  EXPECT_EQ(reg.QueryValue(child, "", nullptr, nullptr, nullptr), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(reg.QueryValue(child, "missing", nullptr, nullptr, &count), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(reg.SetValue(child, "t", 7, nullptr, 0), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(reg.SetValue(child, "d", REG_DWORD, nullptr, 2), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(SetString(reg, child, "long", std::string(2000, 'x')), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(SetString(reg, child, "nl", "a\nb"), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(SetString(reg, child, "a=b", "v"), ERROR_INVALID_PARAMETER);  // could not be read back
  EXPECT_EQ(reg.DeleteValue(child, "missing"), ERROR_FILE_NOT_FOUND);

  EXPECT_EQ(reg.DeleteKey(HKEY_LOCAL_MACHINE, "P"), ERROR_ACCESS_DENIED);
  EXPECT_EQ(reg.DeleteKey(HKEY_LOCAL_MACHINE, ""), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(reg.DeleteKey(parent, "C"), ERROR_SUCCESS);
  EXPECT_EQ(reg.QueryValue(child, "", nullptr, nullptr, &count), ERROR_INVALID_HANDLE);
  EXPECT_EQ(SetString(reg, child, "v", "x"), ERROR_INVALID_HANDLE);
  EXPECT_EQ(reg.CloseKey(child), ERROR_SUCCESS);
  EXPECT_EQ(reg.CloseKey(child), ERROR_INVALID_HANDLE);

  reg.InitClass();  // re-reading the tree invalidates the handles handed out before
  EXPECT_EQ(reg.OpenKey(parent, nullptr, &child), ERROR_INVALID_HANDLE);
  EXPECT_EQ(reg.OpenKey(HKEY_LOCAL_MACHINE, "P", &child), ERROR_SUCCESS);
}

TEST_F(RegistryTest, ConcurrentWritersAndReadersKeepTreeAndFileWhole) {
  CRegistry reg(dir_);
  TraceClient().SetTraceLevel(0);  // keep the run short
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&reg, t] {
      const std::string path = "T" + std::to_string(t);
      for (int i = 0; i < 20; ++i) {
        HKEY key = 0;
        if (reg.CreateKey(HKEY_LOCAL_MACHINE, path.c_str(), &key) != ERROR_SUCCESS) return;
        int32_t n = i;
        reg.SetValue(key, "n", REG_DWORD, reinterpret_cast<uint8_t*>(&n), 4);
        uint32_t count = 4;
        reg.QueryValue(key, "n", nullptr, reinterpret_cast<uint8_t*>(&n), &count);
        if (i % 2 == 1) reg.DeleteKey(HKEY_LOCAL_MACHINE, path.c_str());
        reg.CloseKey(key);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  CRegistry reread(dir_);
  reread.SetupTree(false);
  EXPECT_EQ(reread.Root()->FindKey("HKEY_LOCAL_MACHINE")->KeyNames().size(), 0u);
}

// The tree as the registry writes it; "" when there is none.
std::string Rendered(const std::shared_ptr<CRegistryNode>& root) {
  char* buffer = nullptr;
  size_t size = 0;
  FILE* memory = open_memstream(&buffer, &size);
  if (root) root->Write(memory);
  fclose(memory);
  std::string text(buffer, size);
  free(buffer);
  return text;
}

// A file of sub-keys K0..K3 of HKEY_LOCAL_MACHINE, each with values a and b set to `v`.
std::string TreeFile(const std::string& v) {
  std::string keys;
  for (int k = 0; k < 4; ++k) {
    keys += "[K" + std::to_string(k) + "]\na=s=" + v + "\nb=s=" + v + "\n\n";
  }
  return "[HKEY_CLASSES_ROOT]\n\n[HKEY_CURRENT_CONFIG]\n\n[HKEY_CURRENT_USER]\n\n"
         "[HKEY_LOCAL_MACHINE]\n" + keys + "\n[HKEY_USERS]\n\n\n";
}

TEST_F(RegistryTest, RestoreGivesTheSameTreeWhateverTheLineOrder) {
  const std::string sorted = TreeFile("x");
  for (const std::string& file : {
           sorted,
           // reversed keys and values, a value given twice, a header repeated
           std::string("[HKEY_USERS]\n\n[HKEY_LOCAL_MACHINE]\n[K3]\nb=s=x\na=s=x\n\n"
                       "[K2]\nb=s=x\na=s=x\n\n[K1]\nb=s=x\na=s=y\na=s=x\n\n[K0]\nb=s=x\n\n"
                       "[K0]\na=s=x\n\n\n[HKEY_CURRENT_USER]\n\n[HKEY_CURRENT_CONFIG]\n\n"
                       "[HKEY_CLASSES_ROOT]\n\n\n"),
       }) {
    Write("registry", file);
    CRegistry reg(dir_);
    reg.SetupTree(false);
    EXPECT_EQ(Rendered(reg.Root()), sorted);
  }
}

TEST_F(RegistryTest, CrashAtAnyCallOfASaveLoadsTheOldOrTheNewTreeWhole) {
  TraceClient().SetTraceLevel(0);  // keep the run short
  const std::string older = TreeFile("older"), old = TreeFile("old"), now = TreeFile("new");
  for (int k = 1;; ++k) {
    Write("registry", old);
    Write("registry.old", older);
    unlink(Path("registry.new").c_str());
    platform_test::CrashingIo io;
    CRegistry reg(dir_, &io);
    reg.SetupTree(false);
    io.crash_at = 1;  // the changes are held in memory and saved at once below
    for (int n = 0; n < 4; ++n) {
      HKEY key = 0;
      ASSERT_EQ(reg.OpenKey(HKEY_LOCAL_MACHINE, ("K" + std::to_string(n)).c_str(), &key),
                ERROR_SUCCESS);
      for (const char* name : {"a", "b"}) ASSERT_EQ(SetString(reg, key, name, "new"), 0);
    }
    io.calls.clear();
    io.crash_at = k;
    const bool saved = reg.SaveTree();

    CRegistry after(dir_);
    after.SetupTree(false);
    const std::string loaded = Rendered(after.Root());
    EXPECT_TRUE(loaded == old || loaded == now) << "crash at call " << k << ":\n" << loaded;
    if (!io.Crashed()) {  // k is past the last call: the save went through
      EXPECT_TRUE(saved);
      EXPECT_EQ(loaded, now);
      ASSERT_GT(k, 10);  // the writes were many
      EXPECT_EQ(io.Tail(5), (std::vector<std::string>{"rename", "rename", "open", "sync", "close"}))
          << "the directory is synced after the renames";
      break;
    }
  }
}

TEST_F(RegistryTest, MessageFileDirectoryPrecedence) {
  CRegistry reg(dir_);
  EXPECT_EQ(MessageFileDirectoryFromRegistry(reg), "");
  HKEY uuid = 0, steward = 0;
  ASSERT_EQ(reg.CreateKey(HKEY_LOCAL_MACHINE, kNodeStewardUuidKey, &uuid), ERROR_SUCCESS);
  ASSERT_EQ(reg.CreateKey(HKEY_LOCAL_MACHINE, kNodeStewardKey, &steward), ERROR_SUCCESS);
  SetString(reg, uuid, "Node Steward", "/opt/ns/");
  EXPECT_EQ(MessageFileDirectoryFromRegistry(reg), "/opt/ns/Bin");
  SetString(reg, steward, "Setup", "/setup");
  EXPECT_EQ(MessageFileDirectoryFromRegistry(reg), "/setup/Bin");
  SetString(reg, steward, "FileRoot", "/files");
  EXPECT_EQ(MessageFileDirectoryFromRegistry(reg), "/files/Bin");
  SetString(reg, steward, "BinRoot", "");  // empty counts as not set
  EXPECT_EQ(MessageFileDirectoryFromRegistry(reg), "/files/Bin");
  SetString(reg, steward, "BinRoot", "/bin/here");
  EXPECT_EQ(MessageFileDirectoryFromRegistry(reg), "/bin/here");
}

}  // namespace

}  // namespace em_oidmap
