#pragma once
// modSetting: the rule file, a plain serialisation of the rule list. One line per row, ended
// by CR LF; the fields Key, Text and the SubItems separated by one TAB, with no quoting of any
// kind. No header, no count, no end mark: the settings digest guards the file as a whole.

#include <cstdint>
#include <string>

#include "rules/modSecureConfig.h"
#include "rules/rule_list.h"

namespace tessmark {

// Makes the file writable by its owner again, keeping its other permissions. A file that
// cannot be changed, or does not exist, is left as it is without a word.
void ClearFileAttributes(const std::string& path);

// Rewrites the file from the list, then reseals the settings whether or not the writing went
// well. The new file replaces the old one whole, so a crash never leaves a cut file.
void SaveRuleFile(const RuleList& list, const std::string& path, modSecureConfig& secure);

// Fills the list from the file; a missing file leaves the list as it is. Without the append
// flag the list is emptied first. Nothing in a line is checked: a short line is padded with
// empty fields and a long one cut to the columns.
void LoadRuleFile(RuleList& list, const std::string& path, int16_t append);

// The bytes SaveRuleFile writes for the list.
std::string FormatRuleFile(const RuleList& list);

}  // namespace tessmark
