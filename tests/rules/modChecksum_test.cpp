// The CRC-32 of program files: the published check values, the fast methods against the
// one-look-up-per-byte method, the sealed trailer, files that cannot be read, and the
// program held frozen while its file is read.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "rules/crc32.h"
#include "rules/modChecksum.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

namespace fs = std::filesystem;

constexpr char kCheck[] = "123456789";
constexpr uint32_t kCheckCrc = 0xCBF43926u;  // the standard CRC-32 check value
constexpr int32_t kCheckCrcSigned = -873187034;
constexpr char kErrorBoxPrefix75[] = "75\rmodChecksum.CRC32File\r";
constexpr char kErrorBoxPrefix53[] = "53\rmodChecksum.CRC32File\r";

std::string RandomBytes(size_t size, uint32_t seed) {
  std::mt19937 generator(seed);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(generator());
  return bytes;
}

// The whole CRC-32 with the one-look-up-per-byte method over a table from CRCInit.
uint32_t ByteTableCrc(const modChecksum& checksum, const std::string& bytes) {
  const auto* table = reinterpret_cast<const uint32_t*>(checksum.CrcTable.data());
  return ~crc32::UpdateByteTable(0xFFFFFFFFu, bytes.data(), bytes.size(), table);
}

class Checksum : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "tessmark-crc-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr) << std::strerror(errno);
    dir = pattern;
  }
  void TearDown() override {
    std::error_code ignored;
    fs::remove_all(dir, ignored);
  }

  std::string write(const std::string& name, const std::string& bytes) {
    std::string path = (dir / name).string();
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }
  static std::string read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  // The reference table, whose entries the first test holds against the published ones.
  modChecksum& withStandardTable() {
    checksum.CRCInit(modChecksum::kPolynomial);
    return checksum;
  }

  fs::path dir;
  testing::SimMonitor m;
  modChecksum checksum{m.pause, m.mailbox, m.ui};
};

// ---- the CRC-32 itself

TEST_F(Checksum, TableAndCheckValuesAreTheStandardOnes) {
  checksum.CRCInit(modChecksum::kPolynomial);
  EXPECT_EQ(checksum.CrcTableReady, -1);
  EXPECT_EQ(static_cast<uint32_t>(checksum.CrcTable[0]), 0x00000000u);
  EXPECT_EQ(static_cast<uint32_t>(checksum.CrcTable[1]), 0x77073096u);
  EXPECT_EQ(static_cast<uint32_t>(checksum.CrcTable[128]), 0xEDB88320u);
  EXPECT_EQ(static_cast<uint32_t>(checksum.CrcTable[255]), 0x2D02EF8Du);

  const std::string fox = "The quick brown fox jumps over the lazy dog";
  const std::pair<std::string, uint32_t> published[] = {{kCheck, kCheckCrc}, {fox, 0x414FA339u}};
  for (const auto& [text, crc] : published) {
    EXPECT_EQ(ByteTableCrc(checksum, text), crc);
    EXPECT_EQ(~crc32::Update(0xFFFFFFFFu, text.data(), text.size()), crc);
    EXPECT_EQ(~crc32::UpdateBy(crc32::Method::Slicing8, 0xFFFFFFFFu, text.data(), text.size()),
              crc);
  }
}

// Every method against the byte table: each length up to 600 at each misalignment within 16
// bytes from random registers (across every method's threshold and its tail), a few MB in
// one call, and the same in uneven pieces.
class CrcMethod : public Checksum, public ::testing::WithParamInterface<crc32::Method> {};

TEST_P(CrcMethod, AgreesWithTheByteTable) {
  const crc32::Method method = GetParam();
  if (!crc32::Supports(method))
    GTEST_SKIP() << "this processor lacks the instructions of this method";
  const auto* table = reinterpret_cast<const uint32_t*>(withStandardTable().CrcTable.data());
  auto update = [method](uint32_t reg, const std::string& data, size_t at, size_t size) {
    return crc32::UpdateBy(method, reg, data.data() + at, size);
  };

  const std::string data = RandomBytes((3u << 20) + 77, 1);
  std::mt19937 generator(2);
  for (size_t size = 0; size <= 600; ++size) {
    for (size_t offset = 0; offset < 16; ++offset) {
      uint32_t reg = generator();
      ASSERT_EQ(update(reg, data, offset, size),
                crc32::UpdateByteTable(reg, data.data() + offset, size, table))
          << "size " << size << " offset " << offset;
    }
  }
  const uint32_t whole =
      crc32::UpdateByteTable(0xFFFFFFFFu, data.data() + 3, data.size() - 3, table);
  EXPECT_EQ(update(0xFFFFFFFFu, data, 3, data.size() - 3), whole);
  uint32_t reg = 0xFFFFFFFFu;
  size_t at = 3;
  for (size_t piece : {1u, 63u, 64u, 65u, 255u, 256u, 4095u, 100000u, 1u << 20}) {
    reg = update(reg, data, at, piece);
    at += piece;
  }
  EXPECT_EQ(update(reg, data, at, data.size() - at), whole);
}

