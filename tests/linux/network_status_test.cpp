// Whether the machine is online, read from captured /sys/class/net and /proc/net route files
// under a temporary root. The captures come from a kernel 6.x: an Ethernet interface with a
// default route through 192.0.2.1, two interfaces that are down, and loopback.

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "linux/netns.h"
#include "platform/linux/linux_network_status.h"

namespace tessmark::platform::linux_backend {
namespace {

namespace fs = std::filesystem;

const char kRouteHeader[] =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT"
    "                                                       \n";
const char kEth0Default[] =
    "eth0\t00000000\t010200C0\t0003\t0\t0\t0\t00000000\t0\t0\t0"
    "                                                                               \n";
const char kEth0Lan[] =
    "eth0\t000200C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0"
    "                                                                               \n";
const char kIpv6Routes[] =
    "fe800000000000000000000000000000 40 00000000000000000000000000000000 00 "
    "00000000000000000000000000000000 00000100 00000002 00000000 00000001     eth0\n"
    "00000000000000000000000000000001 80 00000000000000000000000000000000 00 "
    "00000000000000000000000000000000 00000000 00000002 00000000 80200001       lo\n"
    "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
    "00000000000000000000000000000000 ffffffff 00000001 00000000 00200200       lo\n";
const char kIpv6Default[] =
    "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
    "fd000000000000000000000000000001 00000400 00000002 00000000 00000003     eth0\n";

class NetworkStatusFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/tessmark-net-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    root_ = pattern;
    fs::create_directories(root_ / "proc/net");
    fs::create_directories(root_ / "sys/class/net");
  }
  void TearDown() override { fs::remove_all(root_); }

  // One interface's attributes; an empty carrier leaves the file out, as an interface that
  // is administratively down gives none to read.
  void interface(const std::string& name, const std::string& type, const std::string& flags,
                 const std::string& operstate, const std::string& carrier) {
    fs::path folder = root_ / "sys/class/net" / name;
    fs::create_directories(folder);
    std::ofstream(folder / "type") << type << "\n";
    std::ofstream(folder / "flags") << flags << "\n";
    std::ofstream(folder / "operstate") << operstate << "\n";
    if (!carrier.empty()) std::ofstream(folder / "carrier") << carrier << "\n";
  }
  void loopback() { interface("lo", "772", "0x9", "unknown", "1"); }
  void routes(const std::string& text) { std::ofstream(root_ / "proc/net/route") << text; }
  void ipv6Routes(const std::string& text) { std::ofstream(root_ / "proc/net/ipv6_route") << text; }

  bool connected(uint32_t& flags) {
    return LinuxNetworkStatus(root_.string()).connectedState(flags);
  }

  fs::path root_;
};

TEST_F(NetworkStatusFiles, EthernetWithADefaultRouteIsOnlineThroughTheLan) {
  loopback();
  interface("eth0", "1", "0x1003", "up", "1");
  interface("ifb0", "1", "0x82", "down", "");
  routes(std::string(kRouteHeader) + kEth0Default + kEth0Lan);
  ipv6Routes(kIpv6Routes);
  uint32_t flags = 0;
  EXPECT_TRUE(connected(flags));
  EXPECT_EQ(flags, 2u | 64u);
}

TEST_F(NetworkStatusFiles, AWirelessDeviceIsALanToo) {
  loopback();
  interface("eth0", "1", "0x1002", "down", "");
  interface("wlan0", "1", "0x1003", "up", "1");
  routes(std::string(kRouteHeader) +
         "wlan0\t00000000\t0101A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n");
  uint32_t flags = 0;
  EXPECT_TRUE(connected(flags));
  EXPECT_EQ(flags, 2u | 64u);
}

TEST_F(NetworkStatusFiles, APppDeviceWithCarrierIsAModemEvenInStateUnknown) {
  loopback();
  interface("ppp0", "512", "0x10d1", "unknown", "1");
  routes(std::string(kRouteHeader) +
         "ppp0\t00000000\t00000000\t0001\t0\t0\t0\t00000000\t0\t0\t0\n");
  uint32_t flags = 0;
  EXPECT_TRUE(connected(flags));
  EXPECT_EQ(flags, 1u | 64u);
}

