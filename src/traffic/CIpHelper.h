#pragma once
// CIpHelper: reads the system's interface table into a CInterfaces collection and sums the
// octet counters of every row, loopback included, into BytesReceived and BytesSent. A read
// happens only when Interfaces is got.

#include <cstdint>
#include <memory>

#include "base/ui_port.h"
#include "platform/platform.h"
#include "traffic/CInterfaces.h"

namespace tessmark {

// Shown in a plain box at each read on a system that offers no interface table.
inline constexpr char kIpHelperNotSupported[] = "IP Helper is not supported by this system.";

class CIpHelper {
 public:
  CIpHelper(platform::Adapters& adapters, UiPort& ui) : adapters_(adapters), ui_(ui) {}

  // Replaces the held collection; reads nothing.
  void setInterfaces(std::shared_ptr<CInterfaces> Interfaces) {
    interfaces_ = std::move(Interfaces);
  }
  // Lets go of the held collection, reads the table into a new one and gives it.
  std::shared_ptr<CInterfaces> Interfaces();
  // The sums of the last read, wrapped at 32 bits; 0 before the first read.
  int32_t BytesReceived() const { return bytesReceived_; }
  int32_t BytesSent() const { return bytesSent_; }

 private:
  // Its result is never set and no caller reads it.
  bool ReadInterfaces(CInterfaces& interfaces);

  platform::Adapters& adapters_;
  UiPort& ui_;
  std::shared_ptr<CInterfaces> interfaces_;
  int32_t bytesReceived_ = 0;
  int32_t bytesSent_ = 0;
};

}  // namespace tessmark
