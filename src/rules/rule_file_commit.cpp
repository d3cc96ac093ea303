#include "rules/rule_file_commit.h"

#include <filesystem>
#include <system_error>

#include "rules/durable_file.h"

namespace tessmark {

namespace fs = std::filesystem;

bool RuleFileCommit::Failed(const std::string& fault) {
  failed_ = true;
  std::error_code error;
  fs::remove(newPath_, error);
  secure_.TellFault(fault, "The rules of " + AppTitle + " could not be saved (" + fault +
                               "). Changes to the rules hold until the firewall ends.");
  return false;
}

bool RuleFileCommit::Write(const std::string& bytes) {
  if (failed_) return false;
  // A rule file that could not be read at start is not overwritten: it may hold every rule
  // the user ever gave.
  if (!secure_.SealFault.empty()) return Failed(secure_.SealFault);
  std::string fault = WriteDurably(newPath_, bytes);
  return fault.empty() || Failed(fault);
}

bool RuleFileCommit::Seal() {
  if (failed_) return false;
  if (secure_.ConfigSaveLocked != 0) return true;  // the broken state is never sealed
  if (secure_.StoreDigest(secure_.ComputeConfigCheckWith(newPath_))) return true;
  failed_ = true;  // told by the store's own message
  std::error_code error;
  fs::remove(newPath_, error);
  return false;
}

bool RuleFileCommit::Replace() {
  if (failed_) return false;
  // The digest already seals the new file, and the next start completes this rename.
  std::string fault = RenameDurably(newPath_, path_);
  if (fault.empty()) return true;
  failed_ = true;
  secure_.TellFault(fault, "The rules of " + AppTitle + " could not be saved (" + fault +
                               "). They are saved at the next start.");
  return false;
}

void FinishRuleFileCommit(const std::string& path, modSecureConfig& secure) {
  const std::string newPath = path + ".new";
  std::error_code error;
  if (!fs::exists(fs::symlink_status(newPath, error))) return;
  if (fs::is_regular_file(fs::symlink_status(newPath, error)) &&
      secure.GetConfig() == secure.ComputeConfigCheckWith(newPath) &&
      RenameDurably(newPath, path).empty())
    return;
  fs::remove(newPath, error);
}

}  // namespace tessmark
