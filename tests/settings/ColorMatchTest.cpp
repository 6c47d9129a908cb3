// Colour matching with a stand-in colour module that logs its calls: module
// loading, profile selection from "cmatch.ini", per-acquisition preparation
// and per-block conversion, and the trace lines.
#include <gtest/gtest.h>

#include <optional>

#include "imaging/ColorMatch.h"
#include "sources/DataSourceList.h"
#include "tests/settings/SettingsTestSupport.h"

namespace {

using sxtest::fs::path;
using sxtest::ReadLines;

class ColorMatching : public ::testing::Test {
 protected:
  void SetUp() override {
    const path& root = env_.Root.Path();
    env_.Root.WriteRegistry("[Software\\Quillmark]\n\"DEBUGLEVEL\"=dword:00000001\n"
                            "\"SAVEPATH\"=str(2):\"" + root.string() + "/\"\n");
    sx::WriteRegValue(sx::kKeyOptions, "TargetTest", "Ok", sx::kKindText, 2);
    log_.emplace("SX_CMMS_LOG", (root / "cmms.log").c_str());
    InstallModule(root);
    sourceDir_ = root / "windows" / "twain_32" / "Corvane" / "QM7110";
    sxtest::WriteFile(sourceDir_ / "cmatch.ini", "[Model]\nQM7110V = qm7110.icc\n");
    colorDir_ = root / "windows" / "system32" / "SPOOL" / "DRIVERS" / "COLOR";
    sxtest::WriteFile(colorDir_ / "qm7110.icc", "profile");
    SelectSource(sourceDir_.string() + "/");
  }
  void TearDown() override {
    sx::CloseCMatch();
    sx::gSourceCursor = nullptr;
    sx::gTraceLevel = 0;
  }

  static void InstallModule(const path& root) {
    sxtest::fs::copy_file(SX_TEST_CMMS_FAKE, root / "windows" / "system32" / "sxcmms.dll",
                          sxtest::fs::copy_options::overwrite_existing);
  }
  void SelectSource(const std::string& directory) {
    source_ = sx::DataSourceEntry{};
    std::strncpy(source_.Host.Directory, directory.c_str(), sizeof source_.Host.Directory - 1);
    sx::gSourceCursor = &source_;
  }
  std::vector<std::string> ModuleCalls() const { return ReadLines(env_.Root.Path() / "cmms.log"); }
  std::vector<std::string> Trace() const { return ReadLines(env_.Root.Path() / "scandiag.txt"); }

