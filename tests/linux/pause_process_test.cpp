// Holding, letting go and killing a real multi-threaded program through the monitor's own
// procedures on the Linux backend.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include "linux/netns.h"
#include "linux/peer_child.h"
#include "monitor/mailbox.h"
#include "platform/linux/linux_platform.h"
#include "process/modPauseProcess.h"
#include "process/modprocs.h"

namespace tessmark {
namespace {

using testing::ThreadPeerChild;

class PauseRealProcess : public ::testing::Test {
 protected:
  platform::linux_backend::LinuxPlatform system;
  Mailbox mailbox;
  modprocs procs{system, mailbox};
  modPauseProcess pause{system.threads(), procs};
};

TEST_F(PauseRealProcess, StopsEveryThreadAndRunsAgainOnlyAfterAsManyResumes) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  ThreadPeerChild peer(4, /*busy=*/true);
  ASSERT_EQ(peer.error(), "");

  pause.SuspendThreads(peer.pid());
  EXPECT_TRUE(peer.waitUntilHeld(true));
  pause.SuspendThreads(peer.pid());
  pause.ResumeThreads(peer.pid());
  // Still held once: give a wrongly continued process time to show it.
  EXPECT_FALSE(peer.waitUntilHeld(false, std::chrono::milliseconds(200)));
  pause.ResumeThreads(peer.pid());
  EXPECT_TRUE(peer.waitUntilHeld(false));
}

TEST_F(PauseRealProcess, KillEndsAFrozenProgramAndIsSilentOnAGoneOne) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  ThreadPeerChild peer(2, /*busy=*/false);
  ASSERT_EQ(peer.error(), "");
  pause.SuspendThreads(peer.pid());
  pause.Process_Kill(peer.pid());
  auto status = peer.reap();
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFSIGNALED(*status));
  EXPECT_EQ(WTERMSIG(*status), SIGKILL);

  pause.Process_Kill(peer.pid());  // gone and reaped: all four steps fail, nothing shows
  pause.ResumeThreads(peer.pid());
}

}  // namespace
}  // namespace tessmark
