#pragma once
// The operating system as the firewall sees it. The core reaches the machine only through
// these interfaces; platform/linux is the real backend and platform/sim the simulated one.
// Value types, no exceptions: a failure is a result.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tessmark::platform {

// An IPv6 address: its sixteen bytes in network order, as they lie in memory.
using Ipv6Address = std::array<uint8_t, 16>;

// One TCP row exactly as the system's table gives it. Addresses are four bytes in network
// order as they lie in memory; a port holds its two bytes in network order in the low 16 bits
// (port 80 reads 0x5000 on a little-endian machine). The row is handed back unchanged to
// delete it, so nothing here is ever converted.
struct TcpRow {
  uint32_t dwState = 0;  // 1 CLOSED, 2 LISTEN, 3 SYN_SENT, 4 SYN_RCVD, 5 ESTAB, ... 12 DELETE_TCB
  uint32_t dwLocalAddr = 0;
  uint32_t dwLocalPort = 0;
  uint32_t dwRemoteAddr = 0;
  uint32_t dwRemotePort = 0;
  // A row of the IPv6 table: its addresses are the two below, and dwLocalAddr and dwRemoteAddr
  // stay 0. An IPv6 socket that talks to an IPv4 peer holds ::ffff:a.b.c.d; it stays an IPv6
  // row, since the system deletes it only as one.
  bool ipv6 = false;
  Ipv6Address ucLocalAddr{};
  Ipv6Address ucRemoteAddr{};
  friend bool operator==(const TcpRow&, const TcpRow&) = default;
};

// A row of the extended TCP table: the row and the id of the process that owns the socket
// (0 when no process can be named, as for a socket whose program has closed it).
struct TcpOwnerRow {
  TcpRow row;
  uint32_t dwProcessId = 0;
};

// A row of the extended UDP table, raw as above.
struct UdpOwnerRow {
  uint32_t dwLocalAddr = 0;
  uint32_t dwLocalPort = 0;
  uint32_t dwProcessId = 0;
  bool ipv6 = false;  // as in TcpRow: the address is then ucLocalAddr, dwLocalAddr stays 0
  Ipv6Address ucLocalAddr{};
};

// The rows a table holds, by address family.
struct RowCounts {
  uint32_t ipv4 = 0;
  uint32_t ipv6 = 0;
  uint32_t total() const { return ipv4 + ipv6; }
  friend bool operator==(const RowCounts&, const RowCounts&) = default;
};

// The TCP and UDP connection tables of the IPv4 and the IPv6 stack, as one table per protocol.
class ConnectionTables {
 public:
  virtual ~ConnectionTables() = default;

  // The number of rows of each family the full table would have right now, at the lowest
  // cost the system offers: this runs on every poll. nullopt when the count cannot be had; a
  // system without IPv6 counts 0 IPv6 rows.
  virtual std::optional<RowCounts> tcpRowCount() = 0;
  virtual std::optional<RowCounts> udpRowCount() = 0;

  // How many TCP connections the system has opened so far, by any program's connect() and by
  // any listener taking one in: a counter that only grows (wrapping at 2^32), which a closed
  // connection never lowers. A connection opened as another closed moves it while the row
  // count stays where it was. As cheap as the counts above; nullopt when it is unknown.
  virtual std::optional<uint32_t> tcpOpenCount() = 0;

  // The full tables with owner ids, in the system's order: the IPv4 rows first, then the IPv6
  // rows, each family sorted by local address, local port, remote address and remote port, each
  // as a number. Their rows are exactly what the counts above count. nullopt when the source
  // failed.
  virtual std::optional<std::vector<TcpOwnerRow>> tcpTable() = 0;
  virtual std::optional<std::vector<UdpOwnerRow>> udpTable() = 0;

  // Deletes the connection of this row (the delete-TCB effect), of either family: 0 on
  // success, otherwise a system error number.
  virtual uint32_t deleteTcpRow(const TcpRow& row) = 0;
};

struct ProcessEntry {
  int32_t pid = 0;
  std::string path;  // executable path as bytes, exactly as the system names it
};

// Process ids and their programs.
class Processes {
 public:
  virtual ~Processes() = default;
  // Every process whose executable this user may read, with its path. Processes out of reach
  // (kernel threads, other users' daemons, processes gone meanwhile) are simply missing.
  virtual std::vector<ProcessEntry> list() = 0;
  virtual int32_t currentProcessId() = 0;
};

struct ThreadEntry {
  uint32_t threadId = 0;
  uint32_t ownerProcessId = 0;
};

// A handle to an opened process; 0 is no handle.
using ProcessHandle = int64_t;

// Threads, their suspension, and ending a process.
class Threads {
 public:
  virtual ~Threads() = default;

