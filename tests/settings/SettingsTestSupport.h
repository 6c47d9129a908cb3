// Shared pieces of the settings tests: a recording stand-in for the driver's
// entry points (installed in the library's driver table), an address that
// faults, and a reader for the lists SxQueryData hands out.
#pragma once
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "driver/DriverTable.h"
#include "frame/LibraryState.h"
#include "frame/RegistryUtil.h"
#include "settings/ScanSettings.h"
#include "support/TestEnv.h"
#include "sxsys.h"

namespace sxtest {

using Codes = std::initializer_list<uint32_t>;

// What the stand-in driver answers and what it saw.
struct DriverScript {
  int32_t Result = 1;              // answer of every entry point
  uint8_t ButtonRecord[24] = {};   // copied into ReadPushButton's record
  uint16_t Buttons = 0;            // InitialButton's count at offset 4
  uint8_t Paper = 0;               // GetADFStatus output
  uint16_t NvPowerSaveTime = 0;    // what ReadNVMData reports
  std::vector<std::string> Calls;  // "Name(args)" in call order
  uintptr_t RasterBuffer = 0;
  uint32_t RasterBytes = 0;
};

inline DriverScript gScript;

namespace fake {
inline int32_t SX_DRIVERAPI ReadNVMData(NvRam* r) {
  r->PowerSaveTime = gScript.NvPowerSaveTime;
  gScript.Calls.push_back("ReadNVMData");
  return gScript.Result;
}
inline int32_t SX_DRIVERAPI WriteNVMData(NvRam* r) {
  gScript.Calls.push_back("WriteNVMData(" + std::to_string(r->PowerSaveTime) + ")");
  return gScript.Result;
}
inline int32_t SX_DRIVERAPI SetPowerSaveTime(uint32_t t) {
  gScript.Calls.push_back("SetPowerSaveTime(" + std::to_string(t) + ")");
  return gScript.Result;
}
inline int32_t SX_DRIVERAPI ReadPushButton(uintptr_t record) {
  std::memcpy(reinterpret_cast<void*>(record), gScript.ButtonRecord, 24);
  gScript.Calls.push_back("ReadPushButton");
  return gScript.Result;
}
inline int32_t SX_DRIVERAPI ResetPushButton() {
  gScript.Calls.push_back("ResetPushButton");
  return gScript.Result;
}
inline int32_t SX_DRIVERAPI InitialButton(uintptr_t record) {
  std::memcpy(reinterpret_cast<uint8_t*>(record) + 4, &gScript.Buttons, 2);
  gScript.Calls.push_back("InitialButton");
  return gScript.Result;
}
inline int32_t SX_DRIVERAPI GetADFStatus(uint8_t* paper) {
  *paper = gScript.Paper;
  gScript.Calls.push_back("GetADFStatus");
  return gScript.Result;
}
inline int32_t SX_DRIVERAPI GetBackgroundRaster(uintptr_t buffer, uint32_t bytes) {
  gScript.RasterBuffer = buffer;
  gScript.RasterBytes = bytes;
  gScript.Calls.push_back("GetBackgroundRaster");
  return gScript.Result;
}
}  // namespace fake

// Installs the stand-in entry points and resets the script; empties the
// driver table again at the end.
class ScriptedDriver {
 public:
  ScriptedDriver() {
    gScript = DriverScript{};
    sx::gDriver = sx::DriverTable{};
    sx::gDriver.ReadNVMData = fake::ReadNVMData;
    sx::gDriver.WriteNVMData = fake::WriteNVMData;
    sx::gDriver.SetPowerSaveTime = fake::SetPowerSaveTime;
    sx::gDriver.ReadPushButton = fake::ReadPushButton;
    sx::gDriver.ResetPushButton = fake::ResetPushButton;
    sx::gDriver.InitialButton = fake::InitialButton;
    sx::gDriver.GetADFStatus = fake::GetADFStatus;
    sx::gDriver.GetBackgroundRaster = fake::GetBackgroundRaster;
  }
  ~ScriptedDriver() { sx::gDriver = sx::DriverTable{}; }
};

// One readable page followed by one that faults.
class FaultingPage {
 public:
  FaultingPage() {
    size_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* p = mmap(nullptr, 2 * size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    base_ = static_cast<uint8_t*>(p);
    munmap(base_ + size_, size_);
  }
  ~FaultingPage() { munmap(base_, size_); }
  // The first address that faults.
  void* Bad() const { return base_ + size_; }
  // `n` readable bytes that end where the fault begins.
  uint8_t* LastBytes(size_t n) const { return base_ + size_ - n; }

 private:
  uint8_t* base_ = nullptr;
  size_t size_ = 0;
};

// A list handed out by SxQueryData, read and released as a host does.
struct ReceivedList {
  int32_t Count = 0;
  size_t ItemsBlockSize = 0;
  std::vector<uint8_t> Items;  // the whole items block

