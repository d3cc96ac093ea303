#include "platform/linux/socket_owners.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string_view>
#include <unordered_set>
#include <utility>

namespace tessmark::platform::linux_backend {

namespace {

// "socket:[12345]" -> 12345; other links (files, pipes, anon inodes) give nothing.
bool SocketInode(std::string_view link, uint64_t& inode) {
  constexpr std::string_view kPrefix = "socket:[";
  if (!link.starts_with(kPrefix) || !link.ends_with(']')) return false;
  link.remove_prefix(kPrefix.size());
  link.remove_suffix(1);
  auto [end, ec] = std::from_chars(link.data(), link.data() + link.size(), inode);
  return ec == std::errc() && end == link.data() + link.size();
}

template <typename T>
bool ParseWhole(std::string_view text, T& value) {
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  return ec == std::errc() && end == text.data() + text.size();
}

bool ParsePid(const char* name, int32_t& pid) {
  return ParseWhole(std::string_view(name), pid) && pid > 0;
}

// The kernel counts open files in the fd folder's size from 6.2 on and reports 0 before. The
// folder's own descriptor is open while it is asked, so a kernel that counts never says 0.
FdChangeSignal Detect(const std::string& procRoot) {
  std::string path = procRoot + "/self/fd";
  int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return FdChangeSignal::kOwnerCount;
  struct stat st;
  bool counts = ::fstat(fd, &st) == 0 && st.st_size > 0;
  ::close(fd);
  return counts ? FdChangeSignal::kFolderSize : FdChangeSignal::kOwnerCount;
}

}  // namespace

SocketOwners::SocketOwners(std::string procRoot, FdChangeSignal signal)
    : procRoot_(std::move(procRoot)),
      signal_(signal == FdChangeSignal::kDetect ? Detect(procRoot_) : signal) {}

std::vector<int32_t> SocketOwners::listPids() const {
  std::vector<int32_t> pids;
  DIR* dir = ::opendir(procRoot_.c_str());
  if (dir == nullptr) return pids;
  while (const dirent* entry = ::readdir(dir)) {
    int32_t pid = 0;
    if (ParsePid(entry->d_name, pid)) pids.push_back(pid);
  }
  ::closedir(dir);
  std::sort(pids.begin(), pids.end(), std::greater<>());
  return pids;
}

off_t SocketOwners::folderSize(int32_t pid) const {
  char path[4096];
  std::snprintf(path, sizeof path, "%s/%d/fd", procRoot_.c_str(), pid);
  struct stat st;
  if (::stat(path, &st) != 0) return -1;
  return st.st_size;
}

// Entries are counted as a rescan counts them, so the two numbers compare.
off_t SocketOwners::countEntries(int32_t pid) const {
  char path[4096];
  std::snprintf(path, sizeof path, "%s/%d/fd", procRoot_.c_str(), pid);
  int fd = ::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return -1;
  off_t count = 0;
  alignas(dirent64) char buffer[32768];
  for (;;) {
    ssize_t n = ::getdents64(fd, buffer, sizeof buffer);
    if (n < 0) count = -1;
    if (n <= 0) break;
    for (ssize_t offset = 0; offset < n;) {
      const auto* entry = reinterpret_cast<const dirent64*>(buffer + offset);
      if (entry->d_name[0] != '.') ++count;
      offset += entry->d_reclen;
    }
  }
  ::close(fd);
  return count;
}

int32_t SocketOwners::readParent(int32_t pid) const {
  char path[4096];
  std::snprintf(path, sizeof path, "%s/%d/stat", procRoot_.c_str(), pid);
  int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  char text[1024];
  ssize_t n = ::read(fd, text, sizeof text);
  ::close(fd);
  if (n <= 0) return 0;
  // "pid (comm) S ppid ...": the command name may hold ')', so fields count from the last.
  std::string_view line(text, static_cast<size_t>(n));
  size_t close = line.rfind(')');
  if (close == std::string_view::npos || close + 4 >= line.size()) return 0;
  std::string_view rest = line.substr(close + 4);  // past ") S "
  int32_t parent = 0;
  auto [end, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), parent);
  return ec == std::errc() && parent > 0 ? parent : 0;
}