  // A snapshot of threads that holds at least every thread of `pid` and may hold threads of
  // other processes too; callers pick by owner. nullopt when no snapshot can be taken.
  virtual std::optional<std::vector<ThreadEntry>> snapshot(int32_t pid) = 0;

  // Raise or lower one thread's suspension count. The result is the count before the call,
  // or -1 when the thread cannot be reached. A thread runs only while its count is 0.
  virtual int32_t suspendThread(uint32_t threadId) = 0;
  virtual int32_t resumeThread(uint32_t threadId) = 0;

  // The steps of ending a process. Each failure sets lastError().
  virtual ProcessHandle openProcess(int32_t pid) = 0;
  virtual bool exitCode(ProcessHandle handle, uint32_t& code) = 0;
  virtual bool terminateProcess(ProcessHandle handle, uint32_t exitCode) = 0;
  virtual bool closeHandle(ProcessHandle handle) = 0;
  virtual uint32_t lastError() = 0;

  // Lifts every suspension this backend holds. The exit paths call it so that no program
  // stays frozen after the firewall has gone.
  virtual void releaseAllHolds() = 0;

  // Raises the calling thread's scheduling priority where the system permits it, so that the
  // engine's poll keeps its pace while busy programs load the machine. False when it stays.
  virtual bool raiseCallingThreadPriority() { return false; }
  // Called on the engine thread at every poll: finishes what a resume could not finish at
  // once (letting go of a thread whose stop came late), so that no program stays frozen.
  virtual void settle() {}
};

// The exit code a running process reports.
inline constexpr uint32_t kStillActive = 259;

class Clock {
 public:
  virtual ~Clock() = default;
  // Milliseconds since some fixed start, wrapping at 2^32.
  virtual uint32_t tickCount() = 0;
  virtual void sleep(uint32_t milliseconds) = 0;
  // The local date in the user's short date form, and the local time of day in the user's
  // time form, as the desktop shows them.
  virtual std::string dateText() = 0;
  virtual std::string timeText() = 0;
};

// Whether the machine is connected to the Internet, and how. The flags are those of the
// connected-state query: 1 modem, 2 LAN, 4 proxy, 8 modem busy, 16 remote access service
// installed, 32 offline, 64 a connection configured.
class NetworkStatus {
 public:
  virtual ~NetworkStatus() = default;
  // True when connected; flags describe the connection either way.
  virtual bool connectedState(uint32_t& flags) = 0;
};

// The per-user settings store: string values addressed by application, section and key.
// Values are byte strings and come back exactly as stored, NUL, CR, LF, TAB, "=" and bytes
// above 127 included: the settings digest holds such characters.
class SettingsStore {
 public:
  virtual ~SettingsStore() = default;
  // The stored value, or nullopt when there is none (or the store cannot be read).
  virtual std::optional<std::string> readSetting(const std::string& application,
                                                 const std::string& section,
                                                 const std::string& key) = 0;
  // Stores the value; false when it could not be written. A write never leaves a cut store
  // behind: either the old or the new contents stand.
  virtual bool writeSetting(const std::string& application, const std::string& section,
                            const std::string& key, const std::string& value) = 0;
  struct Setting {
    std::string section, key, value;
  };
  // Stores every value in one write: after a crash either all of them stand or none.
  virtual bool writeSettings(const std::string& application,
                             const std::vector<Setting>& settings) = 0;
  // Why the stored settings cannot be read, naming the file and the cause; "" when they can
  // (a store not made yet can). While it is not "", a missing value says nothing.
  virtual std::string readFault(const std::string& application) = 0;
  // Why the last write failed, naming the file or folder and the cause; "" after a write that
  // went through.
  virtual std::string lastWriteFault() = 0;
};

// What identifies one version of a file without reading it.
struct FileVersion {
  uint64_t device = 0, inode = 0;
  int64_t size = 0, modified = 0, changed = 0;  // times in nanoseconds
  friend bool operator==(const FileVersion&, const FileVersion&) = default;
};

enum class OpenFailure { None, NotFound, NotRegular, Other };

// One regular file, open. A read or write at an offset takes every byte or fails; a file
// that got shorter while it was read fails the read.
class OpenFile {
 public:
  virtual ~OpenFile() = default;
  virtual int64_t size() = 0;
  virtual bool readAt(void* into, size_t size, int64_t offset) = 0;
  virtual bool writeAt(const void* bytes, size_t size, int64_t offset) = 0;
  // Where the data at or after `offset` begins: `end` when only a hole follows, `offset`
  // itself where the file system cannot tell holes (every byte then counts as data).
  virtual int64_t nextData(int64_t offset, int64_t end) = 0;
  // Where the hole at or after `offset` begins; `end` at the latest.
  virtual int64_t nextHole(int64_t offset, int64_t end) = 0;
};

