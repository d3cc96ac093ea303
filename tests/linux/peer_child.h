#pragma once
// A test peer program started as a child of the test. It gets SIGKILL when the test process
// ends (so a frozen peer never outlives a crashed test) and is killed and reaped when this
// object goes, unless the test reaped it itself. Every peer prints "ready <pid>" once set up.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "linux/netns.h"
#include "platform/linux/process_stat.h"

namespace tessmark::testing {

inline bool IsHeldLetter(char state) {
  return state == 'T' || state == 't';
}

class PeerChild {
 public:
  PeerChild(const std::string& name, std::vector<std::string> args) {
    std::string program = PeerPath(name);
    std::vector<char*> argv{program.data()};
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
      error_ = "pipe failed";
      return;
    }
    pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
      // Only async-signal-safe calls until exec: the test process may have threads.
      dup2(in[0], STDIN_FILENO);
      dup2(out[1], STDOUT_FILENO);
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(126);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    stdin_ = in[1];
    if (pid_ < 0) {
      close(out[0]);
      error_ = "fork failed";
      return;
    }
    // The read end stays open: a peer that reports more must not die of a closed pipe.
    stdout_ = out[0];
    readReady(out[0]);
  }

  ~PeerChild() {
    if (stdin_ >= 0) close(stdin_);
    if (stdout_ >= 0) close(stdout_);
    if (pid_ > 0 && !reaped_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  PeerChild(const PeerChild&) = delete;
  PeerChild& operator=(const PeerChild&) = delete;

  pid_t pid() const { return pid_; }
  // Empty when the peer runs and said it is ready.
  const std::string& error() const { return error_; }

  // The state letter of the whole process, '?' when it cannot be read.
  char state() const {
    auto stat = platform::linux_backend::ReadProcessStat(pid_);
    return stat ? stat->state : '?';
  }
  // Stopped (T) or in a trace stop (t): the peer's main thread runs nothing.
  bool held() const { return IsHeldLetter(state()); }
  // Waits (bounded) until the peer is held (want true) or runs (want false).
  bool waitUntilHeld(bool want, std::chrono::milliseconds limit = std::chrono::seconds(5)) const {
    auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
      if (held() == want) return true;
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  // Writes to the peer's stdin.
  bool send(const std::string& text) const {
    return write(stdin_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  }

  uint64_t startTime() const {
    auto stat = platform::linux_backend::ReadProcessStat(pid_);
    return stat ? stat->startTime : 0;
  }

  // Waits (bounded) until the state letter is `letter` (want true) or is not (want false).
  bool waitForState(char letter, bool want,
                    std::chrono::milliseconds limit = std::chrono::seconds(5)) const {
    auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
      if ((state() == letter) == want) return true;
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  // Reaps the peer (bounded wait); its wait status, nullopt if it did not end in time.
  std::optional<int> reap(std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
      int status = 0;
      pid_t got = waitpid(pid_, &status, WNOHANG);
      // A trace stop of the firewall's shows here too (its tracer shares this process): only
      // the end counts.
      if (got == pid_ && (WIFEXITED(status) || WIFSIGNALED(status))) {
        reaped_ = true;
        return status;
      }
      if (got < 0 || std::chrono::steady_clock::now() >= deadline) return std::nullopt;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

 private:
  void readReady(int fd) {
    std::string line;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (line.find('\n') == std::string::npos) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd p{fd, POLLIN, 0};
      char buf[64];
      ssize_t n = 0;
      if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) != 1 ||
          (n = read(fd, buf, sizeof buf)) <= 0) {
        error_ = "the peer did not report ready: " + line;
        return;
      }
      line.append(buf, static_cast<size_t>(n));
    }
    if (line != "ready " + std::to_string(pid_) + "\n") error_ = "unexpected line: " + line;
  }

  pid_t pid_ = -1;
  int stdin_ = -1;
  int stdout_ = -1;
  bool reaped_ = false;
  std::string error_;
};

// thread_peer with `threads` extra threads, spinning or napping.
class ThreadPeerChild : public PeerChild {
 public:
  ThreadPeerChild(int threads, bool busy)
      : PeerChild("thread_peer", {std::to_string(threads), busy ? "busy" : "sleep"}) {}
};

}  // namespace tessmark::testing
