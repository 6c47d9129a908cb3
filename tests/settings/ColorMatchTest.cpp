// Colour matching with a stand-in colour module that logs its calls.
#include <optional>

#include "imaging/ColorMatch.h"
#include "sources/DataSourceList.h"
#include "tests/settings/SettingsTestSupport.h"

namespace {

using sxtest::fs::path;
using Lines = std::vector<std::string>;

class ColorMatching : public ::testing::Test {
 protected:
  void SetUp() override {
    Prepare(env_.Root.Path());
    sx::WriteRegValue(sx::kKeyOptions, "TargetTest", "Ok", sx::kKindText, 2);  // loads the level
    log_.emplace("SX_CMMS_LOG", (env_.Root.Path() / "cmms.log").c_str());
    const path dir = env_.Root.Twain() / "QM7110";
    sxtest::WriteFile(dir / "cmatch.ini", "[Model]\nQM7110V = qm.icc\nQMLONG=" + std::string(60, 'p'));
    color_ = env_.Root.Path() / "windows" / "system32" / "SPOOL" / "DRIVERS" / "COLOR";
    sxtest::WriteFile(color_ / "qm.icc", "profile");
    std::strcpy(source_.Host.Directory, (dir.string() + "/").c_str());
    sx::gSourceCursor = &source_;
  }
  void TearDown() override {
    sx::CloseCMatch();
    sx::gSourceCursor = nullptr;
  }
  // The module installed under `root`, tracing at level 1 into the test's root.
  void Prepare(const path& root) const {
    sxtest::WriteFile(root / "user.reg", "[Software\\Quillmark]\n\"DEBUGLEVEL\"=dword:00000001\n"
                      "\"SAVEPATH\"=str(2):\"" + env_.Root.Path().string() + "/\"\n");
    sxtest::fs::create_directories(root / "windows" / "system32");
    sxtest::fs::copy_file(SX_TEST_CMMS_FAKE, root / "windows" / "system32" / "sxcmms.dll",
                          sxtest::fs::copy_options::overwrite_existing);
  }
  Lines Module() const { return sxtest::ReadLines(env_.Root.Path() / "cmms.log"); }
  Lines Trace() const { return sxtest::ReadLines(env_.Root.Path() / "scandiag.txt"); }
  static std::string Line(const char* tag, const char* label, int r) {
    return std::string(tag) + "  1: " + label + " : " + std::to_string(r) + " ";
  }
  sxtest::SettingsEnv env_;
  std::optional<sxtest::ScopedEnv> log_;
  sx::DataSourceEntry source_{};
  path color_;
};

TEST_F(ColorMatching, OpenSelectsTheProfileOrRefuses) {
  sx::gSourceCursor = nullptr;
  EXPECT_EQ(sx::OpenCMatch("QM7110V"), SX_ERR_UNSUPPORTED);
  EXPECT_TRUE(Module().empty() && Trace().empty()) << "no source: nothing loaded or traced";
  sx::gSourceCursor = &source_;
  EXPECT_EQ(sx::OpenCMatch("QM7110V"), 0);
  EXPECT_EQ(sx::OpenCMatch("QMB4"), SX_ERR_UNSUPPORTED);  // no entry: the folder itself
  EXPECT_EQ(Module(), (Lines{"SX_Icc_SetProfile(" + (color_ / "qm.icc").string() + ",0,0,0,10)",
                             "SX_Icc_SetProfile(" + color_.string() + "/,0,0,0,10)"}));
  EXPECT_EQ(Trace(), (Lines{Line("In ", "OpenCMatch", 0), Line("Out", "OpenCMatch", 0),
                            Line("In ", "OpenCMatch", 0), Line("Out", "OpenCMatch", 14)}));
  EXPECT_EQ(sxtest::Query(CAP_COLORMATCH, TY_INT32).Ints(), (std::vector<int32_t>{0, 1}));
  sx::CloseCMatch();

  path longRoot = env_.Root.Path() / "long";  // colour folder and name pass 143 bytes
  while (longRoot.string().size() < 70) longRoot /= "r";
  sxtest::ScopedEnv rootEnv("SX_ROOT", longRoot.c_str());
  Prepare(longRoot);
  sxtest::fs::remove(env_.Root.Path() / "cmms.log");
  EXPECT_EQ(sx::OpenCMatch("QMLONG"), SX_ERR_UNSUPPORTED);
  EXPECT_TRUE(Module().empty()) << "the module is never given a cut path";
  EXPECT_EQ(Trace().back(), Line("Out", "OpenCMatch", 14));
  sx::CloseCMatch();
  sxtest::fs::remove(longRoot / "windows" / "system32" / "sxcmms.dll");
  EXPECT_EQ(sx::OpenCMatch("QM7110V"), SX_ERR_UNSUPPORTED);
  EXPECT_TRUE(Module().empty());
  Prepare(longRoot);
  sx::OpenCMatch("QM7110V");
  EXPECT_EQ(Module().size(), 1u) << "a failed load is tried again";
}

TEST_F(ColorMatching, AcquisitionPreparesAndConvertsBlocks) {
  ASSERT_EQ(sx::OpenCMatch("QM7110V"), 0);
  sxtest::fs::remove(env_.Root.Path() / "cmms.log");
  sxtest::fs::remove(env_.Root.Path() / "scandiag.txt");
  uint8_t tables[4][256];
  sx::ScanSettings s{};
  for (int c = 0; c < 4; ++c) std::fill_n(s.ToneTables[c] = tables[c], 256, uint8_t(10 * c));
  s.OutputPixels = 2;
  s.OutputBytesPerLine = 8;  // 6 bytes of pixels, 2 of padding
  std::vector<uint8_t> block(16, 0x0F);
  for (uint8_t off : {0, 2}) {  // only 1 means on
    s.ColorMatch = off;
    sx::InitialCMatch(s);
    sx::ConvertBlock(block.data(), s, 2);
  }
  EXPECT_TRUE(Module().empty() && Trace().empty());
  s.ColorMatch = 1;
  for (uint8_t bits : {24, 48}) {
    s.BitsPerPixel = bits;
    EXPECT_EQ(sx::InitialCMatch(s), 0);
  }
  EXPECT_EQ(sx::ConvertBlock(block.data(), s, 2), 0);
  for (size_t i = 0; i < block.size(); ++i) EXPECT_EQ(block[i], i % 8 < 6 ? 0xF0 : 0x0F) << i;
  const std::string adjust = "SX_Icc_Adjust(0,0,0,0,0,0,r10,g20,b30,256)";
  EXPECT_EQ(Module(), (Lines{"SX_Icc_SetIntent(0,0,10)", adjust, "SX_Icc_Initial(2)",
                             "SX_Icc_SetIntent(0,1,11)", adjust, "SX_Icc_Initial(2)",
                             "SX_Icc_Convert2(in place,2)", "SX_Icc_Convert2(in place,2)"}));
  sxtest::fs::remove(env_.Root.Path() / "cmms.log");
  EXPECT_EQ(sx::CloseCMatch(), 0);
  sx::InitialCMatch(s);
  sx::ConvertBlock(block.data(), s, 2);
  EXPECT_EQ(block[0], 0xF0) << "unloaded: nothing converted";
  EXPECT_TRUE(Module().empty());
  const Lines trace = Trace();
  EXPECT_EQ(Lines(trace.end() - 4, trace.end()),
            (Lines{Line("In ", "CloseCMatch", 0), Line("Out", "CloseCMatch", 0),
                   Line("In ", "InitialCMatch", 0), Line("Out", "InitialCMatch", 0)}));
}

}  // namespace
