#pragma once
// Which process holds a socket: socket inode -> pid, read from /proc/<pid>/fd.
//
// A full scan of every process's fd folder costs milliseconds with a few hundred processes,
// too much for each read of the tables, so what was seen is kept:
//   - per pid, its count of open files and the socket inodes it held at its last scan;
//   - per inode, the pid it was found in.
// A look-up:
//   1. lists the pids; forgets pids that have gone, and the inodes found in them;
//   2. rescans the pids that are new or whose count of open files changed
//      (stat("/proc/<pid>/fd").st_size is that count on kernels from 6.2);
//   3. searches inodes still unknown in the remaining pids, newest (highest) pid first, as a
//      socket is most often new in a new process, stopping once all are found;
//   4. answers pid 0 for an inode that no process holds (an orphaned socket) or that no
//      readable process holds. Such an inode is remembered as unowned and not searched for
//      again while it is asked for (another user's daemon would otherwise cost a full scan on
//      every read); a rescan of a changed process that finds it still names its owner.
//
// A socket shared by several processes (inherited across fork, or passed) belongs to the first
// holder found, highest pid first, and keeps that owner while that process still holds it,
// so a row's owner does not flip between reads.
//
// A process whose count stays the same while it swaps one socket for another is not rescanned;
// a socket it gained that way is still found by step 3, and an inode it dropped stays
// attributed to it only until the process's count changes. Socket inodes are not reused soon,
// so a dropped inode is not asked for again.

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace tessmark::platform::linux_backend {

class SocketOwners {
 public:
  explicit SocketOwners(std::string procRoot = "/proc");

  // The owning pid of each inode, in the same order; 0 for inode 0 and for inodes no process
  // is found to hold.
  std::vector<uint32_t> lookup(const std::vector<uint64_t>& inodes);

 private:
  struct Process {
    off_t fdCount = -1;
    std::vector<uint64_t> inodes;  // sorted
    uint64_t seenInRound = 0;
    uint64_t scannedInRound = 0;
  };

  // Reads the socket inodes of pid's fd folder and updates the inode -> pid map.
  void rescan(int32_t pid, Process& process, off_t fdCount);
  off_t fdCount(int32_t pid) const;
  std::vector<int32_t> listPids() const;

  std::string procRoot_;
  uint64_t round_ = 0;
  std::unordered_map<int32_t, Process> processes_;
  std::unordered_map<uint64_t, int32_t> owners_;
  std::unordered_set<uint64_t> unowned_;
};

}  // namespace tessmark::platform::linux_backend
