// A scanner simulated in the driver table's slots: it serves pages of a known byte pattern,
// refuses calls on request and records the calls it receives.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "driver/DriverTable.h"
#include "settings/ScanSettings.h"
#include "support/TestEnv.h"

namespace acqtest {

struct FakeScanner {
  int Sheets = 0;  // paper in the feeder; a page from a feeder method takes one
  // Each call takes the next code of its list: 0 accepts, another refuses with that status.
  std::vector<uint32_t> SetParameterRefusals, AdfRefusals;
  int64_t ShortAtLine = -1;  // the page ends after this many lines
  int64_t FailAtLine = -1;   // the read that reaches this line fails (2004)
  int LampWarmPolls = 0;     // GetLightStatus answers LampWarmState this often
  uint8_t LampWarmState = 2;

  uint32_t Status = 0;
  std::vector<std::string> Calls;  // entry points in call order (not SetGammaTable)
  std::vector<ScanParameter> Parameters;
  std::vector<int32_t> TuneArgs;
  int GammaUploads = 0, Page = 0;
  int64_t Offset = 0;

  int Count(const std::string& name) const;
  std::string Sequence() const;  // "A,B,C"
};

// The byte at `offset` of page `page` (pages counted from 0).
inline uint8_t PatternByte(int page, int64_t offset) {
  return static_cast<uint8_t>((offset * 7) ^ (offset >> 9) ^ (page * 61));
}

FakeScanner& Fake();
// Resets the fake and puts its entry points into gDriver.
void InstallFakeScanner();

// A colour flatbed with a feeder (600 dpi, letter flatbed, legal feeder, alignment 8), settings for
// a 300 dpi colour scan of the whole flatbed and the fake bound; the library's records restored after.
class ScannerTest : public ::testing::Test {
 protected:
  ~ScannerTest() override;
  void SetUp() override;

  sxtest::TempRoot root_;
  uint8_t tables_[sx::kChannels][256] = {};

 private:
  sx::DriverTable driver_ = sx::gDriver;
  sx::ScanSettings settings_ = sx::gSettings;
  ScannerAbility ability_ = sx::gAbility;
  ScanParameter parameter_ = sx::gScanParameter;
};

}  // namespace acqtest
