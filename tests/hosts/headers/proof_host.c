/* A host written from the public headers alone (sxscan.h, sxsys.h), linked
 * against the library as any application is: it checks that the library
 * does what the headers promise. Each scenario runs in a process of its own,
 * since SxFree ends buffered mode for the rest of the process.
 *
 *   sxproofhost rules|buffered
 *
 * It expects the virtual scanner as the stored source with three sheets in
 * its feeder. One line per failed check; the last line is the tally
 * "N passed, N failed", and the exit status is 0 only when none failed. */
#include <stdio.h>
#include <string.h>

#include "sxscan.h"
#include "sxsys.h"

enum { FEEDER_SHEETS = 3, MEBIBYTE = 1048576, UNKNOWN_CODE = 0x9999 };

/* The grey flatbed page most checks scan: 2550 / 3 = 850 pixels at 100 dpi,
 * cut to the model's multiple of 4, and 3300 / 3 lines. */
enum { GREY_DPI = 100, GREY_WIDTH = 848, GREY_LINES = 1100 };

static int passed, failed;

static void Check(int ok, const char* what, long got) {
  if (ok) {
    ++passed;
  } else {
    ++failed;
    printf("FAIL %s (got %ld)\n", what, got);
  }
}
/* A function, so that the expression checked is evaluated once. */
static void CheckEq(long got, long want, const char* what) { Check(got == want, what, got); }
#define CHECK_EQ(got, want, what) CheckEq((long)(got), (long)(want), what)

/* ---- what the transfer callback saw ---------------------------------- */

static struct {
  int64_t answer; /* written into the count of code 2 when nonzero */
  int32_t reply;  /* the callback's answer to code 2 */
  SxImageInfo info;
  int infos, pageEnds, shortPages, others;
  int64_t bytes, largestBlock, firstBlock, lastBlock;
  int wholeLines; /* every block held whole lines */
  long lineBytes;
} seen;

static void Expect(int64_t answer, int32_t reply, long lineBytes) {
  memset(&seen, 0, sizeof seen);
  seen.answer = answer;
  seen.reply = reply;
  seen.wholeLines = 1;
  seen.lineBytes = lineBytes;
}

static int32_t SX_API Record(void* data, int64_t* count, int32_t code) {
  if (code == SX_XFER_IMAGE_INFO) {
    memcpy(&seen.info, data, sizeof seen.info);
    ++seen.infos;
    if (seen.answer) *count = seen.answer;
    return seen.reply;
  }
  if (code != SX_XFER_DATA && code != SX_XFER_PAGE_END && code != SX_XFER_SHORT_PAGE) {
    ++seen.others;
    return 0;
  }
  if (seen.firstBlock == 0) seen.firstBlock = *count;
  seen.lastBlock = *count;
  if (*count > seen.largestBlock) seen.largestBlock = *count;
  if (seen.lineBytes && *count % seen.lineBytes != 0) seen.wholeLines = 0;
  seen.bytes += *count;
  if (code == SX_XFER_PAGE_END) ++seen.pageEnds;
  if (code == SX_XFER_SHORT_PAGE) ++seen.shortPages;
  return 0;
}

/* ---- small host helpers ---------------------------------------------- */

static void SetInt(uint32_t capability, int32_t value) { SxSetValue(capability, TY_INT32, &value); }

static int32_t GetInt(uint32_t capability) {
  int32_t value = -12345;
  SxGetValue(capability, TY_INT32, &value);
  return value;
}

/* The host owns both blocks of a list. */
static void FreeList(SxValueList* list) {
  SxHandle items = SxSysGlobalHandle(list->Items);
  SxHandle block = SxSysGlobalHandle(list);
  SxSysGlobalUnlock(items);
  SxSysGlobalFree(items);
  SxSysGlobalUnlock(block);
  SxSysGlobalFree(block);
}

static int32_t Item32(const SxValueList* list, int i) {
  int32_t v;
  memcpy(&v, (const char*)list->Items + 4 * i, 4);
  return v;
}

static void ScanGreyFlatbed(void) {
  SetInt(CAP_SCANTYPE, 2);
  SetInt(CAP_PIXELTYPE, 1);
  SetInt(CAP_BITSPERPIXEL, 8);
  SetInt(CAP_XRESOLUTION, GREY_DPI);
  SetInt(CAP_YRESOLUTION, GREY_DPI);
}

/* Runs one acquisition into a new buffer of `bytes` bytes made as hosts
 * make it. */
static int32_t Acquire(size_t bytes) {
  SxHandle buffer = SxSysGlobalAlloc(SX_GHND, bytes);
  int32_t result = SxAcquire(Record, SxSysGlobalLock(buffer));
  SxSysGlobalUnlock(buffer);
  SxSysGlobalFree(buffer);
  return result;
}

