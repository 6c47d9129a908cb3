// The promise of ImageInfo: a host sizes its image from the announcement of
// each page and writes every block where that says. So per page the bytes
// delivered with codes 0 and 1 add up to OutputBytesPerLine x LinesPerPage,
// or to less with the page ended by code 5; never more, and every block is a
// whole number of lines. Checked over a generated matrix of acquisitions:
// pixel types and depths, descreening modes, sharpening levels, resolutions
// from the least to the most, odd areas and offsets, flatbed and feeder,
// both transfer modes, small and large host buffers.
#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "support/VscanHost.h"

namespace {

using namespace sxtest;

constexpr int kAcquisitions = 240;
constexpr size_t kLargeBuffer = kHostBufferBytes;

// What the host saw, page by page, and every broken promise.
struct Watch {
  int64_t HostBuffer = kLargeBuffer;
  int64_t LineBytes = 0;
  int64_t PageBytes = 0;
  int64_t Delivered = 0;
  bool PageOpen = false;
  int Pages = 0;
  std::vector<std::string> Broken;
  void Break(const std::string& what) {
    if (Broken.size() < 8) Broken.push_back("page " + std::to_string(Pages + 1) + ": " + what);
  }
} gWatch;
std::vector<std::vector<uint8_t>>* gCollect = nullptr;  // pages kept when set

int32_t SX_API Callback(void* data, int64_t* count, int32_t code) {
  Watch& w = gWatch;
  if (code == SX_XFER_IMAGE_INFO) {
    if (w.PageOpen) w.Break("announced before the last page ended");
    const auto* info = static_cast<const SxImageInfo*>(data);
    w.LineBytes = (int64_t{info->PixelsPerLine} * info->BitsPerPixel + 7) / 8;
    w.PageBytes = w.LineBytes * info->LinesPerPage;
    w.Delivered = 0;
    w.PageOpen = true;
    if (gCollect) gCollect->emplace_back();
    *count = w.HostBuffer;
    return 0;
  }
  if (code != SX_XFER_DATA && code != SX_XFER_PAGE_END && code != SX_XFER_SHORT_PAGE) return 0;
  if (!w.PageOpen) {
    w.Break("data outside a page");
    return 0;
  }
  if (w.LineBytes <= 0 || *count % w.LineBytes != 0) w.Break("a block of " + std::to_string(*count) + " bytes");
  w.Delivered += *count;
  if (gCollect && !gCollect->empty()) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    gCollect->back().insert(gCollect->back().end(), bytes, bytes + *count);
  }
  if (w.Delivered > w.PageBytes) w.Break("more than announced: " + std::to_string(w.Delivered) + " > " +
                                         std::to_string(w.PageBytes));
  if (code == SX_XFER_DATA) return 0;
  if (code == SX_XFER_PAGE_END && w.Delivered != w.PageBytes) {
    w.Break("ended with " + std::to_string(w.Delivered) + " of " + std::to_string(w.PageBytes) +
            " bytes without code 5");
  }
  w.PageOpen = false;
  ++w.Pages;
  return 0;
}

struct Case {
  int PixelType, Bits, Dither, Descreen, Sharpen, Resolution;
  int X, Y, Width, Length;  // 1/300 inch
  int Source;               // 1 feeder, 2 flatbed
  uint8_t Buffering;
  int64_t HostBuffer;
  std::string Describe() const {  // in the order of the fields
    std::ostringstream s;
    for (int64_t v : {PixelType, Bits, Dither, Descreen, Sharpen, Resolution, X, Y, Width, Length, Source,
                      int{Buffering}}) s << v << " ";
    return s.str() + "buffer " + std::to_string(HostBuffer);
  }
};

class ImageInfoPromise : public ::testing::Test {
 protected:
  void SetUp() override {
    host_.Load();
    SxValueList* list = nullptr;
    host_.Lib->QueryData(CAP_XRESOLUTION, TY_INT32, &list);
    ASSERT_TRUE(list && list->Count == 0);  // a range: least, most, step
    const auto* range = static_cast<const int32_t*>(list->Items);
    least_ = range[0], most_ = range[1];
    host_.Lib->FreeList(list);
  }

  Case Generate(std::mt19937& random) {
    static const int kTypes[][3] = {{0, 1, 0}, {0, 1, 1}, {1, 8, 0}, {2, 24, 0}, {1, 4, 0},
                                    {1, 16, 0}, {2, 48, 0}};
    static const int kDescreens[] = {0, 0, 1, 2, 3, 9};
    const auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    const int* type = kTypes[pick(7)];
    const int resolution = pick(3) == 0 ? (pick(2) ? least_ : most_) : least_ + pick(most_ - least_ + 1);
    // Small areas keep the most dots per inch quick: at most an inch squared.
    return Case{type[0], type[1], type[2], kDescreens[pick(6)], pick(4), resolution,
                pick(400), pick(300), 1 + pick(300), 1 + pick(300), pick(3) == 0 ? 1 : 2,
                static_cast<uint8_t>(pick(2)), pick(3) == 0 ? 1 + pick(40000) : int64_t{kLargeBuffer}};
  }

