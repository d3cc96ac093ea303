#pragma once
// Where the firewall keeps its files on a Linux desktop.

#include <string>

namespace tessmark::platform::linux_backend {

// The hold ledger: $XDG_RUNTIME_DIR/tessmark-held-programs, else the user's configuration
// folder ($XDG_CONFIG_HOME, by default ~/.config) + "/Tessmark Personal Firewall/
// held-programs". Empty when neither can be had. The folder is made when missing.
std::string DefaultHoldLedgerPath();

}  // namespace tessmark::platform::linux_backend