// The files the firewall reads and writes itself: program files, read while their program
// stands frozen, and its own rule file, written so that a crash leaves whole files. Each
// text result is "" when all went well, otherwise the path it failed on and the cause.
class Files {
 public:
  virtual ~Files() = default;
  // Opens a regular file without ever waiting: what stands at the path and is no regular
  // file (a pipe, a device, a folder) is refused, and a pipe that takes the path meanwhile
  // is not waited on. `write` asks for writing too and falls back to reading only; `create`
  // makes a missing file, empty.
  virtual std::unique_ptr<OpenFile> open(const std::string& path, bool write, bool create,
                                         OpenFailure& failure) = 0;
  // nullopt when nothing readable stands at the path, or no regular file.
  virtual std::optional<FileVersion> version(const std::string& path) = 0;
  // Why the file cannot be read: "" when it can, and when nothing stands at the path. A
  // folder on the way that cannot be searched is a fault; what is no regular file is not.
  virtual std::string readFault(const std::string& path) = 0;
  // Writes the bytes into a new file at the path, replacing one there, and returns once
  // they are on the disk.
  virtual std::string writeDurably(const std::string& path, const std::string& bytes) = 0;
  // Renames `from` over `to` and returns once the rename is on the disk.
  virtual std::string renameDurably(const std::string& from, const std::string& to) = 0;
  // Returns once the names in the folder (a new file, a rename) are on the disk.
  virtual std::string syncFolder(const std::string& folder) = 0;
};

// The files of the system the firewall is built for, given by its backend.
Files& SystemFiles();

// The host name the name service gives for an address of either family, written as the
// connection list shows it ("93.184.216.34", "2001:db8::1", "::ffff:10.0.0.1"). A text that
// is no address, or an address without a name, comes back as it is. Blocks for as long as the
// name service takes, so never on the engine's thread or in a window's paint.
std::string GetHostNameFromIP(const std::string& ip);

// The folders the system names for this user and this program.
class Folders {
 public:
  virtual ~Folders() = default;
  // The user's documents folder; "" when the system names none.
  virtual std::string documentsFolder() = 0;
  // The folder of the firewall's own executable.
  virtual std::string programFolder() = 0;
};

// One row of the interface table: one network interface with its counters, field for field
// as the system's MIB_IFROW record holds it. Counters are cut to their low 32 bits, as the
// fields are, so they wrap like the system's own; every field is unsigned, as the system gives it.
struct IfRow {
  std::array<char16_t, 256> wszName{};  // the interface's name in 16-bit characters
  uint32_t dwIndex = 0;
  uint32_t dwType = 0;  // IANA ifType: 6 Ethernet, 23 PPP, 24 loopback, 71 wireless, 131 tunnel
  uint32_t dwMtu = 0;
  uint32_t dwSpeed = 0;  // bits a second
  uint32_t dwPhysAddrLen = 0;
  std::array<uint8_t, 8> bPhysAddr{};
  uint32_t dwAdminStatus = 0;  // 1 up, 2 down, 3 testing
  uint32_t dwOperStatus = 0;   // 0 non-operational ... 2 disconnected, 3 connecting, 5 operational
  uint32_t dwLastChange = 0;
  uint32_t dwInOctets = 0;
  uint32_t dwInUcastPkts = 0;
  uint32_t dwInNUcastPkts = 0;
  uint32_t dwInDiscards = 0;
  uint32_t dwInErrors = 0;
  uint32_t dwInUnknownProtos = 0;
  uint32_t dwOutOctets = 0;
  uint32_t dwOutUcastPkts = 0;
  uint32_t dwOutNUcastPkts = 0;
  uint32_t dwOutDiscards = 0;
  uint32_t dwOutErrors = 0;
  uint32_t dwOutQLen = 0;
  uint32_t dwDescrLen = 0;  // how many bytes of bDescr the description fills
  std::array<uint8_t, 256> bDescr{};
  friend bool operator==(const IfRow&, const IfRow&) = default;
};

// The whole interface table, or why there is none.
struct IfTable {
  enum class Status {
    Ok,
    NotSupported,  // the system has no interface table to offer at all
    Failed,        // there is one, but it could not be read this time
  };
  Status status = Status::Ok;
  std::vector<IfRow> rows;  // in the system's order, loopback included; empty unless Ok
};

// The network interfaces and their traffic counters.
class Adapters {
 public:
  virtual ~Adapters() = default;
  virtual IfTable ifTable() = 0;
};

// One machine: the backend bundle the core is built on.
class Platform {
 public:
  virtual ~Platform() = default;
  virtual ConnectionTables& tables() = 0;
  virtual Processes& processes() = 0;
  virtual Threads& threads() = 0;
  virtual Clock& clock() = 0;
  virtual SettingsStore& settings() = 0;
  virtual Folders& folders() = 0;
  virtual NetworkStatus& network() = 0;
  virtual Adapters& adapters() = 0;
};

}  // namespace tessmark::platform
