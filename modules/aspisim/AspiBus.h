// The simulated SCSI bus, as aspibus.ini describes it: host adapters with
// their identifiers, and per target the inquiry answer, the completion status
// and how long the request stays pending (or that it never completes).
#pragma once
#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace sx::aspisim {

inline constexpr size_t kInquiryBytes = 96;
inline constexpr size_t kTargetsPerAdapter = 8;
inline constexpr size_t kMaxAdapters = 255;

struct Target {
  bool Present = false;
  std::array<uint8_t, kInquiryBytes> Inquiry{};
  size_t InquiryLength = 0;  // bytes of Inquiry a request gets at most
  uint8_t Status = 1;        // SS_COMP
  uint32_t DelayMs = 0;      // pending this long, in milliseconds
  bool Silent = false;       // pending for ever
};

struct Adapter {
  bool Present = false;
  std::string Identifier;  // HA_Identifier, cut to 16 bytes
  uint8_t Status = 1;      // the adapter inquiry's status
  std::array<Target, kTargetsPerAdapter> Targets{};
};

struct Bus {
  std::vector<Adapter> Adapters;  // index = adapter number; gaps are absent
};

// Unknown sections and keys are ignored; numbers that do not parse keep the
// default. Never fails: an empty text is a bus without adapters.
Bus ParseBus(const std::string& text);

}  // namespace sx::aspisim
