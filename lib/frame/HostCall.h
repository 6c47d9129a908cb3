// One call into the library at a time. The library keeps one set of settings,
// one bound driver and one acquisition, none of them locked: the worker
// threads of a buffered acquisition use the ring and the settings freely. A
// host that calls in while another call is still running — from a second
// thread, or from inside its own transfer callback — would change them under
// the running call's feet.
//
// Design note: such a call is refused at once rather than made to wait, since
// waiting inside the transfer callback could never end. Refused calls return
// SX_ERR_DRIVER and change nothing, except SxQueryData, whose result is always
// 0: it hands back the empty list. The platform functions of sxsys.h (global
// memory) stay usable from any thread at any time.
#pragma once
#include <atomic>
#include <cstdint>

#include "sxscan.h"

namespace sx {

// Set while an exported function runs. Acquire/release ordering makes what a
// finished call wrote visible to the next call, whatever thread makes it.
extern std::atomic<bool> gInsideLibrary;

class HostCall {
 public:
  HostCall() : entered_(!gInsideLibrary.exchange(true, std::memory_order_acquire)) {}
  ~HostCall() {
    if (entered_) gInsideLibrary.store(false, std::memory_order_release);
  }
  HostCall(const HostCall&) = delete;
  HostCall& operator=(const HostCall&) = delete;

  // True when another call is running; the caller must return at once.
  bool Refused() const { return !entered_; }

 private:
  bool entered_;
};

// An exported function's body run as one host call: SX_ERR_DRIVER at once
// while another call runs, else the body's result, or `onThrow` when it
// throws (nothing may escape to the host).
template <class Body>
int32_t GuardedHostCall(int32_t onThrow, Body&& body) {
  HostCall call;
  if (call.Refused()) return SX_ERR_DRIVER;
  try {
    return body();
  } catch (...) {
    return onThrow;
  }
}

}  // namespace sx