  sxtest::SettingsEnv env_;
  std::optional<sxtest::ScopedEnv> log_;
  sx::DataSourceEntry source_{};
  path sourceDir_, colorDir_;
};

TEST_F(ColorMatching, SelectsTheModelsProfile) {
  EXPECT_EQ(sx::OpenCMatch("QM7110V"), 0);
  EXPECT_EQ(sx::OpenCMatch("QM7110V"), 0) << "every call sets the profile again";
  const std::string call = "SX_Icc_SetProfile(" + (colorDir_ / "qm7110.icc").string() + ",0,0,0,10)";
  EXPECT_EQ(ModuleCalls(), (std::vector<std::string>{call, call}));
  const std::vector<std::string> trace = {"In   1: OpenCMatch : 0 ", "Out  1: OpenCMatch : 0 ",
                                          "In   1: OpenCMatch : 0 ", "Out  1: OpenCMatch : 0 "};
  EXPECT_EQ(Trace(), trace);
}

TEST_F(ColorMatching, UnknownModelNamesTheColourFolderItself) {
  EXPECT_EQ(sx::OpenCMatch("QMB4"), SX_ERR_UNSUPPORTED);
  EXPECT_EQ(ModuleCalls(),
            std::vector<std::string>{"SX_Icc_SetProfile(" + colorDir_.string() + "/,0,0,0,10)"});
  EXPECT_EQ(Trace().back(), "Out  1: OpenCMatch : 14 ");
}

TEST_F(ColorMatching, NoSourceMeansNoModuleAndNoTrace) {
  sx::gSourceCursor = nullptr;
  EXPECT_EQ(sx::OpenCMatch("QM7110V"), SX_ERR_UNSUPPORTED);
  EXPECT_TRUE(ModuleCalls().empty());
  EXPECT_TRUE(Trace().empty());
  sx::gSettings.ColorMatch = 1;
  EXPECT_EQ(sxtest::Query(CAP_COLORMATCH, TY_INT32).Count, 1);
}

TEST_F(ColorMatching, MissingModuleIsTriedAgainNextTime) {
  sxtest::fs::remove(env_.Root.Path() / "windows" / "system32" / "sxcmms.dll");
  EXPECT_EQ(sx::OpenCMatch("QM7110V"), SX_ERR_UNSUPPORTED);
  EXPECT_EQ(Trace().back(), "Out  1: OpenCMatch : 14 ");
  InstallModule(env_.Root.Path());
  EXPECT_EQ(sx::OpenCMatch("QM7110V"), 0);
}

TEST_F(ColorMatching, ProfilePathThatDoesNotFitIsRefused) {
  // A root long enough that the colour folder and the name pass 143 bytes.
  path longRoot = env_.Root.Path();
  while (longRoot.string().size() < 70) longRoot /= "r";
  sxtest::ScopedEnv rootEnv("SX_ROOT", longRoot.c_str());
  sxtest::fs::create_directories(longRoot / "windows" / "system32");
  sxtest::fs::copy_file(env_.Root.Path() / "user.reg", longRoot / "user.reg");
  InstallModule(longRoot);
  const std::string name(60, 'p');
  sxtest::WriteFile(sourceDir_ / "cmatch.ini", "[Model]\nQM7110V=" + name + "\n");
  EXPECT_EQ(sx::OpenCMatch("QM7110V"), SX_ERR_UNSUPPORTED);
  EXPECT_TRUE(ModuleCalls().empty()) << "the module is never given a cut path";
  ASSERT_FALSE(Trace().empty());
  EXPECT_EQ(Trace().back(), "Out  1: OpenCMatch : 14 ");
}

TEST_F(ColorMatching, QueryOffersOnOnlyWhenTheProfileIsTaken) {
  EXPECT_EQ(sxtest::Query(CAP_COLORMATCH, TY_INT32).Items, (std::vector<uint8_t>{0, 0, 0, 0, 1, 0, 0, 0}));
  std::strcpy(sx::gAbility.ModelName, "QMB4");
  EXPECT_EQ(sxtest::Query(CAP_COLORMATCH, TY_INT32).Count, 1);
}

class Prepared : public ColorMatching {
 protected:
  void SetUp() override {
    ColorMatching::SetUp();
    ASSERT_EQ(sx::OpenCMatch("QM7110V"), 0);
    for (int c = 0; c < sx::kChannels; ++c) {
      std::fill(std::begin(tables_[c]), std::end(tables_[c]), static_cast<uint8_t>(10 * c));
      settings_.ToneTables[c] = tables_[c];
    }
    settings_.ColorMatch = 1;
    settings_.BitsPerPixel = 24;
    settings_.OutputPixels = 2;
    settings_.OutputBytesPerLine = 8;  // 6 bytes of pixels and 2 of padding
    sxtest::fs::remove(env_.Root.Path() / "cmms.log");
    sxtest::fs::remove(env_.Root.Path() / "scandiag.txt");
  }
  uint8_t tables_[sx::kChannels][256];
  sx::ScanSettings settings_{};
};

TEST_F(Prepared, InitialHandsOverIntentTablesAndLineLength) {
  EXPECT_EQ(sx::InitialCMatch(settings_), 0);
  settings_.BitsPerPixel = 48;
  EXPECT_EQ(sx::InitialCMatch(settings_), 0);
  const std::vector<std::string> calls = {
      "SX_Icc_SetIntent(0,0,10)", "SX_Icc_Adjust(0,0,0,0,0,0,r10,g20,b30,256)", "SX_Icc_Initial(2)",
      "SX_Icc_SetIntent(0,1,11)", "SX_Icc_Adjust(0,0,0,0,0,0,r10,g20,b30,256)", "SX_Icc_Initial(2)"};
  EXPECT_EQ(ModuleCalls(), calls);
  EXPECT_EQ(Trace().front(), "In   1: InitialCMatch : 0 ");
  EXPECT_EQ(Trace().at(1), "Out  1: InitialCMatch : 0 ");
}

TEST_F(Prepared, BlocksAreConvertedLineByLineInPlace) {
  std::vector<uint8_t> block(3 * 8, 0x0F);
  EXPECT_EQ(sx::ConvertBlock(block.data(), settings_, 3), 0);
  for (size_t i = 0; i < block.size(); ++i)
    EXPECT_EQ(block[i], i % 8 < 6 ? 0xF0 : 0x0F) << i;
  EXPECT_EQ(ModuleCalls(), std::vector<std::string>(3, "SX_Icc_Convert2(in place,2)"));
}

TEST_F(Prepared, OffOrUnloadedCallsNothing) {
  std::vector<uint8_t> block(8, 0x0F);
  for (uint8_t off : {0, 2}) {
    settings_.ColorMatch = off;
    EXPECT_EQ(sx::InitialCMatch(settings_), 0);
    EXPECT_EQ(sx::ConvertBlock(block.data(), settings_, 1), 0);
  }
  EXPECT_TRUE(Trace().empty());
  EXPECT_EQ(sx::CloseCMatch(), 0);
  EXPECT_EQ(Trace(), (std::vector<std::string>{"In   1: CloseCMatch : 0 ", "Out  1: CloseCMatch : 0 "}));
  settings_.ColorMatch = 1;
  EXPECT_EQ(sx::InitialCMatch(settings_), 0);
  EXPECT_EQ(sx::ConvertBlock(block.data(), settings_, 1), 0);
  EXPECT_EQ(block, std::vector<uint8_t>(8, 0x0F));
  EXPECT_TRUE(ModuleCalls().empty());
}

}  // namespace
