#pragma once
// IPv6 rows written as the tests read them: addresses as text, ports as numbers.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "platform/platform.h"

namespace tessmark::testing {

// The sixteen bytes of an IPv6 address as inet_pton gives them.
inline platform::Ipv6Address V6(const char* text) {
  platform::Ipv6Address bytes{};
  EXPECT_EQ(::inet_pton(AF_INET6, text, bytes.data()), 1) << text;
  return bytes;
}

// A table row of an IPv6 socket, its ports in network order as the tables hold them.
inline platform::TcpRow Tcp6Row(uint32_t state, const char* local, int localPort,
                                const char* remote, int remotePort) {
  platform::TcpRow row;
  row.dwState = state;
  row.ipv6 = true;
  row.ucLocalAddr = V6(local);
  row.dwLocalPort = htons(static_cast<uint16_t>(localPort));
  row.ucRemoteAddr = V6(remote);
  row.dwRemotePort = htons(static_cast<uint16_t>(remotePort));
  return row;
}

}  // namespace tessmark::testing
