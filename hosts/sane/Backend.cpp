// The SANE entry points over libsxscan.so: the devices are the library's
// data sources; an open device is its options (Options.h) and its
// acquisitions (Session.h).
#include <sane/sane.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Library.h"
#include "Options.h"
#include "Session.h"

#define ENTRY(name) extern "C" __attribute__((visibility("default"))) SANE_Status sane_sxscan_##name
#define ENTRY_VOID(name) extern "C" __attribute__((visibility("default"))) void sane_sxscan_##name

using namespace sxsane;

namespace {

constexpr SANE_Int kBuild = 0;
constexpr const char kPrefix[] = "sxscan:";

struct DeviceEntry {
  std::string name, vendor, model, type;
  SANE_Device device{};
};
std::vector<std::unique_ptr<DeviceEntry>> g_devices;
std::vector<const SANE_Device*> g_deviceList;

struct Device {
  OptionModel options;
  Session session;
};
Device* g_open = nullptr;

// The devices, each source bound once to learn whether it has a flatbed.
void ListDevices() {
  g_devices.clear();
  const auto sources = ListSources();
  for (size_t i = 0; i < sources.size(); ++i) {
    const SxDataSource& src = sources[i];
    auto e = std::make_unique<DeviceEntry>();
    // The dll backend puts "sxscan:" in front of it.
    e->name = DeviceName(sources, i);
    e->vendor = Field(src.Vendor, sizeof src.Vendor);
    e->model = ModelOf(src);
    const bool flatbed = BindSource(src) != SX_OK || HasFlatbed();
    e->type = flatbed ? "flatbed scanner" : "sheetfed scanner";
    g_devices.push_back(std::move(e));
  }
  g_api.free();
}

// The options to the library before a new acquisition; an area the library
// cannot scan is refused here.
SANE_Status Prepare(const OptionModel& options, ScanArea* area, bool* applied) {
  const SANE_Status status = AreaToScan(options, area);
  if (status != SANE_STATUS_GOOD) return status;
  LoadedSettings library;
  const int32_t r = ApplySettings(options, library, *area);
  *applied = r == SX_OK;
  return StatusOf(r);
}

}  // namespace

ENTRY(init)(SANE_Int* version, SANE_Auth_Callback) {
  if (version) *version = SANE_VERSION_CODE(SANE_CURRENT_MAJOR, 0, kBuild);
  if (!g_api.handle && !LoadLibrary()) return SANE_STATUS_IO_ERROR;
  return SANE_STATUS_GOOD;
}

ENTRY_VOID(close)(SANE_Handle);

ENTRY_VOID(exit)(void) {
  if (g_open) sane_sxscan_close(g_open);
  UnloadLibrary();
  g_devices.clear();
  g_deviceList.clear();
}

ENTRY(get_devices)(const SANE_Device*** list, SANE_Bool) {
  if (!list) return SANE_STATUS_INVAL;
  if (!g_api.handle) return SANE_STATUS_IO_ERROR;
  // The open device owns the library; its list stays as it was.
  if (!g_open) ListDevices();
  g_deviceList.clear();
  for (auto& e : g_devices) {
    e->device = SANE_Device{e->name.c_str(), e->vendor.c_str(), e->model.c_str(), e->type.c_str()};
    g_deviceList.push_back(&e->device);
  }
  g_deviceList.push_back(nullptr);
  *list = g_deviceList.data();
  return SANE_STATUS_GOOD;
}

