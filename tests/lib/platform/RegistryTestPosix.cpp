// The text store's own properties, which the system registry of Windows has
// none of: lines it does not understand, atomic replacement, damage.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <thread>

#include "platform/Registry.h"
#include "support/TestEnv.h"

namespace sx::plat {
namespace {

using sxtest::TempRoot;
namespace fs = std::filesystem;

uint32_t QueryDword(const char* key, const char* name) {
  uint32_t v = 0, type = 0, size = 4;
  return RegistryQuery(key, name, &type, &v, &size) == kRegOk ? v : 0xDEAD;
}

// A write changes the last of duplicate names, adds new values after the
// key's last value and new keys at the end, and leaves every other line be.
TEST(RegistryStore, WriteKeepsForeignLinesAndLeavesNoTemporaryFiles) {
  TempRoot root;
  root.WriteRegistry("# hand-written\n[Software\\Quillmark]\nnot a value line\n\"debuglevel\"=dword:1\n"
                     "\"DEBUGLEVEL\"=dword:1\n; tail\n[B]\n");
  const uint32_t two = 2;
  ASSERT_EQ(RegistrySet("Software\\Quillmark", "debuglevel", kRegDword, &two, 4), kRegOk);
  ASSERT_EQ(RegistrySet("Software\\Quillmark", "TargetTest", kRegExpandSz, "Ok", 2), kRegOk);
  ASSERT_EQ(RegistryCreateKey("Software\\Quillmark\\ScanData"), kRegOk);
  EXPECT_EQ(root.ReadRegistry(),
            "# hand-written\n[Software\\Quillmark]\nnot a value line\n\"debuglevel\"=dword:1\n"
            "\"DEBUGLEVEL\"=dword:00000002\n\"TargetTest\"=hex(2):4f,6b\n; tail\n[B]\n\n"
            "[Software\\Quillmark\\ScanData]\n");
  for (const auto& e : fs::directory_iterator(root.Path()))
    EXPECT_TRUE(e.path().filename() == "user.reg" || e.path().filename() == "user.reg.lock" || e.is_directory())
        << e.path();
}

TEST(RegistryStore, UnwritableStoreFailsTheWriteAndKeepsTheOldContent) {
  {
    TempRoot root;
    fs::create_directory(root.Path() / "user.reg");  // a folder in the store's place
    EXPECT_NE(RegistrySet("K", "V", kRegDword, "abcd", 4), kRegOk);
    EXPECT_EQ(QueryDword("K", "V"), 0xDEADu);
  }
  TempRoot root;
  root.WriteRegistry("[K]\n");
  EXPECT_NE(RegistrySet("K", "bad\nname", kRegDword, "abcd", 4), kRegOk);
  EXPECT_EQ(root.ReadRegistry(), "[K]\n");
}

// A writer killed at any moment leaves the store as it was before or after
// one of its writes, never a torn file: every write goes to a temporary file
// that replaces the store by a rename.
TEST(RegistryStore, WriterKilledMidWriteLeavesAWholeStore) {
  TempRoot root;
  const std::string padding(256 * 1024, '.');  // long writes, so kills land inside them
  std::mt19937 random(11);
  for (int round = 0; round < 10; ++round) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (uint32_t i = 1;; ++i) {
        const std::string value = std::to_string(i) + ":" + padding;
        RegistrySet("Software\\Quillmark\\Soak", "Blob", kRegSz, value.data(),
                    static_cast<uint32_t>(value.size()));
        if (i == 1 && write(ready[1], "1", 1) != 1) _exit(1);
      }
    }
    close(ready[1]);
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1) << "the writer finished no write";
    close(ready[0]);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);

    SCOPED_TRACE("round " + std::to_string(round));
    EXPECT_EQ(RegistryIgnoredLines(), 0u);
    std::string blob(padding.size() + 32, '\0');
    uint32_t type = 0, size = static_cast<uint32_t>(blob.size());
    ASSERT_EQ(RegistryQuery("Software\\Quillmark\\Soak", "Blob", &type, blob.data(), &size), kRegOk);
    blob.resize(size);
    const size_t colon = blob.find(':');
    ASSERT_NE(colon, std::string::npos);
    EXPECT_EQ(blob.substr(colon + 1), padding);
  }
}

// A store cut off by another program in mid-line: the damaged line is
// skipped and counted, every intact value before and after it still reads.
TEST(RegistryStore, DamagedStoreIsReadAsFarAsItIsValid) {
  TempRoot root;
  root.WriteRegistry("[K]\n\"A\"=dword:00000007\n\"B\"=str(2):\"1.\n[L]\n\"C\"=dword:00000009\n\"D\"=dwo");
  EXPECT_EQ(RegistryIgnoredLines(), 2u);
  EXPECT_EQ(QueryDword("K", "A"), 7u);
  EXPECT_EQ(QueryDword("L", "C"), 9u);
  EXPECT_EQ(QueryDword("K", "B"), 0xDEADu);
}

}  // namespace
}  // namespace sx::plat
