// The CRC-32 that binds a rule to a program file and keys the sealed list of known programs,
// against published check values and the bitwise CRC-32 here; the list as read, shipped, sealed.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>

#include "rules/crc32.h"
#include "rules/modKnownProgram.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

namespace fs = std::filesystem;

uint32_t BitwiseUpdate(uint32_t reg, const char* data, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    reg ^= static_cast<unsigned char>(data[i]);
    for (int bit = 0; bit < 8; ++bit) reg = (reg >> 1) ^ (0xEDB88320u & (0u - (reg & 1u)));
  }
  return reg;
}
uint32_t Crc32(const std::string& bytes) {
  return ~BitwiseUpdate(~0u, bytes.data(), bytes.size());
}
std::string Sealed(const std::string& body) {  // the CRC-32 behind, little-endian
  std::string trailer;
  for (int i = 0; i < 4; ++i) trailer.push_back(static_cast<char>(Crc32(body) >> (8 * i)));
  return body + trailer;
}
std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}
std::string RandomBytes(size_t size) {
  std::mt19937 generator(1);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(generator());
  return bytes;
}

constexpr char kCheck[] = "123456789";  // CRC-32 CBF43926, held signed -873187034
const std::string kFox = "The quick brown fox jumps over the lazy dog";  // CRC-32 414FA339
// Blanks around numbers are read, and halves go to the even neighbour; a "," is no point.
const std::string kNumbers = " -12 |  2 |b\r\n2.5|1.5|h\r\n+2.5e1|1|e\r\n3,7|1|c\r\nEND\r\n";
const std::string kNumberEntries = "-12|2|b;2|2|h;25|1|e;0|0|;";

class Crc : public ::testing::Test, public testing::SimMonitor {
 protected:
  std::string write(const std::string& name, const std::string& bytes) {
    std::ofstream(sim.root + "/" + name, std::ios::binary) << bytes;
    return sim.root + "/" + name;
  }
  uint32_t crcOf(const std::string& path) { return rules.checksum.CRC32File(path, 0, 0); }
  // Gives 0, and one error box of this number.
  void expectFailure(const std::string& path, const std::string& number, int16_t seal = 0) {
    EXPECT_EQ(rules.checksum.CRC32File(path, 0, seal), 0) << path;
    ASSERT_EQ(ui.errorBoxes.size(), 1u) << path;
    EXPECT_EQ(ui.errorBoxes[0].rfind(number + "\rmodChecksum.CRC32File\r", 0), 0u) << path;
    ui.errorBoxes.clear();
  }
  modKnownProgram load(const std::string& file, const std::string* bytes = nullptr) {
    if (bytes) std::ofstream(file, std::ios::binary) << *bytes;
    modKnownProgram list(rules.checksum);
    list.LoadKnownPrograms(file);
    return list;
  }
  std::string path() { return rules.folders.KnownProgramsPath(); }
};

// Every length to 600 at every misalignment from random registers, a few MB, uneven pieces.
class CrcMethod : public Crc, public ::testing::WithParamInterface<crc32::Method> {};

TEST_P(CrcMethod, AgreesWithTheBitwiseCrc) {
  if (!crc32::Supports(GetParam())) GTEST_SKIP() << "this processor lacks this method";
  const std::string data = RandomBytes((3u << 20) + 77);
  auto update = [&](uint32_t reg, size_t at, size_t size) {
    return crc32::UpdateBy(GetParam(), reg, data.data() + at, size);
  };
  std::mt19937 generator(2);
  for (size_t step = 0; step < 601 * 16; ++step) {
    const size_t size = step / 16, at = step % 16;
    const uint32_t reg = generator();
    ASSERT_EQ(update(reg, at, size), BitwiseUpdate(reg, data.data() + at, size))
        << "size " << size << ", offset " << at;
  }
  const uint32_t whole = ~Crc32(data.substr(3));
  uint32_t reg = 0xFFFFFFFFu;
  size_t at = 3;
  for (size_t piece : {1u, 63u, 64u, 65u, 255u, 256u, 4095u, 100000u, 1u << 20}) {
    reg = update(reg, at, piece);
    at += piece;
  }
  EXPECT_EQ(update(reg, at, data.size() - at), whole);
}

