#pragma once
// A fresh folder as HOME (and its .config as XDG_CONFIG_HOME) for a test that runs the
// engine: the rule file, the settings and the log go there, never to the real user's files.
// The variables are restored and the folder removed when the object goes.

#include <stdlib.h>

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tessmark::testing {

class TemporaryHome {
 public:
  TemporaryHome() {
    char pattern[] = "/tmp/tessmark-home.XXXXXX";
    if (::mkdtemp(pattern) == nullptr) return;
    path_ = pattern;
    for (const char* name : {"HOME", "XDG_CONFIG_HOME"}) {
      const char* value = std::getenv(name);
      saved_.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
    }
    ::setenv("HOME", path_.c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (path_ + "/.config").c_str(), 1);
  }
  ~TemporaryHome() {
    for (const auto& [name, value] : saved_) {
      if (value)
        ::setenv(name.c_str(), value->c_str(), 1);
      else
        ::unsetenv(name.c_str());
    }
    std::error_code error;
    if (!path_.empty()) std::filesystem::remove_all(path_, error);
  }
  TemporaryHome(const TemporaryHome&) = delete;
  TemporaryHome& operator=(const TemporaryHome&) = delete;

  // Empty when no folder could be made.
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

}  // namespace tessmark::testing
