// A program held in the foreground of an interactive shell: the shell must never notice. A
// stop by signal would make it print "Stopped", take the terminal back and leave the program a
// background job that stops again the moment it reads the terminal.

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <regex>
#include <string>
#include <thread>

#include "linux/netns.h"
#include "platform/linux/linux_threads.h"
#include "platform/linux/process_stat.h"

namespace tessmark::platform::linux_backend {
namespace {

using namespace std::chrono_literals;

// An interactive bash on a pseudo terminal of its own.
class ShellOnATerminal {
 public:
  ShellOnATerminal() {
    if (access("/bin/bash", X_OK) != 0) {
      why_ = "no /bin/bash";
      return;
    }
    pid_t parent = getpid();
    pid_ = forkpty(&master_, nullptr, nullptr, nullptr);
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(126);
      char bash[] = "/bin/bash", norc[] = "--norc", noprofile[] = "--noprofile", i[] = "-i";
      char* argv[] = {bash, norc, noprofile, i, nullptr};
      char term[] = "TERM=dumb", ps1[] = "PS1=$ ";
      char* envp[] = {term, ps1, nullptr};
      execve(argv[0], argv, envp);
      _exit(127);
    }
    if (pid_ < 0) why_ = std::string("forkpty: ") + std::strerror(errno);
  }
  ~ShellOnATerminal() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (master_ >= 0) close(master_);
  }

  const std::string& unavailable() const { return why_; }
  void type(const std::string& text) { (void)!write(master_, text.data(), text.size()); }

  // Reads what the terminal shows until `pattern` matches all of it or `limit` passes.
  bool readUntil(const std::regex& pattern, std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!std::regex_search(screen_, pattern)) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return false;
      readFor(left);
    }
    return true;
  }
  // Everything the terminal showed within `time`.
  void readFor(std::chrono::milliseconds time) {
    pollfd p{master_, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(time.count())) != 1) return;
    char buf[512];
    ssize_t n = read(master_, buf, sizeof buf);
    if (n > 0) screen_.append(buf, static_cast<size_t>(n));
  }
  const std::string& screen() const { return screen_; }
  pid_t foregroundGroup() const { return tcgetpgrp(master_); }

 private:
  pid_t pid_ = -1;
  int master_ = -1;
  std::string screen_;
  std::string why_;
};

bool Gone(pid_t pid) {
  auto deadline = std::chrono::steady_clock::now() + 5s;
  while (kill(pid, 0) == 0 || errno != ESRCH) {
    auto stat = ReadProcessStat(pid);
    if (!stat || stat->state == 'Z') return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

TEST(JobControl, AForegroundProgramHeldAndLetGoStaysInTheForegroundUnseenByTheShell) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  ShellOnATerminal shell;
  if (!shell.unavailable().empty()) GTEST_SKIP() << shell.unavailable();
  shell.type(tessmark::testing::PeerPath("thread_peer") + " 2 sleep\n");
  ASSERT_TRUE(shell.readUntil(std::regex("ready ([0-9]+)"), 10s)) << shell.screen();
  std::smatch ready;
  std::regex_search(shell.screen(), ready, std::regex("ready ([0-9]+)"));
  pid_t program = std::stoi(ready[1]);
  size_t shown = shell.screen().size();

  LinuxThreads threads;
  auto ids = threads.snapshot(program);
  ASSERT_TRUE(ids && ids->size() == 3u);
  for (const ThreadEntry& thread : *ids) ASSERT_EQ(threads.suspendThread(thread.threadId), 0);
  shell.readFor(100ms);
  for (const ThreadEntry& thread : *ids) ASSERT_EQ(threads.resumeThread(thread.threadId), 1);
  shell.readFor(100ms);

  EXPECT_EQ(shell.screen().substr(shown), "") << "the shell printed something";
  EXPECT_EQ(shell.foregroundGroup(), getpgid(program)) << "the program lost the terminal";
  // Still the foreground job: it reads the terminal's end of input and ends by itself.
  shell.type("\x04");
  EXPECT_TRUE(Gone(program)) << shell.screen();
}

}  // namespace
}  // namespace tessmark::platform::linux_backend
