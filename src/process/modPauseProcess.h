#pragma once
// modPauseProcess: holding a program still while the user is asked, letting it go again,
// and killing it. A suspension is counted per thread, so suspending twice needs two resumes.

#include <cstdint>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "process/modprocs.h"

namespace tessmark {

// One record of a thread snapshot.
struct THREADENTRY32 {
  uint32_t dwSize = 0;
  uint32_t cntUsage = 0;
  uint32_t th32ThreadID = 0;
  uint32_t th32OwnerProcessID = 0;
  int32_t tpBasePri = 0;
  int32_t tpDeltaPri = 0;
  uint32_t dwFlags = 0;
};

class modPauseProcess {
 public:
  modPauseProcess(platform::Threads& threads, modprocs& procs) : threads_(threads), procs_(procs) {}

  // Fills entries from one snapshot; the last index filled, or -1 when none could be taken.
  int32_t GetThreadList(std::vector<THREADENTRY32>& entries, int32_t pid);

  void SuspendThreads(int32_t pid);
  void ResumeThreads(int32_t pid);
  // At every poll: lets the system finish a resume it could not finish at once.
  void Settle() { threads_.settle(); }
  void SuspendOneThread(uint32_t threadId);
  void ResumeOneThread(uint32_t threadId);

  // Open, read the exit code, terminate, close: always all four steps.
  void Process_Kill(int32_t pid);

  // The failure reporter of Process_Kill. It says nothing: a kill that fails is silent.
  static void Err_Dll(uint32_t errorNumber, const std::string& message,
                      const std::string& moduleName, const std::string& procedureName);

  std::vector<THREADENTRY32> ThreadEntries;

 private:
  platform::Threads& threads_;
  modprocs& procs_;
};

}  // namespace tessmark
