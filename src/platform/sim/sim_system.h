#pragma once
// The simulated system: a whole machine for tests. A test sets the scene through the public
// members and helpers (connection tables, processes with threads, the clock) and reads back
// what the firewall did (rows deleted, threads suspended and resumed, processes killed) and
// how often it asked the system for what.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "platform/platform.h"

namespace tessmark::platform::sim {

// Raw table fields from readable values, the way the system lays them out.
uint32_t RawAddress(const std::string& dotted);       // "10.0.0.1" -> bytes 10 0 0 1 in memory
uint32_t RawPort(uint16_t port);                      // the two bytes in network order, low 16 bits
Ipv6Address RawIpv6Address(const std::string& text);  // "::1" -> its sixteen bytes

// A row of the IPv6 table when the local address is written as IPv6 ("::1", "::ffff:10.0.0.1"),
// else of the IPv4 table.
TcpOwnerRow MakeTcpRow(uint32_t state, const std::string& localAddress, uint16_t localPort,
                       const std::string& remoteAddress, uint16_t remotePort, uint32_t pid);
UdpOwnerRow MakeUdpRow(const std::string& localAddress, uint16_t localPort, uint32_t pid);

// An interface that is up, named `name` (also its description), with its two octet counters.
IfRow MakeIfRow(uint32_t index, const std::string& name, uint32_t inOctets, uint32_t outOctets);

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
  int tcpOpenProbes = 0;
  int tcpTableReads = 0;
  int udpTableReads = 0;
  int processListings = 0;
  int threadSnapshots = 0;
  int ifTableReads = 0;
};

class SimSystem final : public Platform,
                        public ConnectionTables,
                        public Processes,
                        public Threads,
                        public Clock,
                        public SettingsStore,
                        public Folders,
                        public NetworkStatus,
                        public Adapters {
 public:
  SimSystem();
  ~SimSystem() override;
  SimSystem(const SimSystem&) = delete;
  SimSystem& operator=(const SimSystem&) = delete;

  // ---- the scene
  std::vector<TcpOwnerRow> tcpRows;
  std::vector<UdpOwnerRow> udpRows;
  // The system's count of opened TCP connections. Each row that stands in tcpRows at a look
  // (tcpOpenCount) and did not stand there at the look before counts one open; a row is
  // the same connection while its addresses, ports and owner are, whatever its state. A row
  // that came and went between two looks is not counted.
  uint32_t tcpOpens = 0;
  bool tcpOpenCountUnknown = false;  // the count of opens cannot be had (it is still kept)
  bool tcpTableFails = false;
  uint32_t deleteError = 0;        // non-zero: every delete fails with this error
  bool deletedRowsLinger = false;  // a deleted row stays listed, as one going away slowly
  bool udpTableFails = false;
  bool threadSnapshotFails = false;
  std::map<int32_t, SimProcess> processTable;
  int32_t ownPid = 1000;
  uint32_t now = 0;                 // the clock, ms; sleep() moves it on
  std::string date = "15.11.2026";  // the local date and time as the desktop shows them
  std::string time = "12:00:01";
  bool online = true;  // the connected state and its flags
  uint32_t onlineFlags = 2 | 64;
  // Threads of another process that every thread snapshot lists first, as a system-wide
  // snapshot would.
  std::vector<ThreadEntry> leadingThreads;
  // The interface table; the switches make the system offer none, or fail to read it.
  std::vector<IfRow> ifRows;
  bool ifTableNotSupported = false;
  bool ifTableFails = false;

  // The settings store, by (application, section, key); writes fail while the flag is set.
  std::map<std::tuple<std::string, std::string, std::string>, std::string> storedSettings;
  bool settingsWritesFail = false;
  bool settingsReadsFail = false;  // the store is there but cannot be read: every read is empty
  // A fresh folder of this machine's own on the real disk, removed with it: the documents
  // folder, the program folder and the program files live below it.
  std::string root;
  std::string documents;         // root + "/Documents"
  std::string programDirectory;  // root + "/program"

  // Writes a program file below root and gives its full path.
  std::string writeProgramFile(const std::string& name, const std::string& contents);

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
  int settingsWrites = 0;  // writes that went through

  // True while any thread of the process is suspended.
  bool isFrozen(int32_t pid) const;
  // The largest suspension count among the process's threads.
  int32_t suspensionDepth(int32_t pid) const;

  // ---- Platform
  ConnectionTables& tables() override { return *this; }
  Processes& processes() override { return *this; }
  Threads& threads() override { return *this; }
  Clock& clock() override { return *this; }
  SettingsStore& settings() override { return *this; }
  Folders& folders() override { return *this; }
  NetworkStatus& network() override { return *this; }
  Adapters& adapters() override { return *this; }

  // ---- ConnectionTables
  std::optional<RowCounts> tcpRowCount() override;
  std::optional<RowCounts> udpRowCount() override;
  std::optional<uint32_t> tcpOpenCount() override;
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
  std::string dateText() override { return date; }
  std::string timeText() override { return time; }

  // ---- NetworkStatus
  bool connectedState(uint32_t& flags) override {
    flags = onlineFlags;
    return online;
  }

  // ---- Adapters
  IfTable ifTable() override;

  // ---- SettingsStore
  std::optional<std::string> readSetting(const std::string& application, const std::string& section,
                                         const std::string& key) override;
  bool writeSetting(const std::string& application, const std::string& section,
                    const std::string& key, const std::string& value) override;
  bool writeSettings(const std::string& application, const std::vector<Setting>& settings) override;
  std::string readFault(const std::string& application) override;
  std::string lastWriteFault() override;

  // ---- Folders
  std::string documentsFolder() override { return documents; }
  std::string programFolder() override { return programDirectory; }

 private:
  SimProcess* liveProcess(int32_t pid);
  bool threadExists(uint32_t threadId) const;
  bool fail(uint32_t error);

  // The connections of tcpRows at the last look of tcpOpenCount, sorted.
  std::vector<TcpOwnerRow> tcpRowsLooked_;
  std::map<ProcessHandle, int32_t> handles_;
  ProcessHandle nextHandle_ = 4;
  uint32_t lastError_ = 0;
};

}  // namespace tessmark::platform::sim
