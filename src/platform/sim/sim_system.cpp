#include "platform/sim/sim_system.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>
#include <tuple>

namespace tessmark::platform::sim {

namespace {
// The system's error numbers that the simulated calls report.
constexpr uint32_t kErrorInvalidHandle = 6;
constexpr uint32_t kErrorInvalidParameter = 87;
constexpr uint32_t kErrorAccessDenied = 5;
constexpr uint32_t kErrorNotFound = 1168;
}  // namespace

uint32_t RawAddress(const std::string& dotted) {
  std::array<unsigned char, 4> bytes{};
  std::istringstream in(dotted);
  for (auto& byte : bytes) {
    int part = 0;
    in >> part;
    in.ignore(1);
    byte = static_cast<unsigned char>(part);
  }
  uint32_t raw = 0;
  std::memcpy(&raw, bytes.data(), bytes.size());
  return raw;
}

uint32_t RawPort(uint16_t port) {
  std::array<unsigned char, 2> bytes{static_cast<unsigned char>(port >> 8),
                                     static_cast<unsigned char>(port & 0xFF)};
  uint16_t raw = 0;
  std::memcpy(&raw, bytes.data(), bytes.size());
  return raw;
}

Ipv6Address RawIpv6Address(const std::string& text) {
  Ipv6Address raw{};
  inet_pton(AF_INET6, text.c_str(), raw.data());
  return raw;
}

namespace {
bool IsIpv6Text(const std::string& address) {
  return address.find(':') != std::string::npos;
}
}  // namespace

TcpOwnerRow MakeTcpRow(uint32_t state, const std::string& localAddress, uint16_t localPort,
                       const std::string& remoteAddress, uint16_t remotePort, uint32_t pid) {
  TcpOwnerRow row{{state, 0, RawPort(localPort), 0, RawPort(remotePort)}, pid};
  if (IsIpv6Text(localAddress)) {
    row.row.ipv6 = true;
    row.row.ucLocalAddr = RawIpv6Address(localAddress);
    row.row.ucRemoteAddr = RawIpv6Address(remoteAddress);
  } else {
    row.row.dwLocalAddr = RawAddress(localAddress);
    row.row.dwRemoteAddr = RawAddress(remoteAddress);
  }
  return row;
}

UdpOwnerRow MakeUdpRow(const std::string& localAddress, uint16_t localPort, uint32_t pid) {
  if (IsIpv6Text(localAddress))
    return {0, RawPort(localPort), pid, true, RawIpv6Address(localAddress)};
  return {RawAddress(localAddress), RawPort(localPort), pid};
}

IfRow MakeIfRow(uint32_t index, const std::string& name, uint32_t inOctets, uint32_t outOctets) {
  IfRow row;
  for (size_t i = 0; i < name.size() && i < row.wszName.size(); ++i)
    row.wszName[i] = static_cast<unsigned char>(name[i]);
  row.dwIndex = index;
  row.dwType = 6;  // Ethernet
  row.dwMtu = 1500;
  row.dwSpeed = 100000000;
  row.dwAdminStatus = 1;
  row.dwOperStatus = 5;
  row.dwInOctets = inOctets;
  row.dwOutOctets = outOctets;
  row.dwDescrLen = static_cast<uint32_t>(std::min(name.size(), row.bDescr.size()));
  std::copy_n(name.begin(), row.dwDescrLen, row.bDescr.begin());
  return row;
}

SimSystem::SimSystem() {
  addProcess(ownPid, "/opt/tessmark/tessmark-firewall", 2);
  std::string pattern = (std::filesystem::temp_directory_path() / "tessmark-sim-XXXXXX").string();
  if (mkdtemp(pattern.data()) != nullptr) root = pattern;
  documents = root + "/Documents";
  programDirectory = root + "/program";
  std::error_code error;
  std::filesystem::create_directories(documents, error);
  std::filesystem::create_directories(programDirectory, error);
}

SimSystem::~SimSystem() {
  std::error_code error;
  if (!root.empty()) std::filesystem::remove_all(root, error);
}

std::string SimSystem::writeProgramFile(const std::string& name, const std::string& contents) {
  std::filesystem::path path = std::filesystem::path(root) / "bin" / name;
  std::error_code error;
  std::filesystem::create_directories(path.parent_path(), error);
  std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
  return path.string();
}

SimProcess& SimSystem::addProcess(int32_t pid, const std::string& path, int threadCount) {
  SimProcess process;
  process.path = path;
  for (int t = 1; t <= threadCount; ++t) process.threads.push_back(pid * 10 + t);
  return processTable[pid] = process;
}

bool SimSystem::isFrozen(int32_t pid) const {
  return suspensionDepth(pid) > 0;
}

int32_t SimSystem::suspensionDepth(int32_t pid) const {
  auto it = processTable.find(pid);
  if (it == processTable.end()) return 0;
  int32_t depth = 0;
  for (uint32_t tid : it->second.threads) {
    auto count = suspendCounts.find(tid);
    if (count != suspendCounts.end()) depth = std::max(depth, count->second);
  }
  return depth;
}

std::optional<RowCounts> SimSystem::tcpRowCount() {
  ++calls.tcpProbes;
  RowCounts counts;
  for (const TcpOwnerRow& r : tcpRows) ++(r.row.ipv6 ? counts.ipv6 : counts.ipv4);
  return counts;
}

std::optional<RowCounts> SimSystem::udpRowCount() {
  ++calls.udpProbes;
  RowCounts counts;
  for (const UdpOwnerRow& r : udpRows) ++(r.ipv6 ? counts.ipv6 : counts.ipv4);
  return counts;
}

std::optional<uint32_t> SimSystem::tcpOpenCount() {
  ++calls.tcpOpenProbes;
  // One connection: its addresses, ports and owner. A state change is no new connection.
  auto key = [](const TcpOwnerRow& r) {
    return std::tuple(r.row.ipv6, r.row.dwLocalAddr, r.row.ucLocalAddr, r.row.dwLocalPort,
                      r.row.dwRemoteAddr, r.row.ucRemoteAddr, r.row.dwRemotePort, r.dwProcessId);
  };
  auto before = [&](const TcpOwnerRow& a, const TcpOwnerRow& b) { return key(a) < key(b); };
  std::vector<TcpOwnerRow> now = tcpRows;
  std::sort(now.begin(), now.end(), before);
  std::vector<TcpOwnerRow> opened;
  std::set_difference(now.begin(), now.end(), tcpRowsLooked_.begin(), tcpRowsLooked_.end(),
                      std::back_inserter(opened), before);
  tcpOpens += static_cast<uint32_t>(opened.size());
  tcpRowsLooked_ = std::move(now);
  if (tcpOpenCountUnknown) return std::nullopt;
  return tcpOpens;
}

std::optional<std::vector<TcpOwnerRow>> SimSystem::tcpTable() {
  ++calls.tcpTableReads;
  if (tcpTableFails) return std::nullopt;
  return tcpRows;
}

std::optional<std::vector<UdpOwnerRow>> SimSystem::udpTable() {
  ++calls.udpTableReads;
  if (udpTableFails) return std::nullopt;
  return udpRows;
}

uint32_t SimSystem::deleteTcpRow(const TcpRow& row) {
  auto it = std::find_if(tcpRows.begin(), tcpRows.end(), [&](const TcpOwnerRow& r) {
    TcpRow key = r.row;
    key.dwState = row.dwState;  // the state in the request is not part of the match
    return key == row;
  });
  if (deleteError != 0) return deleteError;
  if (it == tcpRows.end()) return kErrorNotFound;
  deletedRows.push_back(row);
  if (!deletedRowsLinger) tcpRows.erase(it);
  return 0;
}

IfTable SimSystem::ifTable() {
  ++calls.ifTableReads;
  if (ifTableNotSupported) return {IfTable::Status::NotSupported, {}};
  if (ifTableFails) return {IfTable::Status::Failed, {}};
  return {IfTable::Status::Ok, ifRows};
}

std::vector<ProcessEntry> SimSystem::list() {
  ++calls.processListings;
  std::vector<ProcessEntry> entries;
  for (const auto& [pid, process] : processTable) {
    if (process.alive && process.openable) entries.push_back({pid, process.path});
  }
  return entries;
}

SimProcess* SimSystem::liveProcess(int32_t pid) {
  auto it = processTable.find(pid);
  return it != processTable.end() && it->second.alive ? &it->second : nullptr;
}

bool SimSystem::threadExists(uint32_t threadId) const {
  for (const auto& [pid, process] : processTable) {
    if (process.alive && std::find(process.threads.begin(), process.threads.end(), threadId) !=
                             process.threads.end())
      return true;
  }
  return false;
}

bool SimSystem::fail(uint32_t error) {
  lastError_ = error;
  return false;
}

std::optional<std::vector<ThreadEntry>> SimSystem::snapshot(int32_t pid) {
  ++calls.threadSnapshots;
  if (threadSnapshotFails) return std::nullopt;
  std::vector<ThreadEntry> entries = leadingThreads;
  for (const auto& [owner, process] : processTable) {
    if (!process.alive) continue;
    for (uint32_t tid : process.threads) entries.push_back({tid, static_cast<uint32_t>(owner)});
  }
  (void)pid;  // the simulated snapshot holds every thread, as a system-wide one does
  return entries;
}

int32_t SimSystem::suspendThread(uint32_t threadId) {
  suspendedThreadLog.push_back(threadId);
  if (!threadExists(threadId)) {
    lastError_ = kErrorInvalidHandle;
    return -1;
  }
  return suspendCounts[threadId]++;
}

int32_t SimSystem::resumeThread(uint32_t threadId) {
  resumedThreadLog.push_back(threadId);
  if (!threadExists(threadId)) {
    lastError_ = kErrorInvalidHandle;
    return -1;
  }
  int32_t& count = suspendCounts[threadId];
  int32_t before = count;
  if (count > 0) --count;
  return before;
}

ProcessHandle SimSystem::openProcess(int32_t pid) {
  SimProcess* process = liveProcess(pid);
  if (!process || !process->openable) {
    lastError_ = process ? kErrorAccessDenied : kErrorInvalidParameter;
    return 0;
  }
  handles_[nextHandle_] = pid;
  return nextHandle_++;
}

bool SimSystem::exitCode(ProcessHandle handle, uint32_t& code) {
  auto it = handles_.find(handle);
  if (it == handles_.end()) return fail(kErrorInvalidHandle);
  code = liveProcess(it->second) ? kStillActive : 0;
  return true;
}

bool SimSystem::terminateProcess(ProcessHandle handle, uint32_t) {
  auto it = handles_.find(handle);
  if (it == handles_.end()) return fail(kErrorInvalidHandle);
  SimProcess* process = liveProcess(it->second);
  if (!process) return fail(kErrorAccessDenied);
  process->alive = false;
  for (uint32_t tid : process->threads) suspendCounts.erase(tid);
  killedPids.push_back(it->second);
  return true;
}

bool SimSystem::closeHandle(ProcessHandle handle) {
  if (handles_.erase(handle) == 0) return fail(kErrorInvalidHandle);
  return true;
}

void SimSystem::releaseAllHolds() {
  ++releaseAllHoldsCalls;
  suspendCounts.clear();
}

std::optional<std::string> SimSystem::readSetting(const std::string& application,
                                                  const std::string& section,
                                                  const std::string& key) {
  if (settingsReadsFail) return std::nullopt;
  auto found = storedSettings.find({application, section, key});
  if (found == storedSettings.end()) return std::nullopt;
  return found->second;
}

bool SimSystem::writeSetting(const std::string& application, const std::string& section,
                             const std::string& key, const std::string& value) {
  if (settingsWritesFail || settingsReadsFail) return false;
  storedSettings[{application, section, key}] = value;
  ++settingsWrites;
  return true;
}

bool SimSystem::writeSettings(const std::string& application,
                              const std::vector<Setting>& settings) {
  if (settingsWritesFail || settingsReadsFail) return false;
  for (const auto& setting : settings)
    storedSettings[{application, setting.section, setting.key}] = setting.value;
  ++settingsWrites;
  return true;
}

std::string SimSystem::readFault(const std::string& application) {
  return settingsReadsFail ? "the settings of " + application + ": cannot be read" : "";
}

std::string SimSystem::lastWriteFault() {
  return settingsWritesFail || settingsReadsFail ? "the settings store: cannot be written" : "";
}

}  // namespace tessmark::platform::sim
