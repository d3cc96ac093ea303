#include "platform/linux/user_paths.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace tessmark::platform::linux_backend {

namespace {
std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}
}  // namespace

std::string DefaultHoldLedgerPath() {
  std::filesystem::path folder = environment("XDG_RUNTIME_DIR");
  std::string name = "tessmark-held-programs";
  if (folder.empty()) {
    folder = environment("XDG_CONFIG_HOME");
    if (folder.empty() && !environment("HOME").empty())
      folder = std::filesystem::path(environment("HOME")) / ".config";
    if (folder.empty()) return {};
    folder /= "Tessmark Personal Firewall";
    name = "held-programs";
  }
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) return {};
  return (folder / name).string();
}

}  // namespace tessmark::platform::linux_backend
