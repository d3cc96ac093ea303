#pragma once
// The rules and the protected settings of one run, wired together: the folders, the
// checksums, the settings digest, the known-program list and the closed service ports.

#include <cstdint>

#include "base/message_pump.h"
#include "base/ui_port.h"
#include "platform/platform.h"
#include "process/modPauseProcess.h"
#include "rules/app_settings.h"
#include "rules/modChecksum.h"
#include "rules/modClosePorts.h"
#include "rules/modKnownProgram.h"
#include "rules/modSecureConfig.h"

namespace tessmark {

struct RuleStore {
  // InternetLocked: the run state that a failed recovery of the settings locks.
  RuleStore(platform::Platform& system, modPauseProcess& pause, MessagePump& pump, UiPort& ui,
            int16_t& InternetLocked)
      : folders(AppFolders::Of(system.folders())),
        checksum(pause, pump, ui),
        secureConfig(system.settings(), checksum, ui, folders, InternetLocked),
        knownPrograms(checksum),
        closePorts(system.settings(), secureConfig, pump) {}

  AppFolders folders;
  modChecksum checksum;
  modSecureConfig secureConfig;
  modKnownProgram knownPrograms;
  modClosePorts closePorts;
};

}  // namespace tessmark
