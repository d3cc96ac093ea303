#pragma once
// modNetStat: whether the machine is online, and a sentence on how, for the main window.

#include <cstdint>
#include <string>

#include "platform/platform.h"

namespace tessmark {

class modNetStat {
 public:
  explicit modNetStat(platform::NetworkStatus& network) : network_(network) {}

  // -1 when the system reports a connection to the Internet, else 0.
  int16_t IsNetConnectOnline();

  // "Not connected To the internet now." when offline; otherwise the sentences of the
  // connection's flags run together.
  std::string GetNetConnectString();

 private:
  platform::NetworkStatus& network_;
};

}  // namespace tessmark
