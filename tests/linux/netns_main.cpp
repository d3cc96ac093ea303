// main of the real-kernel tests: moves the whole test process into a new network namespace
// before any test runs, so every table it reads holds only what its tests made.

#include <gtest/gtest.h>

#include <string>

#include "linux/netns.h"
#include "platform/linux/private_netns.h"

namespace tessmark::testing {

static std::string g_reason = "not tried";

const std::string& NamespaceUnavailableReason() {
  return g_reason;
}

std::string PeerPath(const std::string& name) {
  return std::string(TESSMARK_PEER_DIR) + "/" + name;
}

}  // namespace tessmark::testing

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // Listing the tests must not need the namespace.
  if (!::testing::GTEST_FLAG(list_tests))
    tessmark::testing::g_reason = tessmark::platform::linux_backend::EnterPrivateNetworkNamespace();
  return RUN_ALL_TESTS();
}
