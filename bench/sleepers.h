#pragma once
// Child processes that only wait, for the benchmarks that need processes to walk: they die
// with this program even if it is killed, and are killed and reaped when this object goes.
// Only the children started here are ever signalled.

#include <signal.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>
#include <vector>

class Sleepers {
 public:
  // `user`: the user the children become (which needs root), or none.
  explicit Sleepers(int count, std::optional<uid_t> user = std::nullopt) {
    pid_t parent = ::getpid();
    for (int i = 0; i < count; ++i) {
      pid_t pid = ::fork();
      if (pid < 0) break;
      if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(0);
        if (user && ::setresuid(*user, *user, *user) != 0) ::_exit(1);
        for (;;) ::pause();
      }
      pids_.push_back(pid);
    }
    // Let every child take its user before anything is timed.
    if (user) ::usleep(100000);
  }
  ~Sleepers() {
    for (pid_t pid : pids_) ::kill(pid, SIGKILL);
    for (pid_t pid : pids_) ::waitpid(pid, nullptr, 0);
  }
  Sleepers(const Sleepers&) = delete;
  Sleepers& operator=(const Sleepers&) = delete;

  size_t size() const { return pids_.size(); }

 private:
  std::vector<pid_t> pids_;
};
