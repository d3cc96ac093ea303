// The firewall's own file reading and writing on a POSIX system.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/platform.h"

namespace tessmark::platform {

namespace {

std::string Fault(const std::string& path, int error) {
  return path + ": " + std::strerror(error);
}

std::string FolderOf(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

class PosixFile final : public OpenFile {
 public:
  PosixFile(int fd, int64_t size) : fd_(fd), size_(size) {}
  ~PosixFile() override { ::close(fd_); }
  PosixFile(const PosixFile&) = delete;
  PosixFile& operator=(const PosixFile&) = delete;

  int64_t size() override { return size_; }

  bool readAt(void* into, size_t size, int64_t offset) override {
    auto* bytes = static_cast<char*>(into);
    while (size > 0) {
      ssize_t got = ::pread(fd_, bytes, size, offset);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return false;  // an error, or the file got shorter meanwhile
      bytes += got;
      size -= static_cast<size_t>(got);
      offset += got;
    }
    return true;
  }

  bool writeAt(const void* from, size_t size, int64_t offset) override {
    const auto* bytes = static_cast<const char*>(from);
    while (size > 0) {
      ssize_t put = ::pwrite(fd_, bytes, size, offset);
      if (put < 0 && errno == EINTR) continue;
      if (put <= 0) return false;
      bytes += put;
      size -= static_cast<size_t>(put);
      offset += put;
    }
    return true;
  }

  int64_t nextData(int64_t offset, int64_t end) override {
    off_t data = ::lseek(fd_, offset, SEEK_DATA);
    if (data >= 0) return std::min<int64_t>(data, end);
    return errno == ENXIO ? end : offset;
  }

  int64_t nextHole(int64_t offset, int64_t end) override {
    off_t hole = ::lseek(fd_, offset, SEEK_HOLE);
    return hole > offset ? std::min<int64_t>(hole, end) : end;
  }

 private:
  int fd_;
  int64_t size_;
};

class PosixFiles final : public Files {
 public:
  std::unique_ptr<OpenFile> open(const std::string& path, bool write, bool create,
                                 OpenFailure& failure) override {
    failure = OpenFailure::None;
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
      failure = OpenFailure::NotRegular;
      return nullptr;
    }
    // Non-blocking, so that a pipe which took the path since the stat is not waited on.
    const int flags = (create ? O_CREAT : 0) | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    int fd = -1;
    if (write) fd = ::open(path.c_str(), O_RDWR | flags, 0666);
    if (fd < 0) fd = ::open(path.c_str(), O_RDONLY | flags, 0666);
    if (fd < 0) {
      failure = errno == ENOENT || errno == ENOTDIR ? OpenFailure::NotFound : OpenFailure::Other;
      return nullptr;
    }
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
      ::close(fd);
      failure = OpenFailure::NotRegular;
      return nullptr;
    }
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    return std::make_unique<PosixFile>(fd, status.st_size);
  }

  std::optional<FileVersion> version(const std::string& path) override {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    auto nanoseconds = [](const timespec& t) {
      return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
    };
    return FileVersion{status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_mtim),
                       nanoseconds(status.st_ctim)};
  }

  std::string readFault(const std::string& path) override {
    struct stat status;
    if (::stat(path.c_str(), &status) != 0)
      return errno == ENOENT || errno == ENOTDIR ? std::string() : Fault(path, errno);
    if (!S_ISREG(status.st_mode)) return {};
    int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return Fault(path, errno);
    ::close(fd);
    return {};
  }

  std::string writeDurably(const std::string& path, const std::string& bytes) override {
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

  std::string renameDurably(const std::string& from, const std::string& to) override {
    if (::rename(from.c_str(), to.c_str()) != 0) return Fault(to, errno);
    return syncFolder(FolderOf(to));
  }

  std::string syncFolder(const std::string& folder) override {
    int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return Fault(folder, errno);
    // Some file systems cannot sync a folder at all (EINVAL); their renames are as safe as
    // they get without it.
    int synced = ::fsync(fd) == 0 || errno == EINVAL ? 0 : errno;
    ::close(fd);
    return synced == 0 ? std::string() : Fault(folder, synced);
  }
};

}  // namespace

Files& SystemFiles() {
  static PosixFiles files;
  return files;
}

}  // namespace tessmark::platform
