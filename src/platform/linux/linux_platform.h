#pragma once
// The real Linux machine as one backend bundle.

#include <string>

#include "platform/linux/ini_settings_store.h"
#include "platform/linux/linux_adapters.h"
#include "platform/linux/linux_clock.h"
#include "platform/linux/linux_folders.h"
#include "platform/linux/linux_network_status.h"
#include "platform/linux/linux_processes.h"
#include "platform/linux/linux_tables.h"
#include "platform/linux/linux_threads.h"
#include "platform/linux/process_identities.h"
#include "platform/platform.h"

namespace tessmark::platform::linux_backend {

class LinuxPlatform final : public Platform {
 public:
  // holdLedgerPath: where the pids held frozen are noted, so that a later start can let go
  // of programs that a crash left stopped. Empty: no ledger.
  explicit LinuxPlatform(std::string holdLedgerPath = {})
      : threads_(std::move(holdLedgerPath), HoldMethod::kTrace, &identities_) {
    tables_.keepIdentities(&identities_);
  }

  ConnectionTables& tables() override { return tables_; }
  Processes& processes() override { return processes_; }
  Threads& threads() override { return threads_; }
  Clock& clock() override { return clock_; }
  SettingsStore& settings() override { return settings_; }
  Folders& folders() override { return folders_; }
  NetworkStatus& network() override { return network_; }
  Adapters& adapters() override { return adapters_; }

 private:
  // Filled by each read of the tables, read before each hold or kill; declared first, as the
  // others keep a pointer to it.
  ProcessIdentities identities_;
  LinuxConnectionTables tables_;
  LinuxProcesses processes_;
  LinuxThreads threads_;
  LinuxClock clock_;
  IniSettingsStore settings_;
  LinuxFolders folders_;
  LinuxNetworkStatus network_;
  LinuxAdapters adapters_;
};

}  // namespace tessmark::platform::linux_backend
