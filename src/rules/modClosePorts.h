#pragma once
// modClosePorts: well-known services the user can close as a whole. Any connection whose
// local port is a ticked service is broken, whatever program owns it. The 17 boxes are the
// state while the program runs; the setting is read at start and written at exit.

#include <array>
#include <cstdint>
#include <string>

#include "base/message_pump.h"
#include "platform/platform.h"
#include "rules/modSecureConfig.h"

namespace tessmark {

// A check box of the "Block Services" page: 1 ticked, 0 not (2 would be a grey box).
struct CheckBox {
  std::string Caption;
  int16_t Value = 0;
};

inline constexpr int kServiceCount = 17;

class modClosePorts {
 public:
  modClosePorts(platform::SettingsStore& store, modSecureConfig& secure, MessagePump& pump);

  // Restores the boxes from "Ports"/"Ports", then rebuilds ClosedPorts in any case. The i-th
  // box takes the i-th character, and a short setting repeats its last one.
  void LoadPorts();
  // Stores one digit per box, then reseals the settings.
  void SavePorts();
  // Entry i + 1 becomes the port of box i when it is ticked, -1 otherwise. The port is read
  // from the first four characters of the box's caption.
  void RefreshClosedPorts();
  // -1 when the port is closed. Yields before each comparison, so the screen lives on.
  int16_t IsClosedPort(int32_t& port);
  // The service's text, "" for a port of no service.
  static std::string GetPortName(int32_t& port);
  // "n" for the ordinary services, "h" for every other port.
  static std::string PortRating(int32_t& port);

  // Check4(0..16), in the order of the setting.
  std::array<CheckBox, kServiceCount> Check4;
  // Entries 1 to 17; entry 0 is unused.
  std::array<int32_t, kServiceCount + 1> ClosedPorts{};

 private:
  platform::SettingsStore& store_;
  modSecureConfig& secure_;
  MessagePump& pump_;
};

}  // namespace tessmark