INSTANTIATE_TEST_SUITE_P(EveryMethod, CrcMethod,
                         ::testing::Values(crc32::Method::Slicing8, crc32::Method::CarrylessFold,
                                           crc32::Method::WideCarrylessFold),
                         [](const auto& info) -> std::string {
                           switch (info.param) {
                             case crc32::Method::Slicing8:
                               return "Slicing8";
                             case crc32::Method::CarrylessFold:
                               return "CarrylessFold";
                             case crc32::Method::WideCarrylessFold:
                               return "WideCarrylessFold";
                           }
                           return "Unknown";
                         });

// ---- files

TEST_F(Checksum, FilesGiveTheirCrcAsASignedNumber) {
  EXPECT_EQ(checksum.CRC32File(write("check", kCheck), 0, 0), kCheckCrcSigned);
  EXPECT_EQ(checksum.CrcTableReady, -1);  // the first call made the table
  EXPECT_EQ(checksum.CRC32File(write("empty", ""), 0, 0), 0);
  EXPECT_TRUE(m.ui.errorBoxes.empty());
}

TEST_F(Checksum, FilesAroundTheReadBlockGiveTheByteTablesResult) {
  constexpr size_t kBlock = modChecksum::kReadBlockSize;
  withStandardTable();
  const std::string data = RandomBytes(3 * kBlock + 4095, 3);
  for (size_t size : {kBlock - 1, kBlock, kBlock + 1, 2 * kBlock, 3 * kBlock + 4095}) {
    std::string bytes = data.substr(0, size);
    EXPECT_EQ(static_cast<uint32_t>(checksum.CRC32File(write("program", bytes), 0, 0)),
              ByteTableCrc(checksum, bytes))
        << "size " << size;
  }
}

// Holes of a sparse file are zeros that are never read. Data at the start, between holes, at
// the end, and a file that is one hole, against the byte table over the same bytes written out.
TEST_F(Checksum, ASparseFileGivesTheChecksumOfItsBytesWithoutReadingItsHoles) {
  withStandardTable();
  constexpr off_t kSize = 16 << 20;
  const std::string data = RandomBytes(3 * 4096 + 17, 9);
  const std::vector<std::pair<off_t, std::string>> layouts[] = {{{0, data.substr(0, 4096)},
                                                                 {5 << 20, data.substr(4096, 4096)},
                                                                 {kSize - 4113, data.substr(8192)}},
                                                                {{3 << 20, data}},
                                                                {}};
  for (const auto& layout : layouts) {
    std::string path = (dir / "sparse").string();
    fs::remove(path);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, kSize), 0);
    std::string dense(kSize, '\0');
    for (const auto& [offset, bytes] : layout) {
      ASSERT_EQ(::pwrite(fd, bytes.data(), bytes.size(), offset),
                static_cast<ssize_t>(bytes.size()));
      dense.replace(static_cast<size_t>(offset), bytes.size(), bytes);
    }
    ::close(fd);
    EXPECT_EQ(static_cast<uint32_t>(checksum.CRC32File(path, 0, 0)), ByteTableCrc(checksum, dense))
        << layout.size() << " runs of data";
  }
}

// A terabyte of holes: computed, not read (reading it would take many minutes).
TEST_F(Checksum, ATerabyteSparseFileIsDoneAtOnce) {
  withStandardTable();
  std::string path = (dir / "huge").string();
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  if (::ftruncate(fd, off_t{1} << 40) != 0) {
    ::close(fd);
    GTEST_SKIP() << "this file system takes no 1 TiB file: " << std::strerror(errno);
  }
  const std::string check = kCheck;
  ASSERT_EQ(::pwrite(fd, check.data(), check.size(), 0), static_cast<ssize_t>(check.size()));
  ::close(fd);
  // The same bytes by another road: the check string, then 2^40 - 9 zeros by the register's
  // own shift, which the test above holds against bytes actually read.
  uint32_t reg =
      crc32::UpdateByteTable(0xFFFFFFFFu, check.data(), check.size(),
                             reinterpret_cast<const uint32_t*>(checksum.CrcTable.data()));
  reg = crc32::UpdateZeros(reg, (uint64_t{1} << 40) - check.size());
  EXPECT_EQ(static_cast<uint32_t>(checksum.CRC32File(path, 0, 0)), ~reg);
}