/* ---- rules ----------------------------------------------------------- */

static void SourceList(void) {
  SxDataSource first, entry;
  int entries = 1;
  CHECK_EQ(SxGetDS(SX_DS_FIRST, &first), SX_OK, "SxGetDS first");
  while (SxGetDS(SX_DS_NEXT, &entry) == SX_OK && entries < 100) ++entries;
  CHECK_EQ(entries, 1, "one source installed");
  CHECK_EQ(SxGetDS(SX_DS_NEXT, &entry), SX_ERR_NO_SOURCE, "past the end stays at the end");
  CHECK_EQ(SxGetDS(SX_DS_FIRST, &entry), SX_OK, "SX_DS_FIRST starts over");
  CHECK_EQ(strcmp(entry.DisplayName, first.DisplayName), 0, "the same first entry");
  /* A driver is bound: the choice is stored, the open source stays. */
  CHECK_EQ(SxSetDriverById(&entry, 0), SX_OK, "choosing the listed source");
  entry.DisplayName[0] ^= 0x20;
  CHECK_EQ(SxSetDriverById(&entry, 0), SX_ERR_DRIVER, "a name in other letter case names nothing");
}

static void ListForms(void) {
  SxValueList* list = NULL;
  const unsigned char* bytes;
  float widths[2];

  SxQueryData(CAP_XRESOLUTION, TY_INT32, &list);
  CHECK_EQ(list->Count, 0, "a range counts 0");
  CHECK_EQ(Item32(list, 0), 50, "range minimum");
  CHECK_EQ(Item32(list, 1), 600, "range maximum");
  CHECK_EQ(Item32(list, 2), 1, "range step");
  FreeList(list);

  SxQueryData(CAP_SHARPEN, TY_UINT8, &list);
  bytes = (const unsigned char*)list->Items;
  CHECK_EQ(list->Count, 5, "an enumeration counts its items");
  CHECK_EQ(bytes[2 * 4] * 256 + bytes[2 * 4 + 1], 4 * 256, "TY_UINT8 items are 2 bytes apart");
  FreeList(list);

  SxQueryData(CAP_DITHER, TY_STR32, &list);
  CHECK_EQ(list->Count, 7, "dither names: none, 4 halftones, 2 diffusions");
  CHECK_EQ(strcmp((const char*)list->Items + 33 * 5, "Diffusion 1"), 0, "TY_STR32 items are 33 bytes apart");
  FreeList(list);

  SxQueryData(CAP_MINBUFFER, TY_INT32, &list);
  CHECK_EQ(list->Count, 0, "a default counts 0");
  CHECK_EQ(Item32(list, 0), MEBIBYTE, "the default buffer size");
  FreeList(list);

  SxQueryData(CAP_GAMMA, TY_FLOAT32, &list);
  CHECK_EQ(list->Count, -1, "any value counts -1");
  FreeList(list);

  SxQueryData(UNKNOWN_CODE, TY_INT32, &list);
  CHECK_EQ(list->Count, 0, "an unknown code gets the empty list");
  CHECK_EQ(Item32(list, 0), 0, "its one item is zero");
  CHECK_EQ(SxSysGlobalSize(SxSysGlobalHandle(list->Items)), 4, "room for one item");
  FreeList(list);

  SetInt(CAP_UNITS, 0);
  SxQueryData(CAP_MAXWIDTHS, TY_FLOAT32, &list);
  memcpy(widths, list->Items, sizeof widths);
  CHECK_EQ(list->Count, 3, "feeder, flatbed and source 3 widths");
  Check(widths[0] == 8.5f && widths[1] == 8.5f, "widths in inches", (long)(widths[0] * 100));
  FreeList(list);
  SetInt(CAP_UNITS, 2);
}

