#pragma once
// Saving the rule file so that a crash or a power cut at any instant leaves either the old
// rules or the new ones standing, each sealed by the stored digest:
//   1. Write:   the new bytes go into the rule file's name + ".new", beside the old file, and
//               reach the disk;
//   2. Seal:    the digest that the new file makes is stored (the store replaces its own
//               file whole, on the disk before it returns);
//   3. Replace: the new file is renamed over the old one.
// Up to step 2 the old file and the old digest stand. From step 2 on the stored digest is
// the new file's, and the start that finds the new file still beside the old completes the
// rename. A leftover whose digest is not the stored one is a write cut short, and removed.

#include <string>

#include "rules/modSecureConfig.h"

namespace tessmark {

class RuleFileCommit {
 public:
  RuleFileCommit(const std::string& path, modSecureConfig& secure)
      : path_(path), newPath_(path + ".new"), secure_(secure) {}

  // Each step does nothing once one before it failed; the failed one tells the user what
  // could not be written, and where, and leaves the old rules standing and sealed.
  bool Write(const std::string& bytes);
  bool Seal();
  bool Replace();

 private:
  bool Failed(const std::string& fault);

  std::string path_, newPath_;
  modSecureConfig& secure_;
  bool failed_ = false;
};

// At start, before the seal is checked: completes a commit that got past its seal, and
// removes one that did not.
void FinishRuleFileCommit(const std::string& path, modSecureConfig& secure);

}  // namespace tessmark
