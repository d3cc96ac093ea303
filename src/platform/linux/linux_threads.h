#pragma once
// Threads, their suspension and ending a process, on Linux. Suspension counts live here, per
// thread id. A thread is held by ptrace while its count is above 0 (see trace_hold.h): the
// hold is invisible to the program's parent and to a shell's job control, and the kernel lets
// go of it if we die. Where tracing is refused (a debugger traces the program already, or we
// may not trace it), the process is held the old way instead: stopped with SIGSTOP while any
// of its threads has a count above 0 and continued with SIGCONT when all are back at 0. Such
// stops are recorded (a table the fatal-signal handler can walk, and an optional ledger file)
// so that no program stays frozen after we end.
//
// Holding and letting go must be asked from one thread (the engine's): the kernel ties a
// traced thread to the thread that traces it.

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/linux/process_identities.h"
#include "platform/linux/trace_hold.h"
#include "platform/platform.h"

namespace tessmark::platform::linux_backend {

// How threads are held. kSignals is the fallback's road taken for every process; tests use it
// to exercise that road on programs that could be traced.
enum class HoldMethod { kTrace, kSignals };

class LinuxThreads final : public Threads {
 public:
  // `ledgerPath`: where the processes stopped by signal are listed while any is; empty for
  // none. `identities`: the processes the last tables named, so that a pid reused since is
  // never held or killed; null for no such check.
  explicit LinuxThreads(std::string ledgerPath = {}, HoldMethod method = HoldMethod::kTrace,
                        const ProcessIdentities* identities = nullptr);
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
  void settle() override;
  bool raiseCallingThreadPriority() override;

  // Continues every process held by signal if this program dies of a fatal signal (see
  // fatal_release.h), then lets the signal end it as it would have. Traced threads need no
  // help: the kernel lets them go.
  static void InstallFatalSignalRelease();

  // At start: continues the processes a previous run left stopped, as its ledger lists them,
  // provided each is still the same process (same start time) and still stopped. Removes the
  // ledger.
  static void ContinueLeftoverHolds(const std::string& ledgerPath);

 private:
  // One thread with a count above 0.
  struct ThreadHold {
    int32_t pid = 0;
    int32_t count = 0;
    bool traced = false;
    TracedThread trace;
  };
  // A process with at least one held thread.
  struct ProcessHold {
    uint64_t startTime = 0;
    int32_t realParent = 0;
    int pidfd = -1;
    bool stoppedBySignal = false;
  };

  std::optional<int32_t> ownerOf(uint32_t threadId);
  bool isReused(int32_t pid) const;
  ProcessHold* processHold(int32_t pid);
  bool hasHeldThreads(int32_t pid) const;
  bool tracedThreadsAllEnded(int32_t pid) const;
  void restopIfContinued(int32_t pid, ProcessHold& process);
  bool holdThread(uint32_t threadId, int32_t pid, ThreadHold& thread);
  bool stopBySignal(int32_t pid, ProcessHold& process);
  void letGo(ThreadHold& thread);
  bool adoptLateStop(uint32_t threadId, ThreadHold& thread);
  void endProcessHold(int32_t pid, bool ended);
  void dropGone();
  void dropEndedThreads(int32_t pid);
  void writeLedger();

  std::mutex mutex_;
  // Threads let go before their stop came: detached at the engine's next polls.
  struct LateStop {
    TracedThread trace;
    int32_t pid = 0;
    pid_t realParent = 0;
  };
  std::vector<LateStop> lateStops_;
  // How long a letting go waits for a stop still due before leaving it to the next polls.
  static constexpr std::chrono::milliseconds kStopWait{200};
  std::string ledgerPath_;
  HoldMethod method_;
  const ProcessIdentities* identities_;
  std::unordered_map<uint32_t, int32_t> owners_;        // from the last snapshot
  std::unordered_map<uint32_t, ThreadHold> threads_;    // threads with a count above 0
  std::unordered_map<int32_t, ProcessHold> processes_;  // processes with such threads
  std::unordered_map<ProcessHandle, int32_t> handles_;
  uint32_t lastError_ = 0;
};

}  // namespace tessmark::platform::linux_backend
