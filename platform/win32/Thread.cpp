// Worker threads and events on the system's own objects: a worker is created
// suspended (CREATE_SUSPENDED) and started by its first resume; afterwards it
// parks itself on its own automatic-reset wake event. The event keeps a resume
// that arrives while the worker is still running, so the worker's next
// self-suspend returns at once and no wake-up is ever lost (a bare
// SuspendThread would lose that race).
//
// Thread contract: ResumeThread, IsThreadParked and TerminateThread may come
// from any one controlling thread; SuspendCurrentThread only from the worker.
#include "platform/Thread.h"

#include <atomic>
#include <new>

#include "platform/win32/Win32.h"

namespace sx::plat {

struct Thread {
  HANDLE Handle = nullptr;
  DWORD Id = 0;
  HANDLE Wake = nullptr;  // automatic-reset: one resume, kept until taken
  ThreadProc Proc = nullptr;
  void* Argument = nullptr;
  std::atomic<bool> Started{false};      // the first resume has been given
  std::atomic<bool> Parked{true};        // suspended, or not yet started
  std::atomic<bool> Terminating{false};
  std::atomic<bool> SelfTerminated{false};  // the worker stopped itself and frees the record
};

namespace {

thread_local Thread* t_current = nullptr;

void Destroy(Thread* t) {
  if (t->Handle) ::CloseHandle(t->Handle);
  if (t->Wake) ::CloseHandle(t->Wake);
  delete t;
}

DWORD WINAPI Entry(LPVOID arg) {
  Thread* t = static_cast<Thread*>(arg);
  t_current = t;
  if (!t->Terminating.load(std::memory_order_acquire)) {
    try {
      t->Proc(t->Argument);
    } catch (...) {
    }
  }
  t->Parked.store(false, std::memory_order_release);
  t_current = nullptr;
  if (t->SelfTerminated.load(std::memory_order_acquire)) Destroy(t);
  return 0;
}

}  // namespace

ThreadHandle CreateSuspendedThread(ThreadProc proc, void* argument) {
  if (!proc) return nullptr;
  Thread* t = new (std::nothrow) Thread;
  if (!t) return nullptr;
  t->Proc = proc;
  t->Argument = argument;
  t->Wake = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
  if (t->Wake) t->Handle = ::CreateThread(nullptr, 0, &Entry, t, CREATE_SUSPENDED, &t->Id);
  if (!t->Handle) {
    Destroy(t);
    return nullptr;
  }
  return t;
}

void ResumeThread(ThreadHandle t) {
  if (!t) return;
  if (!t->Started.exchange(true, std::memory_order_acq_rel)) {
    t->Parked.store(false, std::memory_order_release);
    ::ResumeThread(t->Handle);
    return;
  }
  ::SetEvent(t->Wake);
}

bool SuspendCurrentThread() {
  Thread* t = t_current;
  if (!t) return false;  // not one of our workers: nothing to park
  if (t->Terminating.load(std::memory_order_acquire)) return false;
  // A resume given while the job ran is taken without parking.
  if (::WaitForSingleObject(t->Wake, 0) == WAIT_OBJECT_0) return true;
  t->Parked.store(true, std::memory_order_release);
  ::WaitForSingleObject(t->Wake, INFINITE);
  t->Parked.store(false, std::memory_order_release);
  return !t->Terminating.load(std::memory_order_acquire);
}

bool IsThreadParked(ThreadHandle t) {
  return t && t->Parked.load(std::memory_order_acquire);
}

// A parked or unstarted worker holds nothing (it waits on its own event), so
// it is stopped with the system's TerminateThread, as the library's unload
// does; this stays safe inside the DLL's detach notification, where a worker
// could not run to its end. A running worker is told to stop and waited for.
void TerminateThread(ThreadHandle t, uint32_t exitCode) {
  if (!t) return;
  t->Terminating.store(true, std::memory_order_release);
  if (t->Id == ::GetCurrentThreadId()) {
    t->SelfTerminated.store(true, std::memory_order_release);
    ::SetEvent(t->Wake);
    return;
  }
  if (!t->Started.exchange(true, std::memory_order_acq_rel) || t->Parked.load(std::memory_order_acquire)) {
    ::TerminateThread(t->Handle, exitCode);
  } else {
    ::SetEvent(t->Wake);
  }
  ::WaitForSingleObject(t->Handle, INFINITE);
  Destroy(t);
}

EventHandle CreateEvent(bool manualReset, bool initiallySet) {
  return reinterpret_cast<EventHandle>(
      ::CreateEventW(nullptr, manualReset ? TRUE : FALSE, initiallySet ? TRUE : FALSE, nullptr));
}

void SetEvent(EventHandle event) {
  if (event) ::SetEvent(reinterpret_cast<HANDLE>(event));
}

void ResetEvent(EventHandle event) {
  if (event) ::ResetEvent(reinterpret_cast<HANDLE>(event));
}

bool WaitEvent(EventHandle event, uint32_t timeoutMs) {
  if (!event) return false;
  return ::WaitForSingleObject(reinterpret_cast<HANDLE>(event), timeoutMs) == WAIT_OBJECT_0;
}

void CloseEvent(EventHandle event) {
  if (event) ::CloseHandle(reinterpret_cast<HANDLE>(event));
}

}  // namespace sx::plat
