// Resolution scaling: brings descreened blocks, scanned at a raised
// resolution, back down to the geometry the host asked for. Both passes are
// linear interpolations in fixed point with one million as the unit.
#include <algorithm>
#include <cstring>
#include <new>

#include "imaging/BlockChain.h"
#include "imaging/kernels/Kernels.h"
#include "sxsys.h"

namespace sx {
namespace {

constexpr int32_t kUnit = kScaleUnit;
constexpr int32_t kSpareEntries = 10;

// Thread contract: this state belongs to the one acquisition that can run.
// The set-up, the passes and the release never overlap: the single-thread
// acquisition runs them all on the host's thread, the threaded one orders its
// read and processing threads so that a set-up never meets a running pass.
struct LineScaling {
  int32_t* Table = nullptr;
  int32_t TableEntries = 0;
  int32_t Cursor = 0;
  uint8_t* Current = nullptr;
  uint8_t* Previous = nullptr;
  // True while the page has a table: only then does the vertical pass run.
  bool Vertical = false;
  // Where each output pixel of the horizontal pass comes from, made once per
  // geometry. Used only by the horizontal pass, on the processing side.
  HorizontalPlan Plan;
};
LineScaling gScaling;

int32_t SampleUnit(const ScanSettings& s) {
  return (s.BitsPerPixel == 16 || s.BitsPerPixel == 48) ? 2 : 1;
}

int32_t WidestLine(const ScanSettings& s) {
  return std::max({s.ScanBytesPerLine, s.OutputBytesPerLine, s.ScanPixels, s.OutputPixels, 1});
}

void BuildTable(int32_t scanLines, int32_t outputLines) {
  int32_t* t = gScaling.Table;
  const int32_t step = static_cast<int32_t>(static_cast<double>(outputLines - 1) * kUnit /
                                            static_cast<double>(scanLines - 1));
  t[0] = kUnit;
  for (int32_t i = 1; i <= scanLines - 2; ++i) {
    int32_t next = t[i - 1] + step;
    // The whole millions of the previous entry are what that entry already
    // emitted; the overshoot is kept as the next output line's weight.
    if (next > kUnit) next -= kUnit * (t[i - 1] / kUnit);
    t[i] = next;
  }
  for (int32_t i = std::max(scanLines - 1, 1); i < scanLines + kSpareEntries; ++i) t[i] = kUnit;
  gScaling.Cursor = 0;
}

// Turns BlockLines from output lines into the input lines that yield them.
int32_t InputLinesFor(int32_t outputLines, int32_t scanLines) {
  int32_t emitted = 0;
  int32_t passed = 0;
  for (; passed < scanLines; ++passed) {
    if (gScaling.Table[passed] >= kUnit) {
      if (emitted + 1 > outputLines) break;
      ++emitted;
    }
  }
  return passed;
}

// The direct transfer reads raw lines into the host's block, which must now
// hold a block of input lines plus one.
int32_t ResizeDirectBuffer(ScanSettings& s, int32_t unit) {
  const size_t bytes = static_cast<size_t>(s.BlockLines + 1) * static_cast<size_t>(unit) *
                       static_cast<size_t>(std::max(s.ScanBytesPerLine, s.OutputBytesPerLine));
  // Design note: a block that cannot be found or grown would be overrun by
  // the next read of a block of raw lines, so that failure ends the
  // acquisition with the scaling set-up's memory code, -9.
  SxHandle handle = SxSysGlobalHandle(s.DirectBuffer);
  if (!handle) return SX_ERR_NO_MEMORY;
  // Design note: the host's block is only ever enlarged. A host that told a
  // smaller size than its block has keeps the block it allocated, so a later
  // acquisition that is told the full size never writes past a shrunk block.
  if (SxSysGlobalSize(handle) >= bytes) return 0;
  handle = SxSysGlobalReAlloc(handle, bytes, SX_GMEM_MOVEABLE | SX_GMEM_ZEROINIT);
  if (!handle) return SX_ERR_NO_MEMORY;
  // Design note: the host's lock is carried over by the move; locking again
  // only fetches the new address, so the count is given back at once.
  void* moved = SxSysGlobalLock(handle);
  SxSysGlobalUnlock(handle);
  if (!moved) return SX_ERR_NO_MEMORY;
  s.DirectBuffer = static_cast<uint8_t*>(moved);
  return 0;
}

bool AllocateLineBuffers(const ScanSettings& s, int32_t unit) {
  const size_t bytes = static_cast<size_t>(unit) * static_cast<size_t>(WidestLine(s));
  gScaling.Current = new (std::nothrow) uint8_t[bytes]();
  gScaling.Previous = new (std::nothrow) uint8_t[bytes]();
  if (gScaling.Current && gScaling.Previous) return true;
  delete[] gScaling.Current;
  delete[] gScaling.Previous;
  gScaling.Current = gScaling.Previous = nullptr;
  return false;
}

}  // namespace

int32_t PrepareLineScaling(ScanSettings& s) {
  gScaling.Vertical = false;
  // Design note: a page of a single scan line has no interval to divide, and
  // a page of no output lines nothing to divide it into; both go without
  // vertical scaling. (16/48-bit samples, which the vertical pass gives no
  // lines for, never reach a raised resolution: the parameter check refuses
  // them, so that no page outgrows its ImageInfo.)
  if (s.ScanLines == s.OutputLines || s.ScanLines <= 1 || s.OutputLines <= 0) return 0;
  const int32_t unit = SampleUnit(s);
  const int32_t entries = s.ScanLines + kSpareEntries;
  if (!(gScaling.Table && gScaling.Current && gScaling.Previous &&
        gScaling.TableEntries >= entries)) {
    if (!gScaling.Current || !gScaling.Previous) {
      delete[] gScaling.Current;
      delete[] gScaling.Previous;
      gScaling.Current = gScaling.Previous = nullptr;
      if (!AllocateLineBuffers(s, unit)) return SX_ERR_NO_MEMORY;
    }
    delete[] gScaling.Table;
    gScaling.Table = new (std::nothrow) int32_t[static_cast<size_t>(entries)];
    gScaling.TableEntries = gScaling.Table ? entries : 0;
    if (!gScaling.Table) return SX_ERR_NO_MEMORY;
  }
  BuildTable(s.ScanLines, s.OutputLines);
  gScaling.Vertical = true;
  if (s.Descreen != 0 && s.Buffering == 0 && s.Descreen != 9) {
    s.BlockLines = InputLinesFor(s.BlockLines, s.ScanLines);
    return ResizeDirectBuffer(s, unit);
  }
  return 0;
}

int32_t ReleaseLineScaling() {
  delete[] gScaling.Table;
  delete[] gScaling.Current;
  delete[] gScaling.Previous;
  FreePlan(gScaling.Plan);
  gScaling = LineScaling{};
  return 0;
}

bool VerticalScalingActive() { return gScaling.Vertical; }

int32_t ScaleLinesVertical(ScanSettings& s, uint8_t* out, const uint8_t* in, int32_t lines) {
  if (s.BitsPerPixel != 1 && s.BitsPerPixel != 8 && s.BitsPerPixel != 24) return 0;
  if (lines <= 0 || !gScaling.Vertical) return 0;
  const size_t stride = static_cast<size_t>(s.ScanBytesPerLine);
  uint8_t* current = gScaling.Current;
  uint8_t* previous = gScaling.Previous;
  std::memcpy(current, in, stride);
  int32_t consumed = 0;
  int32_t written = 0;
  const int32_t lastEntry = gScaling.TableEntries - 1;
  const auto blend = Kernels().Blend;
  while (consumed < lines) {
    int32_t& entry = gScaling.Table[gScaling.Cursor];
    if (entry >= kUnit) {
      entry -= kUnit;
      blend(out + static_cast<size_t>(written) * stride, current, previous, stride, entry);
      ++written;
      continue;
    }
    std::swap(current, previous);
    ++consumed;
    if (consumed < lines) std::memcpy(current, in + static_cast<size_t>(consumed) * stride, stride);
    // A page longer than announced stays on the spare entries, each of which
    // copies its line, instead of running off the table.
    if (gScaling.Cursor < lastEntry) ++gScaling.Cursor;
    else entry = kUnit;
  }
  gScaling.Current = current;
  gScaling.Previous = previous;
  return written;
}

namespace {

// The plan is a cache: where it cannot be had the kernel walks the
// interpolation per pixel and delivers the same bytes.
HorizontalPlan* PlanFor(int32_t outputPixels) {
  HorizontalPlan& plan = gScaling.Plan;
  if (plan.Capacity >= outputPixels) return &plan;
  return AllocatePlan(plan, outputPixels) ? &plan : nullptr;
}

}  // namespace

void ScalePixelsHorizontal(uint8_t* out, const uint8_t* in, const ScanSettings& s,
                           int32_t lines) {
  if (s.ScanPixels <= 0 || s.OutputPixels <= 0) return;
  // Design note: a colour line ends when no further whole pixel fits, so
  // every output pixel is written and none runs past the line; the input
  // samples used are those wholly inside an input line, whatever the
  // geometry says.
  HorizontalGeometry geometry;
  geometry.ScanPixels = s.ScanPixels;
  geometry.OutputPixels = s.OutputPixels;
  geometry.ScanBytesPerLine = s.ScanBytesPerLine;
  geometry.OutputBytesPerLine = s.OutputBytesPerLine;
  geometry.Sample = s.OutputPixels == s.OutputBytesPerLine ? 1 : 3;
  Kernels().ScaleHorizontal(out, in, lines, geometry, PlanFor(s.OutputPixels));
}

}  // namespace sx
