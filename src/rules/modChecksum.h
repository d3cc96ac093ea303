#pragma once
// modChecksum: the CRC-32 of a program file, which binds a rule to the file's content and is
// the key into the list of known programs. A program stands frozen while its file is read,
// so the reading is as fast as the machine allows.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include "base/message_pump.h"
#include "base/ui_port.h"
#include "platform/platform.h"
#include "process/modPauseProcess.h"

namespace tessmark {

class modChecksum {
 public:
  // The reflected polynomial of the standard CRC-32.
  static constexpr uint32_t kPolynomial = 0xEDB88320u;
  // The reading block of CRC32File. The program stands frozen while its file is read, so
  // the reads are few and large.
  static constexpr size_t kReadBlockSize = size_t{1} << 20;

  modChecksum(modPauseProcess& pause, MessagePump& pump, UiPort& ui)
      : pause_(pause), pump_(pump), ui_(ui) {}

  // Fills CrcTable for the polynomial and sets CrcTableReady.
  void CRCInit(uint32_t polynomial);

  // Without check mode: the file's CRC-32, held signed. With check mode: -1 when the last
  // four bytes hold (little-endian) the CRC-32 of all bytes before them, else 0. Write mode
  // seals: in check mode it stores the result over the last four bytes, otherwise it appends
  // the result. A missing file is created empty, as opening it for binary access does.
  // A file that cannot be read shows the error box and gives the result as far as it stands.
  int32_t CRC32File(const std::string& path, int16_t checkMode, int16_t writeMode);

  // The checksum of a program that may be running: the process stands frozen while its file
  // is read, with the pump run around the reading. A pid of -1 reads the file alone. A file
  // read before and unchanged since (same device, inode, size, modification and change
  // times) gives the checksum it gave then, without a freeze: a program that comes and goes
  // is not frozen at each return.
  int32_t GetCrc32Hash(const std::string& path, int32_t& pid);

  std::array<int32_t, 256> CrcTable{};
  int16_t CrcTableReady = 0;

 private:
  struct KnownChecksum {
    platform::FileVersion version;
    int32_t crc = 0;
  };
  static std::optional<platform::FileVersion> VersionOf(const std::string& path);

  std::unordered_map<std::string, KnownChecksum> knownChecksums_;
  modPauseProcess& pause_;
  MessagePump& pump_;
  UiPort& ui_;
  uint32_t tablePolynomial_ = 0;
};

}  // namespace tessmark
