#pragma once
// Which process holds a socket: socket inode -> pid, read from /proc/<pid>/fd.
//
// A full scan of every process's fd folder costs milliseconds with a few hundred processes,
// too much for each read of the tables, so what was seen is kept:
//   - per pid, its count of open files and the socket inodes it held at its last scan, each
//     with one descriptor number it was found at;
//   - per inode, the pids that held it at their last scan.
// A look-up:
//   1. lists the pids; forgets pids that have gone, and the inodes found in them; scans the
//      new pids;
//   2. rescans the pids whose count of open files changed. How that count is had is the
//      FdChangeSignal: the fd folder's size for every pid where the kernel reports it (from
//      6.2), else the folder's entries counted for the owners of the inodes asked about, and
//      for the parent of a new owner, which may hold the same socket since the fork;
//   3. checks, for an inode held by several processes, that its owner still holds it at the
//      descriptor it was found at, and rescans the owner when not: a socket handed to a child
//      then moves to the child even if the parent's count came out the same;
//   4. searches inodes still unknown in the pids not rescanned yet: first the owners of the
//      other inodes asked about (programs with connections open more), then the rest, newest
//      (highest) pid first, as a socket is most often new in a new process; it stops once all
//      are found;
//   5. answers pid 0 for an inode that no process holds (an orphaned socket) or that no
//      readable process holds. Such an inode is remembered as unowned and not searched for
//      again while it is asked for (another user's daemon would otherwise cost a full scan on
//      every read); a rescan of a changed process that finds it still names its owner.
//
// A socket shared by several processes (inherited across fork, or passed) belongs to its
// oldest known holder, the lowest pid: the child between fork and exec holds its parent's
// sockets for a moment and must not be taken for their owner.
//
// A process whose count stays the same while it swaps one unshared socket for another is not
// rescanned; a socket it gained that way is still found by step 4, and an inode it dropped
// stays attributed to it until the process is rescanned. Socket inodes are not reused soon, so
// a dropped inode is not asked for again.

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace tessmark::platform::linux_backend {

// How a change in a process's open files is noticed.
enum class FdChangeSignal {
  kDetect,      // the folder size where the kernel reports it, else kOwnerCount
  kFolderSize,  // stat("/proc/<pid>/fd").st_size of every process (kernels from 6.2)
  kOwnerCount,  // the entries of /proc/<pid>/fd counted for the owners of the inodes asked about
};

class SocketOwners {
 public:
  explicit SocketOwners(std::string procRoot = "/proc",
                        FdChangeSignal signal = FdChangeSignal::kDetect);

  // The signal in use, never kDetect.
  FdChangeSignal signal() const { return signal_; }

  // The owning pid of each inode, in the same order; 0 for inode 0 and for inodes no process
  // is found to hold.
  std::vector<uint32_t> lookup(const std::vector<uint64_t>& inodes);

 private:
  struct Socket {
    uint64_t inode = 0;
    int fd = -1;  // one descriptor number it was found at
  };
  struct Process {
    off_t fdCount = -1;
    std::vector<Socket> sockets;  // sorted by inode, one entry per inode
    int32_t parent = -1;          // -1 not read yet, 0 unknown
    uint64_t seenInRound = 0;
    uint64_t newInRound = 0;
    uint64_t checkedInRound = 0;  // its count compared
    uint64_t scannedInRound = 0;
  };

  // Reads the socket inodes of pid's fd folder and updates the holders; returns the inodes
  // that no known process holds any more.
  std::vector<uint64_t> rescan(int32_t pid, Process& process);
  // Compares the count of pid's fd entries with the last one; rescans when it changed and
  // says so.
  bool check(int32_t pid, Process& process);
  // Rescans what the owners of the inodes asked about may have changed (steps 2 and 3).
  void checkOwners(const std::vector<uint64_t>& inodes);
  bool stillHolds(int32_t pid, const Process& process, uint64_t inode) const;
  void forget(int32_t pid, const Process& process);
  int32_t ownerOf(uint64_t inode) const;

  off_t folderSize(int32_t pid) const;
  off_t countEntries(int32_t pid) const;
  int32_t readParent(int32_t pid) const;
  std::vector<int32_t> listPids() const;

  std::string procRoot_;
  FdChangeSignal signal_;
  uint64_t round_ = 0;
  std::unordered_map<int32_t, Process> processes_;
  std::unordered_map<uint64_t, std::vector<int32_t>> holders_;  // pids ascending
  std::unordered_set<uint64_t> unowned_;
};

}  // namespace tessmark::platform::linux_backend
