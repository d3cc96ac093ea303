#pragma once
// The processes of the firewall's own user as /proc shows them: each numeric entry whose real,
// effective and saved user ids are the firewall's real user id, and whose exe link can be
// read. Another user's process is left out even where a capability (cap_sys_ptrace) would
// open it, so the system's daemons are never judged or held. Runs at each change of the
// connection tables, so it stays cheap: without that capability the kernel reads out only the
// user's own links and one readlinkat per process is all; with it, one fstatat of the folder
// and one of the link come first, and the status file is read only where those cannot tell,
// once per process and program: a verdict stands while the process runs the same program under
// the same effective user (a change of users nearly always changes the effective one).

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/platform.h"

namespace tessmark::platform::linux_backend {

class LinuxProcesses final : public Processes {
 public:
  // `procRoot` is /proc; tests may point it at a folder laid out the same way. The user is
  // the firewall's real user unless one is given.
  explicit LinuxProcesses(std::string procRoot = "/proc");
  LinuxProcesses(std::string procRoot, uid_t user);

  std::vector<ProcessEntry> list() override;
  int32_t currentProcessId() override;

 private:
  // What the status file said of a process, and what it was running then.
  struct Verdict {
    uid_t effectiveUser = 0;
    std::string path;
    bool users = false;
  };

  std::string procRoot_;
  uid_t user_;
  size_t lastCount_ = 0;  // to reserve the next list at once
  std::unordered_map<int32_t, Verdict> verdicts_;
};

}  // namespace tessmark::platform::linux_backend
