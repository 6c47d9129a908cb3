// Tone settings as a person means them: a colour scan of a neutral patch
// with gamma, brightness and contrast changed stays neutral, and each colour
// can still be toned on its own.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include <array>

#include "ImageRead.h"
#include "RunSxscan.h"

namespace sx::host {
namespace {

using sxtest::Outcome;
using sxtest::RunSxscan;

// The chart's 200-grey patch, 0.32 by 0.3 inch inside it, at 100 dpi in
// colour: the red, green and blue of its middle pixel.
std::array<int, 3> PatchColour(const sxtest::TempRoot& root, const std::string& options) {
  Outcome run = RunSxscan(root, "scan --source flatbed --mode color --resolution 100 --area 5,3.3,0.32,0.3 --output patch.png " +
                             options);
  EXPECT_EQ(run.exitCode, 0) << options << "\n" << run.text;
  PngRead png = ReadPng((root.Path() / "patch.png").string());
  if (!png.ok || png.colour != PNG_COLOR_TYPE_RGB || png.depth != 8) {
    ADD_FAILURE() << options << ": no colour PNG";
    return {};
  }
  const size_t middle = (png.height / 2 * png.width + png.width / 2) * 3;
  return {png.raster[middle], png.raster[middle + 1], png.raster[middle + 2]};
}

TEST(HostProgramTone, ToneSettingsShapeTheWholeImageOrTheColourNamed) {
  sxtest::TempRoot root;
  sxtest::InstallSelected(root, "QM7110V");
  const std::array<int, 3> plain = PatchColour(root, "");
  ASSERT_TRUE(plain[0] == plain[1] && plain[1] == plain[2]) << plain[0] << "," << plain[1] << "," << plain[2];
  for (const char* tone : {"--set gamma=1.0", "--set brightness=300", "--set contrast=-400",
                           "--set gamma=1.4 --set brightness=-200 --set contrast=300 --set highlight=230 --set shadow=20"}) {
    const std::array<int, 3> toned = PatchColour(root, tone);
    EXPECT_NE(toned[0], plain[0]) << tone;
    EXPECT_TRUE(toned[0] == toned[1] && toned[1] == toned[2])
        << tone << ": " << toned[0] << "," << toned[1] << "," << toned[2];
  }
  // One colour on its own: only red changes.
  const std::array<int, 3> red = PatchColour(root, "--set gamma-r=2.5");
  EXPECT_TRUE(red[0] > plain[0] && red[1] == plain[1] && red[2] == plain[2]) << red[0] << "," << red[1] << "," << red[2];

  // Gray scans taken from one colour, or from all, with the whole image's
  // gamma: the filter is an option of its own.
  for (const char* filter : {"red", "none"}) {
    Outcome gray = RunSxscan(root, std::string("scan --mode gray --resolution 50 --area 0,0,1,1 --output g.png --filter ") +
                                filter + " --set gamma=1.5");
    EXPECT_EQ(gray.exitCode, 0) << filter << "\n" << gray.text;
  }
}

}  // namespace
}  // namespace sx::host
#endif