std::vector<uint64_t> SocketOwners::rescan(int32_t pid, Process& process) {
  process.scannedInRound = round_;
  process.checkedInRound = round_;
  std::vector<Socket> sockets;
  off_t entries = -1;
  char path[4096];
  std::snprintf(path, sizeof path, "%s/%d/fd", procRoot_.c_str(), pid);
  // Another user's process cannot be read: it holds nothing until it is rescanned.
  if (DIR* dir = ::opendir(path)) {
    entries = 0;
    int dirFd = ::dirfd(dir);
    while (const dirent* entry = ::readdir(dir)) {
      if (entry->d_name[0] == '.') continue;
      ++entries;
      char link[64];
      ssize_t n = ::readlinkat(dirFd, entry->d_name, link, sizeof link);
      Socket socket;
      if (n > 0 && SocketInode(std::string_view(link, static_cast<size_t>(n)), socket.inode) &&
          ParseWhole(std::string_view(entry->d_name), socket.fd))
        sockets.push_back(socket);
    }
    ::closedir(dir);
  }
  if (signal_ == FdChangeSignal::kOwnerCount) process.fdCount = entries;
  std::sort(sockets.begin(), sockets.end(), [](const Socket& a, const Socket& b) {
    return a.inode != b.inode ? a.inode < b.inode : a.fd < b.fd;
  });
  sockets.erase(std::unique(sockets.begin(), sockets.end(),
                            [](const Socket& a, const Socket& b) { return a.inode == b.inode; }),
                sockets.end());

  // The difference to the last scan changes the holders.
  std::vector<uint64_t> lost;
  auto before = process.sockets.begin();
  auto now = sockets.begin();
  while (before != process.sockets.end() || now != sockets.end()) {
    if (now == sockets.end() || (before != process.sockets.end() && before->inode < now->inode)) {
      auto it = holders_.find(before->inode);
      if (it != holders_.end()) {
        std::erase(it->second, pid);
        if (it->second.empty()) {
          holders_.erase(it);
          lost.push_back(before->inode);
        }
      }
      ++before;
    } else if (before == process.sockets.end() || now->inode < before->inode) {
      std::vector<int32_t>& pids = holders_[now->inode];
      pids.insert(std::lower_bound(pids.begin(), pids.end(), pid), pid);
      ++now;
    } else {
      ++before;
      ++now;
    }
  }
  process.sockets = std::move(sockets);
  return lost;
}

void SocketOwners::forget(int32_t pid, const Process& process) {
  for (const Socket& socket : process.sockets) {
    auto it = holders_.find(socket.inode);
    if (it == holders_.end()) continue;
    std::erase(it->second, pid);
    if (it->second.empty()) holders_.erase(it);
  }
}

bool SocketOwners::check(int32_t pid, Process& process) {
  process.checkedInRound = round_;
  if (countEntries(pid) == process.fdCount) return false;
  rescan(pid, process);
  return true;
}

bool SocketOwners::stillHolds(int32_t pid, const Process& process, uint64_t inode) const {
  auto it = std::lower_bound(process.sockets.begin(), process.sockets.end(), inode,
                             [](const Socket& s, uint64_t value) { return s.inode < value; });
  if (it == process.sockets.end() || it->inode != inode) return false;
  char path[4096];
  std::snprintf(path, sizeof path, "%s/%d/fd/%d", procRoot_.c_str(), pid, it->fd);
  char link[64];
  ssize_t n = ::readlink(path, link, sizeof link);
  uint64_t found = 0;
  return n > 0 && SocketInode(std::string_view(link, static_cast<size_t>(n)), found) &&
         found == inode;
}

int32_t SocketOwners::ownerOf(uint64_t inode) const {
  auto it = holders_.find(inode);
  return it == holders_.end() ? 0 : it->second.front();
}

