// Colour matching with the real colour-management module on Little CMS. The
// golden check: a page scanned with colour matching equals the same page
// scanned without it, converted by Little CMS in the test from the scanner's
// profile to sRGB. That holds only if the scanner received identity tables
// and the module applied the tone tables itself, once, before converting.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "modules/cmms/Profiles.h"
#include "support/TestEnv.h"

namespace {

using namespace sxtest;

constexpr size_t kHostBuffer = 1 << 20;
constexpr int32_t kLines = 90;

std::vector<uint8_t> gPage;
int32_t gPixels = 0;

int32_t SX_API Collect(void* data, int64_t* count, int32_t code) {
  if (code == SX_XFER_IMAGE_INFO) {
    gPixels = static_cast<const SxImageInfo*>(data)->PixelsPerLine;
    *count = kHostBuffer;
  } else if (code >= SX_XFER_DATA) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    gPage.insert(gPage.end(), bytes, bytes + *count);
  }
  return 0;
}

class ColourMatching : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.InstallVscan("Corvane/QM7110", "[Scanner]\nModel=QM7110V\nFirmware=1.00\nPort=USB\n");
    color_ = root_.Path() / "windows/system32/SPOOL/DRIVERS/COLOR";
    fs::create_directories(color_);
    fs::copy_file(SX_TEST_CMMS, root_.Path() / "windows/system32/sxcmms.dll");
    WriteFile(root_.Twain() / "Corvane/QM7110/cmatch.ini", "[Model]\nQM7110V=scanner.icc\n");
  }
  void TearDown() override {
    if (lib_) {
      lib_->Free();
      lib_.reset();
    }
  }
  // Loads a fresh library with the given gamma lines of the stored settings,
  // and asks for the colour-matching values as a host does (which loads the
  // module).
  void Load(const std::string& gammas) {
    if (lib_) {
      lib_->Free();
      lib_.reset();  // unmapped, so the next mapping has its worker threads again
    }
    root_.WriteRegistry("[Software\\Quillmark]\n\"SOURCENAME\"=str(2):\"USB - QM7110V" +
                        std::string(13, ' ') +
                        "1.00\"\n[Software\\Quillmark\\ScanData]\n\"PIXELTYPE\"=dword:00000002\n"
                        "\"SCANTYPE\"=dword:00000002\n\"XRESOLUTION\"=dword:00000096\n"
                        "\"YRESOLUTION\"=dword:00000096\n\"IMAGELENGTH\"=str(2):\"" +
                        std::to_string(kLines * 2) + "\"\n" + gammas);
    lib_ = std::make_unique<Library>();
    ASSERT_EQ(lib_->Load(nullptr), 0);
  }
  int32_t Offered() {
    SxValueList* list = nullptr;
    lib_->QueryData(CAP_COLORMATCH, TY_INT32, &list);
    const int32_t count = list ? list->Count : -1;
    if (list) {
      for (const void* block : {static_cast<const void*>(list->Items), static_cast<const void*>(list)}) {
        SxHandle h = lib_->GlobalHandle(block);
        lib_->GlobalUnlock(h);
        lib_->GlobalFree(h);
      }
    }
    return count;
  }
  std::vector<uint8_t> Scan(uint8_t colorMatch, uint8_t buffering) {
    EXPECT_EQ(lib_->SetValue(CAP_COLORMATCH, TY_UINT8, &colorMatch), 0);
    EXPECT_EQ(lib_->SetValue(CAP_BUFFERING, TY_UINT8, &buffering), 0);
    SxHandle handle = lib_->GlobalAlloc(SX_GHND, kHostBuffer);
    gPage.clear();
    alarm(60);
    EXPECT_EQ(lib_->Acquire(Collect, lib_->GlobalLock(handle)), 0);
    alarm(0);
    lib_->GlobalUnlock(handle);
    lib_->GlobalFree(handle);
    return gPage;
  }

  TempRoot root_;
  fs::path color_;
  std::unique_ptr<Library> lib_;
};

