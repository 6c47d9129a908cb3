// Workers and events on pthread primitives. Timed waits use the monotonic
// clock, so a change of the wall clock does not stretch or cut a time-out.
#include "platform/Thread.h"

#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <new>

namespace sx::plat {

// Thread contract: every field below Lock is guarded by it; Proc and Argument
// are set before the thread starts and only read afterwards.
struct Thread {
  pthread_t Id{};
  pthread_mutex_t Lock = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t Wake = PTHREAD_COND_INITIALIZER;
  ThreadProc Proc = nullptr;
  void* Argument = nullptr;
  bool Parked = true;          // suspended (or not yet started)
  bool ResumePending = false;  // a resume that came while running
  bool Terminating = false;
  bool Finished = false;
  bool SelfTerminated = false;  // the worker stopped itself and frees the record
  uint32_t ExitCode = 0;
};

// Thread contract: all fields after Lock are guarded by it.
//
// A set hands the event to a waiter at that moment, as the system's events
// do: an automatic-reset event with waiters grants one release to one of them
// (so two sets in a row release two waiters, never merge into one), and a
// manual-reset event releases every thread waiting at that moment even when it
// is reset before they run.
struct Event {
  pthread_mutex_t Lock = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t Signal{};
  bool ManualReset = false;
  bool Signalled = false;
  uint32_t Waiters = 0;      // threads blocked in WaitEvent
  uint32_t Releases = 0;     // automatic: grants not yet taken by a waiter
  uint64_t Generation = 0;   // manual: counts sets
};

namespace {

thread_local Thread* t_current = nullptr;

void InitMonotonicCond(pthread_cond_t* cond) {
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(cond, &attr);
  pthread_condattr_destroy(&attr);
}

void Destroy(Thread* t) {
  pthread_cond_destroy(&t->Wake);
  pthread_mutex_destroy(&t->Lock);
  delete t;
}

// Waits, with t->Lock held, until the worker is let go. False when it is
// being terminated.
bool WaitWhileParked(Thread* t) {
  while (t->Parked && !t->Terminating) pthread_cond_wait(&t->Wake, &t->Lock);
  return !t->Terminating;
}

void* Entry(void* arg) {
  Thread* t = static_cast<Thread*>(arg);
  t_current = t;
  pthread_mutex_lock(&t->Lock);
  bool run = WaitWhileParked(t);
  pthread_mutex_unlock(&t->Lock);
  if (run) {
    try {
      t->Proc(t->Argument);
    } catch (...) {
      // A thread procedure must not throw; nothing escapes the thread.
    }
  }
  pthread_mutex_lock(&t->Lock);
  t->Finished = true;
  t->Parked = false;
  bool selfTerminated = t->SelfTerminated;
  pthread_mutex_unlock(&t->Lock);
  t_current = nullptr;
  if (selfTerminated) Destroy(t);
  return nullptr;
}

}  // namespace

ThreadHandle CreateSuspendedThread(ThreadProc proc, void* argument) {
  if (!proc) return nullptr;
  Thread* t = new (std::nothrow) Thread{.Proc = proc, .Argument = argument};
  if (!t) return nullptr;
  if (pthread_create(&t->Id, nullptr, &Entry, t) != 0) {
    Destroy(t);
    return nullptr;
  }
  return t;
}

void ResumeThread(ThreadHandle t) {
  if (!t) return;
  pthread_mutex_lock(&t->Lock);
  if (t->Parked) {
    t->Parked = false;
    pthread_cond_broadcast(&t->Wake);
  } else if (!t->Finished) {
    t->ResumePending = true;
  }
  pthread_mutex_unlock(&t->Lock);
}

bool SuspendCurrentThread() {
  Thread* t = t_current;
  if (!t) return false;  // not one of our workers: nothing to park
  pthread_mutex_lock(&t->Lock);
  bool run;
  if (t->Terminating) {
    run = false;
  } else if (t->ResumePending) {
    t->ResumePending = false;
    run = true;
  } else {
    t->Parked = true;
    run = WaitWhileParked(t);
  }
  pthread_mutex_unlock(&t->Lock);
  return run;
}

bool IsThreadParked(ThreadHandle t) {
  if (!t) return false;
  pthread_mutex_lock(&t->Lock);
  bool parked = t->Parked;
  pthread_mutex_unlock(&t->Lock);
  return parked;
}

void TerminateThread(ThreadHandle t, uint32_t exitCode) {
  if (!t) return;
  pthread_mutex_lock(&t->Lock);
  t->Terminating = true;
  t->ExitCode = exitCode;
  pthread_cond_broadcast(&t->Wake);
  const bool self = pthread_equal(t->Id, pthread_self());
  if (self) t->SelfTerminated = true;
  pthread_mutex_unlock(&t->Lock);
  if (self) {
    // A worker cannot join itself: it is left to end on its own and frees its
    // record when its procedure returns.
    pthread_detach(t->Id);
    return;
  }
  pthread_join(t->Id, nullptr);
  Destroy(t);
}

EventHandle CreateEvent(bool manualReset, bool initiallySet) {
  Event* e = new (std::nothrow) Event;
  if (!e) return nullptr;
  InitMonotonicCond(&e->Signal);
  e->ManualReset = manualReset;
  e->Signalled = initiallySet;
  return e;
}

void SetEvent(EventHandle e) {
  if (!e) return;
  pthread_mutex_lock(&e->Lock);
  if (e->ManualReset) {
    e->Signalled = true;
    ++e->Generation;
    pthread_cond_broadcast(&e->Signal);
  } else if (e->Waiters > e->Releases) {
    ++e->Releases;
    pthread_cond_signal(&e->Signal);
  } else {
    e->Signalled = true;
  }
  pthread_mutex_unlock(&e->Lock);
}

void ResetEvent(EventHandle e) {
  if (!e) return;
  pthread_mutex_lock(&e->Lock);
  e->Signalled = false;
  pthread_mutex_unlock(&e->Lock);
}

namespace {

// Blocks on the event's condition; false once the deadline has passed.
bool Block(Event* e, const struct timespec* deadline) {
  if (!deadline) {
    pthread_cond_wait(&e->Signal, &e->Lock);
    return true;
  }
  return pthread_cond_timedwait(&e->Signal, &e->Lock, deadline) != ETIMEDOUT;
}

}  // namespace

bool WaitEvent(EventHandle e, uint32_t timeoutMs) {
  if (!e) return false;
  struct timespec deadline {};
  if (timeoutMs != kInfinite) {
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += static_cast<time_t>(timeoutMs / 1000);
    deadline.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
      deadline.tv_sec += 1;
      deadline.tv_nsec -= 1000000000L;
    }
  }
  const struct timespec* limit = timeoutMs == kInfinite ? nullptr : &deadline;
  pthread_mutex_lock(&e->Lock);
  bool taken = false;
  if (e->ManualReset) {
    const uint64_t seen = e->Generation;
    while (!e->Signalled && e->Generation == seen && timeoutMs != 0 && Block(e, limit)) {
    }
    taken = e->Signalled || e->Generation != seen;
  } else if (e->Signalled) {
    e->Signalled = false;
    taken = true;
  } else if (timeoutMs != 0) {
    ++e->Waiters;
    bool inTime = true;
    while (e->Releases == 0 && inTime) inTime = Block(e, limit);
    // A release granted as the time ran out still counts: it was meant for
    // a waiter, and this one is leaving.
    if (e->Releases > 0) {
      --e->Releases;
      taken = true;
    }
    --e->Waiters;
  }
  pthread_mutex_unlock(&e->Lock);
  return taken;
}

void CloseEvent(EventHandle e) {
  if (!e) return;
  pthread_cond_destroy(&e->Signal);
  pthread_mutex_destroy(&e->Lock);
  delete e;
}

}  // namespace sx::plat