TEST_F(Checksum, ATableOfAnotherPolynomialIsUsedAsItStands) {
  checksum.CRCInit(0x82F63B78u);  // CRC-32C, check value E3069283
  EXPECT_EQ(static_cast<uint32_t>(checksum.CRC32File(write("check", kCheck), 0, 0)), 0xE3069283u);
}

TEST_F(Checksum, CheckModeComparesTheTrailerWithTheDataBeforeIt) {
  EXPECT_EQ(checksum.CRC32File(write("short", "abc"), -1, 0), 0);
  EXPECT_EQ(checksum.CRC32File(write("zeros", std::string(4, '\0')), -1, 0), -1);
  const std::string sealed = std::string(kCheck) + "\x26\x39\xF4\xCB";
  EXPECT_EQ(checksum.CRC32File(write("sealed", sealed), -1, 0), -1);
  std::string flipped = sealed;
  flipped[4] ^= 0x01;
  EXPECT_EQ(checksum.CRC32File(write("flipped", flipped), -1, 0), 0);
  EXPECT_TRUE(m.ui.errorBoxes.empty());
}

TEST_F(Checksum, WriteModeSealsAndReseals) {
  std::string path = write("list", kCheck);
  EXPECT_EQ(checksum.CRC32File(path, 0, -1), kCheckCrcSigned);
  EXPECT_EQ(read(path), std::string(kCheck) + "\x26\x39\xF4\xCB");
  EXPECT_EQ(checksum.CRC32File(path, -1, 0), -1);

  // A changed list fails the check; check and write mode replace the trailer in place and
  // still report the old trailer as wrong.
  write("list", std::string("12345678X") + "\x26\x39\xF4\xCB");
  EXPECT_EQ(checksum.CRC32File(path, -1, -1), 0);
  EXPECT_EQ(read(path).size(), 13u);
  EXPECT_EQ(checksum.CRC32File(path, -1, 0), -1);

  // Too short to hold a trailer: nothing is written.
  std::string tiny = write("tiny", "ab");
  EXPECT_EQ(checksum.CRC32File(tiny, -1, -1), 0);
  EXPECT_EQ(read(tiny), "ab");
  EXPECT_TRUE(m.ui.errorBoxes.empty());
}

TEST_F(Checksum, AMissingListIsCreatedEmptyButAMissingProgramIsNot) {
  fs::path list = dir / "ProgramCheck.dat";
  EXPECT_EQ(checksum.CRC32File(list.string(), -1, 0), 0);
  ASSERT_TRUE(fs::is_regular_file(list));
  EXPECT_EQ(fs::file_size(list), 0u);
  EXPECT_TRUE(m.ui.errorBoxes.empty());

  fs::path program = dir / "program (deleted)";
  EXPECT_EQ(checksum.CRC32File(program.string(), 0, 0), 0);
  EXPECT_FALSE(fs::exists(program));
  ASSERT_EQ(m.ui.errorBoxes.size(), 1u);
  EXPECT_EQ(m.ui.errorBoxes[0].rfind(kErrorBoxPrefix53, 0), 0u) << m.ui.errorBoxes[0];
}

TEST_F(Checksum, WhatIsNoReadableFileShowsTheErrorBoxAndGivesZero) {
  std::string fifo = (dir / "fifo").string();
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0) << std::strerror(errno);
  // A directory, a pipe with no writer and an endless device: none may be read or hang.
  for (const std::string& path : {dir.string(), fifo, std::string("/dev/zero")}) {
    m.ui.errorBoxes.clear();
    EXPECT_EQ(checksum.CRC32File(path, 0, 0), 0) << path;
    ASSERT_EQ(m.ui.errorBoxes.size(), 1u) << path;
    EXPECT_EQ(m.ui.errorBoxes[0].rfind(kErrorBoxPrefix75, 0), 0u) << m.ui.errorBoxes[0];
  }
  // No name, a folder that is not there, or a name that only a NUL makes another file's:
  // nothing can be created, nothing is read.
  const std::string cutByNul = write("app", kCheck) + std::string(1, '\0') + "x";
  for (const std::string& path : {std::string(), (dir / "gone" / "program").string(), cutByNul}) {
    m.ui.errorBoxes.clear();
    EXPECT_EQ(checksum.CRC32File(path, 0, 0), 0) << path;
    ASSERT_EQ(m.ui.errorBoxes.size(), 1u) << path;
    EXPECT_EQ(m.ui.errorBoxes[0].rfind(kErrorBoxPrefix53, 0), 0u) << m.ui.errorBoxes[0];
  }
  EXPECT_FALSE(fs::exists(dir / "gone"));
}