static void IgnoredAndRefused(void) {
  int32_t value = 600, sentinel = -7777;
  uint8_t pair[2] = {0xAA, 0xAA};

  CHECK_EQ(SxSetValue(UNKNOWN_CODE, TY_INT32, &value), SX_OK, "set of an unknown code");
  CHECK_EQ(SxGetValue(UNKNOWN_CODE, TY_INT32, &sentinel), SX_OK, "get of an unknown code");
  CHECK_EQ(sentinel, -7777, "an unknown code writes nothing");
  CHECK_EQ(SxSetValue(CAP_XRESOLUTION, UNKNOWN_CODE, &value), SX_OK, "set in an unknown type");
  CHECK_EQ(SxSetValue(CAP_XRESOLUTION, TY_STR32, (void*)"600"), SX_OK, "set of text as a number");
  CHECK_EQ(GetInt(CAP_XRESOLUTION), 300, "neither changed the setting");
  CHECK_EQ(SxGetValue(CAP_XRESOLUTION, UNKNOWN_CODE, &sentinel), SX_OK, "get in an unknown type");
  CHECK_EQ(sentinel, -7777, "an unknown type writes nothing");
  CHECK_EQ(SxGetValue(CAP_XRESOLUTION, TY_UINT8 | 0x10000, pair), SX_OK, "high bits of a type ignored");
  CHECK_EQ(pair[0] * 256 + pair[1], 300 % 256 * 256 + 0xAA, "TY_UINT8 writes one byte");
  CHECK_EQ(SxSetValue(CAP_MODELNAME, TY_STR32, (void*)"X"), SX_ERR_UNSUPPORTED, "model name is read only");
  CHECK_EQ(SxGetValue(CAP_MINBUFFER, TY_INT32, &value), SX_ERR_UNSUPPORTED, "buffer size is set only");
}

static void AreaUnits(void) {
  float inches = 2.0f, centimetres = 2.54f;
  uint16_t width = 0;
  SetInt(CAP_UNITS, 0);
  SxSetValue(CAP_IMAGEWIDTH, TY_FLOAT32, &inches);
  SxGetValue(CAP_IMAGEWIDTH, TY_UINT16, &width);
  CHECK_EQ(width, 600, "2 inches read back in 1/300 inch");
  SetInt(CAP_UNITS, 1);
  SxSetValue(CAP_IMAGEWIDTH, TY_FLOAT32, &centimetres);
  SxGetValue(CAP_IMAGEWIDTH, TY_UINT16, &width);
  CHECK_EQ(width, 300, "2.54 cm read back in 1/300 inch");
  SetInt(CAP_UNITS, 2);
  SetInt(CAP_IMAGEWIDTH, 2550);
  CHECK_EQ(GetInt(CAP_IMAGEWIDTH), 2550, "units 2 are 1/300 inch");
}

static void CheckedAtAcquisition(void) {
  int32_t impossible = 9;
  CHECK_EQ(SxSetValue(CAP_PIXELTYPE, TY_INT32, &impossible), SX_OK, "an impossible pixel type is stored");
  CHECK_EQ(GetInt(CAP_PIXELTYPE), 9, "and reads back");
  Expect(MEBIBYTE, 0, 0);
  CHECK_EQ(Acquire(MEBIBYTE), SX_ERR_UNSUPPORTED, "the acquisition refuses it");
  CHECK_EQ(seen.infos + seen.pageEnds + seen.others, 0, "before any callback");
}

static void BlockSizeFromAnswer(void) {
  const long page = (long)GREY_WIDTH * GREY_LINES;
  ScanGreyFlatbed();
  Expect(10 * GREY_WIDTH + GREY_WIDTH - 1, 0, GREY_WIDTH);
  CHECK_EQ(Acquire(11 * GREY_WIDTH), SX_OK, "direct grey page");
  CHECK_EQ(seen.info.PixelsPerLine, GREY_WIDTH, "pixels per line");
  CHECK_EQ(seen.info.LinesPerPage, GREY_LINES, "lines per page");
  CHECK_EQ(seen.info.ResolutionY, GREY_DPI, "vertical resolution");
  CHECK_EQ(seen.info.BufferSizeHint, MEBIBYTE - 1, "buffer size hint");
  CHECK_EQ(seen.info.SamplesPerPixel * 100 + seen.info.BitsPerSample[0], 108, "one sample of 8 bits");
  CHECK_EQ(seen.largestBlock, 10 * GREY_WIDTH, "blocks of the whole lines the answer holds");
  CHECK_EQ(seen.firstBlock, 10 * GREY_WIDTH, "the first block is full");
  CHECK_EQ(seen.wholeLines, 1, "whole lines in every block");
  CHECK_EQ(seen.bytes, page, "the whole page");
  CHECK_EQ(seen.pageEnds, 1, "one page end");

  Expect(GREY_WIDTH - 1, 0, GREY_WIDTH);
  CHECK_EQ(Acquire(MEBIBYTE), SX_ERR_DRIVER, "an answer below one line");
  CHECK_EQ(seen.infos * 10 + (seen.bytes > 0), 10, "refused after the image information");

  Expect(MEBIBYTE, 7, GREY_WIDTH);
  CHECK_EQ(Acquire(MEBIBYTE), 7, "a nonzero answer to code 2 is the result");
  CHECK_EQ(seen.bytes, 0, "and no data follows");
}