  template <class T>
  T Item(size_t index) const {
    T v{};
    std::memcpy(&v, Items.data() + index * sizeof(T), sizeof(T));
    return v;
  }
  // The item at `index` of a list whose items are `stride` bytes apart.
  std::string Text(size_t index, size_t stride) const {
    return std::string(reinterpret_cast<const char*>(Items.data() + index * stride));
  }
};

inline ReceivedList TakeList(SxValueList* list) {
  ReceivedList out;
  if (!list) return out;
  out.Count = list->Count;
  SxHandle items = SxSysGlobalHandle(list->Items);
  out.ItemsBlockSize = SxSysGlobalSize(items);
  const auto* bytes = static_cast<const uint8_t*>(list->Items);
  out.Items.assign(bytes, bytes + out.ItemsBlockSize);
  while (SxSysGlobalUnlock(items)) {
  }
  SxSysGlobalFree(items);
  SxHandle block = SxSysGlobalHandle(list);
  while (SxSysGlobalUnlock(block)) {
  }
  SxSysGlobalFree(block);
  return out;
}

inline ReceivedList Query(uint32_t capability, uint32_t type) {
  SxValueList* list = nullptr;
  EXPECT_EQ(SxQueryData(capability, type, &list), 0);
  EXPECT_NE(list, nullptr);
  return TakeList(list);
}

// A scanner like the virtual one: colour flatbed with a feeder, four halftone
// and two diffusion patterns.
inline ScannerAbility TypicalAbility() {
  ScannerAbility a{};
  std::memcpy(a.ModelName, "QM7110V", 7);
  std::memcpy(a.FirmwareVersion, "1.00", 4);
  a.FeatureFlags = 0x11;
  a.FlatbedMaxWidth = 2550;
  a.FlatbedMaxLength = 3508;
  a.AdfMaxWidth = 2550;
  a.AdfMaxLength = 4200;
  a.MaxResolution = 600;
  a.ResolutionLimitA = 600;
  a.ResolutionLimitB = 600;
  a.ResolutionLimitC = 1200;
  a.ResolutionLimitD = 1200;
  a.PixelTypeFlags = 0xA0;
  a.SourceFlags = 0xE4;
  a.OptionFlags = 0xD2;
  a.HalftonePatternCount = 4;
  a.DiffusionPatternCount = 2;
  a.ExtraFlags = 0x180;
  return a;
}

// A temporary root with the library's registry state forgotten, a clean
// settings record and the typical scanner's abilities.
class SettingsEnv {
 public:
  SettingsEnv() {
    sx::ResetRegistryState();
    sx::gSettings = sx::ScanSettings{};
    sx::gAbility = TypicalAbility();
    sx::gNvRam = NvRam{};
    std::memset(sx::gLib.LanguageSection, 0, sizeof sx::gLib.LanguageSection);
  }
  ~SettingsEnv() {
    sx::ReleaseBufferRing();
    sx::gSettings = sx::ScanSettings{};
    sx::ResetRegistryState();
  }
  TempRoot Root;
};

// Runs the body with the current directory changed, restoring it afterwards.
class ScopedCurrentDirectory {
 public:
  explicit ScopedCurrentDirectory(const fs::path& dir) : old_(fs::current_path()) {
    fs::current_path(dir);
  }
  ~ScopedCurrentDirectory() { fs::current_path(old_); }

 private:
  fs::path old_;
};

}  // namespace sxtest
