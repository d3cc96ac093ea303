// The interface table on Linux. From captured files under a temporary root: /proc/net/dev as a
// kernel 6.x prints it (loopback, two idle ifb devices and an Ethernet device) with the sysfs
// attributes of those interfaces. And live, inside the test's private network namespace: the
// loopback counters grow by exactly the bytes the test sends over it, and the traffic code
// counts loopback like any other interface.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/ui_port.h"
#include "linux/netns.h"
#include "platform/linux/linux_adapters.h"
#include "traffic/CIpHelper.h"
#include "traffic/modbandwidth.h"

namespace tessmark::platform::linux_backend {
namespace {

namespace fs = std::filesystem;

const char kProcNetDev[] =
    "Inter-|   Receive                                                |  Transmit\n"
    " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs "
    "drop fifo colls carrier compressed\n"
    "    lo:    3367      31    0    0    0     0          0         0     3367      31    0    "
    "0    0     0       0          0\n"
    "  ifb0:       0       0    0    0    0     0          0         0        0       0    0    "
    "0    0     0       0          0\n"
    "  ifb1:       0       0    0    0    0     0          0         0        0       0    0    "
    "0    0     0       0          0\n"
    "  eth0: 30876918     810    2    3    4     5          6         7    39321     469    8    "
    "9   10    11      12         13\n";

class CapturedAdapters : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/tessmark-adapters-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    root_ = pattern;
    fs::create_directories(root_ / "proc/net");
    fs::create_directories(root_ / "sys/class/net");
  }
  void TearDown() override { fs::remove_all(root_); }

  void procNetDev(const std::string& text) {
    std::ofstream(root_ / "proc/net/dev", std::ios::binary) << text;
  }
  // One sysfs attribute file, with the kernel's line end.
  void attribute(const std::string& interface, const std::string& name, const std::string& value) {
    fs::path path = root_ / "sys/class/net" / interface / name;
    fs::create_directories(path.parent_path());
    std::ofstream(path) << value << "\n";
  }
  // The attributes as this machine's kernel gave them.
  void capturedSysfs() {
    for (auto [name, value] : {std::pair{"ifindex", "1"},
                               {"mtu", "65536"},
                               {"type", "772"},
                               {"operstate", "unknown"},
                               {"carrier", "1"},
                               {"flags", "0x9"},
                               {"address", "00:00:00:00:00:00"},
                               {"addr_len", "6"},
                               {"ifalias", ""},
                               {"statistics/rx_nohandler", "0"}})
      attribute("lo", name, value);
    for (auto [name, value] : {std::pair{"ifindex", "4"},
                               {"mtu", "1400"},
                               {"type", "1"},
                               {"operstate", "up"},
                               {"carrier", "1"},
                               {"flags", "0x1003"},
                               {"address", "02:fc:00:00:00:01"},
                               {"addr_len", "6"},
                               {"speed", "-1"},
                               {"ifalias", "6.18.44-fc-v595"},
                               {"statistics/rx_nohandler", "17"}})
      attribute("eth0", name, value);
    // An ifb device that is administratively down: no carrier to read.
    for (auto [name, value] : {std::pair{"ifindex", "2"},
                               {"mtu", "1500"},
                               {"type", "1"},
                               {"operstate", "down"},
                               {"flags", "0x82"},
                               {"address", "a2:1b:3c:0d:05:60"},
                               {"addr_len", "6"}})
      attribute("ifb0", name, value);
  }
  IfTable read() { return LinuxAdapters(root_.string()).ifTable(); }

  static std::string name(const IfRow& row) {
    std::string text;
    for (char16_t c : row.wszName) {
      if (c == 0) break;
      text += static_cast<char>(c);
    }
    return text;
  }
  static std::string description(const IfRow& row) {
    return std::string(row.bDescr.begin(), row.bDescr.begin() + row.dwDescrLen);
  }

  fs::path root_;
};

TEST_F(CapturedAdapters, EveryInterfaceIsARowInTheKernelsOrder) {
  procNetDev(kProcNetDev);
  capturedSysfs();
  IfTable table = read();
  ASSERT_EQ(table.status, IfTable::Status::Ok);
  ASSERT_EQ(table.rows.size(), 4u);
  EXPECT_EQ(name(table.rows[0]), "lo");
  EXPECT_EQ(name(table.rows[1]), "ifb0");
  EXPECT_EQ(name(table.rows[2]), "ifb1");
  EXPECT_EQ(name(table.rows[3]), "eth0");
}

