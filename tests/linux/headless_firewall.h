#pragma once
// The headless firewall binary started as a child of the test, its stdout (every message box,
// one line each) read back by the test. It gets SIGKILL when the test process ends, so a
// firewall holding programs never outlives a crashed test, and is killed and reaped when this
// object goes unless the test ended it.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace tessmark::testing {

// The test's own listener is allowed and remembered; every other question stays open.
inline const std::string kAllowTheTestAnswers = "*/linux_tests yes remember\n* none\n";

class HeadlessFirewall {
 public:
  // `answers` goes to home/answers and is the firewall's script. `environment` is its whole
  // environment (empty: HOME=home alone). `launcher` runs before the binary, which becomes its
  // last arguments (e.g. a program that drops capabilities and then execs the firewall).
  explicit HeadlessFirewall(const std::filesystem::path& home,
                            const std::string& answers = kAllowTheTestAnswers,
                            std::vector<std::string> environment = {},
                            std::vector<std::string> launcher = {}) {
    std::ofstream(home / "answers") << answers;
    if (environment.empty()) environment.push_back("HOME=" + home.string());
    std::vector<std::string> args = std::move(launcher);
    args.insert(args.end(), {TESSMARK_FIREWALL, "--answers", (home / "answers").string()});
    // Everything the child needs is built before the fork: the test process may have threads,
    // so the child makes only async-signal-safe calls until exec.
    std::vector<char*> argv, envp;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    for (std::string& variable : environment) envp.push_back(variable.data());
    envp.push_back(nullptr);
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return;
    pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
      dup2(out[1], STDOUT_FILENO);
      int null = open("/dev/null", O_WRONLY);
      dup2(null, STDERR_FILENO);
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(126);
      execve(argv[0], argv.data(), envp.data());
      _exit(127);
    }
    close(out[1]);
    output_ = out[0];
  }
  ~HeadlessFirewall() {
    closeOutput();
    if (pid_ > 0 && !ended_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  HeadlessFirewall(const HeadlessFirewall&) = delete;
  HeadlessFirewall& operator=(const HeadlessFirewall&) = delete;

  // Reads its output until `text` shows, for up to 10 s.
  bool waitFor(const std::string& text) {
    using namespace std::chrono_literals;
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (seen_.find(text) == std::string::npos) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd p{output_, POLLIN, 0};
      char buf[512];
      ssize_t n = 0;
      if (output_ < 0 || left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) != 1 ||
          (n = read(output_, buf, sizeof buf)) <= 0)
        return false;
      seen_.append(buf, static_cast<size_t>(n));
    }
    return true;
  }
  void closeOutput() {
    if (output_ >= 0) close(output_);
    output_ = -1;
  }
  bool running() const {
    siginfo_t info{};
    return pid_ > 0 &&
           waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
  }
  // Sends `signal` and waits up to 10 s for the end; its wait status, or -1.
  int endWith(int signal) {
    using namespace std::chrono_literals;
    kill(pid_, signal);
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (std::chrono::steady_clock::now() < deadline) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        ended_ = true;
        return status;
      }
      std::this_thread::sleep_for(1ms);
    }
    return -1;
  }
  const std::string& output() const { return seen_; }

 private:
  pid_t pid_ = -1;
  int output_ = -1;
  bool ended_ = false;
  std::string seen_;
};

}  // namespace tessmark::testing
