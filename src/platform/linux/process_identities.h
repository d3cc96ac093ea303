#pragma once
// Which process a pid of the connection tables named. Between a read of the tables and the
// freeze or kill it leads to, the monitor may run other work; a program that ended meanwhile
// may have left its pid to another program, which must never be hit. So each read of a table
// keeps a pidfd of every owner it names: a pidfd stays bound to its process, and turns readable
// once that process has ended. A pid whose process ended since the read names someone else now.

#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace tessmark::platform::linux_backend {

class ProcessIdentities {
 public:
  enum Source : uint8_t { kTcp = 1, kUdp = 2 };

  ProcessIdentities() = default;
  ~ProcessIdentities();
  ProcessIdentities(const ProcessIdentities&) = delete;
  ProcessIdentities& operator=(const ProcessIdentities&) = delete;

  // The owners a fresh read of one table named (0 is no owner and is passed over). A pid
  // that neither table names any more is forgotten.
  void remember(Source source, const std::vector<uint32_t>& pids);

  // True when the last reads named `pid` and the process they named has ended since: the pid,
  // if it runs at all, is another process now. False for a pid the reads did not name.
  bool isReused(int32_t pid) const;

 private:
  struct Entry {
    int pidfd = -1;
    uint8_t sources = 0;
  };

  mutable std::mutex mutex_;
  std::unordered_map<int32_t, Entry> entries_;
};

}  // namespace tessmark::platform::linux_backend
