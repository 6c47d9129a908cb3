// Colour matching with the real colour-management module (on Little CMS, or
// on the system's colour management on Windows). The golden check: a page
// scanned with colour matching equals the same page scanned without it,
// converted in the test from the scanner's profile to sRGB by the engine the
// module uses (ReferenceCms.h). That holds only if the scanner received
// identity tables and the module applied the tone tables itself, once,
// before converting.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "ReferenceCms.h"
#include "support/TestEnv.h"

namespace {

using namespace sxtest;
using colour::ProfileKind;
using colour::WriteProfile;

constexpr size_t kHostBuffer = 1 << 20;
constexpr int32_t kLines = 90;

std::vector<uint8_t> gPage;
int32_t gPixels = 0;
int64_t gAnswer = kHostBuffer;  // the host's buffer size as told to the library

int32_t SX_API Collect(void* data, int64_t* count, int32_t code) {
  if (code == SX_XFER_IMAGE_INFO) {
    gPixels = static_cast<const SxImageInfo*>(data)->PixelsPerLine;
    *count = gAnswer;
  } else if (code >= SX_XFER_DATA) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    gPage.insert(gPage.end(), bytes, bytes + *count);
  }
  return 0;
}

class ColourMatching : public ::testing::Test {
 protected:
  void SetUp() override {
    log_ = root_.Twain() / "Corvane/QM7110/calls.log";
    root_.InstallVscan("Corvane/QM7110", kQm7110Ini + ("[Feeder]\nSheets=100\n[Log]\nFile=" + log_.string() + "\n"));
    color_ = root_.Windows() / "system32" / "SPOOL" / "DRIVERS" / "COLOR";
    module_ = root_.Windows() / "system32" / "sxcmms.dll";
    fs::create_directories(color_);
    fs::copy_file(SX_TEST_CMMS, module_, fs::copy_options::overwrite_existing);
    WriteFile(root_.Twain() / "Corvane/QM7110/cmatch.ini", "[Model]\nQM7110V=scanner.icc\n");
  }
  // On Windows the system folders are the real ones: nothing is left there.
  void TearDown() override {
    Unload();
    std::error_code ec;
    fs::remove(module_, ec);
    fs::remove(color_ / "scanner.icc", ec);
  }
  // Unmapped, so that the next mapping has its worker threads again and the
  // colour module is no longer in use.
  void Unload() {
    if (lib_) {
      lib_->Free();
      lib_.reset();
    }
  }
  // Loads a fresh library with the given gamma lines of the stored settings,
  // and asks for the colour-matching values as a host does (which loads the
  // module).
  void Load(const std::string& gammas) {
    Unload();
    root_.WriteRegistry(Qm7110Registry("\"PIXELTYPE\"=dword:00000002\n\"SCANTYPE\"=dword:00000002\n"
                                       "\"XRESOLUTION\"=dword:00000096\n\"YRESOLUTION\"=dword:00000096\n"
                                       "\"IMAGELENGTH\"=str(2):\"" + std::to_string(kLines * 2) + "\"\n" +
                                       gammas));
    lib_ = std::make_unique<Library>();
    ASSERT_EQ(lib_->Load(nullptr), 0);
  }
  int32_t Offered() {
    SxValueList* list = nullptr;
    lib_->QueryData(CAP_COLORMATCH, TY_INT32, &list);
    const int32_t count = list ? list->Count : -1;
    lib_->FreeList(list);
    return count;
  }
  std::vector<uint8_t> Scan(uint8_t colorMatch, uint8_t buffering) {
    EXPECT_EQ(lib_->SetValue(CAP_COLORMATCH, TY_UINT8, &colorMatch), 0);
    EXPECT_EQ(lib_->SetValue(CAP_BUFFERING, TY_UINT8, &buffering), 0);
    const HostBuffer buffer(*lib_, kHostBuffer);
    gPage.clear();
    EXPECT_EQ(lib_->WatchedAcquire(Collect, buffer.Data()), 0);
    return gPage;
  }

