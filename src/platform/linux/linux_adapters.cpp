#include "platform/linux/linux_adapters.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <filesystem>
#include <optional>
#include <system_error>

#include "platform/linux/small_files.h"

namespace tessmark::platform::linux_backend {

namespace {

namespace fs = std::filesystem;

// IANA interface types, as the interface record names the kind of an interface.
constexpr uint32_t kIfTypeOther = 1;
constexpr uint32_t kIfTypeEthernet = 6;
constexpr uint32_t kIfTypePpp = 23;
constexpr uint32_t kIfTypeLoopback = 24;
constexpr uint32_t kIfTypeWireless = 71;
constexpr uint32_t kIfTypeTunnel = 131;

// The record's administrative and operational states.
constexpr uint32_t kAdminUp = 1;
constexpr uint32_t kAdminDown = 2;
constexpr uint32_t kOperNonOperational = 0;
constexpr uint32_t kOperDisconnected = 2;
constexpr uint32_t kOperConnecting = 3;
constexpr uint32_t kOperOperational = 5;

constexpr unsigned long kIffUp = 0x1;

// A sysfs attribute of the interface's folder; nullopt when it cannot be read.
std::optional<std::string> attribute(const fs::path& folder, const char* name) {
  return FirstLine(folder / name);
}

template <typename T>
std::optional<T> numberAttribute(const fs::path& folder, const char* name, int base = 10) {
  auto text = attribute(folder, name);
  T value{};
  if (!text || !ParseWholeNumber(*text, base, value)) return std::nullopt;
  return value;
}

// Counters are cut to their low 32 bits, as the record's fields are.
uint32_t low32(uint64_t value) {
  return static_cast<uint32_t>(value);
}

std::optional<ProcNetDevRow> parseLine(std::string_view line) {
  size_t colon = line.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  std::string_view name = Trimmed(line.substr(0, colon));
  if (name.empty() || name.find_first_of(" \t") != std::string_view::npos) return std::nullopt;
  std::array<uint64_t, 16> counters{};
  std::string_view rest = line.substr(colon + 1);
  size_t count = 0;
  size_t i = 0;
  while (i < rest.size()) {
    while (i < rest.size() && (rest[i] == ' ' || rest[i] == '\t' || rest[i] == '\r')) ++i;
    if (i == rest.size()) break;
    size_t start = i;
    while (i < rest.size() && rest[i] != ' ' && rest[i] != '\t' && rest[i] != '\r') ++i;
    if (count == counters.size()) return std::nullopt;  // more fields than the format has
    if (!ParseWholeNumber(rest.substr(start, i - start), 10, counters[count++]))
      return std::nullopt;
  }
  if (count != counters.size()) return std::nullopt;
  ProcNetDevRow row;
  row.name = std::string(name);
  row.rxBytes = counters[0];
  row.rxPackets = counters[1];
  row.rxErrs = counters[2];
  row.rxDrop = counters[3];
  row.rxFifo = counters[4];
  row.rxFrame = counters[5];
  row.rxCompressed = counters[6];
  row.rxMulticast = counters[7];
  row.txBytes = counters[8];
  row.txPackets = counters[9];
  row.txErrs = counters[10];
  row.txDrop = counters[11];
  row.txFifo = counters[12];
  row.txColls = counters[13];
  row.txCarrier = counters[14];
  row.txCompressed = counters[15];
  return row;
}

uint32_t interfaceType(const fs::path& folder) {
  auto type = numberAttribute<uint32_t>(folder, "type");
  if (!type) return kIfTypeOther;
  switch (*type) {
    case 1: {
      std::error_code error;
      bool wireless =
          fs::exists(folder / "wireless", error) || fs::exists(folder / "phy80211", error);
      return wireless ? kIfTypeWireless : kIfTypeEthernet;
    }
    case 512:
      return kIfTypePpp;
    case 772:
      return kIfTypeLoopback;
    case 768:    // IP in IP
    case 769:    // IPv6 in IPv6
    case 776:    // IPv6 in IPv4
    case 778:    // GRE
    case 823:    // GRE over IPv6
    case 65534:  // no link layer: tun, WireGuard
      return kIfTypeTunnel;
    default:
      return kIfTypeOther;
  }
}

// The record's operational state from the kernel's. "unknown" is what loopback and many
// virtual devices report while they carry traffic, so it counts as operational when the
// interface is up and has (or does not report) a carrier.
uint32_t operationalStatus(const fs::path& folder, bool adminUp) {
  auto state = attribute(folder, "operstate");
  if (state == "up") return kOperOperational;
  if (!adminUp) return kOperNonOperational;
  if (state == "dormant") return kOperConnecting;
  if (state == "unknown") {
    return attribute(folder, "carrier") == "0" ? kOperDisconnected : kOperOperational;
  }
  if (state == "down" || state == "lowerlayerdown") return kOperDisconnected;
  return kOperNonOperational;  // notpresent, testing, or nothing to read
}

// "02:fc:00:00:00:01": up to the record's 8 bytes; a longer address (InfiniBand) is cut.
void physicalAddress(const fs::path& folder, IfRow& row) {
  auto text = attribute(folder, "address");
  auto length = numberAttribute<uint32_t>(folder, "addr_len");
  if (!text || !length || *length == 0) return;
  std::array<uint8_t, 8> bytes{};
  size_t count = 0;
  std::string_view rest(*text);
  while (!rest.empty() && count < bytes.size() && count < *length) {
    size_t colon = rest.find(':');
    std::string_view part = rest.substr(0, colon);
    if (part.size() > 2 || !ParseWholeNumber(part, 16, bytes[count])) return;  // not an address
    ++count;
    rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
  }
  row.dwPhysAddrLen = static_cast<uint32_t>(count);
  row.bPhysAddr = bytes;
}

IfRow rowOf(const ProcNetDevRow& counters, const fs::path& sysNet) {
  IfRow row;
  const fs::path folder = sysNet / counters.name;

  for (size_t i = 0; i < counters.name.size() && i < row.wszName.size(); ++i)
    row.wszName[i] = static_cast<unsigned char>(counters.name[i]);
  // The description: the administrator's alias, or else the interface's name.
  std::string description = attribute(folder, "ifalias").value_or("");
  if (description.empty()) description = counters.name;
  row.dwDescrLen = static_cast<uint32_t>(std::min(description.size(), row.bDescr.size()));
  std::copy_n(description.begin(), row.dwDescrLen, row.bDescr.begin());

  row.dwIndex = numberAttribute<uint32_t>(folder, "ifindex").value_or(0);
  row.dwType = interfaceType(folder);
  row.dwMtu = numberAttribute<uint32_t>(folder, "mtu").value_or(0);
  // The record counts bits a second in 32 bits; a faster link reads as the largest value
  // rather than as a wrapped one. Unknown speeds read 0.
  auto megabits = numberAttribute<int64_t>(folder, "speed");
  if (megabits && *megabits > 0) {
    row.dwSpeed = *megabits >= 4295 ? UINT32_MAX : static_cast<uint32_t>(*megabits * 1000000);
  }
  physicalAddress(folder, row);
  auto flags = numberAttribute<unsigned long>(folder, "flags", 16);
  bool adminUp = flags && (*flags & kIffUp) != 0;
  row.dwAdminStatus = adminUp ? kAdminUp : kAdminDown;
  row.dwOperStatus = operationalStatus(folder, adminUp);
  // Linux keeps no time of an interface's last change of state: dwLastChange stays 0. The
  // current length of the send queue is not in sysfs either (tx_queue_len is its limit), so
  // dwOutQLen stays 0 as well.

  row.dwInOctets = low32(counters.rxBytes);
  // The kernel counts multicast packets received; the rest of the packets are unicast.
  uint64_t multicast = std::min(counters.rxMulticast, counters.rxPackets);
  row.dwInUcastPkts = low32(counters.rxPackets - multicast);
  row.dwInNUcastPkts = low32(multicast);
  row.dwInDiscards = low32(counters.rxDrop);
  row.dwInErrors = low32(counters.rxErrs);
  auto unknownProtos = numberAttribute<uint64_t>(folder / "statistics", "rx_nohandler");
  row.dwInUnknownProtos = low32(unknownProtos.value_or(0));
  row.dwOutOctets = low32(counters.txBytes);
  // Sent packets are not told apart by kind: all count as unicast.
  row.dwOutUcastPkts = low32(counters.txPackets);
  row.dwOutDiscards = low32(counters.txDrop);
  row.dwOutErrors = low32(counters.txErrs);
  return row;
}

}  // namespace

ProcNetDevTable ParseProcNetDev(std::string_view text) {
  ProcNetDevTable table;
  size_t lineStart = 0;
  int lineNumber = 0;
  while (lineStart < text.size()) {
    size_t lineEnd = text.find('\n', lineStart);
    if (lineEnd == std::string_view::npos) lineEnd = text.size();
    std::string_view line = text.substr(lineStart, lineEnd - lineStart);
    lineStart = lineEnd + 1;
    ++lineNumber;
    // The two header lines are the ones that draw the columns with "|".
    if (lineNumber <= 2 && line.find('|') != std::string_view::npos) continue;
    if (Trimmed(line).empty()) continue;
    if (auto row = parseLine(line))
      table.rows.push_back(std::move(*row));
    else
      ++table.rejectedLines;
  }
  return table;
}

IfTable LinuxAdapters::ifTable() {
  const fs::path root = root_.empty() ? fs::path("/") : fs::path(root_);
  bool missing = false;
  auto text = ReadSmallFile((root / "proc/net/dev").string(), &missing);
  if (!text) return {missing ? IfTable::Status::NotSupported : IfTable::Status::Failed, {}};
  IfTable table;
  const fs::path sysNet = root / "sys/class/net";
  for (const ProcNetDevRow& counters : ParseProcNetDev(*text).rows)
    table.rows.push_back(rowOf(counters, sysNet));
  return table;
}

}  // namespace tessmark::platform::linux_backend
