#pragma once
// The engine thread's priority. Under load a normal-priority thread that polls every 10 ms is
// starved for tens of milliseconds by busy programs, and a refused connection lives that much
// longer; a real-time priority keeps the poll on time.

namespace tessmark::platform::linux_backend {

// Gives the calling thread the lowest real-time round-robin priority, reset on fork so that no
// child inherits it; where that is not permitted, a nice value of -10; where neither is, leaves
// it as it is. True when the priority was raised.
bool RaiseCallingThreadPriority();

}  // namespace tessmark::platform::linux_backend
