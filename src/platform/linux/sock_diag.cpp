#include "platform/linux/sock_diag.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tessmark::platform::linux_backend {

namespace {

constexpr size_t kBufferSize = 64 * 1024;

DiagRow RowFromMessage(const nlmsghdr* header) {
  const auto* msg = static_cast<const inet_diag_msg*>(NLMSG_DATA(header));
  DiagRow row;
  row.state = msg->idiag_state;
  row.timer = msg->idiag_timer;
  row.localPort = msg->id.idiag_sport;
  row.remotePort = msg->id.idiag_dport;
  // The family of the socket itself: an AF_INET6 socket fills all sixteen bytes, an AF_INET
  // one the first four.
  if (msg->idiag_family == AF_INET6) {
    row.ipv6 = true;
    std::memcpy(row.localAddr6.data(), msg->id.idiag_src, row.localAddr6.size());
    std::memcpy(row.remoteAddr6.data(), msg->id.idiag_dst, row.remoteAddr6.size());
  } else {
    row.localAddr = msg->id.idiag_src[0];
    row.remoteAddr = msg->id.idiag_dst[0];
  }
  row.inode = msg->idiag_inode;
  row.cookie = static_cast<uint64_t>(msg->id.idiag_cookie[1]) << 32 | msg->id.idiag_cookie[0];
  // Attributes follow the message; full sockets always carry INET_DIAG_SHUTDOWN.
  int length = static_cast<int>(header->nlmsg_len) - NLMSG_LENGTH(sizeof(inet_diag_msg));
  const auto* attr = reinterpret_cast<const rtattr*>(msg + 1);
  for (; length > 0 && RTA_OK(attr, length); attr = RTA_NEXT(attr, length)) {
    if (attr->rta_type == INET_DIAG_SHUTDOWN) row.fullSocket = true;
  }
  return row;
}

inet_diag_req_v2 TcpRequest(const SocketTuple& tuple, const uint32_t cookie[2]) {
  inet_diag_req_v2 req{};
  req.sdiag_family = tuple.ipv6 ? AF_INET6 : AF_INET;
  req.sdiag_protocol = IPPROTO_TCP;
  req.idiag_states = kAllStates;
  if (tuple.ipv6) {
    std::memcpy(req.id.idiag_src, tuple.localAddr6.data(), tuple.localAddr6.size());
    std::memcpy(req.id.idiag_dst, tuple.remoteAddr6.data(), tuple.remoteAddr6.size());
  } else {
    req.id.idiag_src[0] = tuple.localAddr;
    req.id.idiag_dst[0] = tuple.remoteAddr;
  }
  req.id.idiag_sport = static_cast<uint16_t>(tuple.localPort);
  req.id.idiag_dport = static_cast<uint16_t>(tuple.remotePort);
  req.id.idiag_cookie[0] = cookie[0];
  req.id.idiag_cookie[1] = cookie[1];
  return req;
}

// The socket found is the one of the tuple: same family, same addresses, same ports.
bool SameTuple(const DiagRow& found, const SocketTuple& tuple) {
  if (found.ipv6 != tuple.ipv6 || found.localPort != tuple.localPort ||
      found.remotePort != tuple.remotePort)
    return false;
  if (tuple.ipv6)
    return found.localAddr6 == tuple.localAddr6 && found.remoteAddr6 == tuple.remoteAddr6;
  return found.localAddr == tuple.localAddr && found.remoteAddr == tuple.remoteAddr;
}

}  // namespace

SockDiag::~SockDiag() {
  if (fd_ >= 0) ::close(fd_);
}

void SockDiag::reset() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

bool SockDiag::ensureOpen() {
  if (fd_ >= 0) return true;
  fd_ = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
  if (fd_ < 0) return false;
  buffer_.resize(kBufferSize);
  return true;
}

bool SockDiag::send(uint16_t type, uint16_t flags, const void* payload, uint32_t length) {
  struct {
    nlmsghdr header;
    inet_diag_req_v2 req;
  } message{};
  if (length > sizeof message.req) return false;
  message.header.nlmsg_len = NLMSG_LENGTH(length);
  message.header.nlmsg_type = type;
  message.header.nlmsg_flags = flags;
  message.header.nlmsg_seq = ++sequence_;
  std::memcpy(&message.req, payload, length);
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  ssize_t sent;
  do {
    sent = ::sendto(fd_, &message, message.header.nlmsg_len, 0,
                    reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel);
  } while (sent < 0 && errno == EINTR);
  return sent == static_cast<ssize_t>(message.header.nlmsg_len);
}

