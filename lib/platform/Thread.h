// Worker threads that are created suspended, park themselves at the end of a
// job and are resumed for the next, and automatic-reset events.
//
// A resume that arrives while the worker is still running is kept, so the
// worker's next self-suspend returns at once: a wake-up is never lost.
#pragma once
#include <cstdint>

namespace sx::plat {

inline constexpr uint32_t kInfinite = 0xFFFFFFFFu;

struct Thread;
using ThreadHandle = Thread*;
using ThreadProc = uint32_t (*)(void* argument);

// Creates a worker that will run `proc(argument)` once first resumed.
ThreadHandle CreateSuspendedThread(ThreadProc proc, void* argument);
// Lets a parked (or not yet started) worker run; kept when it is running.
void ResumeThread(ThreadHandle thread);
// Called by a worker on itself: parks until resumed. Returns false when the
// thread is being terminated; the worker must then return from its procedure.
bool SuspendCurrentThread();
// True while the worker is parked or has not started.
bool IsThreadParked(ThreadHandle thread);
// Stops a worker: a parked or unstarted worker is released and joined; a
// running one is joined when it next parks or returns. Then frees the handle.
void TerminateThread(ThreadHandle thread, uint32_t exitCode);

struct Event;
using EventHandle = Event*;

EventHandle CreateEvent(bool manualReset, bool initiallySet);
void SetEvent(EventHandle event);
void ResetEvent(EventHandle event);
// True when the event was signalled, false on time-out. An automatic-reset
// event is cleared by the wait that takes it.
bool WaitEvent(EventHandle event, uint32_t timeoutMs = kInfinite);
void CloseEvent(EventHandle event);

}  // namespace sx::plat
