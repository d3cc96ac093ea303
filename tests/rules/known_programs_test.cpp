// The list of known programs: a sealed file built here byte by byte, the stops at "END" and
// at a bad line, the seal, and the look-ups.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "rules/modKnownProgram.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

namespace fs = std::filesystem;

// CRC-32 bit by bit, independent of the firewall's tables.
uint32_t referenceCrc32(const std::string& bytes) {
  uint32_t reg = 0xFFFFFFFFu;
  for (unsigned char byte : bytes) {
    reg ^= byte;
    for (int bit = 0; bit < 8; ++bit) reg = (reg >> 1) ^ (0xEDB88320u & (0u - (reg & 1u)));
  }
  return ~reg;
}

std::string sealed(const std::string& body) {
  uint32_t crc = referenceCrc32(body);
  std::string trailer;
  for (int i = 0; i < 4; ++i) trailer.push_back(static_cast<char>((crc >> (8 * i)) & 0xFF));
  return body + trailer;
}

class KnownPrograms : public ::testing::Test, public testing::SimMonitor {
 protected:
  std::string path() { return rules.folders.KnownProgramsPath(); }
  void write(const std::string& bytes) {
    std::ofstream(path(), std::ios::binary | std::ios::trunc) << bytes;
  }
  modKnownProgram& list() { return rules.knownPrograms; }
  int16_t action(int32_t crc) { return list().knownProgram(crc); }
  std::string description(int32_t crc) { return list().GetDescriptionOfVirus(crc); }
};

TEST_F(KnownPrograms, ASealedListLoads) {
  write(
      sealed("-873187034|1|Text editor\r\n"
             "17|2|Unwanted dialer\r\n"
             "0|3|Empty program file\r\n"
             "2147483647|3|Worm.Example: spreads by mail|extra\r\n"
             "END\r\n"));
  list().LoadKnownPrograms(path());
  EXPECT_EQ(list().KnownProgramCount, 4);
  EXPECT_EQ(action(-873187034), 1);
  EXPECT_EQ(action(17), 2);
  EXPECT_EQ(action(0), 3);
  EXPECT_EQ(description(0), "Empty program file");
  EXPECT_EQ(description(2147483647), "Worm.Example: spreads by mail");
  EXPECT_EQ(action(18), 0);
  EXPECT_EQ(description(18), "");
}

TEST_F(KnownPrograms, TheFirstEntryOfAChecksumWins) {
  write(sealed("5|1|first\r\n5|3|second\r\nEND\r\n"));
  list().LoadKnownPrograms(path());
  EXPECT_EQ(action(5), 1);
  EXPECT_EQ(description(5), "first");
}

TEST_F(KnownPrograms, ReadingStopsAtEnd) {
  write(sealed("5|1|before\r\nEND\r\n6|3|after\r\n"));
  list().LoadKnownPrograms(path());
  EXPECT_EQ(list().KnownProgramCount, 1);
  EXPECT_EQ(action(6), 0);
}

TEST_F(KnownPrograms, ABadLineEndsTheLoadingButStaysCounted) {
  write(sealed("5|1|good\r\n6|x|bad action\r\n7|3|never read\r\nEND\r\n"));
  list().LoadKnownPrograms(path());
  EXPECT_EQ(list().KnownProgramCount, 2);
  EXPECT_EQ(list().KnownPrograms[2].checksum, 6);
  EXPECT_EQ(list().KnownPrograms[2].action, 0);
  EXPECT_EQ(action(7), 0);

  modKnownProgram other(rules.checksum);
  write(sealed("5|1|good\r\nnot a number|1|x\r\nEND\r\n"));
  other.LoadKnownPrograms(path());
  EXPECT_EQ(other.KnownProgramCount, 2);
  int32_t five = 5;
  EXPECT_EQ(other.knownProgram(five), 1);
}

TEST_F(KnownPrograms, WithoutEndTheTrailerIsReadAsABadLastLine) {
  write(sealed("5|1|good\r\n6|2|also good\r\n"));
  list().LoadKnownPrograms(path());
  EXPECT_EQ(list().KnownProgramCount, 3);
  EXPECT_EQ(action(6), 2);
}

TEST_F(KnownPrograms, NumbersAreReadAsNumbers) {
  write(sealed(" -12 |  2 |blanks around\r\n2.5|1.5|halves go to even\r\nEND\r\n"));
  list().LoadKnownPrograms(path());
  EXPECT_EQ(action(-12), 2);
  EXPECT_EQ(action(2), 2);
}

TEST_F(KnownPrograms, ABrokenSealLoadsNothing) {
  std::string file = sealed("5|1|good\r\nEND\r\n");
  file[0] = '6';
  write(file);
  list().LoadKnownPrograms(path());
  EXPECT_EQ(list().KnownProgramCount, 0);
  EXPECT_EQ(action(6), 0);
  EXPECT_TRUE(ui.errorBoxes.empty());
}

TEST_F(KnownPrograms, AMissingListLeavesAnEmptyFileBehind) {
  ASSERT_FALSE(fs::exists(path()));
  list().LoadKnownPrograms(path());
  EXPECT_EQ(list().KnownProgramCount, 0);
  ASSERT_TRUE(fs::exists(path()));
  EXPECT_EQ(fs::file_size(path()), 0u);
  // And it fails the seal at the next start too.
  modKnownProgram next(rules.checksum);
  next.LoadKnownPrograms(path());
  EXPECT_EQ(next.KnownProgramCount, 0);
}

}  // namespace
}  // namespace tessmark
