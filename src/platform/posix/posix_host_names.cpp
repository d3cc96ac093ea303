// The reverse look-up of an address through the system's name service (hosts file, DNS,
// whatever the resolver is set up to ask), for both address families.

#include <netdb.h>
#include <sys/socket.h>

#include <array>

#include "platform/platform.h"

namespace tessmark::platform {

std::string GetHostNameFromIP(const std::string& ip) {
  // The text is read as a numeric address only: a name is never looked up forwards.
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_flags = AI_NUMERICHOST;
  addrinfo* found = nullptr;
  if (ip.empty() || getaddrinfo(ip.c_str(), nullptr, &hints, &found) != 0 || found == nullptr)
    return ip;
  std::array<char, NI_MAXHOST> name{};
  // NI_NAMEREQD: without a name the call fails, rather than giving the address back as text
  // in a form other than the one asked about.
  int result = getnameinfo(found->ai_addr, found->ai_addrlen, name.data(),
                           static_cast<socklen_t>(name.size()), nullptr, 0, NI_NAMEREQD);
  freeaddrinfo(found);
  return result == 0 ? std::string(name.data()) : ip;
}

}  // namespace tessmark::platform
