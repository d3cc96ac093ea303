#include "platform/linux/linux_processes.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>

namespace tessmark::platform::linux_backend {

namespace {

constexpr std::string_view kDeletedMark = " (deleted)";

// True unless this process surely lacks CAP_SYS_PTRACE in its effective set. Without it, the
// kernel lets a process read the exe link only of processes whose real, effective and saved
// users are its own, that are dumpable and hold no capability the reader lacks; with it, of
// anyone's.
bool MayReadAnyonesLinks() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3]{};
  if (syscall(SYS_capget, &header, data) != 0) return true;
  return (data[CAP_TO_INDEX(CAP_SYS_PTRACE)].effective & CAP_TO_MASK(CAP_SYS_PTRACE)) != 0;
}

// True when the Uid line of <pid>/status names `user` as the real, effective and saved user.
// `pidPath` ends in "/" and has room for the file name behind it.
bool StatusNamesUser(int dirFd, char* pidPath, size_t pidLength, uid_t user) {
  std::memcpy(pidPath + pidLength, "status", 7);
  int fd = openat(dirFd, pidPath, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  // The Uid line comes within the first few hundred bytes, after the command name (64 bytes
  // at most, escaped) and six short lines.
  char buffer[1024];
  ssize_t n;
  do {
    n = read(fd, buffer, sizeof buffer);
  } while (n < 0 && errno == EINTR);
  close(fd);
  if (n <= 0) return false;
  std::string_view text(buffer, static_cast<size_t>(n));
  size_t at = text.find("\nUid:");
  if (at == std::string_view::npos) return false;
  const char* p = text.data() + at + 5;
  const char* end = text.data() + text.size();
  for (int field = 0; field < 3; ++field) {  // real, effective, saved
    while (p < end && (*p == '\t' || *p == ' ')) ++p;
    uint32_t id = 0;
    auto [next, ec] = std::from_chars(p, end, id);
    if (ec != std::errc() || id != user) return false;
    p = next;
  }
  return true;
}

// Whether the process of the pid folder `pidPath` (ending in "/") is the user's. The caller
// has found the folder owned by `user`, which is the process's effective user. The exe link
// is owned by that user too only while the process is "dumpable": the kernel grants that at
// exec only when real and effective user agree, and takes it away at any later change of the
// effective user. A link owned by the user, who is not root, so shows all three ids the
// user's; otherwise (a program that changed users, one made undumpable, or a firewall run as
// root, whose own links and those of undumpable processes are alike owned by root) the Uid
// line of status decides.
bool IsUsersProcess(int dirFd, char* pidPath, size_t pidLength, uid_t user) {
  if (user != 0) {
    std::memcpy(pidPath + pidLength, "exe", 4);
    struct stat link;
    if (fstatat(dirFd, pidPath, &link, AT_SYMLINK_NOFOLLOW) == 0 && link.st_uid == user)
      return true;
  }
  return StatusNamesUser(dirFd, pidPath, pidLength, user);
}

// The length of the program's path in the exe link's text `target` (NUL-terminated). Linux
// names an executable whose file is gone "<path> (deleted)": a package upgrade that renames
// the new file over the old leaves the running program so. That program is still the one of
// its path, so the mark goes; but a file really named with the mark keeps it, which is the
// case when the text names the very file the process runs.
size_t ProgramPathLength(int dirFd, const char* exePath, const char* target, size_t length) {
  std::string_view text(target, length);
  if (!text.ends_with(kDeletedMark) || text.size() == kDeletedMark.size()) return length;
  struct stat named, running;
  if (stat(target, &named) == 0 && fstatat(dirFd, exePath, &running, 0) == 0 &&
      named.st_dev == running.st_dev && named.st_ino == running.st_ino)
    return length;
  return length - kDeletedMark.size();
}

}  // namespace

LinuxProcesses::LinuxProcesses(std::string procRoot)
    : LinuxProcesses(std::move(procRoot), getuid()) {}

LinuxProcesses::LinuxProcesses(std::string procRoot, uid_t user)
    : procRoot_(std::move(procRoot)), user_(user) {}

std::vector<ProcessEntry> LinuxProcesses::list() {
  std::vector<ProcessEntry> processes;
  DIR* dir = opendir(procRoot_.c_str());
  if (dir == nullptr) return processes;
  processes.reserve(lastCount_ + 16);
  int dirFd = dirfd(dir);
  const uid_t user = user_;
  // Without the capability, every link the kernel lets us read is one of this user's
  // processes already, and the list costs what it always did. With it, and always as root,
  // each process is checked.
  const bool readsOnlyUsersLinks = user == geteuid() && !MayReadAnyonesLinks();
  // Verdicts of processes that are gone are dropped with the old map.
  std::unordered_map<int32_t, Verdict> verdicts;
  verdicts.reserve(verdicts_.size() + 16);
  // The kernel cuts the link text at a page; one more byte tells a cut from a full fit, and
  // one more holds the NUL that stat() needs.
  char target[4098];
  char pidPath[32];
  char exePath[32];
  while (dirent* entry = readdir(dir)) {
    const char* name = entry->d_name;
    size_t length = std::strlen(name);
    int32_t pid = 0;
    auto [end, ec] = std::from_chars(name, name + length, pid);
    if (ec != std::errc() || end != name + length || pid <= 0 || length + 8 >= sizeof pidPath)
      continue;
    // The folder belongs to the process's effective user: another user's process is passed
    // over before anything of it is read.
    struct stat folder;
    if (!readsOnlyUsersLinks &&
        (fstatat(dirFd, name, &folder, AT_SYMLINK_NOFOLLOW) != 0 || folder.st_uid != user))
      continue;
    std::memcpy(pidPath, name, length);
    pidPath[length] = '/';
    std::memcpy(exePath, pidPath, length + 1);
    std::memcpy(exePath + length + 1, "exe", 4);
    // Kernel threads have no exe link, and a process gone since the walk began has none any
    // more: both are simply left out.
    ssize_t n = readlinkat(dirFd, exePath, target, sizeof target - 1);
    if (n <= 0 || static_cast<size_t>(n) >= sizeof target - 1) continue;
    target[n] = '\0';
    if (!readsOnlyUsersLinks) {
      std::string_view path(target, static_cast<size_t>(n));
      auto known = verdicts_.find(pid);
      bool users = false;
      if (known != verdicts_.end() && known->second.effectiveUser == folder.st_uid &&
          known->second.path == path) {
        users = known->second.users;
        verdicts.insert(verdicts_.extract(known));
      } else {
        users = IsUsersProcess(dirFd, pidPath, length + 1, user);
        verdicts[pid] = Verdict{folder.st_uid, std::string(path), users};
      }
      if (!users) continue;
    }
    size_t pathLength = ProgramPathLength(dirFd, exePath, target, static_cast<size_t>(n));
    processes.push_back({pid, std::string(target, pathLength)});
  }
  closedir(dir);
  verdicts_ = std::move(verdicts);
  lastCount_ = processes.size();
  return processes;
}

int32_t LinuxProcesses::currentProcessId() {
  return static_cast<int32_t>(getpid());
}

}  // namespace tessmark::platform::linux_backend
