// Colour matching with the real colour-management module (on Little CMS, or
// on the system's colour management on Windows). The golden check: a page
// scanned with colour matching equals the same page scanned without it,
// converted in the test from the scanner's profile to sRGB by the engine the
// module uses (ReferenceCms.h). That holds only if the scanner received
// identity tables and the module applied the tone tables itself, once,
// before converting.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "ReferenceCms.h"
#include "support/VscanHost.h"

namespace {

using namespace sxtest;
using colour::ProfileKind;
using colour::WriteProfile;

constexpr int32_t kLines = 90;

using Values = std::map<std::string, std::string>;

class ColourMatching : public ::testing::Test {
 protected:
  void SetUp() override {
    color_ = host_.Root.System() / "SPOOL" / "DRIVERS" / "COLOR";
    module_ = host_.Root.System() / "sxcmms.dll";
    fs::create_directories(color_);
    fs::copy_file(SX_TEST_CMMS, module_, fs::copy_options::overwrite_existing);
    WriteFile(host_.Root.Twain() / "Corvane/QM7110/cmatch.ini", "[Model]\nQM7110V=scanner.icc\n");
  }
  // On Windows the system folders are the real ones: nothing is left there.
  void TearDown() override {
    host_.Unload();
    std::error_code ec;
    fs::remove(module_, ec);
    fs::remove(color_ / "scanner.icc", ec);
  }
  // Loads a fresh library (so that the next mapping has its worker threads
  // again and the colour module is no longer in use) with a colour page at
  // 150 dpi and `values` stored, and asks for the colour-matching values as
  // a host does (which loads the module).
  void Load(Values values) {
    values.insert({{"XRESOLUTION", "dword:00000096"}, {"YRESOLUTION", "dword:00000096"}});
    host_.Store(ColourPage(kLines * 2, values));
    host_.Load();
  }
  int32_t Offered() {
    SxValueList* list = nullptr;
    host_.Lib->QueryData(CAP_COLORMATCH, TY_INT32, &list);
    const int32_t count = list ? list->Count : -1;
    host_.Lib->FreeList(list);
    return count;
  }
  // The page's bytes, or the pages' one after the other.
  std::vector<uint8_t> Scan(uint8_t colorMatch, uint8_t buffering) {
    EXPECT_EQ(host_.Lib->SetValue(CAP_COLORMATCH, TY_UINT8, &colorMatch), 0);
    EXPECT_EQ(host_.Lib->SetValue(CAP_BUFFERING, TY_UINT8, &buffering), 0);
    EXPECT_EQ(host_.Acquire(seen_), 0);
    std::vector<uint8_t> bytes;
    for (const auto& page : seen_.Pages) bytes.insert(bytes.end(), page.begin(), page.end());
    return bytes;
  }
  size_t PageBytes() const { return static_cast<size_t>(seen_.Info.PixelsPerLine) * 3 * kLines; }

  // The tone tables the scanner received since the last look, in hex.
  std::vector<std::string> ScannerTables() {
    std::vector<std::string> tables;
    for (const std::string& line : ReadLines(host_.Log)) {
      const size_t at = line.find("table=");
      if (line.rfind("SetGammaTable(", 0) == 0 && at != std::string::npos)
        tables.push_back(line.substr(at + 6, 512));
    }
    std::error_code ec;  // emptied in place: the driver keeps it open
    fs::resize_file(host_.Log, 0, ec);
    return tables;
  }

