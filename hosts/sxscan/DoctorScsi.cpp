// The doctor's SCSI layer: the ASPI module in the system folder, loaded as
// the library loads it and asked for its host adapters.
#include "sxscan/DoctorReport.h"

namespace sx::host::doctor {

namespace {

constexpr uint32_t kAdapterCountMask = 0xFF;  // the low byte of the support information

}  // namespace

void ReportAspi(const fs::path& aspi) {
  std::error_code ec;
  if (!fs::exists(aspi, ec)) {
    std::printf("ASPI         %s: absent (SCSI scanners are not looked for)\n", aspi.string().c_str());
    return;
  }
  // A module cut short is not handed to the loader, as the library does not.
  std::string error;
  void* module = ModuleFileFault(aspi).empty() ? OpenModule(aspi, error) : nullptr;
  using SupportInfo = uint32_t (*)();
  const auto info = module ? reinterpret_cast<SupportInfo>(ModuleEntry(module, "GetASPI32SupportInfo")) : nullptr;
  const bool send = module && ModuleEntry(module, "SendASPI32Command") != nullptr;
  if (info && send) {
    std::printf("ASPI         %s: %u host adapter(s)\n", aspi.string().c_str(), info() & kAdapterCountMask);
  } else {
    std::printf("ASPI         %s: present\n", aspi.string().c_str());
    if (module)
      Problem("it lacks GetASPI32SupportInfo or SendASPI32Command, so SCSI scanners are not looked for",
              kWords.aspiFix);
    else if (!ReportModuleFileFault(aspi))
      Problem("it cannot be loaded: " + error, kWords.aspiFix);
  }
  if (module) CloseModule(module);
}

}  // namespace sx::host::doctor
