// The monitor's snapshots on the real kernel: another program's sockets, named by its pid and
// its executable, with ports as the system shows them.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "linux/netns.h"
#include "linux/peer_child.h"
#include "monitor/mailbox.h"
#include "monitor/modmain.h"
#include "platform/linux/linux_platform.h"
#include "process/modprocs.h"

namespace tessmark {
namespace {

class RealSnapshot : public ::testing::Test {
 protected:
  platform::linux_backend::LinuxPlatform system;
  Mailbox mailbox;
  modprocs procs{system, mailbox};
  modmain main{system, procs, mailbox};
};

TEST_F(RealSnapshot, AChildsSocketsAppearWithItsPidAndProgram) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  testing::PeerChild peer("socket_peer", {"listen", "40000", "connect", "40000", "udp", "7000"});
  ASSERT_EQ(peer.error(), "");

  ASSERT_EQ(main.GetTCPConnections(-1, 0), -1);
  ASSERT_EQ(main.GetUDPConnections(-1, 0), -1);
  ASSERT_EQ(LastTableIndex(main.TcpConnections), 2) << "listener and both ends of the pair";
  ASSERT_EQ(LastTableIndex(main.UdpConnections), 0);

  const std::string program = testing::PeerPath("socket_peer");
  int listeners = 0, connected = 0;
  for (int32_t i = 0; i <= LastTableIndex(main.TcpConnections); ++i) {
    const ConnectionRecord& r = main.TcpConnections[i];
    EXPECT_EQ(r.ProcessId, peer.pid());
    EXPECT_EQ(r.ProcessPath, program);
    EXPECT_EQ(r.LocalAddress, "127.0.0.1");
    if (r.State == "LISTEN") {
      ++listeners;
      // Port 40000 is above 33023: the record shows it one higher, the row keeps the truth.
      EXPECT_EQ(r.LocalPort, 40001);
      EXPECT_EQ(r.Row.dwLocalPort, htons(40000));
      EXPECT_EQ(r.Row.dwLocalAddr, inet_addr("127.0.0.1"));
    } else {
      EXPECT_EQ(r.State, "ESTAB");
      ++connected;
    }
  }
  EXPECT_EQ(listeners, 1);
  EXPECT_EQ(connected, 2);

  const ConnectionRecord& u = main.UdpConnections[0];
  EXPECT_EQ(u.State, "LISTEN");
  EXPECT_EQ(u.LocalPort, 7000);
  EXPECT_EQ(u.ProcessId, peer.pid());
  EXPECT_EQ(u.ProcessPath, program);

  // Nothing changed: the next poll is quiet.
  EXPECT_EQ(main.GetTCPConnections(-1, 0), 0);
  EXPECT_EQ(main.GetUDPConnections(-1, 0), 0);
}

}  // namespace
}  // namespace tessmark
