// Writing one trace line. The level test is inline in Trace.h; this is the
// part that runs only when the line is wanted.
#include "frame/Trace.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "platform/Paths.h"
#include "platform/Registry.h"
#include "platform/System.h"

namespace sx {

namespace {

// The path ("SAVEPATH" + file name) and then the formatted line share one
// 144-byte buffer, so each holds at most 143 characters.
constexpr size_t kTraceBufferSize = 144;
constexpr size_t kTraceMaxChars = kTraceBufferSize - 1;
constexpr char kSavePathName[] = "SAVEPATH";
constexpr int kCr = 13;
constexpr int kLf = 10;

constexpr char kFormatText[] = "%s  %d: %s : %s%c%c";
constexpr char kFormatTimestamp[] = "%s  %s - milliseconds: %d %c%c";
constexpr char kFormatNoValue[] = "%s  %d: %s : %c%c";
constexpr char kFormatReal[] = "%s  %d: %s : %s %c%c";
constexpr char kFormatNumber[] = "%s  %d: %s : %d %c%c";

const char* OrEmpty(const char* text) { return text ? text : ""; }

// Builds "<SAVEPATH><file>" in `path`. False when the line cannot go anywhere.
// Design note: a "SAVEPATH" that does not even fit the read buffer (the
// registry answers "more data") is as unusable as a composed path longer
// than 143 characters; the line is lost rather than sent to another folder.
bool ComposePath(const char* file, char (&path)[kTraceBufferSize]) {
  int32_t status = ReadRegValue(kKeyOptions, kSavePathName, path, kKindText, kTraceBufferSize);
  if (status == plat::kRegErrorMoreData) return false;
  const size_t folder = strnlen(path, kTraceBufferSize);
  const size_t name = std::strlen(OrEmpty(file));
  if (folder + name > kTraceMaxChars) return false;
  std::memcpy(path + folder, OrEmpty(file), name + 1);
  return true;
}

// Formats the line in the formats' order of tests. Returns the number of
// characters to write.
size_t FormatLine(char (&line)[kTraceBufferSize], const char* label, const char* tag,
                  int32_t code, intptr_t value, uint32_t kind) {
  label = OrEmpty(label);
  tag = OrEmpty(tag);
  // Numbers travel as signed 32-bit values; judging the low 32 bits keeps the
  // -1 and -2 markers the same on both pointer widths.
  const int32_t number = static_cast<int32_t>(value);
  int n;
  if (kind == kKindText) {
    const char* text = OrEmpty(reinterpret_cast<const char*>(value));
    n = std::snprintf(line, sizeof line, kFormatText, tag, code, label, text, kCr, kLf);
  } else if (number == kTraceTimestamp) {
    const int32_t ms = static_cast<int32_t>(plat::TickCount());
    n = std::snprintf(line, sizeof line, kFormatTimestamp, tag, label, ms, kCr, kLf);
  } else if (number == kTraceNoValue) {
    n = std::snprintf(line, sizeof line, kFormatNoValue, tag, code, label, kCr, kLf);
  } else if (kind == kKindReal) {
    // The low 32 bits carry the bit pattern of a single-precision number.
    const uint32_t bits = static_cast<uint32_t>(value);
    float real;
    std::memcpy(&real, &bits, sizeof real);
    char text[64];
    std::snprintf(text, sizeof text, "%2.2f", static_cast<double>(real));
    n = std::snprintf(line, sizeof line, kFormatReal, tag, code, label, text, kCr, kLf);
  } else {
    n = std::snprintf(line, sizeof line, kFormatNumber, tag, code, label, number, kCr, kLf);
  }
  if (n < 0) return 0;
  if (static_cast<size_t>(n) <= kTraceMaxChars) return static_cast<size_t>(n);
  // Design note: an over-long line is cut to 143 characters and still ends
  // with CR LF, so the log stays one record per line.
  line[kTraceMaxChars - 2] = static_cast<char>(kCr);
  line[kTraceMaxChars - 1] = static_cast<char>(kLf);
  return kTraceMaxChars;
}

}  // namespace

void TraceLogWrite(const char* file, const char* label, const char* tag, int32_t code,
                   intptr_t value, uint32_t kind) {
  char buffer[kTraceBufferSize];
  if (!ComposePath(file, buffer)) return;
  const std::string path = buffer;
  const size_t length = FormatLine(buffer, label, tag, code, value, kind & 0xFFu);
  if (length == 0) return;
  // One open, append, close per line: lines from several threads never
  // interleave within a line, and a failure loses only this line.
  plat::AppendToFile(path, buffer, length);
}

}  // namespace sx
