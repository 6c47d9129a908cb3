// Tone settings as a person means them: a colour scan of a neutral patch
// with gamma, brightness and contrast changed stays neutral, each colour can
// still be toned on its own, what caps, get and set show is the value a scan
// uses, and values that cannot work are refused before the scanner starts.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include <array>

#include "ImageRead.h"
#include "RunSxscan.h"

namespace sx::host {
namespace {

using sxtest::Outcome;
using sxtest::RunSxscan;

// The chart's 200-grey patch, 0.32 by 0.3 inch inside it, at 100 dpi: the
// red, green and blue of its middle pixel (a grey scan's value thrice).
std::array<int, 3> PatchColour(const sxtest::TempRoot& root, const std::string& options,
                               const std::string& mode = "--mode color") {
  Outcome run = RunSxscan(root, "scan --source flatbed --resolution 100 --area 5,3.3,0.32,0.3 --output patch.png " +
                             mode + " " + options);
  EXPECT_EQ(run.exitCode, 0) << options << "\n" << run.text;
  PngRead png = ReadPng((root.Path() / "patch.png").string());
  const bool rgb = png.colour == PNG_COLOR_TYPE_RGB;
  if (!png.ok || png.depth != 8) {
    ADD_FAILURE() << options << ": no 8-bit PNG";
    return {};
  }
  const size_t middle = (png.height / 2 * png.width + png.width / 2) * (rgb ? 3 : 1);
  return {png.raster[middle], png.raster[middle + (rgb ? 1 : 0)], png.raster[middle + (rgb ? 2 : 0)]};
}

// The CURRENT column of `caps` for one row.
std::string Shown(const std::string& caps, const std::string& name) {
  const size_t row = caps.find("\n" + name + " ");
  if (row == std::string::npos) return "(no row)";
  const size_t value = caps.find_first_not_of(' ', row + name.size() + 1);
  return caps.substr(value, caps.find("  ", value) - value);
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

  // What caps and get show is what a scan uses: the whole image's value,
  // whatever the filter says, and each colour's under its own name; set takes
  // the same names.
  const std::string caps = RunSxscan(root, "caps").text;
  EXPECT_TRUE(Shown(caps, "CAP_GAMMA") == "2.2" && Shown(caps, "CAP_GAMMA-B") == "1") << caps;
  EXPECT_EQ(RunSxscan(root, "get gamma gamma-r").text, "CAP_GAMMA = 2.2\nCAP_GAMMA-R = 1\n");
  EXPECT_EQ(PatchColour(root, "--set gamma=2.2"), plain);
  EXPECT_NE(RunSxscan(root, "set gamma-g 1.8 brightness 20").text.find("CAP_GAMMA-G = 1.8\nCAP_BRIGHTNESS = 20\n"),
            std::string::npos);

  // Grey scans taken from one colour, or from all: the whole image's gamma
  // shapes them (the filter is an option of its own).
  for (const char* filter : {"--filter red", "--filter none"}) {
    const std::string mode = std::string("--mode gray ") + filter;
    EXPECT_NE(PatchColour(root, "--set gamma=1.5", mode), PatchColour(root, "", mode)) << filter;
  }
}

}  // namespace
}  // namespace sx::host
#endif
