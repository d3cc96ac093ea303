#include "rules/modChecksum.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>

#include "rules/crc32.h"

namespace tessmark {

namespace {

constexpr char kModule[] = "modChecksum";

// Closes the file on every road out of CRC32File.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

// Regular files only: a directory has no bytes to read, and a pipe or a device could be
// read for ever while a program stands frozen.
bool IsRegular(const struct stat& status) {
  return S_ISREG(status.st_mode);
}

// A path that names nothing which could be made is "file not found"; everything else that
// keeps the file shut is an access error.
ErrorNumber OpenError(int error) {
  return error == ENOENT || error == ENOTDIR ? ErrorNumber::FileNotFound
                                             : ErrorNumber::PathFileAccessError;
}

bool ReadAt(int fd, unsigned char* buffer, size_t size, off_t offset) {
  while (size > 0) {
    ssize_t got = ::pread(fd, buffer, size, offset);
    if (got < 0 && errno == EINTR) continue;
    // 0 before the end: the file got shorter while it was read.
    if (got <= 0) return false;
    buffer += got;
    size -= static_cast<size_t>(got);
    offset += got;
  }
  return true;
}

// Where the data at or after `offset` begins: `length` when only a hole follows; `offset`
// itself where the file system cannot tell holes (every byte then counts as data).
off_t NextData(int fd, off_t offset, off_t length) {
  off_t data = ::lseek(fd, offset, SEEK_DATA);
  if (data >= 0) return std::min(data, length);
  return errno == ENXIO ? length : offset;
}

// Where the hole at or after `offset` begins; the end of the file is one.
off_t NextHole(int fd, off_t offset, off_t length) {
  off_t hole = ::lseek(fd, offset, SEEK_HOLE);
  return hole > offset ? hole : length;
}

bool WriteAt(int fd, const unsigned char* bytes, size_t size, off_t offset) {
  while (size > 0) {
    ssize_t put = ::pwrite(fd, bytes, size, offset);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    bytes += put;
    size -= static_cast<size_t>(put);
    offset += put;
  }
  return true;
}

// The read buffer starts on a page. The kernel copies a page-cached file into a buffer off
// the 64-byte grid (as a large allocation's header leaves it) at a quarter of the speed:
// 2.2 against 9 GB/s on our machines.
constexpr std::align_val_t kReadBufferAlignment{4096};

struct AlignedDelete {
  void operator()(unsigned char* p) const { ::operator delete[](p, kReadBufferAlignment); }
};

std::unique_ptr<unsigned char[], AlignedDelete> MakeReadBuffer(size_t size) {
  return std::unique_ptr<unsigned char[], AlignedDelete>(
      static_cast<unsigned char*>(::operator new[](size, kReadBufferAlignment)));
}

void StoreLittleEndian32(uint32_t value, unsigned char* out) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<unsigned char>(value >> (8 * i));
}

uint32_t LoadLittleEndian32(const unsigned char* in) {
  uint32_t value = 0;
  for (int i = 3; i >= 0; --i) value = value << 8 | in[i];
  return value;
}

}  // namespace

void modChecksum::CRCInit(uint32_t polynomial) {
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t c = i;
    for (int bit = 0; bit < 8; ++bit) c = (c & 1u) ? (c >> 1) ^ polynomial : c >> 1;
    CrcTable[i] = static_cast<int32_t>(c);
  }
  CrcTableReady = -1;
  // Only the table of the standard polynomial may be replaced by the fast method.
  tablePolynomial_ = polynomial;
}

