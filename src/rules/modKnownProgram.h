#pragma once
// modKnownProgram: the list of known programs shipped beside the executable. For a checksum
// it says what to do with a program that has no rule yet (1 allow, 2 deny, 3 destructive:
// kill), and gives the description the destructive-program notice shows.
//
// ProgramCheck.dat: lines "checksum|action|description" ended by CR LF, a closing line
// "END", and behind it four bytes holding the CRC-32 of everything before them,
// little-endian. A list whose seal does not hold is not read at all.

#include <cstdint>
#include <string>
#include <vector>

#include "rules/modChecksum.h"

namespace tessmark {

struct KnownProgramEntry {
  int32_t checksum = 0;
  int16_t action = 0;
  std::string description;
};

class modKnownProgram {
 public:
  explicit modKnownProgram(modChecksum& checksum) : checksum_(checksum) {}

  // Loads the list from the file at `path`, once at start. A missing file is left behind
  // empty, and it fails the seal at every later start too. A line whose checksum or action is
  // not a number ends the loading there; the entry stays counted with what it got.
  void LoadKnownPrograms(const std::string& path);

  // The action of the first entry with that checksum, or 0.
  int16_t knownProgram(int32_t& crc) const;
  // The description of the first entry with that checksum, or "".
  std::string GetDescriptionOfVirus(int32_t& crc) const;

  // From index 1; index 0 is unused.
  std::vector<KnownProgramEntry> KnownPrograms{1};
  int32_t KnownProgramCount = 0;

 private:
  const KnownProgramEntry* find(int32_t crc) const;

  modChecksum& checksum_;
};

}  // namespace tessmark