INSTANTIATE_TEST_SUITE_P(EveryMethod, CrcMethod,
                         ::testing::Values(crc32::Method::Slicing8, crc32::Method::CarrylessFold,
                                           crc32::Method::WideCarrylessFold));

TEST_F(Crc, FilesGiveTheirCrcAsASignedNumberOrTheErrorBoxAndZero) {
  EXPECT_EQ(Crc32(kCheck), 0xCBF43926u);  // the reference itself
  EXPECT_EQ(crcOf(write("empty", "")), 0u);
  constexpr size_t kBlock = modChecksum::kReadBlockSize;  // files around the read block
  const std::string data = RandomBytes(3 * kBlock + 4095);
  for (size_t size : {kBlock - 1, kBlock, kBlock + 1, 2 * kBlock, data.size()})
    EXPECT_EQ(crcOf(write("data", data.substr(0, size))), Crc32(data.substr(0, size)));
  // A deleted program, a folder, a pipe and a device (neither read nor waited for), no name,
  // a missing folder, a name that a NUL cuts to another file's.
  const std::string fifo = sim.root + "/fifo", cutByNul = write("app", kCheck) + '\0' + "x";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& path :
       {sim.root + "/deleted", std::string(), sim.root + "/no/x", cutByNul})
    expectFailure(path, "53");
  for (const std::string& path : {sim.root, fifo, std::string("/dev/zero")})
    expectFailure(path, "75");
  EXPECT_FALSE(fs::exists(sim.root + "/deleted") || fs::exists(sim.root + "/no"));

  // A running program's file is read, but never sealed: it cannot be opened for writing.
  const std::string self = fs::read_symlink("/proc/self/exe").string();
  if (int fd = ::open(self.c_str(), O_RDWR | O_CLOEXEC); fd >= 0) {
    ::close(fd);
    GTEST_SKIP() << "this kernel lets a running program's file be opened for writing";
  }
  fs::copy_file(self, sim.root + "/copy");
  EXPECT_EQ(crcOf(self), crcOf(sim.root + "/copy"));
  expectFailure(self, "75", -1);
  EXPECT_EQ(fs::file_size(self), fs::file_size(sim.root + "/copy"));
}

// Holes are zeros never read: data at the start, between holes and at the end; one hole.
TEST_F(Crc, ASparseFileGivesTheChecksumOfItsBytesWithoutReadingItsHoles) {
  constexpr off_t kSize = 16 << 20;
  const std::string data = RandomBytes(3 * 4096 + 17);
  using Layout = std::vector<std::pair<off_t, std::string>>;
  for (const Layout& layout : {Layout{{0, data.substr(0, 4096)},
                                      {5 << 20, data.substr(4096, 4096)},
                                      {kSize - 4113, data.substr(8192)}},
                               Layout{{3 << 20, data}}, Layout{}}) {
    const std::string path = write("sparse", "");
    ASSERT_EQ(::truncate(path.c_str(), kSize), 0);
    std::string dense(kSize, '\0');
    std::fstream out(path, std::ios::binary | std::ios::in | std::ios::out);
    for (const auto& [offset, bytes] : layout) {
      out.seekp(offset) << bytes;
      dense.replace(static_cast<size_t>(offset), bytes.size(), bytes);
    }
    out.close();
    EXPECT_EQ(crcOf(path), Crc32(dense)) << layout.size() << " runs of data";
  }
  // A terabyte of holes is computed, not read: the check string, then 2^40 - 9 zeros.
  const std::string huge = write("huge", kCheck);
  if (::truncate(huge.c_str(), off_t{1} << 40) != 0)
    GTEST_SKIP() << "this file system takes no 1 TiB file: " << std::strerror(errno);
  EXPECT_EQ(crcOf(huge), ~crc32::UpdateZeros(~0xCBF43926u, (uint64_t{1} << 40) - 9));
}

