#pragma once
// The rule list: one row per program that has touched the network, in creation order. The
// list in memory is the authority; the rule file is its plain serialisation. Rows are
// numbered from 1, and the first row whose path matches wins.

#include <array>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace tessmark {

// The access words.
inline const std::string AccessAllow = "allow";
inline const std::string AccessDeny = "deny";
inline const std::string AccessAsk = "ask";

// One row: a hidden key, then the four columns. SubItems(1) is the checksum as signed decimal
// text, SubItems(2) the access word, SubItems(3) the ID; SubItems(0) is never used, since
// column 0 is Text.
struct RuleRow {
  std::string Key;
  std::string Text;
  std::array<std::string, 4> SubItems;
};

class RuleList {
 public:
  // The captions of the four columns.
  std::vector<std::string> ColumnHeaders{"Program path", "CRC32-Hash", "Access", "ID"};

  int16_t ColumnCount() const { return static_cast<int16_t>(ColumnHeaders.size()); }
  int16_t Count() const { return static_cast<int16_t>(rows_.size()); }

  // Row index from 1 to Count(). A row handed out for writing may get another path, so the
  // look-up index is built again before the next FindPath.
  RuleRow& Item(int16_t index) {
    indexStale_ = true;
    return rows_.at(static_cast<size_t>(index) - 1);
  }
  const RuleRow& Item(int16_t index) const { return rows_.at(static_cast<size_t>(index) - 1); }

  // Appends a row with these two cells and empty SubItems; false when the list is full
  // (32,767 rows, the most a 16-bit row number can reach).
  bool Add(const std::string& key, const std::string& text);
  void Remove(int16_t index);
  void Clear() {
    rows_.clear();
    indexStale_ = true;
  }

  // The first row whose path equals `path` ignoring case, or 0. Every new connection asks,
  // so the answer comes from an index by folded path, kept while no row is written.
  int16_t FindPath(const std::string& path) const;

 private:
  std::vector<RuleRow> rows_;
  mutable std::unordered_map<std::string, int16_t> firstRowOf_;
  mutable bool indexStale_ = true;
};

}  // namespace tessmark
