#pragma once
// Whether this Linux machine is online, and how, in the flags of the connected-state query.

#include <cstdint>
#include <string>

#include "platform/platform.h"

namespace tessmark::platform::linux_backend {

class LinuxNetworkStatus final : public NetworkStatus {
 public:
  // root: where /proc and /sys are found; tests pass a folder of captured files.
  explicit LinuxNetworkStatus(std::string root = "") : root_(std::move(root)) {}
  bool connectedState(uint32_t& flags) override;

 private:
  std::string root_;
};

}  // namespace tessmark::platform::linux_backend