// The scanner's profile converted to sRGB by Little CMS, as the module should.
std::vector<uint8_t> ToSrgb(const std::vector<uint8_t>& raster) {
  cmsHPROFILE in = sx::cmms::CreateScannerProfile(), out = cmsCreate_sRGBProfile();
  cmsHTRANSFORM t = cmsCreateTransform(in, TYPE_RGB_8, out, TYPE_RGB_8, INTENT_PERCEPTUAL, 0);
  std::vector<uint8_t> converted(raster.size());
  cmsDoTransform(t, raster.data(), converted.data(), static_cast<cmsUInt32Number>(raster.size() / 3));
  cmsDeleteTransform(t);
  cmsCloseProfile(in);
  cmsCloseProfile(out);
  return converted;
}

std::string Gammas(const char* master, const char* red = "1.0", const char* blue = "1.0") {
  return std::string("\"GAMMA\"=str(2):\"") + master + "\"\n\"GAMMA_R\"=str(2):\"" + red +
         "\"\n\"GAMMA_B\"=str(2):\"" + blue + "\"\n";
}

TEST_F(ColourMatching, OfferedOnlyWithAModuleAndAUsableProfile) {
  Load(Gammas("1.0"));
  EXPECT_EQ(Offered(), 1) << "the profile file is missing";
  WriteFile(color_ / "scanner.icc", "not a profile");
  EXPECT_EQ(Offered(), 1) << "the profile is unreadable";
  cmsHPROFILE gray = cmsCreateGrayProfile(cmsD50_xyY(), cmsBuildGamma(nullptr, 2.2));
  ASSERT_TRUE(sx::cmms::SaveProfile(gray, (color_ / "scanner.icc").string()));
  EXPECT_EQ(Offered(), 1) << "a grey profile cannot convert colour lines";
  ASSERT_TRUE(sx::cmms::SaveProfile(sx::cmms::CreateScannerProfile(), (color_ / "scanner.icc").string()));
  EXPECT_EQ(Offered(), 2);
  fs::remove(root_.Path() / "windows/system32/sxcmms.dll");
  lib_->Free();  // unloads the module
  EXPECT_EQ(Offered(), 1) << "no module";
}

// Per-channel tables: the scanner applies them to a plain scan; with colour
// matching the scanner gets identity tables and the module applies them.
// The master table applies to a plain scan only.
TEST_F(ColourMatching, PagesEqualLittleCmsAppliedToThePlainScanInBothModes) {
  ASSERT_TRUE(sx::cmms::SaveProfile(sx::cmms::CreateScannerProfile(), (color_ / "scanner.icc").string()));
  const auto expectConverted = [](const std::vector<uint8_t>& matched, const std::vector<uint8_t>& plain) {
    ASSERT_EQ(plain.size(), static_cast<size_t>(gPixels) * 3 * kLines);  // length in 1/300 inch
    ASSERT_EQ(matched.size(), plain.size());
    EXPECT_NE(matched, plain) << "the conversion changed nothing";
    const std::vector<uint8_t> expected = ToSrgb(plain);
    size_t differing = 0;
    for (size_t i = 0; i < expected.size(); ++i) differing += expected[i] != matched[i];
    EXPECT_EQ(differing, 0u);
  };
  for (uint8_t buffering : {0, 1}) {
    SCOPED_TRACE(buffering ? "buffered" : "direct");
    Load(Gammas("1.0", "1.8", "0.8"));
    ASSERT_EQ(Offered(), 2);
    const std::vector<uint8_t> toned = Scan(0, buffering);
    Load(Gammas("1.0", "1.8", "0.8"));
    ASSERT_EQ(Offered(), 2);
    expectConverted(Scan(1, buffering), toned);

    Load(Gammas("2.2"));
    ASSERT_EQ(Offered(), 2);
    const std::vector<uint8_t> masterOnly = Scan(1, buffering);
    Load(Gammas("1.0"));
    ASSERT_EQ(Offered(), 2);
    expectConverted(masterOnly, Scan(0, buffering));
  }
}

}  // namespace