TEST_F(CapturedAdapters, LoopbackIsARowLikeAnyOther) {
  procNetDev(kProcNetDev);
  capturedSysfs();
  const IfRow lo = read().rows.at(0);
  EXPECT_EQ(lo.dwIndex, 1u);
  EXPECT_EQ(lo.dwType, 24u);  // software loopback
  EXPECT_EQ(lo.dwMtu, 65536u);
  EXPECT_EQ(lo.dwSpeed, 0u);  // the kernel has no speed for it
  EXPECT_EQ(lo.dwAdminStatus, 1u);
  EXPECT_EQ(lo.dwOperStatus, 5u);  // "unknown" with a carrier: working
  EXPECT_EQ(lo.dwPhysAddrLen, 6u);
  EXPECT_EQ(lo.bPhysAddr, (std::array<uint8_t, 8>{}));
  EXPECT_EQ(description(lo), "lo");  // no alias: the name
  EXPECT_EQ(lo.dwInOctets, 3367u);
  EXPECT_EQ(lo.dwOutOctets, 3367u);
  EXPECT_EQ(lo.dwInUcastPkts, 31u);
  EXPECT_EQ(lo.dwOutUcastPkts, 31u);
}

TEST_F(CapturedAdapters, EthernetCountersGoToTheirFields) {
  procNetDev(kProcNetDev);
  capturedSysfs();
  const IfRow eth0 = read().rows.at(3);
  EXPECT_EQ(eth0.dwIndex, 4u);
  EXPECT_EQ(eth0.dwType, 6u);
  EXPECT_EQ(eth0.dwMtu, 1400u);
  EXPECT_EQ(eth0.dwSpeed, 0u);  // "-1": unknown
  EXPECT_EQ(eth0.dwOperStatus, 5u);
  EXPECT_EQ(eth0.dwPhysAddrLen, 6u);
  EXPECT_EQ(eth0.bPhysAddr, (std::array<uint8_t, 8>{0x02, 0xFC, 0, 0, 0, 1, 0, 0}));
  EXPECT_EQ(description(eth0), "6.18.44-fc-v595");  // the alias
  EXPECT_EQ(eth0.dwInOctets, 30876918u);
  EXPECT_EQ(eth0.dwInUcastPkts, 810u - 7u);  // packets less multicast
  EXPECT_EQ(eth0.dwInNUcastPkts, 7u);
  EXPECT_EQ(eth0.dwInErrors, 2u);
  EXPECT_EQ(eth0.dwInDiscards, 3u);
  EXPECT_EQ(eth0.dwInUnknownProtos, 17u);
  EXPECT_EQ(eth0.dwOutOctets, 39321u);
  EXPECT_EQ(eth0.dwOutUcastPkts, 469u);
  EXPECT_EQ(eth0.dwOutErrors, 8u);
  EXPECT_EQ(eth0.dwOutDiscards, 9u);
}

TEST_F(CapturedAdapters, AnInterfaceThatIsDownIsNotOperational) {
  procNetDev(kProcNetDev);
  capturedSysfs();
  const IfRow ifb0 = read().rows.at(1);
  EXPECT_EQ(ifb0.dwAdminStatus, 2u);
  EXPECT_EQ(ifb0.dwOperStatus, 0u);
  // ifb1 has no sysfs folder at all: its counters still come, the rest stays 0.
  const IfRow ifb1 = read().rows.at(2);
  EXPECT_EQ(ifb1.dwIndex, 0u);
  EXPECT_EQ(ifb1.dwType, 1u);  // other
  EXPECT_EQ(ifb1.dwPhysAddrLen, 0u);
  EXPECT_EQ(description(ifb1), "ifb1");
}

TEST_F(CapturedAdapters, KindsAndSpeedsOfOtherInterfaces) {
  procNetDev(
      "wlan0: 1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0\n"
      "  ppp0: 1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0\n"
      "   wg0: 1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0\n"
      "  eth1: 1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0\n"
      "  eth2: 1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0\n");
  attribute("wlan0", "type", "1");
  attribute("wlan0", "wireless/.keep", "");
  attribute("wlan0", "speed", "");  // unreadable in the kernel; empty here
  attribute("ppp0", "type", "512");
  attribute("wg0", "type", "65534");
  attribute("eth1", "type", "1");
  attribute("eth1", "speed", "1000");
  attribute("eth1", "operstate", "dormant");
  attribute("eth1", "flags", "0x1003");
  attribute("eth2", "speed", "10000");  // 10 Gb/s does not fit: the largest value
  attribute("eth2", "operstate", "lowerlayerdown");
  attribute("eth2", "flags", "0x1003");
  IfTable table = read();
  ASSERT_EQ(table.rows.size(), 5u);
  EXPECT_EQ(table.rows[0].dwType, 71u);
  EXPECT_EQ(table.rows[0].dwSpeed, 0u);
  EXPECT_EQ(table.rows[1].dwType, 23u);
  EXPECT_EQ(table.rows[2].dwType, 131u);
  EXPECT_EQ(table.rows[3].dwSpeed, 1000000000u);
  EXPECT_EQ(table.rows[3].dwOperStatus, 3u);  // connecting
  EXPECT_EQ(table.rows[4].dwSpeed, 0xFFFFFFFFu);
  EXPECT_EQ(table.rows[4].dwOperStatus, 2u);  // disconnected
}

