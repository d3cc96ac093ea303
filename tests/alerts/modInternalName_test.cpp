// A program's name from the version resource in its file: the wide form of a 32-bit
// program, the plain bytes of a 16-bit one, the overshoot into LegalCopyright, and the file
// name when there is no resource.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "alerts/modInternalName.h"
#include "rules/program_file.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

using namespace std::string_literals;

TEST(InternalName, KeysArePaddedWithZeroBytes) {
  EXPECT_EQ(NullPad("Ab"), "\x01\x00"s + "A\x00"s + "b");
}

TEST(InternalName, TheWideFormOfA32BitProgram) {
  std::string file = "MZ\x90\x00junk"s + NullPad("StringFileInfo") + "\x00\x00more"s +
                     NullPad("InternalName") + "\x00"s + "c\x00h\x00"s +
                     "a\x00t\x00\x00\x00\x00\x00"s + NullPad("OriginalFilename");
  EXPECT_EQ(InternalNameOf(file), "chat");
}

TEST(InternalName, ThePlainBytesOfA16BitProgram) {
  std::string file =
      "NE..StringFileInfo.."s + "InternalName" + "\x00\x00\x00\x07\x00"s + "CHAT16\x00\x00\x00"s;
  EXPECT_EQ(InternalNameOf(file), "CHAT16");
  // Without StringFileInfo the key is looked for from the start of the file.
  EXPECT_EQ(InternalNameOf("InternalName\x01\x02\x03\x04\x05TOOL\x00\x00\x00"s), "TOOL");
}

TEST(InternalName, AValueThatRunsIntoLegalCopyrightEndsBeforeTheFirstControlByte) {
  // The end is taken one byte early: "NAME" comes out as "NAM".
  std::string file =
      "InternalName\x01\x02\x03\x04\x05"s + "NAME\x01LegalCopyright (c)" + "\x00\x00\x00"s;
  EXPECT_EQ(InternalNameOf(file), "NAM");
}

TEST(InternalName, NoResourceGivesNothing) {
  EXPECT_EQ(InternalNameOf(""), "");
  EXPECT_EQ(InternalNameOf("\x7f"
                           "ELF plain program"),
            "");
  EXPECT_EQ(InternalNameOf("InternalName\x01\x02\x03\x04\x05no end"), "");
  EXPECT_EQ(InternalNameOf("Internal"), "");
  EXPECT_EQ(GetInternalName("/no/such/file"), "");
}

// What stands at a program's path is untrusted: a FIFO must not hold the engine (the open
// would wait for a writer), a device must not be read for ever, and a large file must not cost
// its size in memory. The name of a large program still comes from the end of its file.
TEST(InternalName, OnlyARegularFileIsReadAndNeverWholeWhenLarge) {
  std::string dir = ::testing::TempDir() + "tessmark-name-" + std::to_string(::getpid());
  std::filesystem::create_directories(dir);
  std::string fifo = dir + "/fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0) << std::strerror(errno);
  EXPECT_EQ(GetInternalName(fifo), "");
  std::string zero = dir + "/zero";
  std::filesystem::create_symlink("/dev/zero", zero);
  EXPECT_EQ(GetInternalName(zero), "");
  EXPECT_EQ(GetInternalName(dir), "");

  std::string large = dir + "/large";
  {
    std::ofstream out(large, std::ios::binary);
    out << std::string(size_t{80} << 20, 'x')
        << "StringFileInfo InternalName\x01\x02\x03\x04\x05"s + "Big Tool\x00\x00\x00"s;
  }
  EXPECT_EQ(GetInternalName(large), "Big Tool");
  std::string bytes;
  ASSERT_TRUE(ReadProgramFile(large, size_t{1} << 20, bytes));
  EXPECT_EQ(bytes.size(), size_t{1} << 20) << "half the limit from each end";
  EXPECT_EQ(bytes.substr(0, 4), "xxxx");
  EXPECT_EQ(bytes.substr(bytes.size() - 3), "\x00\x00\x00"s);
  std::filesystem::remove_all(dir);
}

TEST(InternalName, TheAlertNamesAProgramWithoutResourceByItsFileName) {
  testing::SimMonitor m;
  std::string plain = m.sim.writeProgramFile("plain-tool",
                                             "\x7f"
                                             "ELF");
  std::string named = m.sim.writeProgramFile(
      "named", "StringFileInfo InternalName\x01\x02\x03\x04\x05Named Tool\x00\x00\x00"s);
  m.monitor.AlertForm(1).SetAlertPath(plain);
  m.monitor.AlertForm(2).SetAlertPath(named);
  EXPECT_EQ(m.monitor.AlertForm(1).DisplayName, "plain-tool");
  EXPECT_EQ(m.monitor.AlertForm(2).DisplayName, "Named Tool");
}

}  // namespace
}  // namespace tessmark
