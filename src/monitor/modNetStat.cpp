#include "monitor/modNetStat.h"

#include <array>

#include "base/booleans.h"

namespace tessmark {

int16_t modNetStat::IsNetConnectOnline() {
  uint32_t flags = 0;
  return network_.connectedState(flags) ? kTrue : kFalse;
}

std::string modNetStat::GetNetConnectString() {
  uint32_t flags = 0;
  if (!network_.connectedState(flags)) return "Not connected To the internet now.";
  // The sentences follow one another in this order, not in the order of the bits; the LAN
  // sentence has no stop so that the proxy fragment continues it.
  struct Sentence {
    uint32_t bit;
    const char* text;
  };
  static const std::array<Sentence, 7> kSentences = {{
      {64, "You have a network connection configured."},
      {2, "The local system connects To the Internet via a LAN"},
      {4, ", and uses a proxy server. "},
      {1, "The local system uses a modem To connect to the Internet. "},
      {32, "The connection is currently offline. "},
      {8, "The local system's modem is busy With a non-Internet connection. "},
      {16, "Remote Access Services are installed On this system."},
  }};
  std::string text;
  for (const Sentence& sentence : kSentences) {
    if ((flags & sentence.bit) != 0) text += sentence.text;
  }
  return text;
}

}  // namespace tessmark
