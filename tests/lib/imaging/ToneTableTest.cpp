// Tone tables: the exact curve arithmetic and the rule that decides which
// table the driver receives on which channel.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

#include "driver/DriverTable.h"
#include "tests/lib/frame/TraceSupport.h"
#include "imaging/ToneTable.h"

namespace {

using Table = std::array<uint8_t, sx::kToneEntries>;

struct Inputs {
  int32_t Brightness = 0, Contrast = 0;
  uint8_t Highlight = 255, Shadow = 0;
  uint16_t Gamma = 100;
};

Table Build(const Inputs& in) {
  Table t{};
  sx::BuildToneTable(t.data(), in.Brightness, in.Contrast, in.Highlight, in.Shadow, in.Gamma);
  return t;
}

TEST(ToneTable, WorkedValues) {
  // {name, inputs, input level -> output level}
  const std::tuple<const char*, Inputs, std::vector<std::pair<int, int>>> cases[] = {
      {"gamma 2.2", {0, 0, 255, 0, 220},
       {{0, 0}, {1, 21}, {2, 28}, {16, 72}, {64, 136}, {128, 186}, {192, 224}, {254, 255},
        {255, 255}}},
      {"contrast +500", {0, 500, 255, 0, 100}, {{62, 0}, {63, 0}, {64, 1}, {128, 128}, {191, 253},
                                                {192, 255}}},
      {"contrast -500", {0, -500, 255, 0, 100}, {{0, 63}, {128, 127}, {255, 192}}},
      {"brightness +1000", {1000, 0, 255, 0, 100}, {{0, 127}, {128, 255}, {255, 255}}},
      {"brightness -300", {-300, 0, 255, 0, 100}, {{0, 0}, {38, 0}, {39, 1}, {255, 217}}},
      {"highlight 200 shadow 50", {0, 0, 200, 50, 100},
       {{49, 0}, {50, 0}, {51, 1}, {100, 85}, {199, 253}, {200, 255}, {255, 255}}},
      {"highlight equals shadow", {0, 0, 100, 100, 100}, {{0, 0}, {99, 0}, {100, 255}, {255, 255}}},
      {"highlight below shadow", {0, 0, 40, 90, 100}, {{89, 0}, {90, 255}}},
  };
  for (const auto& [name, inputs, points] : cases) {
    const Table t = Build(inputs);
    for (const auto& [in, out] : points) EXPECT_EQ(t[in], out) << name << ", input " << in;
  }
}

TEST(ToneTable, NeutralInputsGiveIdentityAndGammaZeroGivesBlack) {
  const Table identity = Build({});
  for (int i = 0; i < sx::kToneEntries; ++i) ASSERT_EQ(identity[i], i);

  for (uint8_t v : Build({.Brightness = 500, .Gamma = 0})) ASSERT_EQ(v, 0);
}

// Values far outside the offered ranges must never write outside the 256
// entries; a large positive contrast still gives a rising (step) curve.
TEST(ToneTable, ExtremeInputsStayInsideTheTable) {
  const int32_t extremes[] = {INT32_MIN, -1000000, -2000, 1008, 2000, 1000000, INT32_MAX};
  for (int32_t contrast : extremes) {
    for (int32_t brightness : {INT32_MIN, 0, INT32_MAX}) {
      std::array<uint8_t, sx::kToneEntries + 32> guarded;
      guarded.fill(0xA5);
      sx::BuildToneTable(guarded.data() + 16, brightness, contrast, 255, 0, 150);
      for (int i = 0; i < 16; ++i) {
        ASSERT_EQ(guarded[i], 0xA5) << contrast;
        ASSERT_EQ(guarded[16 + sx::kToneEntries + i], 0xA5) << contrast;
      }
      if (brightness != 0 || contrast < 0) continue;
      for (int i = 1; i < sx::kToneEntries; ++i)
        ASSERT_GE(guarded[16 + i], guarded[15 + i]) << "contrast " << contrast << " at " << i;
    }
  }
}

// ---- Upload rule ----

struct Upload {
  int32_t Channel;
  int32_t Count;
  Table Bytes;
};
std::vector<Upload> gUploads;

int32_t SX_DRIVERAPI FakeSetGammaTable(uint8_t* table, int32_t channel, int32_t count) {
  Upload u{channel, count, {}};
  std::memcpy(u.Bytes.data(), table, sx::kToneEntries);
  gUploads.push_back(u);
  return 1;
}

// Four visibly different tables: master with gamma 2.2, red/green/blue with
// their own brightness.
class ToneUpload : public ::testing::Test {
 protected:
  void SetUp() override {
    gUploads.clear();
    saved_ = sx::gDriver;
    sx::gDriver.SetGammaTable = FakeSetGammaTable;
    std::memset(&s_, 0, sizeof s_);
    const Inputs slots[sx::kChannels] = {
        {0, 0, 255, 0, 220}, {100, 0, 255, 0, 100}, {-200, 0, 255, 0, 100}, {0, 300, 255, 0, 100}};
    for (int i = 0; i < sx::kChannels; ++i) {
      s_.ToneTables[i] = storage_[i].data();
      s_.Brightness[i] = slots[i].Brightness, s_.Contrast[i] = slots[i].Contrast, s_.Gamma[i] = slots[i].Gamma;
      s_.Highlight[i] = slots[i].Highlight, s_.Shadow[i] = slots[i].Shadow;
      built_[i] = Build(slots[i]);
    }
  }
  void TearDown() override { sx::gDriver = saved_; }

