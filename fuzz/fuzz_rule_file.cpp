// The rule file reader on any bytes: it must never crash, and what it read must come back
// the same after a write and a second read. Any bytes as one field (a program's name) come
// back exactly after quoting.

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

#include "base/booleans.h"
#include "rules/field_quoting.h"
#include "rules/modSetting.h"

namespace {

std::string scratchFile() {
  static const std::string path = "/tmp/tessmark-fuzz-rules-" + std::to_string(getpid()) + ".dat";
  return path;
}

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tessmark;
  const std::string path = scratchFile();
  writeFile(path, std::string(reinterpret_cast<const char*>(data), size));
  RuleList list;
  LoadRuleFile(list, path, kFalse);

  const std::string bytes(reinterpret_cast<const char*>(data), size);
  if (UnquoteField(QuoteField(bytes, "\t|")) != bytes) std::abort();

  // A cell that holds a TAB or a line break is written quoted, so the written form reads
  // back the same.
  std::string written = FormatRuleFile(list);
  writeFile(path, written);
  RuleList again;
  LoadRuleFile(again, path, kFalse);
  if (FormatRuleFile(again) != written || again.Count() != list.Count()) std::abort();
  return 0;
}