TEST_F(Crc, AProgramStandsFrozenWhileItsFileIsReadOncePerVersion) {
  program(42, "/usr/bin/app", 2);
  const std::string path = write("app", "");
  // The file holds the check text only from the first pump to the second (each pump runs what
  // waits, which posts for the next): the result tells when it was read, frozen at both.
  std::vector<bool> frozenAtPump;
  mailbox.post([&] {
    frozenAtPump.push_back(sim.isFrozen(42));
    write("app", kCheck);
    mailbox.post([&] {
      frozenAtPump.push_back(sim.isFrozen(42));
      write("app", kFox);
      mailbox.post([&] { frozenAtPump.push_back(sim.isFrozen(42)); });
    });
  });
  int32_t pid = 42;
  EXPECT_EQ(rules.checksum.GetCrc32Hash(path, pid), -873187034);
  EXPECT_EQ(frozenAtPump, (std::vector<bool>{true, true, false}));
  EXPECT_EQ(sim.suspendedThreadLog, (std::vector<uint32_t>{421, 422}));
  EXPECT_EQ(sim.resumedThreadLog, (std::vector<uint32_t>{421, 422}));
  // Changed while it was read: read again, and then not while it stays as it is.
  for (int call = 0; call < 2; ++call)
    EXPECT_EQ(static_cast<uint32_t>(rules.checksum.GetCrc32Hash(path, pid)), 0x414FA339u);
  EXPECT_EQ(sim.suspendedThreadLog.size(), 4u);
  write("app", kCheck);
  EXPECT_EQ(rules.checksum.GetCrc32Hash(path, pid), -873187034);
  EXPECT_EQ(sim.suspendedThreadLog.size(), 6u);
  EXPECT_EQ(sim.suspensionDepth(42), 0);
  // No program (pid -1): the file alone, with no freeze and no pump.
  bool ran = false;
  mailbox.post([&] { ran = true; });
  pid = -1;
  EXPECT_EQ(rules.checksum.GetCrc32Hash(write("other", kFox), pid), 0x414FA339);
  EXPECT_FALSE(ran);
  EXPECT_EQ(sim.suspendedThreadLog.size(), 6u);
}

std::string Entries(const modKnownProgram& list) {  // "checksum|action|description;" each
  std::string text;
  for (int32_t i = 1; i <= list.KnownProgramCount; ++i)
    text += std::to_string(list.KnownPrograms.at(i).checksum) + "|" +
            std::to_string(list.KnownPrograms.at(i).action) + "|" +
            list.KnownPrograms.at(i).description + ";";
  return text;
}

std::string Lookup(const modKnownProgram& list, int32_t crc) {
  return std::to_string(list.knownProgram(crc)) + "|" + list.GetDescriptionOfVirus(crc) + ";";
}

TEST_F(Crc, TheKnownListLoadStopsAtEndAtABadLineOrAtABrokenSeal) {
  std::string broken = Sealed("5|1|good\r\nEND\r\n");
  broken[0] = '6';
  const std::pair<std::string, std::string> cases[] = {
      {Sealed("-873187034|1|Text editor\r\n17|2|Dialer\r\n2147483647|3|Worm: by mail|x\r\nEND\r\n"),
       "-873187034|1|Text editor;17|2|Dialer;2147483647|3|Worm: by mail;"},
      {Sealed("5|1|before\r\nEND\r\n6|3|after\r\n"), "5|1|before;"},
      // A bad line ends the loading but stays counted, with what it got.
      {Sealed("5|1|good\r\n6|x|bad action\r\n7|3|never read\r\nEND\r\n"), "5|1|good;6|0|;"},
      {Sealed("5|1|good\r\nnot a number|1|x\r\nEND\r\n"), "5|1|good;0|0|;"},
      {Sealed("5|1|good\r\n6|2|no end\r\n"), "5|1|good;6|2|no end;0|0|;"},  // then the trailer
      {broken, ""},
      {"abc", ""}};  // too short to hold a seal
  for (const auto& [file, entries] : cases) EXPECT_EQ(Entries(load(path(), &file)), entries);
  const std::string lookups = Sealed("5|1|first\r\n5|3|second\r\n0|3|Empty file\r\nEND\r\n");
  const modKnownProgram list = load(path(), &lookups);  // the first entry of a checksum wins
  EXPECT_EQ(Lookup(list, 5) + Lookup(list, 0) + Lookup(list, 18), "1|first;3|Empty file;0|;");
  // A missing list is left behind empty, which fails the seal at the next start too.
  fs::remove(path());
  EXPECT_EQ(load(path()).KnownProgramCount, 0);
  EXPECT_EQ(fs::file_size(path()), 0u);
  EXPECT_TRUE(ui.errorBoxes.empty());
}

