#include "platform/linux/private_netns.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tessmark::platform::linux_backend {

std::string EnterPrivateNetworkNamespace() {
  if (unshare(CLONE_NEWNET) != 0) {
    // Without root, a user namespace can give the right to make a network namespace.
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
      return std::string("unshare(CLONE_NEWNET) failed: ") + std::strerror(errno);
  }
  int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (s < 0) return std::string("socket: ") + std::strerror(errno);
  ifreq ifr{};
  std::strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
  bool up = ioctl(s, SIOCGIFFLAGS, &ifr) == 0;
  ifr.ifr_flags |= IFF_UP;
  up = up && ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
  int err = errno;
  close(s);
  if (!up) return std::string("cannot bring loopback up: ") + std::strerror(err);
  return {};
}

}  // namespace tessmark::platform::linux_backend
