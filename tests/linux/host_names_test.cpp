// The reverse look-up of addresses of both families through the system's name service, inside
// the test's private network namespace, where no name server can be reached: names come from
// the hosts file alone, which is read here as the known answer.

#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "linux/netns.h"
#include "platform/platform.h"

namespace tessmark {
namespace {

// The first name the hosts file gives for the address exactly as written, "" when no line has
// it.
std::string HostsFileName(const std::string& address) {
  std::ifstream hosts("/etc/hosts");
  for (std::string line; std::getline(hosts, line);) {
    std::istringstream words(line.substr(0, line.find('#')));
    std::string first, name;
    if (words >> first >> name && first == address) return name;
  }
  return "";
}

TEST(HostNames, AnAddressOfEitherFamilyGetsItsNameAndAnythingElseComesBackAsItIs) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  // No address: never looked up forwards, never changed.
  for (const std::string text : {"", "not an address", "localhost", "[::1]", "::1:", "1.2.3.4.5"})
    EXPECT_EQ(platform::GetHostNameFromIP(text), text);
  // Addresses no one here can name.
  for (const std::string text : {"192.0.2.1", "2001:db8::1", "::ffff:192.0.2.7"})
    EXPECT_EQ(platform::GetHostNameFromIP(text), text);
  int named = 0;
  for (const std::string address : {"127.0.0.1", "::1"}) {
    std::string known = HostsFileName(address);
    if (known.empty()) continue;
    EXPECT_EQ(platform::GetHostNameFromIP(address), known) << address;
    ++named;
  }
  if (named == 0) GTEST_SKIP() << "/etc/hosts names neither 127.0.0.1 nor ::1";
}

}  // namespace
}  // namespace tessmark
