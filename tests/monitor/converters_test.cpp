// The converters that every displayed, logged and compared value goes through.

#include <gtest/gtest.h>

#include "monitor/modmain.h"
#include "platform/sim/sim_system.h"

namespace tessmark {
namespace {

TEST(GetTcpPortNumber, SwapsInFloatingPointAndRoundsHalvesToEven) {
  struct Case {
    uint16_t port;
    int32_t shown;
  };
  const Case cases[] = {{80, 80},       {32767, 32767}, {32768, 32768}, {32769, 32770},
                        {32770, 32770}, {33023, 33024}, {33024, 33025}, {49152, 49153},
                        {65535, 65536}, {0, 0},         {443, 443},     {1, 1}};
  for (const Case& c : cases) {
    EXPECT_EQ(GetTcpPortNumber(static_cast<int32_t>(platform::sim::RawPort(c.port))), c.shown)
        << "port " << c.port;
  }
}

TEST(GetIpFromLong, JoinsTheBytesInNetworkOrder) {
  EXPECT_EQ(GetIpFromLong(platform::sim::RawAddress("127.0.0.1")), "127.0.0.1");
  EXPECT_EQ(GetIpFromLong(platform::sim::RawAddress("10.200.3.255")), "10.200.3.255");
  EXPECT_EQ(GetIpFromLong(0), "0.0.0.0");
}

TEST(GetState, NamesEveryStateAndReadsOthersAsListen) {
  const char* names[] = {"CLOSED",  "LISTEN",    "SYN_SENT",  "SYN_RCVD",
                         "ESTAB",   "FIN_WAIT1", "FIN_WAIT2", "CLOSE_WAIT",
                         "CLOSING", "LAST_ACK",  "TIME_WAIT", "DELETE_TCB"};
  for (int32_t s = 1; s <= 12; ++s) EXPECT_EQ(GetState(s), names[s - 1]);
  EXPECT_EQ(GetState(0), "LISTEN");
  EXPECT_EQ(GetState(13), "LISTEN");
  EXPECT_EQ(GetState(-5), "LISTEN");
}

}  // namespace
}  // namespace tessmark
