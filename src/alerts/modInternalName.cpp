#include "alerts/modInternalName.h"

#include <algorithm>

#include "rules/program_file.h"

namespace tessmark {

std::string NullPad(const std::string& word) {
  std::string padded("\x01\x00", 2);
  for (size_t i = 0; i < word.size(); ++i) {
    if (i > 0) padded.push_back('\0');
    padded.push_back(word[i]);
  }
  return padded;
}

std::string InternalNameOf(const std::string& bytes) {
  // 1. Where the key stands: the wide form in a 32-bit program's resource, the plain bytes in
  //    a 16-bit one. A wide StringFileInfo without a wide key has no name.
  size_t key = std::string::npos;
  size_t keyLength = 0;
  size_t table = bytes.find(NullPad("StringFileInfo"));
  if (table != std::string::npos) {
    key = bytes.find(NullPad("InternalName"), table);
    keyLength = 26;
  } else {
    table = bytes.find("StringFileInfo");
    key = bytes.find("InternalName", table == std::string::npos ? 0 : table);
    keyLength = 17;
  }
  if (key == std::string::npos) return {};

  // 2. The value runs from behind the key to the next three 0 bytes in a row.
  size_t start = key + keyLength;
  if (start > bytes.size()) return {};
  size_t end = bytes.find(std::string(3, '\0'), start);
  if (end == std::string::npos) return {};

  // 3. A value that reaches into LegalCopyright overshot its end: it ends before the first
  //    control byte behind its start.
  if (bytes.substr(start, end - start).find("LegalCopyright") != std::string::npos) {
    for (size_t i = 1; i <= 255; ++i) {
      if (start + i >= bytes.size()) return {};
      if (static_cast<unsigned char>(bytes[start + i]) < 32) {
        end = start + i - 1;
        break;
      }
    }
  }
  std::string name = bytes.substr(start, end - start);
  name.erase(std::remove(name.begin(), name.end(), '\0'), name.end());
  return name;
}

std::string GetInternalName(const std::string& path) {
  // 64 MiB bound the memory a name costs; a larger program is searched at its start and end.
  constexpr size_t kScanLimit = size_t{64} << 20;
  std::string bytes;
  if (!ReadProgramFile(path, kScanLimit, bytes)) return {};
  return InternalNameOf(bytes);
}

}  // namespace tessmark
