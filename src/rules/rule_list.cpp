#include "rules/rule_list.h"

#include <limits>

#include "base/text_compare.h"

namespace tessmark {

bool RuleList::Add(const std::string& key, const std::string& text) {
  if (rows_.size() >= static_cast<size_t>(std::numeric_limits<int16_t>::max())) return false;
  RuleRow row;
  row.Key = key;
  row.Text = text;
  rows_.push_back(std::move(row));
  indexStale_ = true;
  return true;
}

void RuleList::Remove(int16_t index) {
  if (index < 1 || index > Count()) return;
  rows_.erase(rows_.begin() + (index - 1));
  indexStale_ = true;
}

int16_t RuleList::FindPath(const std::string& path) const {
  if (indexStale_) {
    firstRowOf_.clear();
    // Walked backwards, so the first row of each path is the one that stays.
    for (size_t i = rows_.size(); i > 0; --i)
      firstRowOf_[FoldedText(rows_[i - 1].Text)] = static_cast<int16_t>(i);
    indexStale_ = false;
  }
  auto found = firstRowOf_.find(FoldedText(path));
  return found == firstRowOf_.end() ? 0 : found->second;
}

}  // namespace tessmark
