#pragma once
// The simulated system: a whole machine for tests. A test sets the scene through the public
// members and helpers (connection tables, processes with threads, the clock) and reads back
// what the firewall did (rows deleted, threads suspended and resumed, processes killed) and
// how often it asked the system for what.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace tessmark::platform::sim {

// Raw table fields from readable values, the way the system lays them out.
uint32_t RawAddress(const std::string& dotted);  // "10.0.0.1" -> bytes 10 0 0 1 in memory
uint32_t RawPort(uint16_t port);                 // the two bytes in network order, low 16 bits

TcpOwnerRow MakeTcpRow(uint32_t state, const std::string& localAddress, uint16_t localPort,
                       const std::string& remoteAddress, uint16_t remotePort, uint32_t pid);
UdpOwnerRow MakeUdpRow(const std::string& localAddress, uint16_t localPort, uint32_t pid);

struct SimProcess {
  std::string path;
  std::vector<uint32_t> threads;
  bool alive = true;
  bool openable = true;  // false: out of the firewall's reach, like another user's daemon
};

// What the firewall asked the system for.
struct SimCalls {
  int tcpProbes = 0;
  int udpProbes = 0;
  int tcpTableReads = 0;
  int udpTableReads = 0;
  int processListings = 0;
  int threadSnapshots = 0;
};

class SimSystem final : public Platform,
                        public ConnectionTables,
                        public Processes,
                        public Threads,
                        public Clock {
 public:
  SimSystem();

  // ---- the scene
  std::vector<TcpOwnerRow> tcpRows;
  std::vector<UdpOwnerRow> udpRows;
  bool tcpTableFails = false;
  bool udpTableFails = false;
  bool threadSnapshotFails = false;
  std::map<int32_t, SimProcess> processTable;
  int32_t ownPid = 1000;
  uint32_t now = 0;  // the clock, ms; sleep() moves it on
  // Threads of another process that every thread snapshot lists first, as a system-wide
  // snapshot would.
  std::vector<ThreadEntry> leadingThreads;

  // A process with `threadCount` threads, ids pid*10+1 upward.
  SimProcess& addProcess(int32_t pid, const std::string& path, int threadCount = 1);

  // ---- what the firewall did
  SimCalls calls;
  std::vector<TcpRow> deletedRows;
  std::vector<int32_t> killedPids;
  std::map<uint32_t, int32_t> suspendCounts;  // per thread
  std::vector<uint32_t> suspendedThreadLog;   // every suspendThread call, in order
  std::vector<uint32_t> resumedThreadLog;     // every resumeThread call, in order
  int releaseAllHoldsCalls = 0;

  // True while any thread of the process is suspended.
  bool isFrozen(int32_t pid) const;
  // The largest suspension count among the process's threads.
  int32_t suspensionDepth(int32_t pid) const;

  // ---- Platform
  ConnectionTables& tables() override { return *this; }
  Processes& processes() override { return *this; }
  Threads& threads() override { return *this; }
  Clock& clock() override { return *this; }

  // ---- ConnectionTables
  std::optional<uint32_t> tcpRowCount() override;
  std::optional<uint32_t> udpRowCount() override;
  std::optional<std::vector<TcpOwnerRow>> tcpTable() override;
  std::optional<std::vector<UdpOwnerRow>> udpTable() override;
  uint32_t deleteTcpRow(const TcpRow& row) override;

  // ---- Processes
  std::vector<ProcessEntry> list() override;
  int32_t currentProcessId() override { return ownPid; }

  // ---- Threads
  std::optional<std::vector<ThreadEntry>> snapshot(int32_t pid) override;
  int32_t suspendThread(uint32_t threadId) override;
  int32_t resumeThread(uint32_t threadId) override;
  ProcessHandle openProcess(int32_t pid) override;
  bool exitCode(ProcessHandle handle, uint32_t& code) override;
  bool terminateProcess(ProcessHandle handle, uint32_t exitCode) override;
  bool closeHandle(ProcessHandle handle) override;
  uint32_t lastError() override { return lastError_; }
  void releaseAllHolds() override;

  // ---- Clock
  uint32_t tickCount() override { return now; }
  void sleep(uint32_t milliseconds) override { now += milliseconds; }

 private:
  SimProcess* liveProcess(int32_t pid);
  bool threadExists(uint32_t threadId) const;
  bool fail(uint32_t error);

  std::map<ProcessHandle, int32_t> handles_;
  ProcessHandle nextHandle_ = 4;
  uint32_t lastError_ = 0;
};

}  // namespace tessmark::platform::sim