int32_t modChecksum::CRC32File(const std::string& path, int16_t checkMode, int16_t writeMode) {
  static constexpr char kProcedure[] = "CRC32File";
  auto fail = [&](ErrorNumber number, int32_t step) {
    ui_.showErrorBox(ErrorBoxText(number, kModule, kProcedure, step));
    // The result is set only when the procedure completes, so a failure gives 0.
    return 0;
  };

  // 1. The table on first use.
  if (CrcTableReady == 0) CRCInit(kPolynomial);

  // 2. Open. In check mode a missing file is created empty, as opening for binary access
  //    always did: a missing known-program list leaves an empty file behind. A program's
  //    file is never created: a path that names none (a program whose file was deleted
  //    and not replaced) must not leave a file of that name. Read-write only when writing,
  //    with read-only as the fallback (a running program's file cannot be opened for
  //    writing, and program files seldom belong to the user); writing then fails. A
  //    non-blocking open never waits on a pipe that took the path since the stat.
  // A name with a NUL in it names no file; cut at the NUL it would name another one.
  if (path.find('\0') != std::string::npos) return fail(ErrorNumber::FileNotFound, 2);
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0 && !IsRegular(status))
    return fail(ErrorNumber::PathFileAccessError, 2);
  const int flags = (checkMode != 0 ? O_CREAT : 0) | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  int fd = -1;
  if (writeMode != 0) fd = ::open(path.c_str(), O_RDWR | flags, 0666);
  if (fd < 0) fd = ::open(path.c_str(), O_RDONLY | flags, 0666);
  if (fd < 0) return fail(OpenError(errno), 2);
  FileDescriptor file(fd);
  if (::fstat(fd, &status) != 0 || !IsRegular(status))
    return fail(ErrorNumber::PathFileAccessError, 2);

  // 3. The length of the data; in check mode the four trailer bytes are not data.
  off_t length = status.st_size;
  if (checkMode != 0) length -= 4;
  if (length < 0) return 0;

  // 4. The register over the data, read in large blocks: the program stands frozen until
  //    the last one is in, and every read is a system call.
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  const bool standardTable = tablePolynomial_ == kPolynomial;
  const auto* table = reinterpret_cast<const uint32_t*>(CrcTable.data());
  const size_t blockSize = static_cast<size_t>(
      std::min<off_t>(std::max<off_t>(length, 1), static_cast<off_t>(kReadBlockSize)));
  auto buffer = MakeReadBuffer(blockSize);
  //    A sparse file's holes read as zeros and are not read: their part of the register is
  //    computed, so the time follows the data, not the size (a 1 TiB file of holes would
  //    otherwise keep its program frozen for minutes).
  uint32_t reg = 0xFFFFFFFFu;
  for (off_t offset = 0; offset < length;) {
    off_t dataEnd = length;
    if (standardTable) {
      off_t data = NextData(fd, offset, length);
      if (data > offset) {
        reg = crc32::UpdateZeros(reg, static_cast<uint64_t>(data - offset));
        offset = data;
        continue;
      }
      dataEnd = std::min(NextHole(fd, offset, length), length);
    }
    for (; offset < dataEnd;) {
      size_t size = static_cast<size_t>(std::min<off_t>(dataEnd - offset, blockSize));
      if (!ReadAt(fd, buffer.get(), size, offset)) return fail(ErrorNumber::PathFileAccessError, 4);
      reg = standardTable ? crc32::Update(reg, buffer.get(), size)
                          : crc32::UpdateByteTable(reg, buffer.get(), size, table);
      offset += static_cast<off_t>(size);
    }
  }

  // 5. The checksum.
  const uint32_t crc = ~reg;
  unsigned char crcBytes[4];
  StoreLittleEndian32(crc, crcBytes);

  // 6. Check mode: compare with the trailer, which write mode first replaces by the result.
  if (checkMode != 0) {
    unsigned char stored[4];
    if (!ReadAt(fd, stored, sizeof stored, length))
      return fail(ErrorNumber::PathFileAccessError, 6);
    if (writeMode != 0 && !WriteAt(fd, crcBytes, sizeof crcBytes, length))
      return fail(ErrorNumber::PathFileAccessError, 6);
    return LoadLittleEndian32(stored) == crc ? -1 : 0;
  }

  // 7. Write mode seals: the result is appended behind the data.
  if (writeMode != 0 && !WriteAt(fd, crcBytes, sizeof crcBytes, length))
    return fail(ErrorNumber::PathFileAccessError, 7);
  return static_cast<int32_t>(crc);
}

std::optional<modChecksum::FileVersion> modChecksum::VersionOf(const std::string& path) {
  struct stat status {};
  if (path.find('\0') != std::string::npos || ::stat(path.c_str(), &status) != 0 ||
      !IsRegular(status))
    return std::nullopt;
  auto nanoseconds = [](const timespec& t) {
    return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
  };
  return FileVersion{status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_mtim),
                     nanoseconds(status.st_ctim)};
}

int32_t modChecksum::GetCrc32Hash(const std::string& path, int32_t& pid) {
  // The alert dialog, whose program stands frozen already, passes -1.
  if (pid == -1) return CRC32File(path, 0, 0);
  std::optional<FileVersion> before = VersionOf(path);
  if (auto known = knownChecksums_.find(path);
      before && known != knownChecksums_.end() && known->second.version == *before)
    return known->second.crc;
  // The pumps run outside the reading only: the program must not run while its file is read,
  // and the screen lives on before and after.
  pause_.SuspendThreads(pid);
  pump_.pumpOnce();
  int32_t crc = CRC32File(path, 0, 0);
  pump_.pumpOnce();
  pause_.ResumeThreads(pid);
  pump_.pumpOnce();
  // Kept only for a version that stood still while it was read; 0 is what a failed read
  // gives, and is read again.
  std::optional<FileVersion> after = VersionOf(path);
  if (crc != 0 && before && after && *before == *after) {
    constexpr size_t kKeptFiles = 4096;  // far more programs than a desktop runs at once
    if (knownChecksums_.size() >= kKeptFiles) knownChecksums_.clear();
    knownChecksums_[path] = KnownChecksum{*before, crc};
  }
  return crc;
}

}  // namespace tessmark
