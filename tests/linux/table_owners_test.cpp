// Owners of sockets that change hands between two reads of the tables, with each way of noticing
// that a process's open files changed: the fd folder's size (kernels from 6.2) and the count of
// its entries for the owners of the rows, which older kernels leave as the only way.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <utility>

#include <gtest/gtest.h>

#include "linux/netns.h"
#include "platform/linux/linux_tables.h"
#include "platform/linux/socket_owners.h"

namespace tessmark::platform::linux_backend {
namespace {

// A TCP listener of this process on 127.0.0.1:port, closed at the end of its scope unless
// closed before.
class Listener {
 public:
  explicit Listener(uint16_t port);
  ~Listener() { close(); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

Listener::Listener(uint16_t port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int one = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  EXPECT_EQ(::listen(fd, 8), 0);
  fd_ = fd;
}

// A child of this process holding a copy of every descriptor this process had at the fork,
// until it is let go. It dies with this process.
class ForkedHolder {
 public:
  ForkedHolder() {
    int gate[2];
    if (::pipe2(gate, O_CLOEXEC) != 0) return;
    pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ == 0) {
      // Only async-signal-safe calls: the test process may have threads.
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (::getppid() != parent) ::_exit(1);
      ::close(gate[1]);
      char byte;
      while (::read(gate[0], &byte, 1) != 0) {
      }
      ::_exit(0);
    }
    ::close(gate[0]);
    gate_ = gate[1];
  }
  ~ForkedHolder() {
    if (gate_ >= 0) ::close(gate_);  // the child reads end of file and leaves
    if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
  }
  ForkedHolder(const ForkedHolder&) = delete;
  ForkedHolder& operator=(const ForkedHolder&) = delete;

  uint32_t pid() const { return pid_ > 0 ? static_cast<uint32_t>(pid_) : 0; }

 private:
  pid_t pid_ = -1;
  int gate_ = -1;
};

// Whether this kernel counts open files in the fd folder's size: from 6.2 on.
bool KernelReportsFdCount() {
  utsname name{};
  int major = 0, minor = 0;
  if (::uname(&name) != 0 || std::sscanf(name.release, "%d.%d", &major, &minor) != 2) return false;
  return major > 6 || (major == 6 && minor >= 2);
}

TEST(SocketOwnerSignal, DetectionFollowsWhatTheKernelReports) {
  SocketOwners owners;
  EXPECT_EQ(owners.signal(),
            KernelReportsFdCount() ? FdChangeSignal::kFolderSize : FdChangeSignal::kOwnerCount);
}

class SocketOwnersOnEachSignal : public ::testing::TestWithParam<FdChangeSignal> {
 protected:
  void SetUp() override {
    TESSMARK_REQUIRE_PRIVATE_NETNS();
    if (GetParam() == FdChangeSignal::kFolderSize && !KernelReportsFdCount())
      GTEST_SKIP() << "this kernel reports no count of open files in the fd folder's size";
  }

  LinuxConnectionTables tables_{"/proc", TableSource::kNetlinkOnly, GetParam()};

  // The owner of the listener on 127.0.0.1:port; nullopt when there is no such row.
  std::optional<uint32_t> ownerOf(uint16_t port) {
    auto table = tables_.tcpTable();
    if (!table) return std::nullopt;
    for (const TcpOwnerRow& r : *table)
      if (r.row.dwState == 2 && r.row.dwLocalPort == htons(port)) return r.dwProcessId;
    return std::nullopt;
  }

  const uint32_t self_ = static_cast<uint32_t>(::getpid());
};

TEST_P(SocketOwnersOnEachSignal, ASocketHandedToANewChildIsTheChildsOnceTheParentLetsGo) {
  Listener listener(42600);
  ASSERT_EQ(ownerOf(42600), self_);
  ForkedHolder child;
  ASSERT_NE(child.pid(), 0u);
  listener.close();
  EXPECT_EQ(ownerOf(42600), child.pid());
}

TEST_P(SocketOwnersOnEachSignal, ASocketSharedAtTheFirstReadMovesToTheChildWhenTheParentLetsGo) {
  Listener listener(42610);
  ForkedHolder child;
  ASSERT_NE(child.pid(), 0u);
  // Both hold it: the older process, the parent, is its owner.
  ASSERT_EQ(ownerOf(42610), self_);
  listener.close();
  EXPECT_EQ(ownerOf(42610), child.pid());
}

TEST_P(SocketOwnersOnEachSignal, ASocketAChildInheritedStaysWithTheParentThatKeepsIt) {
  ASSERT_EQ(ownerOf(42620), std::nullopt);  // this process is known before the socket exists
  Listener listener(42620);
  ForkedHolder child;  // a child between fork and exec holds its parent's sockets
  ASSERT_NE(child.pid(), 0u);
  EXPECT_EQ(ownerOf(42620), self_);
}

TEST_P(SocketOwnersOnEachSignal, ASocketAnOldProcessOpensIsFound) {
  Listener first(42630);
  ASSERT_EQ(ownerOf(42630), self_);
  Listener second(42631);
  EXPECT_EQ(ownerOf(42631), self_);
}

INSTANTIATE_TEST_SUITE_P(Signals, SocketOwnersOnEachSignal,
                         ::testing::Values(FdChangeSignal::kFolderSize,
                                           FdChangeSignal::kOwnerCount),
                         [](const ::testing::TestParamInfo<FdChangeSignal>& info) {
                           return info.param == FdChangeSignal::kFolderSize ? "FolderSize"
                                                                            : "OwnerCount";
                         });

}  // namespace
}  // namespace tessmark::platform::linux_backend
