#pragma once
// The last line of defence against programs left frozen: a fixed table of the processes this
// program holds stopped, kept so that a fatal-signal handler can continue them without taking
// a lock or allocating.

#include <cstdint>

namespace tessmark::platform::linux_backend {

// Records a held process. `pidfd` may be -1; with it the release hits exactly the process that
// was held even if its id has been reused since. False when the table is full.
bool RegisterFatalRelease(int32_t pid, int pidfd);
void UnregisterFatalRelease(int32_t pid);

// Sends SIGCONT to every registered process. Async-signal-safe.
void ContinueRegisteredHolds();

// Handlers for the faults (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGSYS, SIGTRAP) and the
// exceeded limits (SIGXCPU, SIGXFSZ) that continue every registered process, then let the
// signal take its default course.
void InstallFatalReleaseHandlers();

}  // namespace tessmark::platform::linux_backend
