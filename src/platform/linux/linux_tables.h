#pragma once
// The connection tables of the IPv4 and the IPv6 stack on Linux.
//
// The probe counts come from /proc/net/sockstat and /proc/net/sockstat6, so the tables are
// defined as exactly what they count, family by family:
//   TCP: sockets of the family in the listening and established hashes: LISTEN, SYN_SENT,
//        ESTABLISHED, FIN_WAIT1/2, CLOSE_WAIT, LAST_ACK, CLOSING, orphaned ones included.
//        Not TIME_WAIT sockets (even one that reports FIN_WAIT2 as its substate), not request
//        sockets of a half-open handshake, not bound-only or closed sockets.
//   UDP: bound UDP sockets of the family, connected or not.
// A socket's family is the one it was made with: an AF_INET6 socket holding ::ffff:a.b.c.d (a
// client of an IPv4 peer, or the child a dual-stack listener took in from an IPv4 client) is an
// IPv6 row with those mapped bytes, and is deleted as one. A system without IPv6 (no
// sockstat6) has no IPv6 rows, and nothing of IPv6 is read.
// Rows come from a netlink sock_diag dump of each family, or from /proc/net/{tcp,udp}{,6} when
// netlink fails; owners from the sockets' inodes in /proc/<pid>/fd. A connection not yet
// accept()ed has no inode and is its listener's. The IPv4 rows come first, then the IPv6 rows;
// each family is sorted by local address, local port, remote address, remote port (UDP: local
// address and port), each compared as a number (an IPv6 address as a 128-bit one).

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/proc_net_parser.h"
#include "platform/linux/process_identities.h"
#include "platform/linux/sock_diag.h"
#include "platform/linux/socket_owners.h"
#include "platform/linux/sockstat_probe.h"
#include "platform/linux/tcp_opens_probe.h"
#include "platform/platform.h"

namespace tessmark::platform::linux_backend {

// Where the full tables are read from. The firewall uses the default; tests pick one source to
// hold the two against each other.
enum class TableSource { kNetlinkThenProcNet, kNetlinkOnly, kProcNetOnly };

class LinuxConnectionTables final : public ConnectionTables {
 public:
  explicit LinuxConnectionTables(std::string procRoot = "/proc",
                                 TableSource source = TableSource::kNetlinkThenProcNet,
                                 FdChangeSignal ownerSignal = FdChangeSignal::kDetect);

  std::optional<RowCounts> tcpRowCount() override;
  std::optional<RowCounts> udpRowCount() override;
  std::optional<uint32_t> tcpOpenCount() override;
  std::optional<std::vector<TcpOwnerRow>> tcpTable() override;
  std::optional<std::vector<UdpOwnerRow>> udpTable() override;
  uint32_t deleteTcpRow(const TcpRow& row) override;

  // Each read from now on keeps the identity of every owner it names (see
  // process_identities.h), so that a pid reused later is never held or killed.
  void keepIdentities(ProcessIdentities* identities) { identities_ = identities; }

 private:
  // Appends the TCP rows of one family and their inodes; false when no source could be read.
  bool readTcp(bool ipv6, std::vector<TcpOwnerRow>& rows, std::vector<uint64_t>& inodes);
  bool readUdp(bool ipv6, std::vector<UdpOwnerRow>& rows, std::vector<uint64_t>& inodes);

  std::string procRoot_;
  TableSource source_;
  SockstatProbe probe_;
  TcpOpensProbe opensProbe_{procRoot_};
  SockDiag diag_;
  SocketOwners owners_;
  ProcessIdentities* identities_ = nullptr;
  std::optional<RowCounts> keptUdpCount_;  // from the read the last TCP count came from
};

// The table's state number for the kernel's TCP_* state (ESTABLISHED 1 -> 5 ... CLOSING 11
// -> 9); 0 for a number the kernel does not use for a row.
uint32_t TableStateFromKernel(uint8_t kernelState);

}  // namespace tessmark::platform::linux_backend
