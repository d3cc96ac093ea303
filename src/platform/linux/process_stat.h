#pragma once
// The fields of /proc/<pid>/stat the hold logic needs. The command name in that line is
// chosen by the program and may hold spaces and ')', so fields are counted from the LAST ')'.

#include <cstdint>
#include <optional>
#include <string_view>

namespace tessmark::platform::linux_backend {

struct ProcessStat {
  char state = '?';        // R, S, D, T (stopped), t (traced), Z, X, ...
  int32_t parentPid = 0;   // the real parent, which is told when the process ends
  uint64_t startTime = 0;  // clock ticks after boot: with the pid, names one process for good
};

// Parses the text of a stat file. nullopt when it is not one.
std::optional<ProcessStat> ParseProcessStat(std::string_view text);

// Reads and parses `path` relative to `dirFd` (AT_FDCWD for an absolute path).
std::optional<ProcessStat> ReadProcessStat(int dirFd, const char* path);

// The stat of a process or thread by id under /proc.
std::optional<ProcessStat> ReadProcessStat(int32_t pid);

// True for the states in which a thread executes nothing until continued or reaped.
inline bool IsHaltedState(char state) {
  return state == 'T' || state == 't' || state == 'Z' || state == 'X';
}

}  // namespace tessmark::platform::linux_backend
