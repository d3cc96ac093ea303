#pragma once
// The program's title, the folders it keeps its files in, and the settings store as the rest
// of the program uses it.

#include <string>

#include "platform/platform.h"

namespace tessmark {

// The program title: also the settings store's application name and the base name of the
// rule file and of the data folder.
inline const std::string AppTitle = "Tessmark Personal Firewall";

// The program's version: major, minor and revision numbers.
inline constexpr int AppMajor = TESSMARK_VERSION_MAJOR;
inline constexpr int AppMinor = TESSMARK_VERSION_MINOR;
inline constexpr int AppRevision = TESSMARK_VERSION_REVISION;

struct AppFolders {
  // The data folder: AppTitle + "_Files" in the user's documents folder, or in the program
  // folder when the system names no documents folder.
  std::string AppDataDir;
  // The folder of the firewall's own executable.
  std::string ProgramFolder;

  // Built afresh at each use, as every caller does.
  std::string RuleFilePath() const { return AppDataDir + "/" + AppTitle + ".dat"; }
  std::string KnownProgramsPath() const { return ProgramFolder + "/ProgramCheck.dat"; }

  static AppFolders Of(platform::Folders& folders);
};

// The stored value, or `fallback` when none is stored.
std::string GetSetting(platform::SettingsStore& store, const std::string& section,
                       const std::string& key, const std::string& fallback);
// False when the store could not take the value.
bool SaveSetting(platform::SettingsStore& store, const std::string& section, const std::string& key,
                 const std::string& value);

}  // namespace tessmark
