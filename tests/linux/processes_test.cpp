// The Linux process list: programs by the path they were started from, whatever became of the
// file since, and only the processes of the firewall's own user.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>

#include "linux/netns.h"
#include "platform/linux/linux_processes.h"

namespace tessmark::platform::linux_backend {
namespace {

namespace fs = std::filesystem;

std::string PathOf(const std::vector<ProcessEntry>& list, int32_t pid) {
  auto it = std::find_if(list.begin(), list.end(), [pid](const auto& e) { return e.pid == pid; });
  return it == list.end() ? "<missing>" : it->path;
}

template <class Done>
bool WaitFor(Done done) {
  for (int i = 0; i < 5000 && !done(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return done();
}

// A child of the test, which does `run` after the fork (async-signal-safe calls only); killed
// when the object goes, or when the test process ends.
class Child {
 public:
  template <class Run>
  explicit Child(Run run) : pid_(fork()) {
    if (pid_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    run();
    _exit(127);
  }
  ~Child() {
    if (pid_ > 0) kill(pid_, SIGKILL), waitpid(pid_, nullptr, 0);
  }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_;
};

// What the kernel shows as a process's executable; "" when it cannot be read.
std::string ExeText(pid_t pid) {
  std::error_code error;
  return fs::read_symlink("/proc/" + std::to_string(pid) + "/exe", error).string();
}

TEST(ProcessesList, NamesEachProgramByThePathItWasStartedFrom) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  LinuxProcesses processes;
  std::vector<ProcessEntry> list = processes.list();
  EXPECT_EQ(processes.currentProcessId(), getpid());
  EXPECT_EQ(PathOf(list, getpid()), ExeText(getpid()));
  // Only the numeric entries of /proc are processes; and only those with an executable:
  // kernel threads have none, and kthreadd is always pid 2 where it is visible at all.
  EXPECT_TRUE(std::ranges::all_of(list, [](const ProcessEntry& e) { return e.pid > 0; }));
  EXPECT_EQ(std::ranges::count(list, getpid(), &ProcessEntry::pid), 1);
  EXPECT_EQ(PathOf(list, 2), "<missing>");
  EXPECT_TRUE(LinuxProcesses("/nonexistent-proc").list().empty());

  // Copies of a program, each run from a file of its own that then changes under it. Linux
  // names an executable whose file is gone "<path> (deleted)".
  struct Folder {
    fs::path path = fs::temp_directory_path() / ("tessmark-procs-" + std::to_string(getpid()));
    ~Folder() { fs::remove_all(path); }
  } folder;
  fs::create_directories(folder.path);
  auto replace = [](const std::string& path) {  // as a package upgrade does
    std::ofstream(path + ".new") << "#!/bin/sh\n";
    fs::rename(path + ".new", path);
  };
  struct Case {
    const char* name;
    void (*change)(const std::string& path);
  } cases[] = {
      {"tool", replace},
      // Paths are bytes: a space, a control byte, one above 127. A file really named with the
      // kernel's mark keeps its own.
      {"odd \x01na\xE9me (deleted)", replace},
      {"gone", [](const std::string& path) {  // another file takes the name the kernel shows
         fs::remove(path);
         std::ofstream(path + " (deleted)") << "another file";
       }}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = (folder.path / c.name).string();
    fs::copy_file(tessmark::testing::PeerPath("thread_peer"), path);
    Child program([&] {  // thread_peer: its input a pipe it holds itself never ends
      int input[2];
      if (pipe(input) == 0) dup2(input[0], STDIN_FILENO);
      dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
      execl(path.c_str(), path.c_str(), "0", static_cast<char*>(nullptr));
    });
    ASSERT_TRUE(WaitFor([&] { return ExeText(program.pid()) == path; })) << ExeText(program.pid());
    EXPECT_EQ(PathOf(processes.list(), program.pid()), path);
    c.change(path);
    ASSERT_EQ(ExeText(program.pid()), path + " (deleted)");
    EXPECT_EQ(PathOf(processes.list(), program.pid()), path);
  }
}

// The Uid line of the process's status; "" when it cannot be read.
std::string StatusLine(pid_t pid, std::string_view key) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);)
    if (line.starts_with(key)) return line;
  return "";
}

std::string UidLine(pid_t pid) {
  return StatusLine(pid, "Uid:");
}

// The firewall's user is its real user; a process is that user's when its real, effective and
// saved user ids all are, as the kernel asks of a tracer without privileges. A process that
// never changed users is known by the owner of its exe link; one that did, by its Uid line.
TEST(ProcessesList, KeepsToTheProcessesOfItsUser) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  if (geteuid() != 0) GTEST_SKIP() << "making processes of another user needs root";
  const uid_t own = getuid();
  constexpr uid_t kUser = 54321;
  // A change of the effective user leaves a process undumpable, and its exe link root's, unless
  // it asks to be dumpable again. Each gives up every capability, as a desktop user's programs
  // have none: so only its user ids set it apart from the test.
  auto as = [](uid_t real, uid_t effective, uid_t saved, bool dumpable = false) {
    return [=] {
      __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
      __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3]{};
      if (setresuid(real, effective, saved) == 0 && (!dumpable || prctl(PR_SET_DUMPABLE, 1) == 0) &&
          syscall(SYS_capset, &header, none) == 0)
        for (;;) pause();
    };
  };
  Child mine(as(own, own, own)), user(as(kUser, kUser, kUser)),
      userDumpable(as(kUser, kUser, kUser, true)), actingForOwn(as(kUser, own, own)),
      ownActingAsUser(as(own, kUser, own)), ownKeepingUserSaved(as(own, own, kUser));
  for (const Child* child :
       {&user, &userDumpable, &actingForOwn, &ownActingAsUser, &ownKeepingUserSaved})
    ASSERT_TRUE(WaitFor([&] {
      return UidLine(child->pid()).find(std::to_string(kUser)) != std::string::npos;
    })) << UidLine(child->pid());
  // Until its capabilities are gone, a reader without CAP_SYS_PTRACE cannot open its exe link.
  ASSERT_TRUE(WaitFor([&] {
    return StatusLine(mine.pid(), "CapEff:").find_first_not_of("0\t", 7) == std::string::npos;
  })) << StatusLine(mine.pid(), "CapEff:");

  const std::string self = ExeText(getpid());
  auto expectOnly = [&](const char* what, LinuxProcesses processes,
                        std::vector<const Child*> listed) {
    SCOPED_TRACE(what);
    std::vector<ProcessEntry> list = processes.list();
    for (const Child* child :
         {&mine, &user, &userDumpable, &actingForOwn, &ownActingAsUser, &ownKeepingUserSaved}) {
      bool wanted = std::find(listed.begin(), listed.end(), child) != listed.end();
      EXPECT_EQ(PathOf(list, child->pid()), wanted ? self : "<missing>") << UidLine(child->pid());
    }
  };
  expectOnly("its own user, with CAP_SYS_PTRACE, which opens every exe link", LinuxProcesses(),
             {&mine});
  expectOnly("another user, as a firewall run as root sees it", LinuxProcesses("/proc", kUser),
             {&user, &userDumpable});
  // Without the capability, the list leaves the choice to the kernel's rule for exe links,
  // which also asks that the process hold no capability the reader lacks.
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct caps[_LINUX_CAPABILITY_U32S_3]{};
  ASSERT_EQ(syscall(SYS_capget, &header, caps), 0);
  caps[CAP_TO_INDEX(CAP_SYS_PTRACE)].effective &= ~CAP_TO_MASK(CAP_SYS_PTRACE);
  ASSERT_EQ(syscall(SYS_capset, &header, caps), 0) << std::strerror(errno);
  expectOnly("its own user, without CAP_SYS_PTRACE", LinuxProcesses(), {&mine});
  caps[CAP_TO_INDEX(CAP_SYS_PTRACE)].effective |= CAP_TO_MASK(CAP_SYS_PTRACE);
  syscall(SYS_capset, &header, caps);
}

}  // namespace
}  // namespace tessmark::platform::linux_backend
