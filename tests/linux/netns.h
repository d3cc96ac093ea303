#pragma once
// Every real-kernel test runs in a private network namespace, so its tables hold only the
// sockets the test made, and nothing it breaks or freezes belongs to anyone else.

#include <gtest/gtest.h>

#include <string>

namespace tessmark::testing {

// Set by main: empty when this process is inside a private network namespace with loopback
// up, otherwise the reason why not.
const std::string& NamespaceUnavailableReason();

// The full path of a test peer program built beside the tests.
std::string PeerPath(const std::string& name);

}  // namespace tessmark::testing

#define TESSMARK_REQUIRE_PRIVATE_NETNS()                                 \
  do {                                                                   \
    if (!::tessmark::testing::NamespaceUnavailableReason().empty())      \
      GTEST_SKIP() << "no private network namespace: "                   \
                   << ::tessmark::testing::NamespaceUnavailableReason(); \
  } while (0)
