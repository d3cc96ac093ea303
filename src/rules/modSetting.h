#pragma once
// modSetting: the rule file, a plain serialisation of the rule list. One line per row, ended
// by CR LF; the fields Key, Text and the SubItems separated by one TAB. A field that would
// hold a TAB, a line break or another control byte is written quoted (field_quoting.h); every
// other field stands as it is. No header, no count, no end mark: the settings digest guards
// the file as a whole.

#include <cstdint>
#include <string>

#include "rules/modSecureConfig.h"
#include "rules/rule_list.h"

namespace tessmark {

// Makes the file writable by its owner again, keeping its other permissions. A file that
// cannot be changed, or does not exist, is left as it is without a word.
void ClearFileAttributes(const std::string& path);

// Saves the list as the rule file and reseals the settings over it, so that after a crash
// at any instant the next start finds the old rules or the new ones, sealed (see
// rule_file_commit.h). A save that fails leaves the old file and its seal, and says where.
void SaveRuleFile(const RuleList& list, const std::string& path, modSecureConfig& secure);

// Fills the list from the file; a missing file leaves the list as it is. Without the append
// flag the list is emptied first. Nothing in a line is checked: a short line is padded with
// empty fields and a long one cut to the columns. Gives the number of lines left out because
// the list was full.
int32_t LoadRuleFile(RuleList& list, const std::string& path, int16_t append);

// LoadRuleFile at start: a file longer than the list holds is copied aside whole, and the
// user told so, before any save can cut it to the list.
void LoadRuleFileAtStart(RuleList& list, const std::string& path, modSecureConfig& secure);

// The bytes SaveRuleFile writes for the list.
std::string FormatRuleFile(const RuleList& list);

}  // namespace tessmark