void SocketOwners::checkOwners(const std::vector<uint64_t>& inodes) {
  // Shared inode -> its owner, found still holding it this round.
  std::unordered_map<uint64_t, int32_t> verified;
  // A rescan may hand an inode to another holder, which the next pass looks at; every process
  // is counted and rescanned at most once a round, so the passes end.
  for (bool rescanned = true; rescanned;) {
    rescanned = false;
    for (uint64_t inode : inodes) {
      auto holders = holders_.find(inode);
      if (holders == holders_.end()) continue;
      int32_t owner = holders->second.front();
      auto it = processes_.find(owner);
      if (it == processes_.end()) continue;
      Process& process = it->second;
      if (process.checkedInRound != round_ && check(owner, process)) {
        rescanned = true;
        continue;
      }
      if (signal_ == FdChangeSignal::kOwnerCount && process.newInRound == round_) {
        if (process.parent < 0) process.parent = readParent(owner);
        auto parent = processes_.find(process.parent);
        if (parent != processes_.end() && parent->second.checkedInRound != round_ &&
            check(parent->first, parent->second)) {
          rescanned = true;
          continue;
        }
      }
      if (process.scannedInRound == round_ || holders->second.size() < 2) continue;
      auto [seen, added] = verified.try_emplace(inode, 0);
      if (seen->second == owner) continue;
      if (stillHolds(owner, process, inode)) {
        seen->second = owner;
      } else {
        rescan(owner, process);
        rescanned = true;
      }
    }
  }
}

std::vector<uint32_t> SocketOwners::lookup(const std::vector<uint64_t>& inodes) {
  ++round_;

  // 1 and 2: pids now present, highest first; the new ones are scanned, and with the folder
  // size every changed one is rescanned.
  std::vector<int32_t> pids = listPids();
  for (int32_t pid : pids) {
    off_t size = 0;
    if (signal_ == FdChangeSignal::kFolderSize) {
      size = folderSize(pid);
      if (size < 0) continue;  // gone meanwhile
    }
    auto [it, added] = processes_.try_emplace(pid);
    Process& process = it->second;
    process.seenInRound = round_;
    if (added) process.newInRound = round_;
    if (signal_ == FdChangeSignal::kFolderSize) {
      process.checkedInRound = round_;
      if (process.fdCount != size) rescan(pid, process);
      process.fdCount = size;
    } else if (added) {
      rescan(pid, process);
    }
  }
  for (auto it = processes_.begin(); it != processes_.end();) {
    if (it->second.seenInRound == round_) {
      ++it;
      continue;
    }
    forget(it->first, it->second);
    it = processes_.erase(it);
  }

  // 2 and 3: what the owners of the rows changed.
  checkOwners(inodes);

  // 4: inodes still unknown, searched in the pids not rescanned yet: the owners of the other
  // inodes first, then every pid, newest first.
  std::unordered_set<uint64_t> missing;
  for (uint64_t inode : inodes) {
    if (inode != 0 && !holders_.contains(inode) && !unowned_.contains(inode)) missing.insert(inode);
  }
  if (!missing.empty()) {
    std::vector<int32_t> order;
    for (uint64_t inode : inodes) {
      if (int32_t owner = ownerOf(inode); owner != 0) order.push_back(owner);
    }
    order.insert(order.end(), pids.begin(), pids.end());
    for (size_t i = 0; i < order.size() && !missing.empty(); ++i) {
      auto it = processes_.find(order[i]);
      if (it == processes_.end() || it->second.scannedInRound == round_) continue;
      std::vector<uint64_t> lost = rescan(order[i], it->second);
      for (const Socket& socket : it->second.sockets) missing.erase(socket.inode);
      // An inode it let go of is searched for as well when it is asked about.
      for (uint64_t inode : lost) {
        if (!unowned_.contains(inode) &&
            std::find(inodes.begin(), inodes.end(), inode) != inodes.end())
          missing.insert(inode);
      }
    }
  }

  // 5: the answer; 0 where no holder is known. What a full search did not find is not
  // searched again while it is asked for; only inodes asked for this time are remembered.
  std::unordered_set<uint64_t> unowned = std::move(missing);
  std::vector<uint32_t> result;
  result.reserve(inodes.size());
  for (uint64_t inode : inodes) {
    int32_t owner = inode == 0 ? 0 : ownerOf(inode);
    result.push_back(static_cast<uint32_t>(owner));
    if (owner == 0 && inode != 0 && unowned_.contains(inode)) unowned.insert(inode);
  }
  unowned_ = std::move(unowned);
  return result;
}

}  // namespace tessmark::platform::linux_backend