  void Run() {
    sx::RebuildToneTables(s_);
    EXPECT_EQ(sx::SetGammaTableFunction(s_), 1);
  }

  Table Composed(int slot) const {
    Table t{};
    for (int i = 0; i < sx::kToneEntries; ++i) t[i] = built_[0][built_[slot][i]];
    return t;
  }

  sx::DriverTable saved_;
  sx::ScanSettings s_;
  Table storage_[sx::kChannels];
  Table built_[sx::kChannels];
};

TEST_F(ToneUpload, ChannelRule) {
  Table identity{};
  for (int i = 0; i < sx::kToneEntries; ++i) identity[i] = static_cast<uint8_t>(i);
  enum Kind { Master, Red, Green, Blue, Identity, MasterRed, MasterGreen, MasterBlue };
  // {PixelType, Filter, ColorMatch, ScanType, the tables sent: channel and table}
  const std::tuple<uint8_t, uint8_t, uint8_t, uint8_t, std::vector<std::pair<int32_t, Kind>>> rows[] = {
      {1, 2, 1, 4, {{2, Green}}},
      {0, 3, 0, 2, {{3, Blue}}},
      {1, 0, 1, 4, {{1, Red}, {2, Green}, {3, Blue}}},
      {0, 0, 1, 2, {{1, Identity}, {2, Identity}, {3, Identity}}},
      {1, 0, 0, 4, {{1, Master}, {2, Master}, {3, Master}}},
      {2, 2, 1, 4, {{1, Red}, {2, Green}, {3, Blue}}},
      {2, 1, 1, 0, {{1, Identity}, {2, Identity}, {3, Identity}}},
      {2, 3, 0, 2, {{1, MasterRed}, {2, MasterGreen}, {3, MasterBlue}}},
      // A filter beyond the blue channel uploads as if none were chosen.
      {1, 7, 0, 2, {{1, Master}, {2, Master}, {3, Master}}},
  };
  for (const auto& [pixelType, filter, colorMatch, scanType, sent] : rows) {
    SCOPED_TRACE(::testing::Message() << "pixel " << int(pixelType) << " filter " << int(filter) << " match "
                                      << int(colorMatch) << " type " << int(scanType));
    s_.PixelType = pixelType, s_.Filter = filter, s_.ColorMatch = colorMatch, s_.ScanType = scanType;
    // Twice: the in-place composition must start from fresh tables each time.
    Run();
    gUploads.clear();
    Run();
    ASSERT_EQ(gUploads.size(), sent.size());
    for (size_t i = 0; i < sent.size(); ++i) {
      const auto [channel, kind] = sent[i];
      const Table expected = kind <= Blue       ? built_[kind]
                             : kind == Identity ? identity
                                                : Composed(kind - MasterRed + 1);
      EXPECT_TRUE(gUploads[i].Channel == channel && gUploads[i].Count == 256) << "call " << i;
      EXPECT_EQ(gUploads[i].Bytes, expected) << "call " << i;
    }
  }
}

TEST_F(ToneUpload, WithoutEntryPointNothingIsSentButBothRecordsAreWritten) {
  sxtest::TraceSetup trace(1);
  sx::gDriver.SetGammaTable = nullptr;
  s_.PixelType = 1, s_.Filter = 2;
  Run();
  EXPECT_TRUE(gUploads.empty());
  EXPECT_EQ(trace.Log(), "Out  1: SetGammaTableFunction : 2 \r\n");
  EXPECT_EQ(sxtest::ReadFile(trace.LogDir() / "orlagma.txt"), "In   1: filter: : 2 \r\n");
}

}  // namespace
