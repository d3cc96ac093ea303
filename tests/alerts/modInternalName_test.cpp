// A program's name from the version resource of its file, else the file's name.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "alerts/modInternalName.h"
#include "rules/program_file.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

using namespace std::string_literals;

const std::string kKey = "InternalName\x01\x02\x03\x04\x05";  // the key and its five bytes

TEST(InternalName, IsFoundInEachFormOfTheResourceOfARegularFileNeverReadWhole) {
  EXPECT_EQ(NullPad("Ab"), "\x01\x00"s + "A\x00"s + "b");
  const std::pair<std::string, std::string> files[] = {
      // The wide form of a 32-bit program.
      {"MZ\x90\x00junk"s + NullPad("StringFileInfo") + "\x00\x00more"s + NullPad("InternalName") +
           "\x00"s + "c\x00h\x00"s + "a\x00t\x00\x00\x00\x00\x00"s + NullPad("OriginalFilename"),
       "chat"},
      // The plain bytes of a 16-bit program, then a key without StringFileInfo before it.
      {"NE..StringFileInfo..InternalName\x00\x00\x00\x07\x00"s + "CHAT16\x00\x00\x00"s, "CHAT16"},
      {kKey + "TOOL\x00\x00\x00"s, "TOOL"},
      // A value that runs into LegalCopyright ends one byte before the first control byte.
      {kKey + "NAME\x01LegalCopyright (c)\x00\x00\x00"s, "NAM"},
      {"", ""},
      {"\x7f"s + "ELF plain program", ""},
      {kKey + "no end", ""},
      {"Internal", ""}};
  for (const auto& [file, name] : files) EXPECT_EQ(InternalNameOf(file), name) << file;

  // What stands at a program's path is untrusted: a FIFO must not hold the engine, a device
  // must not be read for ever, and a large file must not cost its size in memory.
  testing::SimMonitor m;
  const std::string fifo = m.sim.root + "/fifo", zero = m.sim.root + "/zero";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::filesystem::create_symlink("/dev/zero", zero);
  for (const std::string& path : {fifo, zero, m.sim.root, std::string("/no/such/file")})
    EXPECT_EQ(GetInternalName(path), "") << path;
  // The name of a large program still comes from the end of its file.
  std::string large =
      m.sim.writeProgramFile("large", std::string(size_t{80} << 20, 'x') + "StringFileInfo " +
                                          kKey + "Big Tool\x00\x00\x00"s);
  std::string bytes;
  ASSERT_TRUE(ReadProgramFile(large, size_t{1} << 20, bytes));
  EXPECT_EQ(bytes.size(), size_t{1} << 20) << "half the limit from each end";
  EXPECT_EQ(bytes.substr(0, 4) + bytes.substr(bytes.size() - 3), "xxxx\x00\x00\x00"s);

  // The alert names a program by its resource, or by its file name when it has none.
  std::string plain = m.sim.writeProgramFile("plain-tool", "\x7f"s + "ELF");
  m.monitor.AlertForm(1).SetAlertPath(plain);
  m.monitor.AlertForm(2).SetAlertPath(large);
  EXPECT_EQ(m.monitor.AlertForm(1).DisplayName, "plain-tool");
  EXPECT_EQ(m.monitor.AlertForm(2).DisplayName, "Big Tool");
}

}  // namespace
}  // namespace tessmark
