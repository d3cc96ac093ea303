#include "platform/linux/linux_tables.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <tuple>
#include <unordered_map>
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

TcpRow RowOf(uint8_t state, uint32_t localAddr, uint32_t localPort, uint32_t remoteAddr,
             uint32_t remotePort) {
  return TcpRow{TableStateFromKernel(state), localAddr, localPort, remoteAddr, remotePort};
}

// The table's state numbers of the rows below.
constexpr uint32_t kRowListen = 2;
constexpr uint32_t kRowSynReceived = 4;
constexpr uint32_t kRowEstablished = 5;
constexpr uint32_t kRowCloseWait = 8;

uint64_t EndpointKey(uint32_t addr, uint32_t port) {
  return static_cast<uint64_t>(addr) << 32 | port;
}

// A connection whose handshake is done but that no accept() has taken yet has no file, so no
// inode. It is the listening program's: the listener on its exact local address, else the one
// on 0.0.0.0 with its port. A socket its program closed has no inode either, but it is past
// these states by then.
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
  std::unordered_map<uint64_t, uint32_t> listeners;
  for (const TcpOwnerRow& r : rows) {
    if (r.row.dwState != kRowListen) continue;
    auto [it, added] =
        listeners.try_emplace(EndpointKey(r.row.dwLocalAddr, r.row.dwLocalPort), r.dwProcessId);
    if (it->second == 0 || (r.dwProcessId != 0 && r.dwProcessId < it->second))
      it->second = r.dwProcessId;
  }
  for (size_t i = 0; i < rows.size(); ++i) {
    if (!queued(i)) continue;
    TcpRow& row = rows[i].row;
    auto it = listeners.find(EndpointKey(row.dwLocalAddr, row.dwLocalPort));
    if (it == listeners.end()) it = listeners.find(EndpointKey(INADDR_ANY, row.dwLocalPort));
    if (it != listeners.end()) rows[i].dwProcessId = it->second;
  }
}

// Addresses and ports compare as the numbers they stand for, not as their raw network-order
// words; the rows keep their raw values.
auto NumericKey(uint32_t addr, uint32_t port) {
  return std::pair(ntohl(addr), ntohs(static_cast<uint16_t>(port)));
}

void SortTable(std::vector<TcpOwnerRow>& rows) {
  std::stable_sort(rows.begin(), rows.end(), [](const TcpOwnerRow& a, const TcpOwnerRow& b) {
    return std::tuple(NumericKey(a.row.dwLocalAddr, a.row.dwLocalPort),
                      NumericKey(a.row.dwRemoteAddr, a.row.dwRemotePort)) <
           std::tuple(NumericKey(b.row.dwLocalAddr, b.row.dwLocalPort),
                      NumericKey(b.row.dwRemoteAddr, b.row.dwRemotePort));
  });
}

void SortTable(std::vector<UdpOwnerRow>& rows) {
  std::stable_sort(rows.begin(), rows.end(), [](const UdpOwnerRow& a, const UdpOwnerRow& b) {
    return NumericKey(a.dwLocalAddr, a.dwLocalPort) < NumericKey(b.dwLocalAddr, b.dwLocalPort);
  });
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

// One read of sockstat gives both counts; a poll asks for the TCP count first and the UDP
// count next, so the UDP count of that read is kept for the next question. A UDP change after
// the read is seen by the following poll.
std::optional<uint32_t> LinuxConnectionTables::tcpRowCount() {
  auto counts = probe_.read();
  if (!counts) return std::nullopt;
  keptUdpCount_ = counts->udpInUse;
  return counts->tcpInUse;
}

std::optional<uint32_t> LinuxConnectionTables::udpRowCount() {
  if (std::optional<uint32_t> kept = std::exchange(keptUdpCount_, std::nullopt)) return kept;
  auto counts = probe_.read();
  if (!counts) return std::nullopt;
  return counts->udpInUse;
}

std::optional<uint32_t> LinuxConnectionTables::tcpOpenCount() {
  auto opens = opensProbe_.read();
  if (!opens) return std::nullopt;
  // Cut to 32 bits: the monitor only asks whether it moved, and a new connection moves it.
  return static_cast<uint32_t>(opens->activeOpens + opens->passiveOpens);
}

std::optional<std::vector<TcpOwnerRow>> LinuxConnectionTables::tcpTable() {
  std::vector<TcpOwnerRow> rows;
  std::vector<uint64_t> inodes;
  bool read = false;
  if (source_ != TableSource::kProcNetOnly) {
    if (auto dump = diag_.dump(IPPROTO_TCP, kCountedTcpStates)) {
      for (const DiagRow& d : *dump) {
        if (!CountedBySockstat(d)) continue;
        rows.push_back({RowOf(d.state, d.localAddr, d.localPort, d.remoteAddr, d.remotePort), 0});
        inodes.push_back(d.inode);
      }
      read = true;
    }
  }
  if (!read && source_ != TableSource::kNetlinkOnly) {
    auto table = ReadProcNet(procRoot_, "tcp");
    if (!table) return std::nullopt;
    for (const ProcNetRow& p : table->rows) {
      if (!CountedBySockstat(p)) continue;
      rows.push_back({RowOf(p.state, p.localAddr, p.localPort, p.remoteAddr, p.remotePort), 0});
      inodes.push_back(p.inode);
    }
    read = true;
  }
  if (!read) return std::nullopt;
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
  bool read = false;
  if (source_ != TableSource::kProcNetOnly) {
    // Every hashed UDP socket is counted, bound (CLOSE) and connected (ESTABLISHED) alike.
    if (auto dump = diag_.dump(IPPROTO_UDP, kAllStates)) {
      for (const DiagRow& d : *dump) {
        rows.push_back({d.localAddr, d.localPort, 0});
        inodes.push_back(d.inode);
      }
      read = true;
    }
  }
  if (!read && source_ != TableSource::kNetlinkOnly) {
    auto table = ReadProcNet(procRoot_, "udp");
    if (!table) return std::nullopt;
    for (const ProcNetRow& p : table->rows) {
      rows.push_back({p.localAddr, p.localPort, 0});
      inodes.push_back(p.inode);
    }
    read = true;
  }
  if (!read) return std::nullopt;
  std::vector<uint32_t> pids = owners_.lookup(inodes);
  for (size_t i = 0; i < rows.size(); ++i) rows[i].dwProcessId = pids[i];
  SortTable(rows);
  if (identities_ != nullptr) identities_->remember(ProcessIdentities::kUdp, pids);
  return rows;
}

uint32_t LinuxConnectionTables::deleteTcpRow(const TcpRow& row) {
  return static_cast<uint32_t>(
      diag_.destroyTcp({row.dwLocalAddr, row.dwLocalPort, row.dwRemoteAddr, row.dwRemotePort}));
}

}  // namespace tessmark::platform::linux_backend
