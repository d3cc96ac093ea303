#include "base/connection_record.h"

#include <array>
#include <cmath>
#include <cstring>

namespace tessmark {

int32_t LastTableIndex(const ConnectionTable& table) {
  // Upper bound minus 1: the surplus record behind the rows is never walked.
  return table.empty() ? -1 : static_cast<int32_t>(table.size()) - 2;
}

std::string GetIpFromLong(uint32_t address) {
  std::array<unsigned char, 4> bytes;
  std::memcpy(bytes.data(), &address, bytes.size());
  return std::to_string(bytes[0]) + "." + std::to_string(bytes[1]) + "." +
         std::to_string(bytes[2]) + "." + std::to_string(bytes[3]);
}

int32_t GetTcpPortNumber(int32_t raw) {
  // The swap of the two port bytes is done in floating point: the high byte lands in the
  // fraction, and the nearest integer (halves to even) lifts ports from 32768 up.
  double low = static_cast<double>((raw % 256) * 256);
  double value = low + static_cast<double>(raw) / 256.0;
  return static_cast<int32_t>(std::nearbyint(value));
}

std::string GetState(int32_t state) {
  static const std::array<const char*, 12> kStates = {
      "CLOSED",    "LISTEN",     "SYN_SENT", "SYN_RCVD", "ESTAB",     "FIN_WAIT1",
      "FIN_WAIT2", "CLOSE_WAIT", "CLOSING",  "LAST_ACK", "TIME_WAIT", "DELETE_TCB"};
  if (state < 1 || state > static_cast<int32_t>(kStates.size())) return "LISTEN";
  return kStates[state - 1];
}

}  // namespace tessmark
