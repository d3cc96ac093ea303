#include "platform/linux/linux_folders.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace tessmark::platform::linux_backend {

namespace {

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r'))
    text.remove_suffix(1);
  return text;
}

}  // namespace

// user-dirs.dirs holds shell assignments, one a line, such as
//   XDG_DOCUMENTS_DIR="$HOME/Documents"
// The value is quoted and either absolute or relative to $HOME; "#" starts a comment.
std::string DocumentsDirFromUserDirs(std::string_view text, const std::string& home) {
  constexpr std::string_view kName = "XDG_DOCUMENTS_DIR=";
  std::string found;
  while (!text.empty()) {
    size_t end = text.find('\n');
    std::string_view line = trim(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
    if (line.substr(0, kName.size()) != kName) continue;
    std::string_view value = line.substr(kName.size());
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
      value = value.substr(1, value.size() - 2);
    std::string path;
    if (value.substr(0, 5) == "$HOME") {
      if (home.empty()) continue;
      path = home + std::string(value.substr(5));
    } else if (!value.empty() && value.front() == '/') {
      path = std::string(value);
    } else {
      continue;
    }
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    found = path;  // the last assignment wins, as in the shell
  }
  std::string plainHome = home;
  while (plainHome.size() > 1 && plainHome.back() == '/') plainHome.pop_back();
  return found == plainHome ? std::string{} : found;
}

std::string LinuxFolders::documentsFolder() {
  std::string home = environment("HOME");
  std::filesystem::path config = environment("XDG_CONFIG_HOME");
  if (config.empty() && !home.empty()) config = std::filesystem::path(home) / ".config";
  if (!config.empty()) {
    std::ifstream file(config / "user-dirs.dirs", std::ios::binary);
    if (file) {
      std::ostringstream text;
      text << file.rdbuf();
      std::string named = DocumentsDirFromUserDirs(text.str(), home);
      if (!named.empty()) return named;
    }
  }
  if (home.empty()) return {};
  return (std::filesystem::path(home) / "Documents").string();
}

std::string LinuxFolders::programFolder() {
  std::error_code error;
  auto exe = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return {};
  return exe.parent_path().string();
}

}  // namespace tessmark::platform::linux_backend