TEST_F(CapturedAdapters, CountersAreCutToTheirLow32Bits) {
  procNetDev(
      "Inter-|   Receive                                                |  Transmit\n"
      " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs "
      "drop fifo colls carrier compressed\n"
      "  eth0: 4294967301 4294967296 0 0 0 0 0 0 18446744073709551615 7 0 0 0 0 0 0\n");
  IfTable table = read();
  ASSERT_EQ(table.rows.size(), 1u);
  EXPECT_EQ(table.rows[0].dwInOctets, 5u);
  EXPECT_EQ(table.rows[0].dwInUcastPkts, 0u);
  EXPECT_EQ(table.rows[0].dwOutOctets, 0xFFFFFFFFu);
}

TEST(ProcNetDev, OddLinesAreRejectedAndTheRestStillRead) {
  ProcNetDevTable table = ParseProcNetDev(
      "Inter-|   Receive |  Transmit\n"
      " face |bytes packets\n"
      "  eth0:1234 5 0 0 0 0 0 0 99 1 0 0 0 0 0 0\n"  // older kernels: no blank after the colon
      "  eth1: 1 2 3\n"                               // too few counters
      "  eth2: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17\n"           // too many
      "  eth3: 1 2 3 4 5 6 7 x 9 10 11 12 13 14 15 16\n"              // not a number
      "  eth4: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 -16\n"             // a sign
      "  eth5: 18446744073709551616 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n"  // past 64 bits
      "      : 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n"              // no name
      "no colon at all\n"
      "\n"
      "  eth6: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\r\n"
      "  eth7: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16");  // no line end
  ASSERT_EQ(table.rows.size(), 3u);
  EXPECT_EQ(table.rejectedLines, 7u);
  EXPECT_EQ(table.rows[0].name, "eth0");
  EXPECT_EQ(table.rows[0].rxBytes, 1234u);
  EXPECT_EQ(table.rows[0].txBytes, 99u);
  EXPECT_EQ(table.rows[1].name, "eth6");
  EXPECT_EQ(table.rows[1].txCompressed, 16u);
  EXPECT_EQ(table.rows[2].name, "eth7");
}

TEST(ProcNetDev, GarbageOfAnyKindGivesNoRowsAndNoCrash) {
  std::string bytes;
  for (int i = 0; i < 4096; ++i) bytes += static_cast<char>((i * 7919) % 256);
  EXPECT_TRUE(ParseProcNetDev(bytes).rows.empty());
  EXPECT_TRUE(ParseProcNetDev("").rows.empty());
  EXPECT_TRUE(ParseProcNetDev(std::string(100000, ':')).rows.empty());
}

TEST_F(CapturedAdapters, NoTableIsNotSupportedAndAnUnreadableOneFails) {
  EXPECT_EQ(read().status, IfTable::Status::NotSupported);
  fs::create_directories(root_ / "proc/net/dev");  // a folder cannot be read as the table
  EXPECT_EQ(read().status, IfTable::Status::Failed);
  EXPECT_TRUE(read().rows.empty());
}

TEST_F(CapturedAdapters, OddAttributeFilesLeaveTheirFieldsEmpty) {
  procNetDev("  eth0: 1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0\n");
  attribute("eth0", "ifindex", "four");
  attribute("eth0", "mtu", "99999999999999999999");
  attribute("eth0", "address", "zz:yy");
  attribute("eth0", "addr_len", "6");
  attribute("eth0", "flags", "0xQ");
  attribute("eth0", "speed", "fast");
  IfTable table = read();
  ASSERT_EQ(table.rows.size(), 1u);
  EXPECT_EQ(table.rows[0].dwIndex, 0u);
  EXPECT_EQ(table.rows[0].dwMtu, 0u);
  EXPECT_EQ(table.rows[0].dwPhysAddrLen, 0u);
  EXPECT_EQ(table.rows[0].dwAdminStatus, 2u);
  EXPECT_EQ(table.rows[0].dwSpeed, 0u);
  EXPECT_EQ(table.rows[0].dwInOctets, 1u);
}

// ---- live, on the kernel's loopback inside the private namespace

// Loopback's counters straight from the kernel's text, for comparison.
std::optional<ProcNetDevRow> kernelLoopback() {
  std::ifstream in("/proc/net/dev");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  for (const ProcNetDevRow& row : ParseProcNetDev(text).rows)
    if (row.name == "lo") return row;
  return std::nullopt;
}

