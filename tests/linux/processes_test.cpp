// The Linux process list: real children by their exact executable, a program whose file was
// replaced under it by the path it was started from, only the processes of this user, and
// the rules of the walk on a folder laid out like /proc.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <thread>

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

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// A fresh folder of the test's own, removed with the object.
class TempFolder {
 public:
  TempFolder() {
    char pattern[] = "/tmp/tessmark-procs.XXXXXX";
    if (mkdtemp(pattern) != nullptr) path_ = pattern;
  }
  ~TempFolder() {
    std::error_code error;
    if (!path_.empty()) fs::remove_all(path_, error);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// What the kernel shows as a process's executable; "" when it cannot be read.
std::string ExeText(pid_t pid) {
  std::error_code error;
  return fs::read_symlink("/proc/" + std::to_string(pid) + "/exe", error).string();
}

// Waits (bounded) until `done` holds; whether it did.
bool WaitFor(const std::function<bool()>& done) {
  auto deadline = std::chrono::steady_clock::now() + 5s;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

// A child of the test: with a path, thread_peer's code run from that file (its input a pipe
// held here, so it runs on); without one, the test's own code, which first takes the user ids
// given and then waits. It is killed when this object goes, or when the test process ends.
class Child {
 public:
  explicit Child(const std::string& path) {
    int in[2];
    if (pipe2(in, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      // Only async-signal-safe calls until exec.
      dup2(in[0], STDIN_FILENO);
      int null = open("/dev/null", O_WRONLY);
      if (null >= 0) dup2(null, STDOUT_FILENO);
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      execl(path.c_str(), path.c_str(), "0", "sleep", static_cast<char*>(nullptr));
      _exit(127);
    }
    close(in[0]);
    input_ = in[1];
  }
  // A change of the effective user leaves a process undumpable, unless it asks to be again.
  // The child gives up every capability, as a desktop user's programs have none: so only its
  // user ids set it apart from the test.
  Child(uid_t real, uid_t effective, uid_t saved, bool dumpable = false) {
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (setresuid(real, effective, saved) != 0) _exit(1);
      if (dumpable && prctl(PR_SET_DUMPABLE, 1) != 0) _exit(1);
      __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
      __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3]{};
      if (syscall(SYS_capset, &header, none) != 0) _exit(1);
      for (;;) pause();
    }
  }
  ~Child() {
    if (input_ >= 0) close(input_);
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int input_ = -1;
};

// The Uid line of the process's status; "" when it cannot be read.
std::string UidLine(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);)
    if (line.rfind("Uid:", 0) == 0) return line;
  return std::string();
}

// The owner of the process's exe link, which the kernel sets by the process's dumpability.
uid_t ExeLinkOwner(pid_t pid) {
  struct stat link {};
  lstat(("/proc/" + std::to_string(pid) + "/exe").c_str(), &link);
  return link.st_uid;
}

// CAP_SYS_PTRACE out of this thread's effective set while the object lives.
class WithoutTracingCapability {
 public:
  WithoutTracingCapability() {
    if (syscall(SYS_capget, &header_, saved_) != 0) return;
    __user_cap_data_struct lowered[_LINUX_CAPABILITY_U32S_3];
    std::memcpy(lowered, saved_, sizeof lowered);
    lowered[CAP_TO_INDEX(CAP_SYS_PTRACE)].effective &= ~CAP_TO_MASK(CAP_SYS_PTRACE);
    ok_ = syscall(SYS_capset, &header_, lowered) == 0;
  }
  ~WithoutTracingCapability() {
    if (ok_) syscall(SYS_capset, &header_, saved_);
  }
  WithoutTracingCapability(const WithoutTracingCapability&) = delete;
  WithoutTracingCapability& operator=(const WithoutTracingCapability&) = delete;
  bool ok() const { return ok_; }