  VscanHost host_{"[Feeder]\nSheets=100\n"};
  Transfer seen_{.BufferAnswer = kHostBufferBytes};
  fs::path color_;
  fs::path module_;
};

Values Gammas(const char* master, const char* red = "1.0", const char* blue = "1.0") {
  const auto text = [](const char* gamma) { return std::string("str(2):\"") + gamma + "\""; };
  return {{"GAMMA", text(master)}, {"GAMMA_R", text(red)}, {"GAMMA_B", text(blue)}};
}

TEST_F(ColourMatching, OfferedOnlyWithAModuleAndAUsableProfile) {
  Load(Gammas("1.0"));
  EXPECT_EQ(Offered(), 1) << "the profile file is missing";
  WriteFile(color_ / "scanner.icc", "not a profile");
  EXPECT_EQ(Offered(), 1) << "the profile is unreadable";
  ASSERT_TRUE(WriteProfile(ProfileKind::Gray, color_ / "scanner.icc"));
  EXPECT_EQ(Offered(), 1) << "a grey profile cannot convert colour lines";
  ASSERT_TRUE(WriteProfile(ProfileKind::Scanner, color_ / "scanner.icc"));
  EXPECT_EQ(Offered(), 2);
  // A module without the entry points: as if there were none. (A new file,
  // not the loaded one written over: that would change a mapped module, and
  // Windows keeps a loaded module's file from being replaced.)
  host_.Unload();
  fs::remove(module_);
  fs::copy_file(SX_TEST_EMPTY_DLL, module_);
  Load(Gammas("1.0"));
  EXPECT_EQ(Offered(), 1) << "a module without SX_Icc_SetProfile";
  host_.Unload();
  fs::remove(module_);
  Load(Gammas("1.0"));
  EXPECT_EQ(Offered(), 1) << "no module";
  // Colour matching asked for without a module: the page comes plain.
  const size_t bytes = Scan(1, 0).size();
  EXPECT_EQ(bytes, PageBytes());
}

std::string Identity() {
  static const char kHex[] = "0123456789abcdef";
  std::string hex;
  for (int i = 0; i < 256; ++i) hex += std::string{kHex[i >> 4], kHex[i & 15]};
  return hex;
}

// Per-channel tables: the scanner applies them to a plain scan; with colour
// matching the scanner gets identity tables and the module applies them.
// The master table applies to a plain scan only.
TEST_F(ColourMatching, PagesEqualTheEngineAppliedToThePlainScanInBothModes) {
  ASSERT_TRUE(WriteProfile(ProfileKind::Scanner, color_ / "scanner.icc"));
  const auto expectConverted = [this](const std::vector<uint8_t>& matched, const std::vector<uint8_t>& plain) {
    ASSERT_EQ(plain.size(), PageBytes());  // length in 1/300 inch
    ASSERT_EQ(matched.size(), plain.size());
    EXPECT_NE(matched, plain) << "the conversion changed nothing";
    const std::vector<uint8_t> expected = colour::ToSrgb(plain);
    ASSERT_EQ(expected.size(), plain.size()) << "no reference conversion";
    size_t differing = 0;
    for (size_t i = 0; i < expected.size(); ++i) differing += expected[i] != matched[i];
    EXPECT_EQ(differing, 0u);
  };
  for (uint8_t buffering : {0, 1}) {
    SCOPED_TRACE(buffering ? "buffered" : "direct");
    // Two feeder pages; in direct mode blocks of 7 lines, so lines meet
    // block and page boundaries.
    seen_.BufferAnswer = buffering ? kHostBufferBytes : 7 * 1275 * 3;
    Values feeder = Gammas("1.0", "1.8", "0.8");
    feeder.insert({{"SCANTYPE", "dword:00000001"}, {"XFERCOUNT", "str(2):\"2\""}});
    Load(feeder);
    ASSERT_EQ(Offered(), 2);
    ScannerTables();
    Scan(0, buffering);
    const std::vector<std::vector<uint8_t>> toned = seen_.Pages;
    EXPECT_NE(ScannerTables(), std::vector<std::string>(6, Identity())) << "plain: the scanner tones";
    Load(feeder);
    ASSERT_EQ(Offered(), 2);
    ScannerTables();
    Scan(1, buffering);
    const std::vector<std::string> sent = ScannerTables();
    EXPECT_GE(sent.size(), 6u) << "each page, three channels";
    for (const std::string& table : sent) EXPECT_EQ(table, Identity());
    ASSERT_TRUE(toned.size() == 2 && seen_.Pages.size() == 2);
    for (size_t page = 0; page < 2; ++page) expectConverted(seen_.Pages[page], toned[page]);
    seen_.BufferAnswer = kHostBufferBytes;

    Load(Gammas("2.2"));
    ASSERT_EQ(Offered(), 2);
    const std::vector<uint8_t> masterOnly = Scan(1, buffering);
    Load(Gammas("1.0"));
    ASSERT_EQ(Offered(), 2);
    expectConverted(masterOnly, Scan(0, buffering));
  }
}

}  // namespace
