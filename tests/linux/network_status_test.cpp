// Whether the machine is online: from captured kernel 6.x files, and live in the namespace.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "linux/netns.h"
#include "platform/linux/linux_network_status.h"

namespace tessmark::platform::linux_backend {
namespace {

namespace fs = std::filesystem;

// /proc/net/route lines: default routes (destination and mask 0, RTF_UP) and the route of
// eth0's local network 192.0.2.0/24.
std::string Via(const std::string& name) {
  return name + "\t00000000\t010200C0\t0003\t0\t0\t0\t00000000\t0\t0\t0                   \n";
}
const std::string kOddRoutes =
    "eth0\t0000000G\t0\t0003\neth0 00000000 010200C0 zz 0 0 0 00000000\n\nx\n" + Via("odd0");
const std::string kLan = "eth0\t000200C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0      \n";
// A line of /proc/net/ipv6_route: a default route on eth0.
const std::string kIpv6Default =
    "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
    "fd000000000000000000000000000001 00000400 00000002 00000000 00000003     eth0\n";

// An interface: "name:type:flags:operstate:carrier", an empty one left out (one that is down
// gives no carrier); a name alone is a plain file where an interface's folder should be.
const char *kLo = "lo:772:0x9:unknown:1", *kEth0 = "eth0:1:0x1003:up:1",
           *kEth0Down = "eth0:1:0x1002:down", *kOddEth0 = "eth0:one:zz:up";

struct Case {
  bool connected;
  uint32_t flags;  // 1 modem, 2 LAN, 32 offline, 64 configured
  const char* what;
  std::vector<std::string> interfaces;
  std::string routes, ipv6Routes = "";  // an empty text leaves its file out
};

// Online when an interface but loopback is up and holds a default route, IPv4 or IPv6; Ethernet
// and wireless add LAN, PPP (up by its carrier in state unknown) modem, a tunnel neither. Odd
// files (no type, a garbage state, lines that do not read) count as far as they make sense.
TEST(NetworkStatusFiles, OnlineWhenAnInterfaceThatIsUpHoldsADefaultRoute) {
  const std::vector<Case> cases = {
      {true, 2 | 64, "Ethernet", {kLo, kEth0, "ifb0:1:0x82:down"}, Via("eth0") + kLan},
      {true, 2 | 64, "wireless", {kLo, kEth0Down, "wlan0:1:0x1003:up"}, Via("wlan0")},
      {true, 1 | 64, "PPP", {kLo, "ppp0:512:0x10d1:unknown:1"}, Via("ppp0")},
      {true, 64, "tunnel", {kLo, "tun0:65534:0x1091:unknown:1", kEth0}, Via("tun0") + kLan},
      {true, 2 | 64, "IPv6", {kLo, kEth0}, kLan, kIpv6Default},
      {false, 32 | 64, "no way out", {kLo, kEth0}, kLan},
      {false, 32 | 64, "down", {kLo, kEth0Down}, Via("eth0")},
      {false, 0, "loopback alone is nothing configured", {kLo}, Via("lo")},
      {false, 0, "no files at all", {}, ""},
      {false, 32 | 64, "odd", {kLo, "odd0:::\x01\x02\xff", "stray", kOddEth0}, kOddRoutes, "x\n"},
      {true, 64, "odd with a way out", {kLo, kOddEth0}, Via("eth0")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    char pattern[] = "/tmp/tessmark-net-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    const fs::path root = pattern;
    auto write = [](const fs::path& path, const std::string& text) {
      fs::create_directories(path.parent_path());
      std::ofstream(path) << text;
    };
    for (const std::string& interface : c.interfaces) {
      std::istringstream in(interface);
      std::string name, value;
      std::getline(in, name, ':');
      if (name == interface) write(root / "sys/class/net" / name, "x");
      for (const char* file : {"type", "flags", "operstate", "carrier"})
        if (std::getline(in, value, ':') && !value.empty())
          write(root / "sys/class/net" / name / file, value + "\n");
    }
    if (!c.routes.empty()) write(root / "proc/net/route", c.routes);
    if (!c.ipv6Routes.empty()) write(root / "proc/net/ipv6_route", c.ipv6Routes);
    uint32_t flags = 99;
    EXPECT_EQ(LinuxNetworkStatus(root.string()).connectedState(flags), c.connected);
    EXPECT_EQ(flags, c.flags);
    fs::remove_all(root);
  }
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
