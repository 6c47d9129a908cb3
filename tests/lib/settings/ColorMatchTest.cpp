// Colour matching with a stand-in colour module that logs its calls (when
// it is offered is the colour suite's, with the real module).
#include "imaging/ColorMatch.h"
#include "platform/Paths.h"
#include "sources/DataSourceList.h"
#include "tests/lib/settings/SettingsTestSupport.h"

namespace {

using Lines = std::vector<std::string>;

TEST(ColorMatching, ProfileFromTheModelsEntryBlocksConvertedInPlace) {
  sxtest::SettingsEnv env;
  const sxtest::fs::path root = env.Root.Path(), color = env.Root.System() / "SPOOL" / "DRIVERS" / "COLOR";
  sxtest::ScopedEnv log("SX_CMMS_LOG", (root / "cmms.log").string().c_str());
  sxtest::WriteFile(env.Root.Twain() / "QM7110/cmatch.ini", "[Model]\nQM7110V = qm.icc\n");
  sxtest::WriteFile(color / "qm.icc", "profile");
  sx::DataSourceEntry source{};
  std::strcpy(source.Host.Directory, (env.Root.Twain() / "QM7110" / "").string().c_str());
  const std::shared_ptr<void> unload(nullptr, [](void*) { sx::CloseCMatch(), sx::gSourceCursor = nullptr; });
  const auto calls = [&] {  // the module's calls since the last look
    const Lines lines = sxtest::ReadLines(root / "cmms.log");
    sxtest::fs::remove(root / "cmms.log");
    return lines;
  };

  sxtest::fs::copy_file(SX_TEST_CMMS_FAKE, env.Root.System() / "sxcmms.dll");
  EXPECT_EQ(sx::OpenCMatch("QM7110V"), SX_ERR_UNSUPPORTED);  // no source: nothing loaded
  sx::gSourceCursor = &source;
  EXPECT_EQ(sx::OpenCMatch("QMB4"), SX_ERR_UNSUPPORTED);  // no entry: the folder itself
  ASSERT_EQ(sx::OpenCMatch("QM7110V"), 0);
  EXPECT_EQ(calls(), (Lines{"SX_Icc_SetProfile(" + color.string() + SX_PATH_SEP ",0,0,0,10)",
                            "SX_Icc_SetProfile(" + (color / "qm.icc").string() + ",0,0,0,10)"}));

  uint8_t tables[4][256];
  sx::ScanSettings s{};
  for (int c = 0; c < 4; ++c) std::fill_n(s.ToneTables[c] = tables[c], 256, uint8_t(10 * c));
  s.OutputPixels = 2, s.OutputBytesPerLine = 8;  // 6 bytes of pixels, 2 of padding
  s.ColorMatch = 2;  // only 1 means on
  sx::InitialCMatch(s);
  EXPECT_TRUE(calls().empty());
  s.ColorMatch = 1;
  for (uint8_t bits : {24, 48}) {
    s.BitsPerPixel = bits;
    EXPECT_EQ(sx::InitialCMatch(s), 0);
  }
  std::vector<uint8_t> block(16, 0x0F);
  EXPECT_EQ(sx::ConvertBlock(block.data(), s, 2), 0);
  for (size_t i = 0; i < block.size(); ++i) EXPECT_EQ(block[i], i % 8 < 6 ? 0xF0 : 0x0F) << i;
  const std::string adjust = "SX_Icc_Adjust(0,0,0,0,0,0,r10,g20,b30,256)";
  EXPECT_EQ(calls(), (Lines{"SX_Icc_SetIntent(0,0,10)", adjust, "SX_Icc_Initial(2)", "SX_Icc_SetIntent(0,1,11)",
                            adjust, "SX_Icc_Initial(2)", "SX_Icc_Convert2(in place,2)",
                            "SX_Icc_Convert2(in place,2)"}));  // one call per line
  EXPECT_EQ(sx::CloseCMatch(), 0);
  sx::ConvertBlock(block.data(), s, 2);
  EXPECT_TRUE(calls().empty()) << "unloaded: nothing converted";
}

}  // namespace
