// Binds one of the test driver modules into the library's driver table and
// leaves the table and the driver records empty afterwards.
#pragma once
#include <gtest/gtest.h>

#include "driver/DriverTable.h"
#include "frame/RegistryUtil.h"
#include "fixtures/FakeDriver.h"
#include "settings/ScanSettings.h"

namespace sxtest {

class DriverTest : public ::testing::Test {
 protected:
  void SetUp() override { sx::ResetRegistryState(); }
  void TearDown() override {
    sx::UnbindDriver();
    sx::gAbility = {}, sx::gNvRam = {}, sx::gScanParameter = {};
    sx::gSettings.PagesDelivered = 0;
    sx::ResetRegistryState();
  }

  // Loads the module and binds it; for the fakes, also resets their state.
  void Bind(const char* path, sx::Binding binding = sx::Binding::Load) {
    sx::plat::ModuleHandle module = sx::plat::LoadModule(path);
    ASSERT_NE(module, nullptr) << path;
    if (void* reset = sx::plat::ModuleSymbol(module, "FakeDriverReset"))
      fake_ = reinterpret_cast<PFN_FakeDriverReset>(reset)();
    sx::BindDriver(module, binding);
  }
  std::string Calls() const { return fake_ ? fake_->Log : ""; }

  FakeDriverState* fake_ = nullptr;
};

}  // namespace sxtest
