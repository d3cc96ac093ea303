// The reader of the known-program list on any bytes. Most inputs would fail the seal and
// never reach the line reader, so an input whose first byte is even is sealed here first.

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

#include "monitor/mailbox.h"
#include "platform/sim/sim_system.h"
#include "process/modPauseProcess.h"
#include "process/modprocs.h"
#include "rules/crc32.h"
#include "rules/modChecksum.h"
#include "rules/modKnownProgram.h"

namespace {

using namespace tessmark;

struct Machine {
  platform::sim::SimSystem sim;
  Mailbox mailbox;
  SilentUi ui;
  modprocs procs{sim, mailbox};
  modPauseProcess pause{sim, procs};
  modChecksum checksum{pause, mailbox, ui};
  std::string path = sim.programDirectory + "/ProgramCheck.dat";
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Machine machine;
  std::string bytes(reinterpret_cast<const char*>(data), size);
  if (size > 0 && data[0] % 2 == 0) {
    uint32_t crc = ~crc32::Update(0xFFFFFFFFu, bytes.data(), bytes.size());
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<char>((crc >> (8 * i)) & 0xFF));
  }
  std::ofstream(machine.path, std::ios::binary | std::ios::trunc) << bytes;

  modKnownProgram list(machine.checksum);
  list.LoadKnownPrograms(machine.path);
  if (list.KnownProgramCount < 0 ||
      static_cast<size_t>(list.KnownProgramCount) + 1 != list.KnownPrograms.size())
    std::abort();
  for (int32_t i = 1; i <= list.KnownProgramCount; ++i) {
    int32_t crc = list.KnownPrograms[i].checksum;
    list.knownProgram(crc);
    list.GetDescriptionOfVirus(crc);
  }
  return 0;
}
