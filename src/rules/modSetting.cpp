#include "rules/modSetting.h"

#include <filesystem>
#include <system_error>

#include "base/booleans.h"
#include "rules/durable_file.h"
#include "rules/field_quoting.h"
#include "rules/line_reader.h"
#include "rules/rule_file_commit.h"

namespace tessmark {

namespace fs = std::filesystem;

void ClearFileAttributes(const std::string& path) {
  std::error_code error;
  fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write,
                  fs::perm_options::add | fs::perm_options::nofollow, error);
}

namespace {

// A field of the rule file never holds its separator or a line break: a path that does is
// written quoted (see field_quoting.h), so that no file name can add a row or a column.
constexpr std::string_view kSeparators = "\t";

}  // namespace

std::string FormatRuleFile(const RuleList& list) {
  std::string text;
  const int16_t columns = list.ColumnCount();
  // The counter is wider than the list's 16-bit count, so a full list of 32767 rows ends.
  for (int32_t row = 1; row <= list.Count(); ++row) {
    const RuleRow& item = list.Item(static_cast<int16_t>(row));
    text += QuoteField(item.Key, kSeparators);
    text += '\t';
    text += QuoteField(item.Text, kSeparators);
    for (int16_t sub = 1; sub <= columns - 1; ++sub) {
      text += '\t';
      if (static_cast<size_t>(sub) < item.SubItems.size())
        text += QuoteField(item.SubItems[sub], kSeparators);
    }
    text += "\r\n";
  }
  return text;
}

void SaveRuleFile(const RuleList& list, const std::string& path, modSecureConfig& secure) {
  ClearFileAttributes(path);
  RuleFileCommit commit(path, secure);
  commit.Write(FormatRuleFile(list)) && commit.Seal() && commit.Replace();
}

int32_t LoadRuleFile(RuleList& list, const std::string& path, int16_t append) {
  ClearFileAttributes(path);
  std::error_code error;
  if (!fs::exists(path, error)) return 0;
  if (append == kFalse) list.Clear();
  std::string contents;
  ReadWholeFile(path, contents);
  std::string_view text = contents;
  const int16_t columns = list.ColumnCount();
  std::string line;
  int32_t left = 0;
  while (ReadLine(text, line)) {
    std::vector<std::string> pieces = SplitAt(line, '\t');
    pieces.resize(static_cast<size_t>(columns) + 1);
    if (left > 0 || !list.Add(UnquoteField(pieces[0]), UnquoteField(pieces[1]))) {
      ++left;
      continue;
    }
    RuleRow& row = list.Item(list.Count());
    for (int16_t number = 2; number <= columns; ++number)
      row.SubItems[number - 1] = UnquoteField(pieces[number]);
  }
  return left;
}

void LoadRuleFileAtStart(RuleList& list, const std::string& path, modSecureConfig& secure) {
  const int32_t left = LoadRuleFile(list, path, kFalse);
  if (left == 0) return;
  // The next save writes only the rows the list holds: the whole file is kept beside first.
  std::string kept;
  std::string fault = KeepAside(path, "full", true, kept);
  std::string where = fault.empty() ? "it is kept whole in \"" + kept + "\""
                                    : "it could not be kept aside (" + fault + ")";
  secure.TellFault(where, "The rule file \"" + path + "\" holds " + std::to_string(left) +
                              " rules more than the " + std::to_string(list.Count()) +
                              " the firewall can use. The first " + std::to_string(list.Count()) +
                              " are used; " + where + ".");
}

}  // namespace tessmark
