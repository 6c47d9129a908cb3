// The call log: one line per call, `Name(args) -> result[ key=value...]`,
// appended with one write per line to a file opened for appending only, so
// that several processes (or copies of the module) can share a file without
// tearing lines.
#include <cstring>

#include "modules/vscan/VscanDevice.h"
#include "modules/vscan/VscanLogFile.h"

namespace sx::vscan {

namespace {

struct LoggedField {
  const char* Name;
  size_t Offset;
  size_t Width;
  bool Signed;
};

// Every field of the record, in memory order.
#define SX_FIELD(f, s) {#f, offsetof(ScanParameter, f), sizeof(ScanParameter::f), s}
constexpr LoggedField kScanParameterFields[] = {
    SX_FIELD(Left, false),         SX_FIELD(Top, false),          SX_FIELD(Width, false),
    SX_FIELD(Length, false),       SX_FIELD(PixelNum, false),     SX_FIELD(LineNum, false),
    SX_FIELD(ScanMode, false),     SX_FIELD(ScanMethod, false),   SX_FIELD(BitsPerPixel, false),
    SX_FIELD(ScanSpeed, false),    SX_FIELD(Contrast, true),      SX_FIELD(Brightness, true),
    SX_FIELD(HTPatternNo, false),  SX_FIELD(Highlight, false),    SX_FIELD(Shadow, false),
    SX_FIELD(ColorFilter, false),  SX_FIELD(Invert, false),       SX_FIELD(ReadStatus, false),
    SX_FIELD(ExtScanParam, false), SX_FIELD(RExposure, false),    SX_FIELD(GExposure, false),
    SX_FIELD(BExposure, false),    SX_FIELD(XRes, false),         SX_FIELD(YRes, false),
    SX_FIELD(BackgroundLines, false), SX_FIELD(ExtensionFlag, false),
};
#undef SX_FIELD

int64_t FieldValue(const uint8_t* record, const LoggedField& f) {
  uint64_t v = 0;
  for (size_t i = 0; i < f.Width; ++i) v |= uint64_t{record[f.Offset + i]} << (8 * i);
  if (f.Signed && f.Width == 1) return static_cast<int8_t>(v);
  return static_cast<int64_t>(v);
}

// Texts from the scanner's fields: printable ASCII kept, the rest as \xHH.
std::string FieldText(const char* text, size_t size) {
  std::string out;
  for (size_t i = 0; i < size && text[i]; ++i) {
    auto c = static_cast<unsigned char>(text[i]);
    if (c > ' ' && c < 0x7F && c != '\\') {
      out += static_cast<char>(c);
    } else {
      static const char kHex[] = "0123456789abcdef";
      out += {'\\', 'x', kHex[c >> 4], kHex[c & 15]};
    }
  }
  return out;
}

}  // namespace

void OpenLog(Device& d) {
  if (d.Cfg.LogPath.empty()) return;
  d.LogFile = OpenAppending(d.Cfg.LogPath);
}

void CloseLog(Device& d) {
  if (d.LogFile != kNoFile) CloseFile(d.LogFile);
  d.LogFile = kNoFile;
}

bool IsLogOpen(const Device& d) { return d.LogFile != kNoFile; }

void LogLine(Device& d, const std::string& line) {
  // A full disk loses log lines, never the scan.
  if (d.LogFile != kNoFile) AppendAll(d.LogFile, line + "\n");
}

void LogNote(Device& d, const std::string& note) { LogLine(d, "# " + note); }

std::string FormatScanParameter(const ScanParameter* p) {
  if (!p) return "null";
  const auto* record = reinterpret_cast<const uint8_t*>(p);
  std::string out;
  for (const LoggedField& f : kScanParameterFields) {
    if (!out.empty()) out += ", ";
    out += f.Name;
    out += '=';
    out += std::to_string(FieldValue(record, f));
  }
  return out;
}

std::string FormatNvram(const NvRam* nvram, const char* separator) {
  if (!nvram) return "null";
  const std::string sep = separator;
  return "PadCount=" + std::to_string(nvram->PadCount) + sep +
         "ADFSingleCount=" + std::to_string(nvram->ADFSingleCount) + sep +
         "ADFDuplexCount=" + std::to_string(nvram->ADFDuplexCount) + sep +
         "PowerSaveTime=" + std::to_string(nvram->PowerSaveTime) + sep +
         "SerialNumber=" + FieldText(nvram->SerialNumber, sizeof nvram->SerialNumber);
}

std::string HexBytes(const uint8_t* bytes, size_t count) {
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(2 * count);
  for (size_t i = 0; i < count; ++i) {
    out += kHex[bytes[i] >> 4];
    out += kHex[bytes[i] & 15];
  }
  return out;
}

}  // namespace sx::vscan
