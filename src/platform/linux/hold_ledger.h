#pragma once
// The hold ledger: a small file naming the processes this program holds stopped, so that a
// later start can continue what a crash left frozen. One line per process: "<pid> <start>\n",
// the start time being field 22 of /proc/<pid>/stat. Pid and start time together name one
// process for good; a reused pid has another start time and is never touched.

#include <cstdint>
#include <string>
#include <vector>

namespace tessmark::platform::linux_backend {

struct LedgerEntry {
  int32_t pid = 0;
  uint64_t startTime = 0;
};

// Replaces the ledger whole (temporary file and rename), or removes it when `entries` is
// empty. False when the file could not be written.
bool WriteHoldLedger(const std::string& path, const std::vector<LedgerEntry>& entries);

// The well-formed lines of the ledger; other lines are skipped. Empty when there is none.
std::vector<LedgerEntry> ReadHoldLedger(const std::string& path);

// Continues every process of the ledger that still runs with the same start time and is
// stopped, then removes the ledger. The number of processes continued.
int ContinueLedgerHolds(const std::string& path);

}  // namespace tessmark::platform::linux_backend