std::optional<std::vector<DiagRow>> SockDiag::dump(uint8_t family, uint8_t protocol,
                                                   uint32_t stateMask) {
  if (!ensureOpen()) return std::nullopt;
  inet_diag_req_v2 req{};
  req.sdiag_family = family;
  req.sdiag_protocol = protocol;
  req.idiag_states = stateMask;
  if (!send(SOCK_DIAG_BY_FAMILY, NLM_F_REQUEST | NLM_F_DUMP, &req, sizeof req)) return std::nullopt;
  std::vector<DiagRow> rows;
  for (;;) {
    ssize_t n = ::recv(fd_, buffer_.data(), buffer_.size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      // A dump cut short (ENOBUFS) leaves the socket out of step: start afresh next time.
      reset();
      return std::nullopt;
    }
    int length = static_cast<int>(n);
    for (auto* header = reinterpret_cast<const nlmsghdr*>(buffer_.data()); NLMSG_OK(header, length);
         header = NLMSG_NEXT(header, length)) {
      // A reply to an older request that was given up on is skipped.
      if (header->nlmsg_seq != sequence_) continue;
      if (header->nlmsg_type == NLMSG_DONE) return rows;
      if (header->nlmsg_type == NLMSG_ERROR) {
        reset();
        return std::nullopt;
      }
      if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY) continue;
      if (header->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) continue;
      rows.push_back(RowFromMessage(header));
    }
  }
}

int SockDiag::destroyTcp(const SocketTuple& tuple) {
  if (!ensureOpen()) return errno != 0 ? errno : EIO;
  const uint32_t noCookie[2] = {INET_DIAG_NOCOOKIE, INET_DIAG_NOCOOKIE};

  // 1. Look the tuple up; the answer is one socket or an error.
  inet_diag_req_v2 lookup = TcpRequest(tuple, noCookie);
  if (!send(SOCK_DIAG_BY_FAMILY, NLM_F_REQUEST, &lookup, sizeof lookup)) return EIO;
  std::optional<DiagRow> found;
  int error = 0;
  for (bool done = false; !done;) {
    ssize_t n = ::recv(fd_, buffer_.data(), buffer_.size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return EIO;
    int length = static_cast<int>(n);
    for (auto* header = reinterpret_cast<const nlmsghdr*>(buffer_.data()); NLMSG_OK(header, length);
         header = NLMSG_NEXT(header, length)) {
      if (header->nlmsg_seq != sequence_) continue;
      if (header->nlmsg_type == NLMSG_ERROR) {
        error = -static_cast<const nlmsgerr*>(NLMSG_DATA(header))->error;
        done = true;
      } else if (header->nlmsg_type == SOCK_DIAG_BY_FAMILY &&
                 header->nlmsg_len >= NLMSG_LENGTH(sizeof(inet_diag_msg))) {
        found = RowFromMessage(header);
        done = true;
      }
    }
  }
  if (!found) return error != 0 ? error : ENOENT;

  // 2. Only the socket with exactly this tuple may go, not the listener the look-up fell
  // back to, nor a socket of the other family that the look-up found by the same addresses.
  if (!SameTuple(*found, tuple)) return ENOENT;

  // A listening socket is not a connection: destroying it would close the service for good,
  // long after the firewall has gone, and for a daemon of another user as well. Deleting a
  // listening row fails, as a connection table does for it.
  constexpr uint8_t kTcpListen = 10;  // TCP_LISTEN
  if (found->state == kTcpListen) return EOPNOTSUPP;

  // 3. Destroy that socket by its cookie, so a socket that replaced it meanwhile is spared.
  const uint32_t cookie[2] = {static_cast<uint32_t>(found->cookie),
                              static_cast<uint32_t>(found->cookie >> 32)};
  inet_diag_req_v2 destroy = TcpRequest(tuple, cookie);
  if (!send(SOCK_DESTROY, NLM_F_REQUEST | NLM_F_ACK, &destroy, sizeof destroy)) return EIO;
  for (;;) {
    ssize_t n = ::recv(fd_, buffer_.data(), buffer_.size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return EIO;
    int length = static_cast<int>(n);
    for (auto* header = reinterpret_cast<const nlmsghdr*>(buffer_.data()); NLMSG_OK(header, length);
         header = NLMSG_NEXT(header, length)) {
      if (header->nlmsg_seq != sequence_) continue;
      if (header->nlmsg_type == NLMSG_ERROR)
        return -static_cast<const nlmsgerr*>(NLMSG_DATA(header))->error;
    }
  }
}

}  // namespace tessmark::platform::linux_backend
