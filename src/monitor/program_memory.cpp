#include "monitor/program_memory.h"

#include <unordered_set>

#include "base/text_compare.h"

namespace tessmark {

void ProgramMemory::freeGone(const ConnectionTable& table, int32_t lastIndex) {
  std::unordered_set<std::string> present;
  for (int32_t i = 0; i <= lastIndex; ++i) present.insert(FoldedText(table[i].ProcessPath));
  for (size_t j = 0; j < elements_.size(); ++j) {
    if (free_.count(j) != 0) continue;
    if (present.count(FoldedText(elements_[j])) == 0) release(j);
  }
}

void ProgramMemory::release(size_t index) {
  auto found = held_.find(FoldedText(elements_[index]));
  if (found != held_.end() && --found->second == 0) held_.erase(found);
  elements_[index] = kFree;
  free_.insert(index);
}

bool ProgramMemory::seen(const std::string& path) const {
  return held_.count(FoldedText(path)) != 0;
}

void ProgramMemory::enter(const std::string& path) {
  size_t index;
  if (!free_.empty()) {
    index = *free_.begin();
    free_.erase(free_.begin());
  } else {
    index = elements_.size();
    elements_.emplace_back();
  }
  elements_[index] = path;
  ++held_[FoldedText(path)];
}

}  // namespace tessmark