  // The tone tables the scanner received since the last look, in hex.
  std::vector<std::string> ScannerTables() {
    std::vector<std::string> tables;
    for (const std::string& line : ReadLines(log_)) {
      const size_t at = line.find("table=");
      if (line.rfind("SetGammaTable(", 0) == 0 && at != std::string::npos)
        tables.push_back(line.substr(at + 6, 512));
    }
    std::error_code ec;  // emptied in place: the driver keeps it open
    fs::resize_file(log_, 0, ec);
    return tables;
  }

  TempRoot root_;
  fs::path log_;
  fs::path color_;
  fs::path module_;
  std::unique_ptr<Library> lib_;
};

std::string Gammas(const char* master, const char* red = "1.0", const char* blue = "1.0") {
  return std::string("\"GAMMA\"=str(2):\"") + master + "\"\n\"GAMMA_R\"=str(2):\"" + red +
         "\"\n\"GAMMA_B\"=str(2):\"" + blue + "\"\n";
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
  Unload();
  fs::remove(module_);
  fs::copy_file(SX_TEST_EMPTY_DLL, module_);
  Load(Gammas("1.0"));
  EXPECT_EQ(Offered(), 1) << "a module without SX_Icc_SetProfile";
  Unload();
  fs::remove(module_);
  Load(Gammas("1.0"));
  EXPECT_EQ(Offered(), 1) << "no module";
  // Colour matching asked for without a module: the page comes plain.
  const size_t bytes = Scan(1, 0).size();
  EXPECT_EQ(bytes, static_cast<size_t>(gPixels) * 3 * kLines);
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
  const auto expectConverted = [](const std::vector<uint8_t>& matched, const std::vector<uint8_t>& plain) {
    ASSERT_EQ(plain.size(), static_cast<size_t>(gPixels) * 3 * kLines);  // length in 1/300 inch
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
    gAnswer = buffering ? kHostBuffer : 7 * 1275 * 3;
    const std::string feeder = "\"SCANTYPE\"=dword:00000001\n\"XFERCOUNT\"=str(2):\"2\"\n";
    Load(Gammas("1.0", "1.8", "0.8") + feeder);
    ASSERT_EQ(Offered(), 2);
    ScannerTables();
    const std::vector<uint8_t> toned = Scan(0, buffering);
    EXPECT_NE(ScannerTables(), std::vector<std::string>(6, Identity())) << "plain: the scanner tones";
    Load(Gammas("1.0", "1.8", "0.8") + feeder);
    ASSERT_EQ(Offered(), 2);
    ScannerTables();
    const std::vector<uint8_t> matched = Scan(1, buffering);
    const std::vector<std::string> sent = ScannerTables();
    EXPECT_GE(sent.size(), 6u) << "each page, three channels";
    for (const std::string& table : sent) EXPECT_EQ(table, Identity());
    ASSERT_EQ(toned.size(), 2 * static_cast<size_t>(gPixels) * 3 * kLines);
    expectConverted(std::vector<uint8_t>(matched.begin(), matched.begin() + toned.size() / 2),
                    std::vector<uint8_t>(toned.begin(), toned.begin() + toned.size() / 2));
    expectConverted(std::vector<uint8_t>(matched.begin() + toned.size() / 2, matched.end()),
                    std::vector<uint8_t>(toned.begin() + toned.size() / 2, toned.end()));
    gAnswer = kHostBuffer;

    Load(Gammas("2.2"));
    ASSERT_EQ(Offered(), 2);
    const std::vector<uint8_t> masterOnly = Scan(1, buffering);
    Load(Gammas("1.0"));
    ASSERT_EQ(Offered(), 2);
    expectConverted(masterOnly, Scan(0, buffering));
  }
}

// sRGB in, sRGB out: the page comes through unchanged.
TEST_F(ColourMatching, IdentityProfilesLeaveThePageAlone) {
  ASSERT_TRUE(WriteProfile(ProfileKind::Srgb, color_ / "scanner.icc"));
  Load(Gammas("1.0"));
  ASSERT_EQ(Offered(), 2);
  const std::vector<uint8_t> plain = Scan(0, 0);
  EXPECT_EQ(Scan(1, 0), plain);
}

}  // namespace
