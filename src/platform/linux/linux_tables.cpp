#include "platform/linux/linux_tables.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <tuple>
#include <utility>

namespace tessmark::platform::linux_backend {

namespace {

// The kernel's timer number of a TIME_WAIT socket, in the dump and in /proc/net/tcp.
constexpr uint8_t kTimeWaitTimer = 3;

// The states of sockets in the listening and established hashes. SYN_RECV is asked for because
// a Fast Open child is a full socket in that state; the kernel then also dumps request sockets,
// which are dropped below as not full sockets.
constexpr uint32_t kCountedTcpStates =
    TcpStateBit(TCP_ESTABLISHED) | TcpStateBit(TCP_SYN_SENT) | TcpStateBit(TCP_SYN_RECV) |
    TcpStateBit(TCP_FIN_WAIT1) | TcpStateBit(TCP_FIN_WAIT2) | TcpStateBit(TCP_CLOSE_WAIT) |
    TcpStateBit(TCP_LAST_ACK) | TcpStateBit(TCP_LISTEN) | TcpStateBit(TCP_CLOSING);

bool CountedBySockstat(const DiagRow& row) {
  // A TIME_WAIT socket passes the state mask with its substate (FIN_WAIT2), a request socket
  // with SYN_RECV: neither is a full socket, and sockstat counts neither.
  return row.fullSocket && row.timer != kTimeWaitTimer &&
         (kCountedTcpStates & TcpStateBit(row.state)) != 0;
}

bool CountedBySockstat(const ProcNetRow& row) {
  if (row.timer == kTimeWaitTimer) return false;
  // A request socket prints SYN_RECV with a reference count of 0.
  if (row.state == TCP_SYN_RECV && row.refCount == 0) return false;
  return (kCountedTcpStates & TcpStateBit(row.state)) != 0;
}

// A row from a socket of the dump or a line of /proc/net, which name their fields alike.
template <typename Source>
TcpRow RowOf(const Source& s) {
  TcpRow row;
  row.dwState = TableStateFromKernel(s.state);
  row.dwLocalPort = s.localPort;
  row.dwRemotePort = s.remotePort;
  row.ipv6 = s.ipv6;
  if (s.ipv6) {
    row.ucLocalAddr = s.localAddr6;
    row.ucRemoteAddr = s.remoteAddr6;
  } else {
    row.dwLocalAddr = s.localAddr;
    row.dwRemoteAddr = s.remoteAddr;
  }
  return row;
}

template <typename Source>
UdpOwnerRow UdpRowOf(const Source& s) {
  UdpOwnerRow row;
  row.dwLocalPort = s.localPort;
  row.ipv6 = s.ipv6;
  if (s.ipv6)
    row.ucLocalAddr = s.localAddr6;
  else
    row.dwLocalAddr = s.localAddr;
  return row;
}

// The table's state numbers of the rows below.
constexpr uint32_t kRowListen = 2;
constexpr uint32_t kRowSynReceived = 4;
constexpr uint32_t kRowEstablished = 5;
constexpr uint32_t kRowCloseWait = 8;

// A listener's local end with its family: the IPv4 address fills the first four bytes. The
// wildcard of either family (0.0.0.0, [::]) is all zero bytes.
using ListenerKey = std::tuple<bool, Ipv6Address, uint32_t>;

ListenerKey LocalEndOf(const TcpRow& row) {
  Ipv6Address address = row.ucLocalAddr;
  if (!row.ipv6) std::memcpy(address.data(), &row.dwLocalAddr, sizeof row.dwLocalAddr);
  return {row.ipv6, address, row.dwLocalPort};
}

// A connection whose handshake is done but that no accept() has taken yet has no file, so no
// inode. It is the listening program's: the listener of its family on its exact local address,
// else the one on the family's wildcard (0.0.0.0, [::]) with its port. The child a dual-stack
// listener took in from an IPv4 client is an IPv6 socket on ::ffff:a.b.c.d, so its listener is
// the one on [::]. A socket its program closed has no inode either, but it is past these states
// by then.
void CreditQueuedToListeners(std::vector<TcpOwnerRow>& rows, const std::vector<uint64_t>& inodes) {
  auto queued = [&](size_t i) {
    uint32_t state = rows[i].row.dwState;
    return inodes[i] == 0 &&
           (state == kRowEstablished || state == kRowCloseWait || state == kRowSynReceived);
  };
  bool any = false;
  for (size_t i = 0; i < rows.size() && !any; ++i) any = queued(i);
  if (!any) return;
  // Listeners sharing an address and port (SO_REUSEPORT) give the lowest known pid, so the
  // owner does not depend on the kernel's order.
  std::map<ListenerKey, uint32_t> listeners;
  for (const TcpOwnerRow& r : rows) {
    if (r.row.dwState != kRowListen) continue;
    auto [it, added] = listeners.try_emplace(LocalEndOf(r.row), r.dwProcessId);
    if (it->second == 0 || (r.dwProcessId != 0 && r.dwProcessId < it->second))
      it->second = r.dwProcessId;
  }
  for (size_t i = 0; i < rows.size(); ++i) {
    if (!queued(i)) continue;
    ListenerKey local = LocalEndOf(rows[i].row);
    auto it = listeners.find(local);
    if (it == listeners.end()) {
      std::get<Ipv6Address>(local).fill(0);
      it = listeners.find(local);
    }
    if (it != listeners.end()) rows[i].dwProcessId = it->second;
  }
}

// Addresses and ports compare as the numbers they stand for, not as their raw network-order
// words; the rows keep their raw values. An IPv6 address is a 128-bit number whose bytes lie
// most significant first, so its bytes compare in order. Both rows are of one family.
int CompareAddresses(bool ipv6, uint32_t a, const Ipv6Address& a6, uint32_t b,
                     const Ipv6Address& b6) {
  if (ipv6) return std::memcmp(a6.data(), b6.data(), a6.size());
  uint32_t x = ntohl(a), y = ntohl(b);
  return x < y ? -1 : x > y ? 1 : 0;
}

int ComparePorts(uint32_t a, uint32_t b) {
  uint16_t x = ntohs(static_cast<uint16_t>(a)), y = ntohs(static_cast<uint16_t>(b));
  return x < y ? -1 : x > y ? 1 : 0;
}

// The IPv4 rows before the IPv6 rows, then the numbers.
bool Before(const TcpRow& a, const TcpRow& b) {
  if (a.ipv6 != b.ipv6) return !a.ipv6;
  int c = CompareAddresses(a.ipv6, a.dwLocalAddr, a.ucLocalAddr, b.dwLocalAddr, b.ucLocalAddr);
  if (c == 0) c = ComparePorts(a.dwLocalPort, b.dwLocalPort);
  if (c == 0)
    c = CompareAddresses(a.ipv6, a.dwRemoteAddr, a.ucRemoteAddr, b.dwRemoteAddr, b.ucRemoteAddr);
  if (c == 0) c = ComparePorts(a.dwRemotePort, b.dwRemotePort);
  return c < 0;
}

bool Before(const UdpOwnerRow& a, const UdpOwnerRow& b) {
  if (a.ipv6 != b.ipv6) return !a.ipv6;
  int c = CompareAddresses(a.ipv6, a.dwLocalAddr, a.ucLocalAddr, b.dwLocalAddr, b.ucLocalAddr);
  if (c == 0) c = ComparePorts(a.dwLocalPort, b.dwLocalPort);
  return c < 0;
}

void SortTable(std::vector<TcpOwnerRow>& rows) {
  std::stable_sort(rows.begin(), rows.end(),
                   [](const TcpOwnerRow& a, const TcpOwnerRow& b) { return Before(a.row, b.row); });
}

void SortTable(std::vector<UdpOwnerRow>& rows) {
  std::stable_sort(rows.begin(), rows.end(),
                   [](const UdpOwnerRow& a, const UdpOwnerRow& b) { return Before(a, b); });
}

}  // namespace

uint32_t TableStateFromKernel(uint8_t kernelState) {
  switch (kernelState) {
    case TCP_ESTABLISHED:
      return 5;
    case TCP_SYN_SENT:
      return 3;
    case TCP_SYN_RECV:
      return 4;
    case TCP_FIN_WAIT1:
      return 6;
    case TCP_FIN_WAIT2:
      return 7;
    case TCP_TIME_WAIT:
      return 11;
    case TCP_CLOSE:
      return 1;
    case TCP_CLOSE_WAIT:
      return 8;
    case TCP_LAST_ACK:
      return 10;
    case TCP_LISTEN:
      return 2;
    case TCP_CLOSING:
      return 9;
    default:
      return 0;
  }
}

LinuxConnectionTables::LinuxConnectionTables(std::string procRoot, TableSource source,
                                             FdChangeSignal ownerSignal)
    : procRoot_(std::move(procRoot)),
      source_(source),
      probe_(procRoot_),
      owners_(procRoot_, ownerSignal) {}

// One read of the sockstat files gives both counts; a poll asks for the TCP count first and the
// UDP count next, so the UDP count of that read is kept for the next question. A UDP change
// after the read is seen by the following poll.
std::optional<RowCounts> LinuxConnectionTables::tcpRowCount() {
  auto counts = probe_.read();
  if (!counts) return std::nullopt;
  keptUdpCount_ = RowCounts{counts->ipv4.udpInUse, counts->ipv6.udpInUse};
  return RowCounts{counts->ipv4.tcpInUse, counts->ipv6.tcpInUse};
}

std::optional<RowCounts> LinuxConnectionTables::udpRowCount() {
  if (std::optional<RowCounts> kept = std::exchange(keptUdpCount_, std::nullopt)) return kept;
  auto counts = probe_.read();
  if (!counts) return std::nullopt;
  return RowCounts{counts->ipv4.udpInUse, counts->ipv6.udpInUse};
}

std::optional<uint32_t> LinuxConnectionTables::tcpOpenCount() {
  auto opens = opensProbe_.read();
  if (!opens) return std::nullopt;
  // Cut to 32 bits: the monitor only asks whether it moved, and a new connection moves it.
  return static_cast<uint32_t>(opens->activeOpens + opens->passiveOpens);
}

bool LinuxConnectionTables::readTcp(bool ipv6, std::vector<TcpOwnerRow>& rows,
                                    std::vector<uint64_t>& inodes) {
  if (source_ != TableSource::kProcNetOnly) {
    if (auto dump = diag_.dump(ipv6 ? AF_INET6 : AF_INET, IPPROTO_TCP, kCountedTcpStates)) {
      for (const DiagRow& d : *dump) {
        if (d.ipv6 != ipv6 || !CountedBySockstat(d)) continue;
        rows.push_back({RowOf(d), 0});
        inodes.push_back(d.inode);
      }
      return true;
    }
  }
  if (source_ == TableSource::kNetlinkOnly) return false;
  auto table = ReadProcNet(procRoot_, ipv6 ? "tcp6" : "tcp");
  if (!table) return false;
  for (const ProcNetRow& p : table->rows) {
    if (p.ipv6 != ipv6 || !CountedBySockstat(p)) continue;
    rows.push_back({RowOf(p), 0});
    inodes.push_back(p.inode);
  }
  return true;
}

bool LinuxConnectionTables::readUdp(bool ipv6, std::vector<UdpOwnerRow>& rows,
                                    std::vector<uint64_t>& inodes) {
  if (source_ != TableSource::kProcNetOnly) {
    // Every hashed UDP socket is counted, bound (CLOSE) and connected (ESTABLISHED) alike.
    if (auto dump = diag_.dump(ipv6 ? AF_INET6 : AF_INET, IPPROTO_UDP, kAllStates)) {
      for (const DiagRow& d : *dump) {
        if (d.ipv6 != ipv6) continue;
        rows.push_back(UdpRowOf(d));
        inodes.push_back(d.inode);
      }
      return true;
    }
  }
  if (source_ == TableSource::kNetlinkOnly) return false;
  auto table = ReadProcNet(procRoot_, ipv6 ? "udp6" : "udp");
  if (!table) return false;
  for (const ProcNetRow& p : table->rows) {
    if (p.ipv6 != ipv6) continue;
    rows.push_back(UdpRowOf(p));
    inodes.push_back(p.inode);
  }
  return true;
}

// Each family is read from its own source; a system without IPv6 has only the first.
std::optional<std::vector<TcpOwnerRow>> LinuxConnectionTables::tcpTable() {
  std::vector<TcpOwnerRow> rows;
  std::vector<uint64_t> inodes;
  if (!readTcp(false, rows, inodes)) return std::nullopt;
  if (probe_.hasIpv6() && !readTcp(true, rows, inodes)) return std::nullopt;
  std::vector<uint32_t> pids = owners_.lookup(inodes);
  for (size_t i = 0; i < rows.size(); ++i) rows[i].dwProcessId = pids[i];
  CreditQueuedToListeners(rows, inodes);
  SortTable(rows);
  if (identities_ != nullptr) {
    for (size_t i = 0; i < rows.size(); ++i) pids[i] = rows[i].dwProcessId;
    identities_->remember(ProcessIdentities::kTcp, pids);
  }
  return rows;
}

std::optional<std::vector<UdpOwnerRow>> LinuxConnectionTables::udpTable() {
  std::vector<UdpOwnerRow> rows;
  std::vector<uint64_t> inodes;
  if (!readUdp(false, rows, inodes)) return std::nullopt;
  if (probe_.hasIpv6() && !readUdp(true, rows, inodes)) return std::nullopt;
  std::vector<uint32_t> pids = owners_.lookup(inodes);
  for (size_t i = 0; i < rows.size(); ++i) rows[i].dwProcessId = pids[i];
  SortTable(rows);
  if (identities_ != nullptr) identities_->remember(ProcessIdentities::kUdp, pids);
  return rows;
}

uint32_t LinuxConnectionTables::deleteTcpRow(const TcpRow& row) {
  SocketTuple tuple;
  tuple.ipv6 = row.ipv6;
  tuple.localPort = row.dwLocalPort;
  tuple.remotePort = row.dwRemotePort;
  if (row.ipv6) {
    tuple.localAddr6 = row.ucLocalAddr;
    tuple.remoteAddr6 = row.ucRemoteAddr;
  } else {
    tuple.localAddr = row.dwLocalAddr;
    tuple.remoteAddr = row.dwRemoteAddr;
  }
  return static_cast<uint32_t>(diag_.destroyTcp(tuple));
}

}  // namespace tessmark::platform::linux_backend
