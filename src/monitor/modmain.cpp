#include "monitor/modmain.h"

#include <array>
#include <cmath>
#include <cstring>

#include "base/address_text.h"
#include "base/booleans.h"

namespace tessmark {

uint32_t modmain::probeCount(std::optional<platform::RowCounts> rows) {
  // The buffer is zeroed before the call; a table larger than the buffer leaves it so, and a
  // failed call is not examined either. Both families share the one buffer.
  if (!rows || rows->total() > kProbeRows) return 0;
  return rows->total();
}

namespace {

// The probe step shared by both tables: true when the count changed. The stored count keeps
// the low 16 bits, so a count above 32767 never compares equal again.
bool countChanged(uint32_t dwNumEntries, int16_t& lastCount) {
  bool equal = static_cast<int32_t>(dwNumEntries) == static_cast<int32_t>(lastCount);
  lastCount = static_cast<int16_t>(dwNumEntries);
  return !equal;
}

// True when the rows moved from one family to the other while their sum stayed: one IPv4
// socket closed as an IPv6 one opened. Unknown counts change nothing, as above.
bool familiesChanged(std::optional<platform::RowCounts> rows, std::optional<uint32_t>& lastIpv6) {
  if (!rows) return false;
  bool changed = lastIpv6.has_value() && rows->ipv6 != *lastIpv6;
  lastIpv6 = rows->ipv6;
  return changed;
}

// True when the system opened a TCP connection since the last poll. A count that cannot be
// read changes nothing and leaves the stored one, so an open seen again later still counts.
bool opensChanged(std::optional<uint32_t> opens, std::optional<uint32_t>& lastOpens) {
  if (!opens) return false;
  bool changed = lastOpens.has_value() && *opens != *lastOpens;
  lastOpens = opens;
  return changed;
}

// Where a row goes in the local array. Unfiltered, row i is record i of an array sized to
// count + 1 up front. Filtered, the index is LastTableIndex + 1, which is the current upper
// bound: every kept row lands on record 0 and overwrites the one before.
ConnectionRecord& slotFor(ConnectionTable& local, uint32_t i, bool allRows) {
  if (allRows) return local[i];
  size_t index = static_cast<size_t>(LastTableIndex(local) + 1);
  local.resize(index + 1);
  return local[index];
}

// The filtered mode passes over the unspecified and the loopback address; its IPv6 rows are
// judged by the same two literals, so none of them is passed over.
bool isFilteredOut(const std::string& localAddress) {
  return localAddress == "0.0.0.0" || localAddress == "127.0.0.1";
}

}  // namespace

int16_t modmain::GetTCPConnections(int16_t allRows, int16_t force) {
  if (force == kFalse) {
    // Both are read on every poll, so neither stored value goes stale. The opens are read
    // before the table: a connection opened after this read moves them again next poll.
    std::optional<platform::RowCounts> rows = system_.tables().tcpRowCount();
    bool counted = countChanged(probeCount(rows), LastTcpCount);
    counted = familiesChanged(rows, LastTcp6Count) || counted;
    bool opened = opensChanged(system_.tables().tcpOpenCount(), LastTcpOpens);
    if (!counted && !opened) return kFalse;
  }
  auto block = system_.tables().tcpTable();
  if (!block) return kFalse;
  uint32_t count = static_cast<uint32_t>(block->size());
  // The only rebuild of the process table, so owner paths are as fresh as this snapshot.
  procs_.LoadProcessTable(-1);

  bool unfiltered = allRows != kFalse;
  ConnectionTable local;
  if (unfiltered) local.resize(count + 1);
  for (uint32_t i = 0; i < count; ++i) {
    CooperativeYield(pump_);
    const platform::TcpOwnerRow& row = (*block)[i];
    if (!unfiltered && isFilteredOut(LocalAddressText(row.row))) continue;
    ConnectionRecord& record = slotFor(local, i, unfiltered);
    record.LocalPort = GetTcpPortNumber(static_cast<int32_t>(row.row.dwLocalPort));
    record.ProcessId = static_cast<int32_t>(row.dwProcessId);
    record.ProcessPath = procs_.ProcessPathFromId(record.ProcessId);
    record.RemotePort = GetTcpPortNumber(static_cast<int32_t>(row.row.dwRemotePort));
    record.LocalAddress = LocalAddressText(row.row);
    record.RemoteAddress = RemoteAddressText(row.row);
    record.State = GetState(static_cast<int32_t>(row.row.dwState));
    record.AllRows = unfiltered ? kTrue : kFalse;
    record.Row = row.row;
  }
  // Built whole in private and put in place in one step: a handler that ran during a yield
  // saw the old table complete.
  TcpConnections = std::move(local);
  return kTrue;
}

int16_t modmain::GetUDPConnections(int16_t allRows, int16_t force) {
  if (force == kFalse) {
    std::optional<platform::RowCounts> rows = system_.tables().udpRowCount();
    bool counted = countChanged(probeCount(rows), LastUdpCount);
    if (!familiesChanged(rows, LastUdp6Count) && !counted) return kFalse;
  }
  auto block = system_.tables().udpTable();
  if (!block) return kFalse;
  uint32_t count = static_cast<uint32_t>(block->size());
  // No process table rebuild here: UDP owners are named from what the last TCP snapshot
  // left, so a program started after it has an empty path until the next TCP change.
  bool unfiltered = allRows != kFalse;
  ConnectionTable local;
  if (unfiltered) local.resize(count + 1);
  for (uint32_t i = 0; i < count; ++i) {
    CooperativeYield(pump_);
    const platform::UdpOwnerRow& row = (*block)[i];
    if (!unfiltered && isFilteredOut(LocalAddressText(row))) continue;
    ConnectionRecord& record = slotFor(local, i, unfiltered);
    record.LocalPort = GetTcpPortNumber(static_cast<int32_t>(row.dwLocalPort));
    record.ProcessId = static_cast<int32_t>(row.dwProcessId);
    record.ProcessPath = procs_.ProcessPathFromId(record.ProcessId);
    record.LocalAddress = LocalAddressText(row);
    record.State = "LISTEN";
    record.AllRows = kFalse;
  }
  UdpConnections = std::move(local);
  return kTrue;
}

int16_t modmain::CloseConnection(MIB_TCPROW& row, int32_t&, int32_t& port, std::string& name) {
  constexpr uint32_t MIB_TCP_STATE_DELETE_TCB = 12;
  row.dwState = MIB_TCP_STATE_DELETE_TCB;
  if (system_.tables().deleteTcpRow(row) != 0) return kFalse;
  LastTcpCount = static_cast<int16_t>(LastTcpCount - 1);
  if (row.ipv6 && LastTcp6Count.value_or(0) > 0) LastTcp6Count = *LastTcp6Count - 1;
  if (port != 0 && closedPortListener != nullptr)
    closedPortListener->portClosed(port, name, RemoteAddressText(row));
  return kTrue;
}

}  // namespace tessmark
