#include "rules/modSetting.h"

#include <filesystem>
#include <fstream>
#include <system_error>

#include "monitor/booleans.h"
#include "rules/line_reader.h"

namespace tessmark {

namespace fs = std::filesystem;

void ClearFileAttributes(const std::string& path) {
  std::error_code error;
  fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write,
                  fs::perm_options::add | fs::perm_options::nofollow, error);
}

std::string FormatRuleFile(const RuleList& list) {
  std::string text;
  const int16_t columns = list.ColumnCount();
  // The counter is wider than the list's 16-bit count, so a full list of 32767 rows ends.
  for (int32_t row = 1; row <= list.Count(); ++row) {
    const RuleRow& item = list.Item(static_cast<int16_t>(row));
    text += item.Key;
    text += '\t';
    text += item.Text;
    for (int16_t sub = 1; sub <= columns - 1; ++sub) {
      text += '\t';
      if (static_cast<size_t>(sub) < item.SubItems.size()) text += item.SubItems[sub];
    }
    text += "\r\n";
  }
  return text;
}

void SaveRuleFile(const RuleList& list, const std::string& path, modSecureConfig& secure) {
  ClearFileAttributes(path);
  // Written beside the old file and renamed over it: the old file or the new one stands.
  std::string temporary = path + ".new";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out << FormatRuleFile(list);
    out.flush();
    if (out) {
      out.close();
      std::error_code error;
      fs::rename(temporary, path, error);
    }
  }
  std::error_code error;
  if (fs::exists(temporary, error)) fs::remove(temporary, error);
  secure.SaveConfigCheck();
}

void LoadRuleFile(RuleList& list, const std::string& path, int16_t append) {
  ClearFileAttributes(path);
  std::error_code error;
  if (!fs::exists(path, error)) return;
  if (append == kFalse) list.Clear();
  std::string contents;
  ReadWholeFile(path, contents);
  std::string_view text = contents;
  const int16_t columns = list.ColumnCount();
  std::string line;
  while (ReadLine(text, line)) {
    std::vector<std::string> pieces = SplitAt(line, '\t');
    pieces.resize(static_cast<size_t>(columns) + 1);
    if (!list.Add(pieces[0], pieces[1])) return;
    RuleRow& row = list.Item(list.Count());
    for (int16_t number = 2; number <= columns; ++number) row.SubItems[number - 1] = pieces[number];
  }
}

}  // namespace tessmark
