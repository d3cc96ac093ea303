#include "rules/app_settings.h"

namespace tessmark {

AppFolders AppFolders::Of(platform::Folders& folders) {
  AppFolders result;
  result.ProgramFolder = folders.programFolder();
  std::string documents = folders.documentsFolder();
  if (documents.empty()) documents = result.ProgramFolder;
  result.AppDataDir = documents + "/" + AppTitle + "_Files";
  return result;
}

std::string GetSetting(platform::SettingsStore& store, const std::string& section,
                       const std::string& key, const std::string& fallback) {
  return store.readSetting(AppTitle, section, key).value_or(fallback);
}

bool SaveSetting(platform::SettingsStore& store, const std::string& section, const std::string& key,
                 const std::string& value) {
  return store.writeSetting(AppTitle, section, key, value);
}

}  // namespace tessmark
