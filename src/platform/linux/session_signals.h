#pragma once
// The end of the desktop session as signals: SIGTERM, SIGINT and SIGHUP, and every other signal
// that would end the program and can be caught (SIGQUIT, SIGUSR1, the real-time signals, ...).
// They are blocked in every thread and taken by the host's own thread, so the engine is never
// interrupted in the middle of a walk and the end is always the orderly one. SIGPIPE is
// ignored. The faults are fatal_release.h's.

#include <cstdint>

namespace tessmark::platform::linux_backend {

// Call before any other thread starts, so every thread inherits the block.
void BlockSessionSignals();

// Waits up to `milliseconds` for one of the signals: its number, or 0 when none came.
int WaitForSessionSignal(uint32_t milliseconds);

}  // namespace tessmark::platform::linux_backend
