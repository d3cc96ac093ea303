#pragma once
// The processes of the machine as /proc shows them: each numeric entry whose exe link this
// user may read. Runs at each change of the connection tables, so it stays cheap: one
// directory walk and one readlinkat per process, nothing opened per process.

#include <cstdint>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace tessmark::platform::linux_backend {

class LinuxProcesses final : public Processes {
 public:
  // `procRoot` is /proc; tests may point it at a folder laid out the same way.
  explicit LinuxProcesses(std::string procRoot = "/proc");

  std::vector<ProcessEntry> list() override;
  int32_t currentProcessId() override;

 private:
  std::string procRoot_;
  size_t lastCount_ = 0;  // to reserve the next list at once
};

}  // namespace tessmark::platform::linux_backend