 private:
  __user_cap_header_struct header_{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct saved_[_LINUX_CAPABILITY_U32S_3]{};
  bool ok_ = false;
};

// A copy of thread_peer at `path`.
void CopyPeerTo(const std::string& path) {
  fs::copy_file(tessmark::testing::PeerPath("thread_peer"), path);
  fs::permissions(path, fs::perms::owner_exec, fs::perm_options::add);
}

// A file written beside `path` and renamed over it, as a package upgrade replaces a program.
void ReplaceFile(const std::string& path) {
  std::ofstream(path + ".new") << "#!/bin/sh\n";
  fs::rename(path + ".new", path);
}

// thread_peer copied into a fresh folder as `name` and run from there.
class RunningCopy {
 public:
  explicit RunningCopy(const std::string& name) {
    if (folder_.path().empty()) {
      error_ = std::string("no folder: ") + std::strerror(errno);
      return;
    }
    path_ = folder_.path() + "/" + name;
    CopyPeerTo(path_);
    program_.emplace(path_);
    if (!WaitFor([&] { return ExeText(pid()) == path_; }))
      error_ = "the kernel shows " + ExeText(pid());
  }
  // Empty when the copy runs and the kernel shows its file as the executable.
  const std::string& error() const { return error_; }
  const std::string& path() const { return path_; }
  pid_t pid() const { return program_ ? program_->pid() : -1; }

 private:
  TempFolder folder_;  // outlives the program, which is killed first
  std::string path_;
  std::optional<Child> program_;
  std::string error_;
};

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

// Linux names an executable whose file is gone "<path> (deleted)".
TEST(ProcessesList, AProgramReplacedWhileItRunsKeepsThePathItWasStartedFrom) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  RunningCopy program("tool");
  ASSERT_EQ(program.error(), "");
  const std::string& path = program.path();

  ReplaceFile(path);
  ASSERT_EQ(ExeText(program.pid()), path + " (deleted)");
  EXPECT_EQ(PathOf(LinuxProcesses().list(), program.pid()), path);
}

TEST(ProcessesList, AFileReallyNamedWithTheKernelsMarkKeepsItsName) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  RunningCopy program("tool (deleted)");
  ASSERT_EQ(program.error(), "");
  const std::string& path = program.path();
  EXPECT_EQ(PathOf(LinuxProcesses().list(), program.pid()), path);

  // Replaced in its turn, it carries the mark twice; the kernel's own goes.
  ReplaceFile(path);
  ASSERT_EQ(ExeText(program.pid()), path + " (deleted)");
  EXPECT_EQ(PathOf(LinuxProcesses().list(), program.pid()), path);
}

TEST(ProcessesList, ADeletedProgramIsNotTheFileThatTookItsMarkedName) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  RunningCopy program("tool");
  ASSERT_EQ(program.error(), "");
  const std::string& path = program.path();

  // The program's file is deleted, and another file is made under the name the kernel shows.
  fs::remove(path);
  std::ofstream(path + " (deleted)") << "another file";
  ASSERT_EQ(ExeText(program.pid()), path + " (deleted)");
  EXPECT_EQ(PathOf(LinuxProcesses().list(), program.pid()), path);
}