/* After SxLoad: the feeder when it holds paper, every sheet, line art. */
static void DefaultAcquisition(void) {
  CHECK_EQ(SxFree(), SX_OK, "SxFree");
  CHECK_EQ(SxLoad(NULL), SX_OK, "SxLoad again: the settings are the defaults");
  CHECK_EQ(GetInt(CAP_SCANTYPE) * 100 + GetInt(CAP_PIXELTYPE), 0, "automatic source, line art");
  CHECK_EQ(GetInt(CAP_XFERCOUNT), -1, "every page");
  Expect(MEBIBYTE, 0, 0);
  CHECK_EQ(Acquire(MEBIBYTE), SX_OK, "default acquisition");
  CHECK_EQ(seen.infos * 10 + seen.pageEnds, FEEDER_SHEETS * 11, "every sheet of the feeder");
  CHECK_EQ(seen.info.PixelType * 100 + seen.info.BitsPerPixel, 1, "as line art");
  CHECK_EQ(seen.bytes, FEEDER_SHEETS * (long)seen.info.PixelsPerLine / 8 * seen.info.LinesPerPage,
           "8 pixels to a byte");
  Expect(MEBIBYTE, 0, 0);
  CHECK_EQ(Acquire(MEBIBYTE), SX_OK, "with the feeder empty");
  CHECK_EQ(seen.pageEnds, 1, "one flatbed page");
}

static void Rules(void) {
  CHECK_EQ(SxLoad(NULL), SX_OK, "SxLoad opens the stored source");
  CHECK_EQ(GetInt(CAP_BUFFERING), 0, "direct mode by default");
  SourceList();
  ListForms();
  IgnoredAndRefused();
  AreaUnits();
  CheckedAtAcquisition();
  BlockSizeFromAnswer();
  DefaultAcquisition();
}

/* ---- buffered -------------------------------------------------------- */

static void Buffered(void) {
  const long page = (long)GREY_WIDTH * GREY_LINES;
  CHECK_EQ(SxLoad(NULL), SX_OK, "SxLoad");
  SetInt(CAP_BUFFERING, 1);
  CHECK_EQ(GetInt(CAP_BUFFERING), 1, "buffered mode");
  ScanGreyFlatbed();
  Expect(1, 0, GREY_WIDTH);
  CHECK_EQ(Acquire(MEBIBYTE), SX_OK, "buffered grey page into 1 MiB");
  CHECK_EQ(seen.bytes, page, "the whole page, whatever code 2 answered");
  CHECK_EQ(seen.wholeLines, 1, "whole lines in every block");
  Check(seen.largestBlock <= MEBIBYTE, "blocks of at most 1 MiB", (long)seen.largestBlock);
  CHECK_EQ(seen.info.BufferSizeHint, MEBIBYTE - 1, "buffer size hint");

  Expect(0, 0, GREY_WIDTH);
  CHECK_EQ(Acquire(MEBIBYTE / 4), SX_ERR_DRIVER, "a buffer smaller than the largest block");
  CHECK_EQ(seen.infos + seen.pageEnds, 0, "is refused before any callback");

  CHECK_EQ(SxFree(), SX_OK, "SxFree");
  CHECK_EQ(SxLoad(NULL), SX_OK, "SxLoad after SxFree");
  CHECK_EQ(GetInt(CAP_BUFFERING), 1, "buffering kept across SxFree");
  ScanGreyFlatbed();
  Expect(0, 0, GREY_WIDTH);
  CHECK_EQ(Acquire(MEBIBYTE), SX_ERR_DRIVER, "buffered mode is gone after SxFree");
  CHECK_EQ(seen.infos + seen.pageEnds + seen.others, 0, "without any callback");
  SetInt(CAP_BUFFERING, 0);
  Expect(MEBIBYTE, 0, GREY_WIDTH);
  CHECK_EQ(Acquire(MEBIBYTE), SX_OK, "direct mode still scans");
  CHECK_EQ(seen.bytes, page, "the whole page");
}

int main(int argc, char** argv) {
  const char* scenario = argc > 1 ? argv[1] : "";
  const size_t blocks = SxSysGlobalBlockCount();
  if (strcmp(scenario, "rules") == 0) {
    Rules();
  } else if (strcmp(scenario, "buffered") == 0) {
    Buffered();
  } else {
    fprintf(stderr, "usage: sxproofhost rules|buffered\n");
    return 2;
  }
  /* A whole load-acquire-free cycle, lists and buffers freed: no block left. */
  CHECK_EQ(SxFree(), SX_OK, "SxFree at the end");
  CHECK_EQ(SxSysGlobalBlockCount(), blocks, "every block freed");
  printf("%d passed, %d failed\n", passed, failed);
  return failed == 0 ? 0 : 1;
}