TEST_F(NetworkStatusFiles, ATunnelCarryingTheDefaultRouteIsOnlineWithoutAKind) {
  loopback();
  interface("tun0", "65534", "0x1091", "unknown", "1");
  interface("eth0", "1", "0x1003", "up", "1");
  routes(std::string(kRouteHeader) +
         "tun0\t00000000\t00000000\t0001\t0\t0\t0\t00000000\t0\t0\t0\n" + kEth0Lan);
  uint32_t flags = 0;
  EXPECT_TRUE(connected(flags));
  EXPECT_EQ(flags, 64u);
}

TEST_F(NetworkStatusFiles, AnIpv6DefaultRouteIsAWayOutToo) {
  loopback();
  interface("eth0", "1", "0x1003", "up", "1");
  routes(std::string(kRouteHeader) + kEth0Lan);
  ipv6Routes(std::string(kIpv6Routes) + kIpv6Default);
  uint32_t flags = 0;
  EXPECT_TRUE(connected(flags));
  EXPECT_EQ(flags, 2u | 64u);
}

TEST_F(NetworkStatusFiles, ConfiguredButWithoutAWayOutIsOffline) {
  loopback();
  interface("eth0", "1", "0x1003", "up", "1");
  // Only the local network's route, and the kernel's unreachable IPv6 default on loopback.
  routes(std::string(kRouteHeader) + kEth0Lan);
  ipv6Routes(kIpv6Routes);
  uint32_t flags = 0;
  EXPECT_FALSE(connected(flags));
  EXPECT_EQ(flags, 32u | 64u);
}

TEST_F(NetworkStatusFiles, ADefaultRouteOnADownInterfaceIsNoWayOut) {
  loopback();
  interface("eth0", "1", "0x1002", "down", "");
  routes(std::string(kRouteHeader) + kEth0Default);
  uint32_t flags = 0;
  EXPECT_FALSE(connected(flags));
  EXPECT_EQ(flags, 32u | 64u);
}

TEST_F(NetworkStatusFiles, LoopbackAloneIsNothingConfigured) {
  loopback();
  routes(std::string(kRouteHeader) + "lo\t00000000\t00000000\t0001\t0\t0\t0\t00000000\t0\t0\t0\n");
  uint32_t flags = 99;
  EXPECT_FALSE(connected(flags));
  EXPECT_EQ(flags, 0u);
}

TEST_F(NetworkStatusFiles, MissingFilesGiveOfflineAndNothingConfigured) {
  fs::remove_all(root_ / "sys");
  fs::remove_all(root_ / "proc");
  uint32_t flags = 99;
  EXPECT_FALSE(connected(flags));
  EXPECT_EQ(flags, 0u);
  EXPECT_FALSE(LinuxNetworkStatus(root_.string() + "/nowhere").connectedState(flags));
}

TEST_F(NetworkStatusFiles, OddFilesAreReadAsFarAsTheyMakeSense) {
  loopback();
  // No type, garbage state: configured, never up.
  fs::create_directories(root_ / "sys/class/net/odd0");
  std::ofstream(root_ / "sys/class/net/odd0/operstate") << "\x01\x02\xff";
  // A plain file where an interface folder should be.
  std::ofstream(root_ / "sys/class/net/stray") << "x";
  interface("eth0", "one", "zz", "up", "");
  routes(std::string(kRouteHeader) + "eth0\t0000000G\t0\t0003\n" +
         "eth0 00000000 010200C0 zz 0 0 0 00000000\n" + "\n" + "short line\n" +
         "odd0\t00000000\t010200C0\t0003\t0\t0\t0\t00000000\t0\t0\t0\n");
  ipv6Routes("nonsense\n00 00\n");
  uint32_t flags = 0;
  EXPECT_FALSE(connected(flags));
  EXPECT_EQ(flags, 32u | 64u);

  // The same eth0 with a readable default route is up and connected, but of no known kind.
  routes(std::string(kRouteHeader) + kEth0Default);
  EXPECT_TRUE(connected(flags));
  EXPECT_EQ(flags, 64u);
}

TEST(NetworkStatusLive, APrivateNamespaceWithLoopbackOnlyIsOffline) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  // The namespace's /sys/class/net may still show the host's interfaces when sysfs was not
  // remounted for it; /proc/net/route is the namespace's own and holds no default route.
  uint32_t flags = 0;
  EXPECT_FALSE(LinuxNetworkStatus().connectedState(flags));
  EXPECT_EQ(flags & (1u | 2u), 0u);
}

}  // namespace
}  // namespace tessmark::platform::linux_backend