std::optional<IfRow> backendLoopback(LinuxAdapters& adapters) {
  IfTable table = adapters.ifTable();
  for (const IfRow& row : table.rows)
    if (row.wszName[0] == u'l' && row.wszName[1] == u'o' && row.wszName[2] == 0) return row;
  return std::nullopt;
}

// Sends `count` UDP datagrams of `payload` bytes from one loopback socket to another and
// takes each in. On loopback each one is counted once sent and once received, with its UDP
// (8) and IP (20) headers but without the Ethernet header, which the loopback device strips
// before it counts: payload + 28 bytes each way.
void sendOverLoopback(int count, size_t payload) {
  int receiver = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  int sender = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(receiver, 0);
  ASSERT_GE(sender, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(receiver, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  socklen_t length = sizeof address;
  ASSERT_EQ(::getsockname(receiver, reinterpret_cast<sockaddr*>(&address), &length), 0);
  std::vector<char> data(payload, 'x');
  std::vector<char> in(payload + 1);
  for (int i = 0; i < count; ++i) {
    ASSERT_EQ(::sendto(sender, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&address),
                       sizeof address),
              static_cast<ssize_t>(payload));
    ASSERT_EQ(::recv(receiver, in.data(), in.size(), 0), static_cast<ssize_t>(payload));
  }
  ::close(sender);
  ::close(receiver);
}

TEST(LiveAdapters, LoopbackCountersMatchTheKernelAndGrowByWhatWasSent) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  LinuxAdapters adapters;
  auto before = backendLoopback(adapters);
  ASSERT_TRUE(before.has_value()) << "no loopback row";
  // Nothing else sends in this namespace: the backend and the kernel's text agree.
  auto kernel = kernelLoopback();
  ASSERT_TRUE(kernel.has_value());
  EXPECT_EQ(before->dwInOctets, static_cast<uint32_t>(kernel->rxBytes));
  EXPECT_EQ(before->dwOutOctets, static_cast<uint32_t>(kernel->txBytes));
  EXPECT_EQ(before->dwType, 24u);

  sendOverLoopback(100, 972);  // 100 * (972 + 28) = 100,000 bytes each way
  auto after = backendLoopback(adapters);
  ASSERT_TRUE(after.has_value());
  EXPECT_EQ(after->dwInOctets - before->dwInOctets, 100000u);
  EXPECT_EQ(after->dwOutOctets - before->dwOutOctets, 100000u);
  EXPECT_EQ(after->dwInUcastPkts - before->dwInUcastPkts, 100u);
  kernel = kernelLoopback();
  ASSERT_TRUE(kernel.has_value());
  EXPECT_EQ(after->dwInOctets, static_cast<uint32_t>(kernel->rxBytes));
}

// A clock the test moves by hand, so the rate has a known time base.
class HandClock final : public Clock {
 public:
  uint32_t tickCount() override { return now; }
  void sleep(uint32_t milliseconds) override { now += milliseconds; }
  std::string dateText() override { return {}; }
  std::string timeText() override { return {}; }
  uint32_t now = 1000;
};

TEST(LiveAdapters, LoopbackTrafficIsARateLikeAnyOther) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  LinuxAdapters adapters;
  HandClock clock;
  SilentUi ui;
  modbandwidth bandwidth(adapters, clock, ui);
  int32_t totalReceived = 0, totalSent = 0, rateReceived = 0, rateSent = 0;
  bandwidth.CalculateBandwidth(totalReceived, totalSent, rateReceived, rateSent);

  // 3,072,000 bytes each way in 3000 ms is 1000 units of 1024 bytes a second.
  sendOverLoopback(3000, 996);  // 3000 * (996 + 28)
  clock.now += 3000;
  bandwidth.CalculateBandwidth(totalReceived, totalSent, rateReceived, rateSent);
  EXPECT_EQ(rateReceived, 1000);
  EXPECT_EQ(rateSent, 1000);

  // The sums are those of every interface the kernel lists, loopback among them (a new
  // namespace may also hold idle fallback tunnel devices).
  CIpHelper helper(adapters, ui);
  helper.Interfaces();
  std::ifstream in("/proc/net/dev");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  uint32_t received = 0, sent = 0;
  for (const ProcNetDevRow& row : ParseProcNetDev(text).rows) {
    received += static_cast<uint32_t>(row.rxBytes);
    sent += static_cast<uint32_t>(row.txBytes);
  }
  EXPECT_EQ(helper.BytesReceived(), static_cast<int32_t>(received));
  EXPECT_EQ(helper.BytesSent(), static_cast<int32_t>(sent));
}

}  // namespace
}  // namespace tessmark::platform::linux_backend
