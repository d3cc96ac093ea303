#pragma once
// One row of a connection snapshot as every part of the firewall sees it, the snapshot
// tables, and the texts a row is shown and logged with.

#include <cstdint>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace tessmark {

using MIB_TCPROW = platform::TcpRow;

// One row of a snapshot. A UDP record has State "LISTEN", no remote side and a zero Row.
struct ConnectionRecord {
  std::string State;
  std::string LocalAddress;
  int32_t LocalPort = 0;
  std::string RemoteAddress;
  int32_t RemotePort = 0;
  int32_t ProcessId = 0;
  std::string ProcessPath;
  int16_t AllRows = 0;
  MIB_TCPROW Row;
};

// A snapshot array, index from 0. Empty means never allocated; an allocated one holds the
// rows and one empty surplus record behind them.
using ConnectionTable = std::vector<ConnectionRecord>;

// The table's upper bound minus 1, so the index of its last row; -1 when unallocated.
int32_t LastTableIndex(const ConnectionTable& table);

// Dotted text of an address whose bytes lie in network order in memory.
std::string GetIpFromLong(uint32_t address);

// The port of a raw table value. The byte swap is done in floating point and rounds halves
// to even, so ports from 32768 up may come out one higher; display, log and comparison all
// see this number, while Row keeps the true value.
int32_t GetTcpPortNumber(int32_t raw);

// Text of a table state number; an unknown number reads "LISTEN".
std::string GetState(int32_t state);

// Breaks a held TCP connection: -1 when the system accepted it, else 0. The monitor's tables
// do it; an alert's "No" asks for it without knowing them.
class ConnectionBreaker {
 public:
  virtual ~ConnectionBreaker() = default;
  virtual int16_t CloseConnection(MIB_TCPROW& row, int32_t& pid, int32_t& port,
                                  std::string& name) = 0;
};

}  // namespace tessmark
