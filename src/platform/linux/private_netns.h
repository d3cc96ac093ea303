#pragma once
// A private network namespace for the calling process: its connection tables then hold only
// the sockets made inside it. Tests and benchmarks use it; the firewall itself never does.

#include <string>

namespace tessmark::platform::linux_backend {

// Moves the process into a new network namespace with loopback up. Empty on success,
// otherwise the reason it could not be done. Call it before any thread is started.
std::string EnterPrivateNetworkNamespace();

}  // namespace tessmark::platform::linux_backend
