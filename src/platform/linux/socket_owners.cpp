#include "platform/linux/socket_owners.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
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

bool ParsePid(const char* name, int32_t& pid) {
  std::string_view text(name);
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), pid);
  return ec == std::errc() && end == text.data() + text.size() && pid > 0;
}

}  // namespace

SocketOwners::SocketOwners(std::string procRoot) : procRoot_(std::move(procRoot)) {}

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

off_t SocketOwners::fdCount(int32_t pid) const {
  char path[4096];
  std::snprintf(path, sizeof path, "%s/%d/fd", procRoot_.c_str(), pid);
  struct stat st;
  if (::stat(path, &st) != 0) return -1;
  return st.st_size;
}

void SocketOwners::rescan(int32_t pid, Process& process, off_t count) {
  process.fdCount = count;
  process.scannedInRound = round_;
  std::vector<uint64_t> inodes;
  char path[4096];
  std::snprintf(path, sizeof path, "%s/%d/fd", procRoot_.c_str(), pid);
  // Another user's process cannot be read: it is remembered as holding nothing until its
  // count changes.
  if (DIR* dir = ::opendir(path)) {
    int dirFd = ::dirfd(dir);
    while (const dirent* entry = ::readdir(dir)) {
      if (entry->d_name[0] == '.') continue;
      char link[64];
      ssize_t n = ::readlinkat(dirFd, entry->d_name, link, sizeof link);
      uint64_t inode = 0;
      if (n > 0 && SocketInode(std::string_view(link, static_cast<size_t>(n)), inode))
        inodes.push_back(inode);
    }
    ::closedir(dir);
  }
  std::sort(inodes.begin(), inodes.end());
  inodes.erase(std::unique(inodes.begin(), inodes.end()), inodes.end());
  // Inodes it let go of lose it as owner; a holder found earlier keeps an inode it still has.
  for (uint64_t old : process.inodes) {
    if (std::binary_search(inodes.begin(), inodes.end(), old)) continue;
    auto it = owners_.find(old);
    if (it != owners_.end() && it->second == pid) owners_.erase(it);
  }
  // A socket shared after a fork is credited to the oldest holder, the lower pid: the child
  // between fork and exec holds its parent's sockets for a moment, and must not be taken
  // for their owner.
  for (uint64_t inode : inodes) {
    auto [it, added] = owners_.try_emplace(inode, pid);
    if (!added && pid < it->second) it->second = pid;
  }
  process.inodes = std::move(inodes);
}

std::vector<uint32_t> SocketOwners::lookup(const std::vector<uint64_t>& inodes) {
  ++round_;

  // 1 and 2: pids now present, highest first; rescan the new and the changed.
  std::vector<int32_t> pids = listPids();
  for (int32_t pid : pids) {
    off_t count = fdCount(pid);
    if (count < 0) continue;  // gone meanwhile
    Process& process = processes_[pid];
    process.seenInRound = round_;
    if (process.fdCount != count) rescan(pid, process, count);
  }
  for (auto it = processes_.begin(); it != processes_.end();) {
    if (it->second.seenInRound == round_) {
      ++it;
      continue;
    }
    for (uint64_t inode : it->second.inodes) {
      auto owner = owners_.find(inode);
      if (owner != owners_.end() && owner->second == it->first) owners_.erase(owner);
    }
    it = processes_.erase(it);
  }

  // 3: inodes still unknown, searched in the pids not rescanned yet, newest first.
  std::unordered_set<uint64_t> missing;
  for (uint64_t inode : inodes) {
    if (inode != 0 && !owners_.contains(inode) && !unowned_.contains(inode)) missing.insert(inode);
  }
  for (size_t i = 0; i < pids.size() && !missing.empty(); ++i) {
    auto it = processes_.find(pids[i]);
    if (it == processes_.end() || it->second.scannedInRound == round_) continue;
    rescan(pids[i], it->second, fdCount(pids[i]));
    for (uint64_t inode : it->second.inodes) missing.erase(inode);
  }

  // 4: the answer; 0 where no holder is known. What a full search did not find is not
  // searched again while it is asked for; only inodes asked for this time are remembered.
  std::unordered_set<uint64_t> unowned = std::move(missing);
  std::vector<uint32_t> result;
  result.reserve(inodes.size());
  for (uint64_t inode : inodes) {
    auto it = inode == 0 ? owners_.end() : owners_.find(inode);
    if (it != owners_.end()) {
      result.push_back(static_cast<uint32_t>(it->second));
      continue;
    }
    result.push_back(0);
    if (inode != 0 && unowned_.contains(inode)) unowned.insert(inode);
  }
  unowned_ = std::move(unowned);
  return result;
}

}  // namespace tessmark::platform::linux_backend
