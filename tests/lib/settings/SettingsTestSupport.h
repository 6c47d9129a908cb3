// Shared pieces of the settings tests: a recording stand-in for the driver, a reader for
// SxQueryData lists, a clean environment with the virtual scanner's abilities.
#pragma once
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "driver/DriverTable.h"
#include "frame/LibraryState.h"
#include "frame/RegistryUtil.h"
#include "settings/ScanSettings.h"
#include "support/TestEnv.h"

namespace sxtest {

using Codes = std::initializer_list<uint32_t>;

// Every stand-in entry point answers Result and notes its call.
struct DriverScript {
  int32_t Result = 1;
  uint8_t Button[24] = {};
  uint16_t Buttons = 0;
  std::vector<std::string> Calls;
  uint32_t RasterBytes = 0;
};
inline DriverScript gScript;
inline int32_t Called(const std::string& call) { return gScript.Calls.push_back(call), gScript.Result; }

struct ScriptedDriver {
  ScriptedDriver() {
    gScript = DriverScript{};
    sx::DriverTable& d = sx::gDriver = sx::DriverTable{};
    d.ReadNVMData = [](NvRam*) SX_DRIVERAPI { return Called("ReadNVMData"); };
    d.WriteNVMData = [](NvRam* r) SX_DRIVERAPI { return Called("Write" + std::to_string(r->PowerSaveTime)); };
    d.SetPowerSaveTime = [](uint32_t t) SX_DRIVERAPI { return Called("PowerSave" + std::to_string(t)); };
    d.ReadPushButton = [](uintptr_t r) SX_DRIVERAPI {
      return std::memcpy(reinterpret_cast<void*>(r), gScript.Button, 24), Called("ReadPushButton");
    };
    d.ResetPushButton = []() SX_DRIVERAPI { return Called("ResetPushButton"); };
    d.InitialButton = [](uintptr_t r) SX_DRIVERAPI {
      return std::memcpy(reinterpret_cast<uint8_t*>(r) + 4, &gScript.Buttons, 2), Called("InitialButton");
    };
    d.GetADFStatus = [](uint8_t* paper) SX_DRIVERAPI { return *paper = 1, Called("GetADFStatus"); };
    d.GetBackgroundRaster = [](uintptr_t, uint32_t bytes) SX_DRIVERAPI {
      return gScript.RasterBytes = bytes, Called("GetBackgroundRaster");
    };
  }
  ~ScriptedDriver() { sx::gDriver = sx::DriverTable{}; }
};

// A list from SxQueryData, released as a host does.
struct ReceivedList {
  int32_t Count = 0;
  std::vector<uint8_t> Items;
  template <class T>
  std::vector<T> As() const {
    std::vector<T> v(Items.size() / sizeof(T));
    std::memcpy(v.data(), Items.data(), v.size() * sizeof(T));
    return v;
  }
  std::string Text(size_t i, size_t stride) const { return reinterpret_cast<const char*>(&Items[i * stride]); }
};

inline ReceivedList Query(uint32_t capability, uint32_t type) {
  SxValueList* list = nullptr;
  EXPECT_EQ(SxQueryData(capability, type, &list), 0);
  ReceivedList out;
  if (!list) return out;
  out.Count = list->Count;
  SxHandle items = SxSysGlobalHandle(list->Items);
  const auto* bytes = static_cast<const uint8_t*>(list->Items);
  out.Items.assign(bytes, bytes + SxSysGlobalSize(items));
  for (SxHandle h : {items, SxSysGlobalHandle(list)}) {
    while (SxSysGlobalUnlock(h)) continue;
    EXPECT_EQ(SxSysGlobalFree(h), nullptr);
  }
  return out;
}

// Like the virtual scanner: colour flatbed with a feeder, source 3 by the
// feature flag, four halftone and two diffusion patterns.
inline ScannerAbility TypicalAbility() {
  ScannerAbility a{};
  std::memcpy(a.ModelName, "QM7110V", 7);
  std::memcpy(a.FirmwareVersion, "1.00", 4);
  a.FeatureFlags = 0x11, a.ExtraFlags = 0x180;
  a.FlatbedMaxWidth = a.AdfMaxWidth = 2550, a.FlatbedMaxLength = 3508, a.AdfMaxLength = 4200;
  a.MaxResolution = a.ResolutionLimitA = a.ResolutionLimitB = 600;
  a.ResolutionLimitC = a.ResolutionLimitD = 1200;
  a.PixelTypeFlags = 0xA0, a.SourceFlags = 0xE4, a.OptionFlags = 0xD2;
  a.HalftonePatternCount = 4, a.DiffusionPatternCount = 2;
  return a;
}

// A temporary root, forgotten registry state, a clean settings record and the typical scanner.
struct SettingsEnv {
  SettingsEnv() {
    sx::ResetRegistryState();
    sx::gSettings = sx::ScanSettings{};
    sx::gAbility = TypicalAbility();
    std::memset(sx::gLib.LanguageSection, 0, sizeof sx::gLib.LanguageSection);
  }
  ~SettingsEnv() {
    sx::ReleaseBufferRing();
    sx::gSettings = sx::ScanSettings{};
    sx::ResetRegistryState();
  }
  void ScanData(const std::string& values) const { Root.WriteRegistry("[Software\\Quillmark\\ScanData]\n" + values); }
  // "langpack.loc" with section 0407 in `dir`, the current directory while the result lives.
  std::shared_ptr<void> Localised(const std::string& keys, fs::path dir = {}) const {
    if (dir.empty()) dir = Root.Path() / "cwd";
    WriteFile(dir / "langpack.loc", "[0407]\n" + keys);
    std::strcpy(sx::gLib.LanguageSection, "0407");
    auto restore = std::shared_ptr<void>(nullptr, [old = fs::current_path()](void*) { fs::current_path(old); });
    fs::current_path(dir);
    return restore;
  }
  TempRoot Root;
};

}  // namespace sxtest
