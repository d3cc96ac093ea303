// A program held in the foreground of an interactive shell: the shell must never notice. A
// stop by signal would make it print "Stopped", take the terminal back and leave the program a
// background job that stops again the moment it reads the terminal.

#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <regex>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "linux/netns.h"
#include "platform/linux/linux_threads.h"
#include "platform/linux/process_stat.h"

namespace tessmark::platform::linux_backend {
namespace {

using namespace std::chrono_literals;

// An interactive bash on a pseudo terminal of its own, killed and reaped at the end.
struct ShellOnATerminal {
  ShellOnATerminal() {
    pid_t parent = getpid();
    if ((pid = forkpty(&terminal, nullptr, nullptr, nullptr)) == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(126);
      char bash[] = "/bin/bash", norc[] = "--norc", noprofile[] = "--noprofile", i[] = "-i";
      char term[] = "TERM=dumb", ps1[] = "PS1=$ ";
      char* argv[] = {bash, norc, noprofile, i, nullptr};
      char* envp[] = {term, ps1, nullptr};
      execve(argv[0], argv, envp);
      _exit(127);
    }
  }
  ~ShellOnATerminal() {
    if (pid > 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    if (terminal >= 0) close(terminal);
  }
  // Adds what the terminal shows within `time` to the screen.
  void readFor(std::chrono::milliseconds time) {
    pollfd p{terminal, POLLIN, 0};
    char buf[512];
    ssize_t n = poll(&p, 1, static_cast<int>(time.count())) == 1 ? read(terminal, buf, 512) : 0;
    if (n > 0) screen.append(buf, static_cast<size_t>(n));
  }
  pid_t pid = -1;
  int terminal = -1;
  std::string screen;
};

TEST(JobControl, AForegroundProgramHeldAndLetGoStaysInTheForegroundUnseenByTheShell) {
  TESSMARK_REQUIRE_PRIVATE_NETNS();
  if (access("/bin/bash", X_OK) != 0) GTEST_SKIP() << "no /bin/bash";
  ShellOnATerminal shell;
  ASSERT_GT(shell.pid, 0) << "forkpty: " << std::strerror(errno);
  const std::string start = tessmark::testing::PeerPath("thread_peer") + " 2 sleep\n";
  ASSERT_EQ(write(shell.terminal, start.data(), start.size()), static_cast<ssize_t>(start.size()));
  std::smatch ready;
  for (auto deadline = std::chrono::steady_clock::now() + 10s;
       !std::regex_search(shell.screen, ready, std::regex("ready ([0-9]+)\r?\n"));) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline) << shell.screen;
    shell.readFor(100ms);
  }
  const pid_t program = std::stoi(ready[1]);
  const size_t shown = shell.screen.size();

  LinuxThreads threads;
  auto ids = threads.snapshot(program);
  ASSERT_TRUE(ids && ids->size() == 3u);
  for (const ThreadEntry& thread : *ids) ASSERT_EQ(threads.suspendThread(thread.threadId), 0);
  shell.readFor(100ms);
  for (const ThreadEntry& thread : *ids) ASSERT_EQ(threads.resumeThread(thread.threadId), 1);
  shell.readFor(100ms);

  EXPECT_EQ(shell.screen.substr(shown), "") << "the shell printed something";
  EXPECT_EQ(tcgetpgrp(shell.terminal), getpgid(program)) << "the program lost the terminal";
  // Still the foreground job: it reads the terminal's end of input and ends by itself.
  ASSERT_EQ(write(shell.terminal, "\x04", 1), 1);
  auto deadline = std::chrono::steady_clock::now() + 5s;
  for (std::optional<ProcessStat> stat; (stat = ReadProcessStat(program)) && stat->state != 'Z';) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "state " << stat->state << "\n"
                                                          << shell.screen;
    std::this_thread::sleep_for(1ms);
  }
}

}  // namespace
}  // namespace tessmark::platform::linux_backend
