#include "rules/modKnownProgram.h"

#include <filesystem>
#include <system_error>

#include "base/booleans.h"
#include "rules/line_reader.h"
#include "rules/text_numbers.h"

namespace tessmark {

void modKnownProgram::LoadKnownPrograms(const std::string& path) {
  std::error_code error;
  bool existed = std::filesystem::exists(path, error);
  // The seal is checked in any case; checking a missing file creates it empty.
  bool sealed = checksum_.CRC32File(path, kTrue, kFalse) == kTrue;
  if (!existed || !sealed) return;

  std::string contents;
  if (!ReadWholeFile(path, contents)) return;
  std::string_view text = contents;
  std::string line;
  while (ReadLine(text, line)) {
    if (line == "END") return;
    ++KnownProgramCount;
    KnownPrograms.resize(static_cast<size_t>(KnownProgramCount) + 1);
    KnownProgramEntry& entry = KnownPrograms[KnownProgramCount];
    std::vector<std::string> fields = SplitAt(line, '|');
    auto crc = LongFromText(fields[0]);
    if (!crc) return;
    entry.checksum = *crc;
    if (fields.size() < 2) return;
    auto action = IntegerFromText(fields[1]);
    if (!action) return;
    entry.action = *action;
    if (fields.size() < 3) return;
    entry.description = fields[2];
  }
}

const KnownProgramEntry* modKnownProgram::find(int32_t crc) const {
  for (int32_t i = 1; i <= KnownProgramCount; ++i)
    if (KnownPrograms[i].checksum == crc) return &KnownPrograms[i];
  return nullptr;
}

int16_t modKnownProgram::knownProgram(int32_t& crc) const {
  const KnownProgramEntry* entry = find(crc);
  return entry ? entry->action : 0;
}

std::string modKnownProgram::GetDescriptionOfVirus(int32_t& crc) const {
  const KnownProgramEntry* entry = find(crc);
  return entry ? entry->description : std::string{};
}

}  // namespace tessmark
