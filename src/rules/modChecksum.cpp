#include "rules/modChecksum.h"

#include <algorithm>
#include <memory>
#include <new>

#include "platform/platform.h"
#include "rules/crc32.h"

namespace tessmark {

namespace {

constexpr char kModule[] = "modChecksum";

// A path that names nothing which could be made is "file not found"; everything else that
// keeps the file shut (a pipe or a device, which could be read for ever while a program
// stands frozen, a folder, a refusal) is an access error.
ErrorNumber OpenError(platform::OpenFailure failure) {
  return failure == platform::OpenFailure::NotFound ? ErrorNumber::FileNotFound
                                                    : ErrorNumber::PathFileAccessError;
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
  //    writing, and program files seldom belong to the user); writing then fails.
  // A name with a NUL in it names no file; cut at the NUL it would name another one.
  if (path.find('\0') != std::string::npos) return fail(ErrorNumber::FileNotFound, 2);
  platform::OpenFailure failure = platform::OpenFailure::None;
  std::unique_ptr<platform::OpenFile> file =
      platform::SystemFiles().open(path, writeMode != 0, checkMode != 0, failure);
  if (!file) return fail(OpenError(failure), 2);

  // 3. The length of the data; in check mode the four trailer bytes are not data.
  int64_t length = file->size();
  if (checkMode != 0) length -= 4;
  if (length < 0) return 0;

  // 4. The register over the data, read in large blocks: the program stands frozen until
  //    the last one is in, and every read is a system call.
  const bool standardTable = tablePolynomial_ == kPolynomial;
  const auto* table = reinterpret_cast<const uint32_t*>(CrcTable.data());
  const size_t blockSize = static_cast<size_t>(
      std::min<int64_t>(std::max<int64_t>(length, 1), static_cast<int64_t>(kReadBlockSize)));
  auto buffer = MakeReadBuffer(blockSize);
  //    A sparse file's holes read as zeros and are not read: their part of the register is
  //    computed, so the time follows the data, not the size (a 1 TiB file of holes would
  //    otherwise keep its program frozen for minutes).
  uint32_t reg = 0xFFFFFFFFu;
  for (int64_t offset = 0; offset < length;) {
    int64_t dataEnd = length;
    if (standardTable) {
      int64_t data = file->nextData(offset, length);
      if (data > offset) {
        reg = crc32::UpdateZeros(reg, static_cast<uint64_t>(data - offset));
        offset = data;
        continue;
      }
      dataEnd = file->nextHole(offset, length);
    }
    for (; offset < dataEnd;) {
      size_t size = static_cast<size_t>(std::min<int64_t>(dataEnd - offset, blockSize));
      if (!file->readAt(buffer.get(), size, offset))
        return fail(ErrorNumber::PathFileAccessError, 4);
      reg = standardTable ? crc32::Update(reg, buffer.get(), size)
                          : crc32::UpdateByteTable(reg, buffer.get(), size, table);
      offset += static_cast<int64_t>(size);
    }
  }

  // 5. The checksum.
  const uint32_t crc = ~reg;
  unsigned char crcBytes[4];
  StoreLittleEndian32(crc, crcBytes);

  // 6. Check mode: compare with the trailer, which write mode first replaces by the result.
  if (checkMode != 0) {
    unsigned char stored[4];
    if (!file->readAt(stored, sizeof stored, length))
      return fail(ErrorNumber::PathFileAccessError, 6);
    if (writeMode != 0 && !file->writeAt(crcBytes, sizeof crcBytes, length))
      return fail(ErrorNumber::PathFileAccessError, 6);
    return LoadLittleEndian32(stored) == crc ? -1 : 0;
  }

  // 7. Write mode seals: the result is appended behind the data.
  if (writeMode != 0 && !file->writeAt(crcBytes, sizeof crcBytes, length))
    return fail(ErrorNumber::PathFileAccessError, 7);
  return static_cast<int32_t>(crc);
}

std::optional<platform::FileVersion> modChecksum::VersionOf(const std::string& path) {
  if (path.find('\0') != std::string::npos) return std::nullopt;
  return platform::SystemFiles().version(path);
}

int32_t modChecksum::GetCrc32Hash(const std::string& path, int32_t& pid) {
  // The alert dialog, whose program stands frozen already, passes -1.
  if (pid == -1) return CRC32File(path, 0, 0);
  std::optional<platform::FileVersion> before = VersionOf(path);
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
  std::optional<platform::FileVersion> after = VersionOf(path);
  if (crc != 0 && before && after && *before == *after) {
    constexpr size_t kKeptFiles = 4096;  // far more programs than a desktop runs at once
    if (knownChecksums_.size() >= kKeptFiles) knownChecksums_.clear();
    knownChecksums_[path] = KnownChecksum{*before, crc};
  }
  return crc;
}

}  // namespace tessmark
