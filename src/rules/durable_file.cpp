#include "rules/durable_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <system_error>

namespace tessmark {

namespace {

std::string Fault(const std::string& path, int error) {
  return path + ": " + std::strerror(error);
}

std::string FolderOf(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// A rename or a new name is on the disk once its folder is.
std::string SyncFolder(const std::string& folder) {
  int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return Fault(folder, errno);
  // Some file systems cannot sync a folder at all (EINVAL); their renames are as safe as they
  // get without it.
  int synced = ::fsync(fd) == 0 || errno == EINVAL ? 0 : errno;
  ::close(fd);
  return synced == 0 ? std::string() : Fault(folder, synced);
}

std::string LocalStamp() {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &local);
  return text;
}

}  // namespace

std::string ReadFault(const std::string& path) {
  struct stat status;
  if (::stat(path.c_str(), &status) != 0)
    return errno == ENOENT || errno == ENOTDIR ? std::string() : Fault(path, errno);
  if (!S_ISREG(status.st_mode)) return {};
  int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return Fault(path, errno);
  ::close(fd);
  return {};
}

std::string WriteDurably(const std::string& path, const std::string& bytes) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) return Fault(path, errno);
  int error = 0;
  for (size_t done = 0; done < bytes.size() && error == 0;) {
    ssize_t put = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (put > 0)
      done += static_cast<size_t>(put);
    else if (put < 0 && errno != EINTR)
      error = errno;
  }
  if (error == 0 && ::fsync(fd) != 0) error = errno;
  if (::close(fd) != 0 && error == 0) error = errno;
  return error == 0 ? std::string() : Fault(path, error);
}

std::string RenameDurably(const std::string& from, const std::string& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) return Fault(to, errno);
  return SyncFolder(FolderOf(to));
}

std::string KeepAside(const std::string& path, const std::string& label, bool copy,
                      std::string& kept) {
  const std::string base = path + "." + label + "-" + LocalStamp();
  struct stat status;
  kept = base;
  for (int number = 2; ::lstat(kept.c_str(), &status) == 0; ++number)
    kept = base + "-" + std::to_string(number);
  if (!copy) return RenameDurably(path, kept);
  std::error_code error;
  std::filesystem::copy_file(path, kept, error);
  if (error) return kept + ": " + error.message();
  return SyncFolder(FolderOf(kept));
}

}  // namespace tessmark
