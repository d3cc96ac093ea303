#include "rules/durable_file.h"

#include <ctime>
#include <filesystem>
#include <system_error>

#include "platform/platform.h"

namespace tessmark {

namespace fs = std::filesystem;

namespace {

std::string LocalStamp() {
  std::time_t now = std::time(nullptr);
  char text[32] = "";
  // Only the engine thread keeps files aside, so the shared buffer of localtime is safe.
  if (const std::tm* local = std::localtime(&now))
    std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", local);
  return text;
}

}  // namespace

std::string ReadFault(const std::string& path) {
  return platform::SystemFiles().readFault(path);
}

std::string WriteDurably(const std::string& path, const std::string& bytes) {
  return platform::SystemFiles().writeDurably(path, bytes);
}

std::string RenameDurably(const std::string& from, const std::string& to) {
  return platform::SystemFiles().renameDurably(from, to);
}

std::string KeepAside(const std::string& path, const std::string& label, bool copy,
                      std::string& kept) {
  const std::string base = path + "." + label + "-" + LocalStamp();
  std::error_code error;
  kept = base;
  for (int number = 2; fs::exists(fs::symlink_status(kept, error)); ++number)
    kept = base + "-" + std::to_string(number);
  if (!copy) return RenameDurably(path, kept);
  fs::copy_file(path, kept, error);
  if (error) return kept + ": " + error.message();
  return platform::SystemFiles().syncFolder(fs::path(kept).parent_path().string());
}

}  // namespace tessmark
