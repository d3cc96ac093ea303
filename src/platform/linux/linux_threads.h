#pragma once
// Threads, their suspension and ending a process, on Linux. Linux cannot stop one thread of a
// process from outside, so the suspension counts live here, per thread id: the process is
// stopped with SIGSTOP while any of its threads has a count above 0 and continued with
// SIGCONT when all are back to 0. Every stop is recorded (a table the fatal-signal handler
// can walk, and an optional ledger file) so that no program stays frozen after we end.

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/platform.h"

namespace tessmark::platform::linux_backend {

class LinuxThreads final : public Threads {
 public:
  // `ledgerPath`: where the held processes are listed while any is held; empty for none.
  explicit LinuxThreads(std::string ledgerPath = {});
  ~LinuxThreads() override;
  LinuxThreads(const LinuxThreads&) = delete;
  LinuxThreads& operator=(const LinuxThreads&) = delete;

  // Only the threads of `pid`, from /proc/<pid>/task.
  std::optional<std::vector<ThreadEntry>> snapshot(int32_t pid) override;
  int32_t suspendThread(uint32_t threadId) override;
  int32_t resumeThread(uint32_t threadId) override;

  // The handle is a pidfd; it names one process for good, whatever happens to its id.
  ProcessHandle openProcess(int32_t pid) override;
  bool exitCode(ProcessHandle handle, uint32_t& code) override;
  bool terminateProcess(ProcessHandle handle, uint32_t exitCode) override;
  bool closeHandle(ProcessHandle handle) override;
  uint32_t lastError() override;

  void releaseAllHolds() override;

  // Continues every held process if this program dies of SIGSEGV, SIGBUS, SIGFPE, SIGILL or
  // SIGABRT, then lets the signal end it as it would have.
  static void InstallFatalSignalRelease();

  // At start: continues the processes a previous run left stopped, as its ledger lists them,
  // provided each is still the same process (same start time) and still stopped. Removes the
  // ledger.
  static void ContinueLeftoverHolds(const std::string& ledgerPath);

 private:
  struct Hold {
    int32_t total = 0;  // sum of the counts of the process's threads
    uint64_t startTime = 0;
    int pidfd = -1;
  };
  struct Count {
    int32_t pid = 0;
    int32_t count = 0;
  };

  std::optional<int32_t> ownerOf(uint32_t threadId);
  bool hold(int32_t pid);
  void release(int32_t pid, bool sendContinue);
  void dropGone();
  void writeLedger();

  std::mutex mutex_;
  std::string ledgerPath_;
  std::unordered_map<uint32_t, int32_t> owners_;  // from the last snapshot
  std::unordered_map<uint32_t, Count> counts_;    // threads with a count above 0
  std::unordered_map<int32_t, Hold> holds_;       // processes we keep stopped
  std::unordered_map<ProcessHandle, int32_t> handles_;
  uint32_t lastError_ = 0;
};

}  // namespace tessmark::platform::linux_backend
