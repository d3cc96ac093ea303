#include "process/modprocs.h"

#include <cstring>
#include <filesystem>

namespace tessmark {

bool modprocs::LoadProcessTable(int32_t exceptPid) {
  int16_t road = kProcessRoad;
  switch (road) {
    case 1:
      return loadByProcessSnapshot(exceptPid);
    case 2:
      return loadByProcessList();
    default:
      return false;
  }
}

// Road 2: one list of (id, path) pairs. A process the firewall may not open is missing from
// it and so gets no entry; its lookups give "".
bool modprocs::loadByProcessList() {
  std::unordered_map<int32_t, std::string> table;
  for (auto& entry : system_.processes().list()) {
    CooperativeYield(pump_);
    table.insert_or_assign(entry.pid, std::move(entry.path));
  }
  // Readers during the yields above saw the old table whole; this replaces it in one step.
  ProcessPaths_ = std::move(table);
  return true;
}

// Road 1: the process snapshot, whose entries carry the executable's file name in a fixed
// field of 260 characters. The excepted process is killed and left out. Not reached while
// kProcessRoad is 2.
bool modprocs::loadByProcessSnapshot(int32_t exceptPid) {
  constexpr size_t kExeFileField = 260;
  std::unordered_map<int32_t, std::string> table;
  for (const auto& entry : system_.processes().list()) {
    CooperativeYield(pump_);
    if (entry.pid != exceptPid) {
      std::string field = std::filesystem::path(entry.path).filename().string();
      field.resize(kExeFileField, '\0');
      table.insert_or_assign(entry.pid, StrZToStr(field));
    } else {
      auto& threads = system_.threads();
      platform::ProcessHandle handle = threads.openProcess(entry.pid);
      uint32_t exitCode = 0;  // never set: the process ends with 0
      threads.terminateProcess(handle, exitCode);
      threads.closeHandle(handle);
    }
  }
  ProcessPaths_ = std::move(table);
  return true;
}

std::string modprocs::ProcessPathFromId(int32_t pid) {
  // A dictionary read enters an absent key with an empty item; it lasts until the rebuild.
  return ProcessPaths_[pid];
}

int32_t modprocs::MyProcess() {
  return system_.processes().currentProcessId();
}

std::string StrZToStr(const std::string& text) {
  return text.empty() ? std::string() : text.substr(0, text.size() - 1);
}

}  // namespace tessmark
