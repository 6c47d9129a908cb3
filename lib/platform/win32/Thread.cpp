// Worker threads and events on the system's own objects: a worker is created
// suspended (CREATE_SUSPENDED) and started by its first resume; afterwards it
// parks itself on its own automatic-reset wake event. A resume that arrives
// while the worker is still running is kept, so the worker's next
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
  HANDLE Wake = nullptr;  // automatic-reset: set only for a parked worker
  ThreadProc Proc = nullptr;
  void* Argument = nullptr;
  SRWLOCK Lock = SRWLOCK_INIT;  // guards the flags below
  bool Started = false;         // the first resume has been given
  bool Parked = true;           // suspended, or not yet started
  bool ResumePending = false;   // a resume that came while running
  bool Terminating = false;
  std::atomic<bool> SelfTerminated{false};  // the worker stopped itself and frees the record
};

namespace {

thread_local Thread* t_current = nullptr;

class Locked {
 public:
  explicit Locked(Thread* t) : lock_(&t->Lock) { ::AcquireSRWLockExclusive(lock_); }
  ~Locked() { ::ReleaseSRWLockExclusive(lock_); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  SRWLOCK* lock_;
};

void Destroy(Thread* t) {
  if (t->Handle) ::CloseHandle(t->Handle);
  if (t->Wake) ::CloseHandle(t->Wake);
  delete t;
}

DWORD WINAPI Entry(LPVOID arg) {
  Thread* t = static_cast<Thread*>(arg);
  t_current = t;
  bool run;
  {
    Locked guard(t);
    run = !t->Terminating;
  }
  if (run) {
    try {
      t->Proc(t->Argument);
    } catch (...) {
    }
  }
  {
    Locked guard(t);
    t->Parked = false;
  }
  t_current = nullptr;
  if (t->SelfTerminated.load(std::memory_order_acquire)) Destroy(t);
  return 0;
}

}  // namespace

ThreadHandle CreateSuspendedThread(ThreadProc proc, void* argument) {
  if (!proc) return nullptr;
  Thread* t = new (std::nothrow) Thread{.Proc = proc, .Argument = argument};
  if (!t) return nullptr;
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
  bool first = false;
  {
    Locked guard(t);
    if (!t->Started) {
      t->Started = first = true;
      t->Parked = false;
    } else if (t->Parked) {
      t->Parked = false;
      ::SetEvent(t->Wake);
    } else {
      t->ResumePending = true;
    }
  }
  if (first) ::ResumeThread(t->Handle);
}

bool SuspendCurrentThread() {
  Thread* t = t_current;
  if (!t) return false;  // not one of our workers: nothing to park
  {
    Locked guard(t);
    if (t->Terminating) return false;
    if (t->ResumePending) {
      t->ResumePending = false;
      return true;
    }
    t->Parked = true;
  }
  // The wake event is set by the resume that clears Parked; set before this
  // wait begins, it is kept, so the resume is not lost.
  ::WaitForSingleObject(t->Wake, INFINITE);
  Locked guard(t);
  return !t->Terminating;
}

bool IsThreadParked(ThreadHandle t) {
  if (!t) return false;
  Locked guard(t);
  return t->Parked;
}

// A parked or unstarted worker holds nothing (it waits on its own event), so
// it is stopped with the system's TerminateThread, as the library's unload
// does: its procedure does not return. Letting it run to its end instead
// would deadlock inside the DLL's detach notification (a thread's exit waits
// for the loader) or return into a DLL already unmapped. A running worker is
// told to stop and waited for.
void TerminateThread(ThreadHandle t, uint32_t exitCode) {
  if (!t) return;
  bool parked;
  {
    Locked guard(t);
    t->Terminating = true;
    parked = t->Parked || !t->Started;
    t->Started = true;
  }
  if (t->Id == ::GetCurrentThreadId()) {
    t->SelfTerminated.store(true, std::memory_order_release);
    return;
  }
  if (parked) ::TerminateThread(t->Handle, exitCode);
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
