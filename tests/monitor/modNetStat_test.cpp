// The online state and its sentence for the main window, from the connected-state flags.

#include <gtest/gtest.h>

#include <string>

#include "base/booleans.h"
#include "monitor/modNetStat.h"
#include "platform/sim/sim_system.h"

namespace tessmark {
namespace {

class NetStat : public ::testing::Test {
 protected:
  std::string textFor(bool online, uint32_t flags) {
    sim.online = online;
    sim.onlineFlags = flags;
    return netStat.GetNetConnectString();
  }
  platform::sim::SimSystem sim;
  modNetStat netStat{sim};
};

TEST_F(NetStat, OnlineIsTheSystemsAnswerWhateverTheFlags) {
  sim.online = true;
  sim.onlineFlags = 0;
  EXPECT_EQ(netStat.IsNetConnectOnline(), kTrue);
  sim.online = false;
  sim.onlineFlags = 2 | 64;
  EXPECT_EQ(netStat.IsNetConnectOnline(), kFalse);
}

TEST_F(NetStat, OfflineGivesOneSentenceWhateverTheFlags) {
  EXPECT_EQ(textFor(false, 64 | 32), "Not connected To the internet now.");
  EXPECT_EQ(textFor(false, 0), "Not connected To the internet now.");
}

TEST_F(NetStat, EachFlagAddsItsSentence) {
  EXPECT_EQ(textFor(true, 64), "You have a network connection configured.");
  EXPECT_EQ(textFor(true, 2), "The local system connects To the Internet via a LAN");
  EXPECT_EQ(textFor(true, 1), "The local system uses a modem To connect to the Internet. ");
  EXPECT_EQ(textFor(true, 32), "The connection is currently offline. ");
  EXPECT_EQ(textFor(true, 8), "The local system's modem is busy With a non-Internet connection. ");
  EXPECT_EQ(textFor(true, 16), "Remote Access Services are installed On this system.");
  EXPECT_EQ(textFor(true, 0), "");
}

TEST_F(NetStat, TheProxyBitAloneGivesTheFragmentThatContinuesTheLanSentence) {
  EXPECT_EQ(textFor(true, 4), ", and uses a proxy server. ");
  EXPECT_EQ(textFor(true, 2 | 4),
            "The local system connects To the Internet via a LAN, and uses a proxy server. ");
}

TEST_F(NetStat, SentencesFollowTheirOwnOrderNotTheBitOrder) {
  EXPECT_EQ(textFor(true, 1 | 64),
            "You have a network connection configured."
            "The local system uses a modem To connect to the Internet. ");
  EXPECT_EQ(textFor(true, 127),
            "You have a network connection configured."
            "The local system connects To the Internet via a LAN"
            ", and uses a proxy server. "
            "The local system uses a modem To connect to the Internet. "
            "The connection is currently offline. "
            "The local system's modem is busy With a non-Internet connection. "
            "Remote Access Services are installed On this system.");
}

}  // namespace
}  // namespace tessmark
