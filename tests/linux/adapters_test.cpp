// The interface table on Linux: from captured kernel files, and live on loopback.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "linux/loopback.h"
#include "linux/netns.h"
#include "platform/linux/linux_adapters.h"

namespace tessmark::platform::linux_backend {
namespace {

namespace fs = std::filesystem;

// A row as: name 'description' index type mtu speed admin oper address-length, in: octets unicast
// non-unicast errors discards unknown-protocols, out: octets unicast errors discards; address.
std::string Summary(const IfRow& r) {
  std::string text(r.wszName.begin(), std::find(r.wszName.begin(), r.wszName.end(), u'\0'));
  text += " '" + std::string(r.bDescr.begin(), r.bDescr.begin() + r.dwDescrLen) + "'";
  for (uint32_t n :
       {r.dwIndex, r.dwType, r.dwMtu, r.dwSpeed, r.dwAdminStatus, r.dwOperStatus, r.dwPhysAddrLen,
        r.dwInOctets, r.dwInUcastPkts, r.dwInNUcastPkts, r.dwInErrors, r.dwInDiscards,
        r.dwInUnknownProtos, r.dwOutOctets, r.dwOutUcastPkts, r.dwOutErrors, r.dwOutDiscards})
    text += " " + std::to_string(n);
  text += " ";
  for (uint8_t b : r.bPhysAddr) text += {"0123456789abcdef"[b >> 4], "0123456789abcdef"[b & 15]};
  return text;
}

class CapturedAdapters : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(::mkdtemp(root_.data()), nullptr); }
  void TearDown() override { fs::remove_all(root_); }
  // Sysfs attribute files, "interface/name=value" between blanks, each with the kernel's line end.
  void attributes(const std::string& files) {
    std::istringstream in(files);
    for (std::string file; in >> file;) {
      fs::path path = root_ + "/sys/class/net/" + file.substr(0, file.find('='));
      fs::create_directories(path.parent_path());
      std::ofstream(path) << file.substr(file.find('=') + 1) << "\n";
    }
  }
  IfTable read() { return LinuxAdapters(root_).ifTable(); }

  std::string root_ = "/tmp/tessmark-adapters-XXXXXX";
};

