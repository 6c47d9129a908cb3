// Driver status codes to library result codes. The drivers report in two
// ranges, below 256 and 2000 to 2019; both ranges meet in the same library
// codes.
#include "driver/ErrorCodes.h"

#include "frame/Trace.h"

namespace sx {

namespace {

constexpr int32_t kUnknownCondition = -4;

struct CodeMapping {
  uint32_t StatusCode;
  int32_t Result;
};

// Codes 131 and 2003 map to themselves: the only positive results.
constexpr CodeMapping kStatusCodes[] = {
    {1, -6},     {3, -6},     {128, -6},   {130, -6},   {2004, -6},
    {2005, -8},
    {127, -9},   {2006, -9},
    {103, -12},  {2013, -12},
    {104, -17},  {2014, -17},
    {2010, -20},
    {108, -22},  {164, -22},  {2007, -22}, {2009, -22},
    {124, -23},  {125, -23},  {2018, -23},
    {101, -27},  {129, -27},  {132, -27},  {2008, -27}, {2019, -27},
    {250, -28},  {2000, -28}, {2001, -28}, {2002, -28},
    {151, -30},
    {131, 131},  {2003, 2003},
};

int32_t Lookup(uint32_t statusCode) {
  for (const CodeMapping& m : kStatusCodes) {
    if (m.StatusCode == statusCode) return m.Result;
  }
  return kUnknownCondition;
}

}  // namespace

int32_t ErrorCodeMapping(uint32_t statusCode) {
  constexpr char kLabel[] = "ErrorCodeMapping";
  // The trace shows the driver code as the signed 32-bit number it travels as.
  TraceLog(kTraceFile, kLabel, kTagIn, 1, static_cast<int32_t>(statusCode), kKindNumber, 1);
  const int32_t result = Lookup(statusCode);
  TraceLog(kTraceFile, kLabel, kTagOut, 1, result, kKindNumber, 1);
  return result;
}

}  // namespace sx
