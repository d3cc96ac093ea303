#pragma once
// modmain, the snapshot side: cheap probes of the two connection tables' row counts, and
// full reads with owners into TcpConnections and UdpConnections when a count has changed.
// No previous table is kept: a table has changed when its row count (IPv4 and IPv6 rows
// together) or the count of its IPv6 rows differs from the last probe's, or, for TCP, when
// the system opened a connection since the last probe: a program that closes one socket as it
// opens a connection leaves the counts where they were.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/connection_record.h"
#include "base/message_pump.h"
#include "platform/platform.h"
#include "process/modprocs.h"

namespace tessmark {

// Told of each connection broken because its local port is a closed service, so that the
// closed-port notice can appear.
class ClosedPortListener {
 public:
  virtual ~ClosedPortListener() = default;
  virtual void portClosed(int32_t& port, std::string& name, const std::string& remoteAddress) = 0;
};

class modmain final : public ConnectionBreaker {
 public:
  // The probe buffer holds 1001 rows. A larger table cannot be put into it, so the probe
  // reads the buffer's zeroed count instead.
  static constexpr uint32_t kProbeRows = 1001;

  modmain(platform::Platform& system, modprocs& procs, MessagePump& pump)
      : system_(system), procs_(procs), pump_(pump) {}

  // -1 when TcpConnections was replaced; 0 when neither the count nor the count of opened
  // connections changed, or the table could not be read. allRows false is the filtered mode,
  // which no caller uses. A forced read probes nothing and leaves both stored counts.
  int16_t GetTCPConnections(int16_t allRows, int16_t force);
  int16_t GetUDPConnections(int16_t allRows, int16_t force);

  // Deletes the connection of the row: -1 when the system accepted it, else 0. The row's
  // state is set to "delete" in place. A success lowers LastTcpCount, so the next probe finds
  // the table as it now is and stays quiet; a row that did not go away changes the count
  // again and is judged again. A non-zero port marks a break for the closed-port list.
  int16_t CloseConnection(MIB_TCPROW& row, int32_t& pid, int32_t& port, std::string& name) override;
  ClosedPortListener* closedPortListener = nullptr;

  ConnectionTable TcpConnections;
  ConnectionTable UdpConnections;
  int16_t LastTcpCount = 0;
  int16_t LastUdpCount = 0;
  // The IPv6 rows among the counts of the last probe that could read them; none before the
  // first. A change here with the sum unchanged is a change of the table too.
  std::optional<uint32_t> LastTcp6Count;
  std::optional<uint32_t> LastUdp6Count;
  // The system's count of opened TCP connections at the last poll that could read it; none
  // before the first. The first value read is where counting starts, not a change.
  std::optional<uint32_t> LastTcpOpens;

  // The Internet lock: a poll that sees a change breaks every row instead of judging.
  int16_t InternetLocked = 0;

  // The table of connections held by alerts. An id is an index from 1; index 0 is unused.
  // AlertCount only grows until the monitor's sweep finds no open alert. Empty arrays are
  // erased ones.
  int16_t AlertCount = 0;
  std::vector<MIB_TCPROW> AlertRows;
  std::vector<int32_t> AlertPids;

 private:
  // The probe's dwNumEntries as the fixed buffer would hold it.
  static uint32_t probeCount(std::optional<platform::RowCounts> rows);

  platform::Platform& system_;
  modprocs& procs_;
  MessagePump& pump_;
};

}  // namespace tessmark
