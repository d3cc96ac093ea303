#include "platform/linux/linux_network_status.h"

#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <system_error>
#include <vector>

#include "platform/linux/small_files.h"

namespace tessmark::platform::linux_backend {

namespace {

namespace fs = std::filesystem;

// The flags of the connected-state query that Linux can answer.
constexpr uint32_t kFlagModem = 1;
constexpr uint32_t kFlagLan = 2;
constexpr uint32_t kFlagOffline = 32;
constexpr uint32_t kFlagConfigured = 64;

// Link types from /sys/class/net/<if>/type (ARPHRD_* of <linux/if_arp.h>). Wireless
// interfaces report the Ethernet type too.
constexpr long kTypeEther = 1;
constexpr long kTypePpp = 512;
constexpr long kTypeLoopback = 772;
// IFF_LOOPBACK in /sys/class/net/<if>/flags.
constexpr unsigned long kIffLoopback = 0x8;
// RTF_UP and RTF_REJECT in the Flags column of both route tables.
constexpr unsigned long kRouteUp = 0x0001;
constexpr unsigned long kRouteReject = 0x0200;

// A whole number in the given base, the whole text and nothing else.
std::optional<unsigned long> readNumber(const std::string& text, int base) {
  unsigned long value = 0;
  if (!ParseWholeNumber(text, base, value)) return std::nullopt;
  return value;
}

struct Interface {
  std::optional<long> type;
  bool loopback = false;
  bool up = false;
};

// /sys/class/net holds one entry per interface, named after it. Of each we read:
//   type       the link type in decimal: "1" Ethernet or wireless, "512" PPP, "772" loopback
//   flags      the interface flags in hex, "0x1003"; bit 0x8 marks a loopback
//   operstate  "up", "down", "unknown", "dormant", "lowerlayerdown", "notpresent", "testing"
//   carrier    "1" when the link has a carrier, "0" when not; unreadable while the interface
//              is administratively down
// A point-to-point device (PPP, tunnels) often says "unknown" in operstate while it carries
// traffic, so a carrier of 1 counts as up as well.
std::map<std::string, Interface> readInterfaces(const fs::path& folder) {
  std::map<std::string, Interface> interfaces;
  std::error_code error;
  fs::directory_iterator entry(folder, error);
  if (error) return interfaces;
  for (; entry != fs::directory_iterator(); entry.increment(error)) {
    if (error) break;
    const fs::path& path = entry->path();
    Interface interface;
    if (auto type = FirstLine(path / "type")) {
      if (auto number = readNumber(*type, 10)) interface.type = static_cast<long>(*number);
    }
    auto flags = FirstLine(path / "flags");
    auto flagBits = flags ? readNumber(*flags, 16) : std::nullopt;
    interface.loopback =
        interface.type == kTypeLoopback || (flagBits && (*flagBits & kIffLoopback) != 0);
    interface.up = FirstLine(path / "operstate") == "up" || FirstLine(path / "carrier") == "1";
    interfaces[path.filename().string()] = interface;
  }
  return interfaces;
}

std::vector<std::string> fieldsOf(const std::string& line) {
  std::vector<std::string> fields;
  std::istringstream in(line);
  std::string field;
  while (in >> field) fields.push_back(field);
  return fields;
}

// /proc/net/route, the IPv4 routing table: a header line, then one line per route with
// tab-separated columns
//   Iface Destination Gateway Flags RefCnt Use Metric Mask MTU Window IRTT
// for example "eth0\t00000000\t010200C0\t0003\t0\t0\t0\t00000000\t0\t0\t0". Addresses and
// masks are eight hex digits, Flags is hex. A default route has destination and mask
// 00000000 and the RTF_UP flag. Gives the interfaces that hold one; a line that does not read
// is passed over.
std::set<std::string> ipv4DefaultRoutes(const fs::path& path) {
  std::set<std::string> names;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    auto fields = fieldsOf(line);
    if (fields.size() < 8 || fields[0] == "Iface") continue;
    auto destination = readNumber(fields[1], 16);
    auto flags = readNumber(fields[3], 16);
    auto mask = readNumber(fields[7], 16);
    if (!destination || !flags || !mask) continue;
    if (*destination == 0 && *mask == 0 && (*flags & kRouteUp) != 0 && (*flags & kRouteReject) == 0)
      names.insert(fields[0]);
  }
  return names;
}

// /proc/net/ipv6_route, the IPv6 routing table: no header, one line per route with blank
// separated columns
//   destination(32 hex) prefix-length(2 hex) source(32 hex) source-prefix-length(2 hex)
//   next-hop(32 hex) metric(8 hex) refcount(8 hex) use(8 hex) flags(8 hex) device
// A default route has an all-zero destination with prefix length 00 and the RTF_UP flag;
// the kernel's unreachable default on "lo" carries RTF_REJECT and is no way out.
std::set<std::string> ipv6DefaultRoutes(const fs::path& path) {
  std::set<std::string> names;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    auto fields = fieldsOf(line);
    if (fields.size() < 10) continue;
    if (fields[0] != std::string(32, '0') || fields[1] != "00") continue;
    auto flags = readNumber(fields[8], 16);
    if (!flags) continue;
    if ((*flags & kRouteUp) != 0 && (*flags & kRouteReject) == 0) names.insert(fields[9]);
  }
  return names;
}

}  // namespace

// Linux has no single "online" answer, so the state is pieced together:
// 1. Every interface other than loopback is a connection configured (flag 64).
// 2. The machine is connected when such an interface is up and holds a default route, IPv4
//    or IPv6: then traffic for the Internet has a way out.
// 3. Each interface that connects so adds its kind: an Ethernet or wireless device the LAN
//    flag 2, a PPP device the modem flag 1. A tunnel adds neither.
// 4. Configured but not connected adds the offline flag 32.
// Proxies, a busy modem and remote access services are not looked for.
bool LinuxNetworkStatus::connectedState(uint32_t& flags) {
  flags = 0;
  const fs::path root = root_.empty() ? fs::path("/") : fs::path(root_);
  auto interfaces = readInterfaces(root / "sys/class/net");
  auto defaults = ipv4DefaultRoutes(root / "proc/net/route");
  defaults.merge(ipv6DefaultRoutes(root / "proc/net/ipv6_route"));

  bool connected = false;
  for (const auto& [name, interface] : interfaces) {
    if (interface.loopback) continue;
    flags |= kFlagConfigured;
    if (!interface.up || defaults.count(name) == 0) continue;
    connected = true;
    if (interface.type == kTypeEther) flags |= kFlagLan;
    if (interface.type == kTypePpp) flags |= kFlagModem;
  }
  if (!connected && (flags & kFlagConfigured) != 0) flags |= kFlagOffline;
  return connected;
}

}  // namespace tessmark::platform::linux_backend