ENTRY(open)(SANE_String_Const name, SANE_Handle* handle) {
  if (!handle) return SANE_STATUS_INVAL;
  if (!g_api.handle) return SANE_STATUS_IO_ERROR;
  if (g_open) return SANE_STATUS_DEVICE_BUSY;
  std::string wanted = name ? name : "";
  if (wanted.rfind(kPrefix, 0) == 0) wanted = wanted.substr(sizeof kPrefix - 1);
  g_api.free();
  const auto sources = ListSources();
  // The display name, as earlier versions named the device, still opens it.
  const SxDataSource* found = nullptr;
  for (size_t i = 0; i < sources.size() && !found; ++i)
    if (wanted.empty() || DeviceName(sources, i) == wanted ||
        Field(sources[i].DisplayName, sizeof sources[i].DisplayName) == wanted)
      found = &sources[i];
  if (!found) return SANE_STATUS_INVAL;
  int32_t r = BindSource(*found);
  if (r == SX_OK) r = g_api.load(nullptr);
  if (r != SX_OK) {
    g_api.free();
    return StatusOf(r) == SANE_STATUS_GOOD ? SANE_STATUS_IO_ERROR : StatusOf(r);
  }
  auto* device = new Device;
  LoadedSettings library;
  BuildOptions(device->options, library);
  g_open = device;
  *handle = device;
  return SANE_STATUS_GOOD;
}

ENTRY_VOID(close)(SANE_Handle h) {
  auto* device = static_cast<Device*>(h);
  if (!device || device != g_open) return;
  EndAcquisition(device->session);
  g_api.free();
  delete device;
  g_open = nullptr;
}

extern "C" __attribute__((visibility("default"))) const SANE_Option_Descriptor*
sane_sxscan_get_option_descriptor(SANE_Handle h, SANE_Int n) {
  auto* device = static_cast<Device*>(h);
  if (!device || n < 0 || n >= kOptionCount) return nullptr;
  return &device->options.desc[n];
}

ENTRY(control_option)(SANE_Handle h, SANE_Int n, SANE_Action action, void* v, SANE_Int* info) {
  auto* device = static_cast<Device*>(h);
  if (info) *info = 0;
  if (!device) return SANE_STATUS_INVAL;
  Settle(device->session);
  if (device->session.scanning && action != SANE_ACTION_GET_VALUE) return SANE_STATUS_DEVICE_BUSY;
  return ControlOption(device->options, n, action, v, info);
}

ENTRY(get_parameters)(SANE_Handle h, SANE_Parameters* p) {
  auto* device = static_cast<Device*>(h);
  if (!device || !p) return SANE_STATUS_INVAL;
  Settle(device->session);
  *p = device->session.pageOpen ? PageParameters(device->session.page) : EstimateParameters(device->options);
  return SANE_STATUS_GOOD;
}

ENTRY(start)(SANE_Handle h) {
  auto* device = static_cast<Device*>(h);
  if (!device) return SANE_STATUS_INVAL;
  ScanArea area;
  bool applied = false;
  const SANE_Status status = StartPage(device->session, g_api.acquire, FromFeeder(device->options),
                                       [&] { return Prepare(device->options, &area, &applied); });
  if (status == SANE_STATUS_INVAL && applied && AreaMayBeTooNarrow(device->options, area))
    std::fprintf(stderr, "sxscan: the scan area may be too small: narrower than the scanner's smallest line (%d "
                         "pixels at the resolution); make it larger\n",
                 kWidestAlignment);
  return status;
}

ENTRY(read)(SANE_Handle h, SANE_Byte* data, SANE_Int max, SANE_Int* length) {
  auto* device = static_cast<Device*>(h);
  if (length) *length = 0;
  if (!device || !data || !length || max < 0) return SANE_STATUS_INVAL;
  return ReadPage(device->session, data, max, length);
}

ENTRY_VOID(cancel)(SANE_Handle h) {
  if (auto* device = static_cast<Device*>(h)) Cancel(device->session);
}

ENTRY(set_io_mode)(SANE_Handle h, SANE_Bool nonblocking) {
  auto* device = static_cast<Device*>(h);
  if (!device) return SANE_STATUS_INVAL;
  Settle(device->session);
  if (!device->session.scanning) return SANE_STATUS_INVAL;
  device->session.nonblocking = nonblocking == SANE_TRUE;
  return SANE_STATUS_GOOD;
}

ENTRY(get_select_fd)(SANE_Handle h, SANE_Int* fd) {
  auto* device = static_cast<Device*>(h);
  if (!device || !fd) return SANE_STATUS_INVAL;
  Settle(device->session);
  if (!device->session.scanning || !device->session.transfer) return SANE_STATUS_INVAL;
  *fd = device->session.transfer->SelectFd();
  return SANE_STATUS_GOOD;
}
