#include "process/modPauseProcess.h"

namespace tessmark {

namespace {
constexpr uint32_t kThreadEntrySize = 28;
}

int32_t modPauseProcess::GetThreadList(std::vector<THREADENTRY32>& entries, int32_t pid) {
  entries.assign(1, THREADENTRY32{});
  auto snapshot = threads_.snapshot(pid);
  if (!snapshot || snapshot->empty()) return -1;
  entries.clear();
  for (const auto& thread : *snapshot) {
    THREADENTRY32 entry;
    entry.dwSize = kThreadEntrySize;
    entry.th32ThreadID = thread.threadId;
    entry.th32OwnerProcessID = thread.ownerProcessId;
    entries.push_back(entry);
  }
  return static_cast<int32_t>(entries.size()) - 1;
}

void modPauseProcess::SuspendThreads(int32_t pid) {
  // The firewall never freezes itself.
  if (pid == procs_.MyProcess()) return;
  int32_t last = GetThreadList(ThreadEntries, pid);
  // Index 0 is compared too: a snapshot may begin with another process's thread.
  for (int32_t i = 0; i <= last; ++i) {
    if (ThreadEntries[i].th32OwnerProcessID == static_cast<uint32_t>(pid))
      SuspendOneThread(ThreadEntries[i].th32ThreadID);
  }
}

void modPauseProcess::ResumeThreads(int32_t pid) {
  // No comparison with the own id here: resuming a running thread changes nothing.
  int32_t last = GetThreadList(ThreadEntries, pid);
  for (int32_t i = 0; i <= last; ++i) {
    if (ThreadEntries[i].th32OwnerProcessID == static_cast<uint32_t>(pid))
      ResumeOneThread(ThreadEntries[i].th32ThreadID);
  }
}

void modPauseProcess::SuspendOneThread(uint32_t threadId) {
  threads_.suspendThread(threadId);
}

void modPauseProcess::ResumeOneThread(uint32_t threadId) {
  threads_.resumeThread(threadId);
}

void modPauseProcess::Process_Kill(int32_t pid) {
  // All four steps run whatever failed before, each failure reported to the silent Err_Dll.
  static const std::string kModule = "mdlProcess";
  static const std::string kProcedure = "Kill_Process";
  platform::ProcessHandle handle = threads_.openProcess(pid);
  if (handle == 0) Err_Dll(threads_.lastError(), "OpenProcess failed", kModule, kProcedure);
  uint32_t exitCode = 0;
  if (!threads_.exitCode(handle, exitCode))
    Err_Dll(threads_.lastError(), "GetExitCodeProcess failed", kModule, kProcedure);
  if (!threads_.terminateProcess(handle, exitCode))
    Err_Dll(threads_.lastError(), "TerminateProcess failed", kModule, kProcedure);
  if (!threads_.closeHandle(handle))
    Err_Dll(threads_.lastError(), "CloseHandle failed", kModule, kProcedure);
}

void modPauseProcess::Err_Dll(uint32_t, const std::string&, const std::string&,
                              const std::string&) {}

}  // namespace tessmark