// The firewall's own user is its real user id; a process is that user's when its real,
// effective and saved user ids all are, as the kernel asks of a tracer without privileges.
TEST(ProcessesList, KeepsToProcessesOfTheFirewallsOwnUser) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  if (geteuid() != 0) GTEST_SKIP() << "making processes of another user needs root";
  const uid_t own = getuid();
  constexpr uid_t kOther = 54321;
  Child mine(own, own, own);
  Child other(kOther, kOther, kOther);
  Child otherWithOurEffectiveUser(kOther, own, own);  // a daemon acting for us for a moment
  Child oursActingAsOther(own, kOther, own);
  Child oursKeepingOtherSaved(own, own, kOther);
  const std::string otherUid = std::to_string(kOther);
  for (const Child* child :
       {&other, &otherWithOurEffectiveUser, &oursActingAsOther, &oursKeepingOtherSaved})
    ASSERT_TRUE(WaitFor([&] { return UidLine(child->pid()).find(otherUid) != std::string::npos; }))
        << UidLine(child->pid());

  const std::string self = fs::read_symlink("/proc/self/exe").string();
  auto expectOnlyMine = [&](const std::vector<ProcessEntry>& list) {
    EXPECT_EQ(PathOf(list, mine.pid()), self);
    EXPECT_EQ(PathOf(list, other.pid()), "<missing>");
    EXPECT_EQ(PathOf(list, otherWithOurEffectiveUser.pid()), "<missing>");
    EXPECT_EQ(PathOf(list, oursActingAsOther.pid()), "<missing>");
    EXPECT_EQ(PathOf(list, oursKeepingOtherSaved.pid()), "<missing>");
  };
  {
    SCOPED_TRACE("with CAP_SYS_PTRACE, which opens every exe link");
    expectOnlyMine(LinuxProcesses().list());
  }
  {
    // Without it, the list leaves the choice to the kernel's own rule for exe links, which
    // also asks that the process hold no capability the reader lacks.
    SCOPED_TRACE("without CAP_SYS_PTRACE");
    WithoutTracingCapability dropped;
    ASSERT_TRUE(dropped.ok()) << std::strerror(errno);
    expectOnlyMine(LinuxProcesses().list());
  }
}

// For a user other than root, a process that never changed users is known by the owner of its
// exe link alone; one that did is known by its Uid line.
TEST(ProcessesList, AUsersProcessesAreKnownWhetherTheyChangedUsersOrNot) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  if (geteuid() != 0) GTEST_SKIP() << "making processes of another user needs root";
  constexpr uid_t kUser = 54321;
  Child dumpable(kUser, kUser, kUser, /*dumpable=*/true);
  Child changedUsers(kUser, kUser, kUser);
  Child daemonActingForTheUser(0, kUser, 0);
  const std::string user = std::to_string(kUser);
  for (const Child* child : {&dumpable, &changedUsers, &daemonActingForTheUser})
    ASSERT_TRUE(WaitFor([&] { return UidLine(child->pid()).find(user) != std::string::npos; }))
        << UidLine(child->pid());
  // The two roads are the ones meant: the link is the user's only while dumpable.
  ASSERT_TRUE(WaitFor([&] { return ExeLinkOwner(dumpable.pid()) == kUser; }));
  ASSERT_EQ(ExeLinkOwner(changedUsers.pid()), 0u);
  ASSERT_EQ(ExeLinkOwner(daemonActingForTheUser.pid()), 0u);

  std::vector<ProcessEntry> list = LinuxProcesses("/proc", kUser).list();
  const std::string self = fs::read_symlink("/proc/self/exe").string();
  EXPECT_EQ(PathOf(list, dumpable.pid()), self);
  EXPECT_EQ(PathOf(list, changedUsers.pid()), self);
  EXPECT_EQ(PathOf(list, daemonActingForTheUser.pid()), "<missing>");
  EXPECT_EQ(PathOf(list, getpid()), "<missing>");
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
  // Paths are bytes: spaces, a control byte, a byte above 127. The kernel's deleted mark goes,
  // as no file of that name is the program.
  std::string odd = std::string("/opt/odd name/\x01pr\xE9og");
  fs::create_symlink(odd + " (deleted)", root / "100" / "exe");
  fs::create_symlink("/usr/bin/true", root / "abc" / "exe");
  fs::create_symlink("/usr/bin/false", root / "300" / "exe");
  fs::create_symlink("100", root / "self");
  // Every entry is this user's, as the folders are.
  const std::string uid = std::to_string(getuid());
  for (const char* pid : {"100", "200", "300", "abc"})
    std::ofstream(root / pid / "status")
        << "Name:\tprog\nUid:\t" << uid << "\t" << uid << "\t" << uid << "\t" << uid << "\n";

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
