#pragma once
// TcpPrograms and UdpPrograms: the monitor's memory of programs for one protocol. It answers
// one question for a walk: was this program in the table at the last walk? The firewall keeps
// no previous table; a program that dropped its last row is new again at its next one.
//
// The elements from 0 to Top hold paths; the literal "-1" marks a free element, which the
// next new program takes, the lowest first. The array only ever grows. Look-ups go through a
// count per path (case folded) and a set of free elements, so a walk over many rows costs
// rows, not rows times programs.

#include <cstdint>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "monitor/modmain.h"

namespace tessmark {

class ProgramMemory {
 public:
  // The free mark.
  static inline const std::string kFree = "-1";

  // Frees every element whose path no record from 0 to lastIndex has, ignoring case.
  void freeGone(const ConnectionTable& table, int32_t lastIndex);
  // Some element holds the path, ignoring case.
  bool seen(const std::string& path) const;
  // The first free element takes the path; with none free, the array grows by one at the top.
  void enter(const std::string& path);

  const std::vector<std::string>& elements() const { return elements_; }
  int32_t Top() const { return static_cast<int32_t>(elements_.size()) - 1; }

 private:
  void release(size_t index);

  std::vector<std::string> elements_{kFree, kFree};
  std::unordered_map<std::string, int32_t> held_;  // folded path -> elements holding it
  std::set<size_t> free_{0, 1};
};

}  // namespace tessmark