// Numbers are written with "." and read alike under a "," locale, as the windows' toolkit sets.
TEST_F(Crc, TheKnownListsNumbersAreReadWithAPointWhateverTheLocaleSays) {
  const std::string file = Sealed(kNumbers);
  EXPECT_EQ(Entries(load(path(), &file)), kNumberEntries);
  if (!std::setlocale(LC_NUMERIC, "de_DE.UTF-8")) {  // none installed: made from the sources
    ::setenv("LOCPATH", sim.root.c_str(), 1);
    const std::string make = "localedef -i de_DE -f UTF-8 " + sim.root + "/de_DE.UTF-8";
    if (std::system((make + " >/dev/null 2>&1").c_str()) < 0 ||
        !std::setlocale(LC_NUMERIC, "de_DE.UTF-8")) {
      ::unsetenv("LOCPATH");
      GTEST_SKIP() << "no German locale here, and localedef made none";
    }
  }
  const std::string point = std::localeconv()->decimal_point;
  const std::string underComma = Entries(load(path()));
  std::setlocale(LC_NUMERIC, "C");
  ::unsetenv("LOCPATH");
  EXPECT_EQ(point, ",");
  EXPECT_EQ(underComma, kNumberEntries);
}

TEST_F(Crc, TheShippedListAndItsSealerMakeSealedListsTheLoaderReads) {
  const fs::path build = fs::read_symlink("/proc/self/exe").parent_path().parent_path();
  const fs::path shipped = build / "src/ProgramCheck.dat",
                 sealer = build / "tools/seal-program-list";
  if (!fs::exists(shipped) || !fs::exists(sealer))
    GTEST_SKIP() << shipped << " is not built here (program-check-list)";
  const std::string bytes = ReadFile(shipped);
  ASSERT_GE(bytes.size(), 9u);
  EXPECT_EQ(Sealed(bytes.substr(0, bytes.size() - 4)), bytes) << "the trailer is no CRC-32";
  EXPECT_EQ(bytes.substr(bytes.size() - 9, 5), "END\r\n");
  const auto client = static_cast<int32_t>(Crc32(ReadFile(build / "tools/tessmark-demo-client")));
  EXPECT_EQ(Lookup(load(shipped.string()), client), "1|Tessmark demo client;");

  auto seal = [&](const std::string& output, const std::string& lines) {
    const std::string input = write("list.txt", lines), errors = sim.root + "/errors";
    return std::system(
        ("'" + sealer.string() + "' '" + output + "' '" + input + "' 2>" + errors).c_str());
  };
  ASSERT_EQ(seal(path(), "# a comment\r\n\n-873187034|1|Editor\n17|2|Dialer\r\n@" +
                             write("fox", kFox) + "|3|W\n"),
            0)
      << ReadFile(sim.root + "/errors");
  EXPECT_EQ(ReadFile(path()),  // the fox's CRC-32 is 414FA339
            Sealed("-873187034|1|Editor\r\n17|2|Dialer\r\n1095738169|3|W\r\nEND\r\n"));
  EXPECT_EQ(Entries(load(path())), "-873187034|1|Editor;17|2|Dialer;1095738169|3|W;");
  // A line the firewall could not read is refused, and nothing is written.
  EXPECT_NE(seal(sim.root + "/refused.dat", "5|1|good\n6|4|no such action\n"), 0);
  EXPECT_FALSE(fs::exists(sim.root + "/refused.dat"));
}

}  // namespace
}  // namespace tessmark