TEST_F(CapturedAdapters, ReadsEveryInterfaceInTheKernelsOrderAndNothingWithoutATable) {
  // Up to eth0 as a kernel 6.x printed it, more kinds of device, then lines a parser may meet:
  // no blank after the colon (older kernels), too few or many counters, not a number, a sign,
  // past 64 bits, no name, no colon, a blank line, CR LF, and no last line end.
  const std::string dev =
      R"(Inter-|   Receive                                                |  Transmit
 face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls carrier compressed
    lo:    3367      31    0    0    0     0          0         0     3367      31    0    0    0     0       0          0
  ifb0:       0       0    0    0    0     0          0         0        0       0    0    0    0     0       0          0
  ifb1:       0       0    0    0    0     0          0         0        0       0    0    0    0     0       0          0
  eth0: 30876918     810    2    3    4     5          6         7    39321     469    8    9   10    11      12         13
wlan0: 1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0
  ppp0: 1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0
   wg0: 1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0
  eth1: 1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0
  eth2: 4294967301 4294967296 0 0 0 0 0 0 18446744073709551615 7 0 0 0 0 0 0
  old0:1234 5 0 0 0 0 0 0 99 1 0 0 0 0 0 0
  bad1: 1 2 3
  bad2: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17
  bad3: 1 2 3 4 5 6 7 x 9 10 11 12 13 14 15 16
  bad4: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 -16
  bad5: 18446744073709551616 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0
      : 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16
no colon at all

)"
      "crlf0: 1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0\r\nlast0: 1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0";
  EXPECT_EQ(read().status, IfTable::Status::NotSupported);  // no table at all
  fs::create_directories(root_ + "/proc/net/dev");          // a folder cannot be read as the table
  EXPECT_EQ(read().status, IfTable::Status::Failed);
  EXPECT_TRUE(read().rows.empty());
  fs::remove(root_ + "/proc/net/dev");
  std::ofstream(root_ + "/proc/net/dev") << dev;
  EXPECT_EQ(ParseProcNetDev(dev).rejectedLines, 7u);
  // As the same kernel gave them; ifb0 is administratively down (no carrier to read) and ifb1
  // has no sysfs folder at all. A wireless device's speed cannot be read; it is empty here.
  // wg0's other files do not read; 10 Gb/s (eth2) does not fit in 32 bits.
  attributes(R"(lo/ifindex=1 lo/mtu=65536 lo/type=772 lo/operstate=unknown lo/carrier=1 lo/flags=0x9
lo/address=00:00:00:00:00:00 lo/addr_len=6 lo/ifalias= lo/statistics/rx_nohandler=0 eth0/ifindex=4
eth0/mtu=1400 eth0/type=1 eth0/operstate=up eth0/carrier=1 eth0/flags=0x1003 eth0/speed=-1
eth0/address=02:fc:00:00:00:01 eth0/addr_len=6 eth0/ifalias=6.18.44-fc-v595
eth0/statistics/rx_nohandler=17 ifb0/ifindex=2 ifb0/mtu=1500 ifb0/type=1 ifb0/operstate=down
ifb0/flags=0x82 ifb0/address=a2:1b:3c:0d:05:60 ifb0/addr_len=6 wlan0/type=1 wlan0/wireless/.keep=
wlan0/speed= ppp0/type=512 wg0/type=65534 eth1/type=1 eth1/speed=1000 eth1/operstate=dormant
eth1/flags=0x1003 wg0/ifindex=four wg0/mtu=99999999999999999999 wg0/address=zz:yy wg0/addr_len=6
wg0/flags=0xQ wg0/speed=fast eth2/speed=10000 eth2/operstate=lowerlayerdown eth2/flags=0x1003)");
  IfTable table = read();
  ASSERT_EQ(table.status, IfTable::Status::Ok);
  std::string rows;
  for (const IfRow& row : table.rows) rows += Summary(row) + "\n";
  // Received packets less multicast are unicast; counters are cut to their low 32 bits.
  EXPECT_EQ(rows, R"(lo 'lo' 1 24 65536 0 1 5 6 3367 31 0 0 0 0 3367 31 0 0 0000000000000000
ifb0 'ifb0' 2 6 1500 0 2 0 6 0 0 0 0 0 0 0 0 0 0 a21b3c0d05600000
ifb1 'ifb1' 0 1 0 0 2 0 0 0 0 0 0 0 0 0 0 0 0 0000000000000000
eth0 '6.18.44-fc-v595' 4 6 1400 0 1 5 6 30876918 803 7 2 3 17 39321 469 8 9 02fc000000010000
wlan0 'wlan0' 0 71 0 0 2 0 0 1 1 0 0 0 0 1 1 0 0 0000000000000000
ppp0 'ppp0' 0 23 0 0 2 0 0 1 1 0 0 0 0 1 1 0 0 0000000000000000
wg0 'wg0' 0 131 0 0 2 0 0 1 1 0 0 0 0 1 1 0 0 0000000000000000
eth1 'eth1' 0 6 0 1000000000 1 3 0 1 1 0 0 0 0 1 1 0 0 0000000000000000
eth2 'eth2' 0 1 0 4294967295 1 2 0 5 0 0 0 0 0 4294967295 7 0 0 0000000000000000
old0 'old0' 0 1 0 0 2 0 0 1234 5 0 0 0 0 99 1 0 0 0000000000000000
crlf0 'crlf0' 0 1 0 0 2 0 0 1 1 0 0 0 0 1 1 0 0 0000000000000000
last0 'last0' 0 1 0 0 2 0 0 1 1 0 0 0 0 1 1 0 0 0000000000000000
)");
  std::string bytes;
  for (int i = 0; i < 4096; ++i) bytes += static_cast<char>((i * 7919) % 256);
  EXPECT_TRUE(ParseProcNetDev(bytes).rows.empty());
}

TEST(LiveAdapters, LoopbackIsARowWhoseCountersGrowByWhatWasSent) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  LinuxAdapters adapters;
  // Loopback is the first interface of every network namespace.
  const IfRow before = adapters.ifTable().rows.at(0);
  EXPECT_EQ(before.dwType, 24u);
  // 3000 UDP datagrams of 996 bytes, each counted once sent and once received with its UDP (8)
  // and IP (20) headers: 3,072,000 bytes each way.
  tessmark::testing::Fd udp(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = tessmark::testing::Loopback(0);
  socklen_t length = sizeof address;
  auto* at = reinterpret_cast<sockaddr*>(&address);
  ASSERT_EQ(::bind(udp.get(), at, length), 0);
  ASSERT_EQ(::getsockname(udp.get(), at, &length), 0);
  char data[997] = {};
  for (int i = 0; i < 3000; ++i) {
    ASSERT_EQ(::sendto(udp.get(), data, 996, 0, at, length), 996);
    ASSERT_EQ(::recv(udp.get(), data, sizeof data, 0), 996);
  }
  const IfRow after = adapters.ifTable().rows.at(0);
  EXPECT_EQ(after.dwInOctets - before.dwInOctets, 3072000u);
  EXPECT_EQ(after.dwOutOctets - before.dwOutOctets, 3072000u);
  EXPECT_EQ(after.dwInUcastPkts - before.dwInUcastPkts, 3000u);
}

}  // namespace
}  // namespace tessmark::platform::linux_backend
