#pragma once
// Holding one thread by ptrace: the thread is seized and interrupted, which stops it in a
// trace stop that neither its parent nor a shell's job control ever sees (no "Stopped", no
// SIGCHLD, the job stays in the foreground), that SIGCONT from anyone else cannot end, and that
// the kernel ends by itself if the tracing thread dies, however it dies. Signals that arrive
// during the hold stay pending and are delivered after it.
//
// Every call for a thread must come from the thread that seized it: the kernel ties a tracee
// to one tracing thread, not to the process.

#include <sys/types.h>

#include <chrono>
#include <cstdint>

namespace tessmark::platform::linux_backend {

enum class SeizeResult {
  kHeld,     // traced and asked to stop (see TracedThread::stopSeen)
  kRefused,  // tracing is not allowed: already traced by a debugger, or no right to trace
  kGone,     // no such thread
};

struct TracedThread {
  pid_t tid = 0;
  bool stopSeen = false;  // the stop was reported: the thread runs nothing until detached
  int pendingSignal = 0;  // a signal the thread stopped to take; handed back at the detach
};

// Seizes `tid` and interrupts it. The stop follows within microseconds, once the thread gets a
// processor (a thread in an uninterruptible sleep stops when the sleep ends); it is not waited
// for here.
SeizeResult SeizeAndStop(TracedThread& thread);

// Takes the thread's stop report if one waits, without waiting. False once the thread no longer
// exists as a tracee (it ended, or was let go). A report that another thread of this process
// took (a parent's wait from the tracer's own process sees its traced children's stops) is
// missed; Detach copes.
bool CollectStop(TracedThread& thread);

enum class DetachResult {
  kLetGo,       // it runs on
  kGone,        // it ended
  kNotStopped,  // its stop is still due (it sleeps uninterruptibly, or waits for a processor)
};

// Lets the thread run on, handing back the signal it stopped for. A stop still due is waited
// for up to `wait`; a thread whose stop comes later must be let go then, or it stays stopped.
DetachResult Detach(TracedThread& thread, std::chrono::microseconds wait);

// After the thread's process ended: takes the thread's end so that the process's real parent
// is told at once. The main thread of a child of this very process is left for the code that
// started it to reap, since taking its end would take the exit status from that code.
void ReapEnded(const TracedThread& thread, pid_t processId, pid_t realParent);

}  // namespace tessmark::platform::linux_backend
