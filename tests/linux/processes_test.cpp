// The Linux process list: real children by their exact executable, and the rules of the walk
// on a folder laid out like /proc.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "linux/netns.h"
#include "linux/peer_child.h"
#include "platform/linux/linux_processes.h"

namespace tessmark::platform::linux_backend {
namespace {

std::string PathOf(const std::vector<ProcessEntry>& list, int32_t pid) {
  auto it = std::find_if(list.begin(), list.end(),
                         [pid](const ProcessEntry& entry) { return entry.pid == pid; });
  return it == list.end() ? std::string("<missing>") : it->path;
}

TEST(ProcessesList, NamesRunningProcessesByTheirExactExecutable) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  tessmark::testing::ThreadPeerChild peer(0, /*busy=*/false);
  ASSERT_EQ(peer.error(), "");
  char resolved[PATH_MAX];
  ASSERT_NE(realpath(tessmark::testing::PeerPath("thread_peer").c_str(), resolved), nullptr);

  LinuxProcesses processes;
  std::vector<ProcessEntry> list = processes.list();
  EXPECT_EQ(PathOf(list, peer.pid()), resolved);
  EXPECT_EQ(processes.currentProcessId(), getpid());
  EXPECT_EQ(PathOf(list, getpid()), std::filesystem::read_symlink("/proc/self/exe").string());
  // Kernel threads have no executable; kthreadd is always pid 2 where it is visible at all.
  EXPECT_EQ(PathOf(list, 2), "<missing>");
}

TEST(ProcessesList, KeepsOnlyNumericEntriesWithAReadableLink) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  namespace fs = std::filesystem;
  fs::path root = fs::temp_directory_path() / ("tessmark-proc-" + std::to_string(getpid()));
  fs::remove_all(root);
  fs::create_directories(root / "100");
  fs::create_directories(root / "200");  // no exe link, like a kernel thread
  fs::create_directories(root / "abc");
  fs::create_directories(root / "300");
  // Paths are bytes: spaces, a control byte, a byte above 127 and the kernel's deleted mark.
  std::string odd = std::string("/opt/odd name/\x01pr\xE9og") + " (deleted)";
  fs::create_symlink(odd, root / "100" / "exe");
  fs::create_symlink("/usr/bin/true", root / "abc" / "exe");
  fs::create_symlink("/usr/bin/false", root / "300" / "exe");
  fs::create_symlink("100", root / "self");

  LinuxProcesses processes(root.string());
  std::vector<ProcessEntry> list = processes.list();
  std::sort(list.begin(), list.end(),
            [](const ProcessEntry& a, const ProcessEntry& b) { return a.pid < b.pid; });
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0].pid, 100);
  EXPECT_EQ(list[0].path, odd);
  EXPECT_EQ(list[1].pid, 300);
  EXPECT_EQ(list[1].path, "/usr/bin/false");

  EXPECT_TRUE(LinuxProcesses((root / "missing").string()).list().empty());
  fs::remove_all(root);
}

}  // namespace
}  // namespace tessmark::platform::linux_backend