  void Run(const Case& c) {
    const std::pair<uint32_t, int32_t> values[] = {
        {CAP_PIXELTYPE, c.PixelType}, {CAP_BITSPERPIXEL, c.Bits}, {CAP_DITHER, c.Dither},
        {CAP_DESCREEN, c.Descreen},   {CAP_SHARPEN, c.Sharpen},   {CAP_XRESOLUTION, c.Resolution},
        {CAP_YRESOLUTION, c.Resolution}, {CAP_UNITS, 2},          {CAP_XPOSITION, c.X},
        {CAP_YPOSITION, c.Y},         {CAP_IMAGEWIDTH, c.Width},  {CAP_IMAGELENGTH, c.Length},
        {CAP_SCANTYPE, c.Source},     {CAP_XFERCOUNT, 2}};
    for (auto [cap, value] : values) host_.Lib->SetValue(cap, TY_INT32, &value);
    host_.Lib->SetValue(CAP_BUFFERING, TY_UINT8, const_cast<uint8_t*>(&c.Buffering));
    gWatch = Watch{};
    gWatch.HostBuffer = c.HostBuffer;
    // The buffer's current address: line scaling may have moved it.
    void* buffer = host_.Lib->GlobalLock(host_.Buffer->Handle());
    host_.Lib->GlobalUnlock(host_.Buffer->Handle());
    result_ = host_.Lib->WatchedAcquire(Callback, buffer);
  }

  VscanHost host_{"[Feeder]\nSheets=100000\n", ""};
  int32_t least_ = 0, most_ = 0;
  int32_t result_ = 0;
};

TEST_F(ImageInfoPromise, HoldsForEveryPageOfAGeneratedMatrix) {
  std::mt19937 random(20261125);
  int scanned = 0;
  for (int i = 0; i < kAcquisitions; ++i) {
    const Case c = Generate(random);
    SCOPED_TRACE(c.Describe());
    Run(c);
    EXPECT_TRUE(gWatch.Broken.empty()) << "result " << result_ << "\n" << gWatch.Broken.front();
    EXPECT_FALSE(gWatch.PageOpen && result_ == 0) << "a page announced and never ended";
    scanned += result_ == 0 && gWatch.Pages > 0;
  }
  // Depths the virtual scanner lacks and modes that cannot scale back are
  // refused; the rest must scan.
  EXPECT_GT(scanned, kAcquisitions / 3) << "too little of the matrix scanned";
}

// Descreening scans finer and scales back; depths the scaling cannot handle
// are refused rather than delivered unscaled.
TEST_F(ImageInfoPromise, DescreenedDepthsThatCannotBeScaledAreRefused) {
  for (int bits : {4, 16, 8}) {
    SCOPED_TRACE(bits);
    Run(Case{1, bits, 0, 1, 0, 150, 0, 0, 300, 300, 2, 0, kLargeBuffer});
    EXPECT_EQ(result_, bits == 8 ? 0 : SX_ERR_UNSUPPORTED);
    EXPECT_EQ(gWatch.Pages, bits == 8);
  }
}

// A descreened feeder job of two pages: both transfer modes deliver the
// same bytes page for page, each page as announced, and the pages differ
// (each sheet carries its number), so no page repeats another's lines.
TEST_F(ImageInfoPromise, DescreenedFeederPagesAreTheSameInBothModes) {
  std::vector<std::vector<uint8_t>> pages[2];
  for (uint8_t buffering : {0, 1}) {
    SCOPED_TRACE(buffering ? "buffered" : "direct");
    host_.Load();  // a fresh mapping, so the feeder counts its sheets from 1 again
    gCollect = &pages[buffering];
    Run(Case{2, 24, 0, 1, 0, 150, 0, 0, 600, 450, 1, buffering, 200000});  // two feeder pages
    gCollect = nullptr;
    EXPECT_EQ(result_, 0);
    EXPECT_TRUE(gWatch.Broken.empty()) << gWatch.Broken.front();
  }
  ASSERT_EQ(pages[0].size(), 2u);
  EXPECT_EQ(pages[0], pages[1]);
  EXPECT_NE(pages[0][0], pages[0][1]);
}

}  // namespace
