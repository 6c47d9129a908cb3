// One open device's acquisitions as SANE frames: the page sane_start opens,
// the bytes sane_read hands over and the status that ends them, sane_cancel.
//
// A page ends with SANE_STATUS_EOF only when it is whole: all its lines
// came, or the scanner ended it early by itself (a sheet shorter than the
// area). Such a page keeps the length it was announced with: the lines the
// scanner did not send are sent white, so that every frame holds the lines
// sane_get_parameters promised. A page cut by sane_cancel reads
// SANE_STATUS_CANCELLED; one cut by a failure reads the failure's status.
#pragma once
#include <sane/sane.h>

#include <cstdint>
#include <functional>
#include <memory>

#include "Transfer.h"

namespace sxsane {

struct Session {
  std::unique_ptr<Transfer> transfer;
  SxImageInfo page{};
  bool scanning = false, pageOpen = false, nonblocking = false;
  // The page's bytes as announced and those handed over; after the page's
  // end mark the rest is white.
  uint64_t pageBytes = 0, delivered = 0;
  bool pageEnded = false;
};

// The library's result as a SANE status.
SANE_Status StatusOf(int32_t result);

// sane_start: the next page of the running acquisition or, once that has
// ended, of a new one, for which `prepare` hands the options to the library
// (its status, when not good, is the answer). After a feeder's last page the
// answer is SANE_STATUS_NO_DOCS.
SANE_Status StartPage(Session& s, const AcquireApi& api, bool feeder, const std::function<SANE_Status()>& prepare);
SANE_Status ReadPage(Session& s, SANE_Byte* data, SANE_Int max, SANE_Int* length);
SANE_Parameters PageParameters(const SxImageInfo& page);
// sane_cancel, which frontends call from signal handlers: it only asks. A
// read it cuts, and every read after it, returns SANE_STATUS_CANCELLED; the
// frontend's next other call ends the acquisition (Settle).
void Cancel(Session& s);
// Ends an acquisition whose cancel was asked for; the next sane_start then
// begins a new one.
void Settle(Session& s);
void EndAcquisition(Session& s);

}  // namespace sxsane