TEST_F(Checksum, ARunningProgramsFileIsReadButNeverWritten) {
  // A running program's file cannot be opened for writing, not even by root.
  const std::string self = fs::read_symlink("/proc/self/exe").string();
  int fd = ::open(self.c_str(), O_RDWR | O_CLOEXEC);
  if (fd >= 0) {
    ::close(fd);
    GTEST_SKIP() << "this kernel lets a running program's file be opened for writing";
  }
  const std::string before = read(self);
  withStandardTable();
  EXPECT_EQ(static_cast<uint32_t>(checksum.CRC32File(self, 0, 0)), ByteTableCrc(checksum, before));
  EXPECT_TRUE(m.ui.errorBoxes.empty());

  EXPECT_EQ(checksum.CRC32File(self, 0, -1), 0);
  ASSERT_EQ(m.ui.errorBoxes.size(), 1u);
  EXPECT_EQ(m.ui.errorBoxes[0].rfind(kErrorBoxPrefix75, 0), 0u) << m.ui.errorBoxes[0];
  EXPECT_EQ(fs::file_size(self), before.size());
}

// ---- a running program

TEST_F(Checksum, GetCrc32HashReadsTheFileWhileTheProgramStandsFrozen) {
  m.program(42, "/usr/bin/app", 2);
  std::string path = write("app", "");
  // Each pump runs what waits, and what that posts waits for the next pump. The file holds
  // the check text only between the first pump and the second, so the result tells when the
  // file was read; the program must stand frozen at both.
  std::vector<bool> frozenAtPump;
  m.mailbox.post([&] {
    frozenAtPump.push_back(m.sim.isFrozen(42));
    write("app", kCheck);
    m.mailbox.post([&] {
      frozenAtPump.push_back(m.sim.isFrozen(42));
      write("app", "changed after the reading");
      m.mailbox.post([&] { frozenAtPump.push_back(m.sim.isFrozen(42)); });
    });
  });
  int32_t pid = 42;
  EXPECT_EQ(checksum.GetCrc32Hash(path, pid), kCheckCrcSigned);
  EXPECT_EQ(frozenAtPump, (std::vector<bool>{true, true, false}));
  EXPECT_EQ(m.sim.suspendedThreadLog, (std::vector<uint32_t>{421, 422}));
  EXPECT_EQ(m.sim.resumedThreadLog, (std::vector<uint32_t>{421, 422}));
  EXPECT_EQ(m.sim.suspensionDepth(42), 0);
}

// A program that comes and goes is frozen for its checksum once per version of its file.
TEST_F(Checksum, AnUnchangedFileIsReadAndItsProgramFrozenOnce) {
  m.program(42, "/usr/bin/app", 2);
  std::string path = write("app", kCheck);
  int32_t pid = 42;
  EXPECT_EQ(checksum.GetCrc32Hash(path, pid), kCheckCrcSigned);
  EXPECT_EQ(checksum.GetCrc32Hash(path, pid), kCheckCrcSigned);
  EXPECT_EQ(m.sim.suspendedThreadLog.size(), 2u) << "one freeze of both threads";

  write("app", "The quick brown fox jumps over the lazy dog");
  EXPECT_EQ(static_cast<uint32_t>(checksum.GetCrc32Hash(path, pid)), 0x414FA339u);
  EXPECT_EQ(m.sim.suspendedThreadLog.size(), 4u) << "a changed file is read again";
  EXPECT_EQ(m.sim.suspensionDepth(42), 0);
}

TEST_F(Checksum, GetCrc32HashOfNoProgramFreezesAndPumpsNothing) {
  m.program(42, "/usr/bin/app");
  bool ran = false;
  m.mailbox.post([&] { ran = true; });
  int32_t pid = -1;
  EXPECT_EQ(checksum.GetCrc32Hash(write("app", kCheck), pid), kCheckCrcSigned);
  EXPECT_FALSE(ran);
  EXPECT_EQ(m.sim.calls.threadSnapshots, 0);
  EXPECT_TRUE(m.sim.suspendedThreadLog.empty());
  EXPECT_TRUE(m.sim.resumedThreadLog.empty());
}

}  // namespace
}  // namespace tessmark
