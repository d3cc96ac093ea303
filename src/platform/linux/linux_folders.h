#pragma once
// The user's documents folder and the program's own folder on a Linux desktop.

#include <string>
#include <string_view>

#include "platform/platform.h"

namespace tessmark::platform::linux_backend {

// The documents folder named by the text of a user-dirs.dirs file: the value of
// XDG_DOCUMENTS_DIR, with a leading "$HOME" replaced by home. "" when the text names none,
// or names the home folder itself (which the XDG tools write to say "no such folder").
std::string DocumentsDirFromUserDirs(std::string_view text, const std::string& home);

class LinuxFolders final : public Folders {
 public:
  // XDG_DOCUMENTS_DIR from $XDG_CONFIG_HOME/user-dirs.dirs, else $HOME/Documents; "" when
  // there is no home folder to speak of.
  std::string documentsFolder() override;
  // The folder of /proc/self/exe.
  std::string programFolder() override;
};

}  // namespace tessmark::platform::linux_backend
