// Numbers in the rule file and the settings are written with "." whatever the desktop's
// language: a process whose locale uses "," (as the windows' toolkit sets it) reads them alike.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <clocale>
#include <filesystem>
#include <string>

#include "rules/text_numbers.h"

namespace tessmark {
namespace {

// A German locale for this process, made from the system's locale sources into a temporary
// folder where none is installed. Empty when it cannot be had.
std::string GermanNumbers() {
  if (std::setlocale(LC_NUMERIC, "de_DE.UTF-8") != nullptr) return "de_DE.UTF-8";
  std::string dir = ::testing::TempDir() + "tessmark-locale-" + std::to_string(::getpid());
  std::string command = "localedef -i de_DE -f UTF-8 '" + dir + "/de_DE.UTF-8' >/dev/null 2>&1";
  std::filesystem::create_directories(dir);
  if (std::system(command.c_str()) != 0 && !std::filesystem::exists(dir + "/de_DE.UTF-8"))
    return {};
  ::setenv("LOCPATH", dir.c_str(), 1);
  return std::setlocale(LC_NUMERIC, "de_DE.UTF-8") != nullptr ? "de_DE.UTF-8" : "";
}

TEST(TextNumbers, AreReadWithAPointWhateverTheLocaleSays) {
  std::string locale = GermanNumbers();
  if (locale.empty()) GTEST_SKIP() << "no German locale here, and localedef could not make one";
  ASSERT_EQ(std::string(std::localeconv()->decimal_point), ",");
  EXPECT_EQ(DoubleFromText("3.7"), 3.7);
  EXPECT_EQ(DoubleFromText(" +2.5e1 "), 25.0);
  EXPECT_EQ(DoubleFromText("3,7"), std::nullopt);
  EXPECT_EQ(LongFromText("-123"), -123);
  std::setlocale(LC_NUMERIC, "C");
  ::unsetenv("LOCPATH");
}

}  // namespace
}  // namespace tessmark
