#include "traffic/CIpHelper.h"

#include <cstring>
#include <string>
#include <vector>

namespace tessmark {

namespace {

// The interface table as the system hands it over: a 32-bit row count, then the rows as
// 860-byte records, little-endian:
//     0 wszName (256 16-bit characters)   552 dwInOctets        580 dwOutUcastPkts
//   512 dwIndex        540 dwAdminStatus  556 dwInUcastPkts     584 dwOutNUcastPkts
//   516 dwType         544 dwOperStatus   560 dwInNUcastPkts    588 dwOutDiscards
//   520 dwMtu          548 dwLastChange   564 dwInDiscards      592 dwOutErrors
//   524 dwSpeed                           568 dwInErrors        596 dwOutQLen
//   528 dwPhysAddrLen                     572 dwInUnknownProtos 600 dwDescrLen
//   532 bPhysAddr (8 bytes)               576 dwOutOctets       604 bDescr (256 bytes)
// The rows are walked by byte offset in the table, and that offset is a 16-bit number (see
// ReadInterfaces), so the table is laid out byte for byte.
constexpr int32_t kRowSize = 860;
constexpr size_t kNameOffset = 0, kIndexOffset = 512, kPhysAddrLenOffset = 528,
                 kPhysAddrOffset = 532, kAdminStatusOffset = 540, kInOctetsOffset = 552,
                 kOutOctetsOffset = 576, kDescrLenOffset = 600, kDescrOffset = 604;

void put32(std::vector<unsigned char>& table, size_t at, uint32_t value) {
  for (int i = 0; i < 4; ++i) table[at + i] = static_cast<unsigned char>(value >> (8 * i));
}

int32_t get32(const unsigned char* row, size_t at) {
  uint32_t value = 0;
  for (int i = 0; i < 4; ++i) value |= static_cast<uint32_t>(row[at + i]) << (8 * i);
  return static_cast<int32_t>(value);
}

std::vector<unsigned char> tableBytes(const std::vector<platform::IfRow>& rows) {
  std::vector<unsigned char> table(4 + rows.size() * kRowSize);
  put32(table, 0, static_cast<uint32_t>(rows.size()));
  size_t at = 4;
  for (const platform::IfRow& row : rows) {
    for (size_t i = 0; i < row.wszName.size(); ++i) {
      table[at + kNameOffset + 2 * i] = static_cast<unsigned char>(row.wszName[i] & 0xFF);
      table[at + kNameOffset + 2 * i + 1] = static_cast<unsigned char>(row.wszName[i] >> 8);
    }
    const uint32_t head[] = {row.dwIndex, row.dwType, row.dwMtu, row.dwSpeed, row.dwPhysAddrLen};
    for (size_t i = 0; i < std::size(head); ++i) put32(table, at + kIndexOffset + 4 * i, head[i]);
    std::memcpy(&table[at + kPhysAddrOffset], row.bPhysAddr.data(), row.bPhysAddr.size());
    const uint32_t body[] = {
        row.dwAdminStatus,     row.dwOperStatus,   row.dwLastChange,   row.dwInOctets,
        row.dwInUcastPkts,     row.dwInNUcastPkts, row.dwInDiscards,   row.dwInErrors,
        row.dwInUnknownProtos, row.dwOutOctets,    row.dwOutUcastPkts, row.dwOutNUcastPkts,
        row.dwOutDiscards,     row.dwOutErrors,    row.dwOutQLen,      row.dwDescrLen};
    for (size_t i = 0; i < std::size(body); ++i)
      put32(table, at + kAdminStatusOffset + 4 * i, body[i]);
    std::memcpy(&table[at + kDescrOffset], row.bDescr.data(), row.bDescr.size());
    at += kRowSize;
  }
  return table;
}

// "00-A0-C9-1-2-3": "00" for a zero byte, otherwise the byte's upper-case hex digits with no
// leading zero, joined by "-". The record holds 8 address bytes; a length beyond that makes
// the byte's test fail, and a failed test goes on into its first branch, so each further
// position reads "00". No link layer has an address longer than 32 bytes, which bounds a
// corrupt length.
std::string adapterAddress(const unsigned char* row) {
  const int32_t length = get32(row, kPhysAddrLenOffset);
  std::string address;
  if (length <= 0) return address;
  static const char kDigits[] = "0123456789ABCDEF";
  for (int32_t i = 0; i < length && i < 32; ++i) {
    if (i >= 8 || row[kPhysAddrOffset + i] == 0) {
      address += "00";
    } else {
      unsigned char byte = row[kPhysAddrOffset + i];
      if (byte >= 16) address += kDigits[byte >> 4];
      address += kDigits[byte & 0x0F];
    }
    address += "-";
  }
  address.pop_back();
  return address;
}

void fill(CInterface& object, const unsigned char* row) {
  // The fields in the order the record's properties are set.
  auto field = [row](size_t at) { return get32(row, at); };
  object.InterfaceName.assign(reinterpret_cast<const char*>(row + kNameOffset), 512);
  object.InterfaceIndex = field(512);
  object.InterfaceType = field(516);
  object.MaximumTransmissionUnit = field(520);
  object.speed = field(524);
  object.AdapterAddress = adapterAddress(row);
  object.AdminStatus = field(540);
  object.OperationalStatus = field(544);
  object.LastChange = static_cast<double>(field(548));
  object.OctetsReceived = field(552);
  object.UnicastPacketsReceived = field(556);
  object.NonunicastPacketsReceived = field(560);
  object.DiscardedIncomingPackets = field(564);
  object.IncomingErrors = field(568);
  object.UnknownProtocolPackets = field(572);
  object.OctetsSent = field(576);
  object.UnicastPacketsSent = field(580);
  object.NonunicastPacketsSent = field(584);
  object.DiscardedOutgoingPackets = field(588);
  object.OutgoingErrors = field(592);
  object.OutputQueueLength = field(596);
  // The description's 256 bytes cut to dwDescrLen; a negative length cuts nothing and leaves
  // the property empty.
  std::string description(reinterpret_cast<const char*>(row + kDescrOffset), 256);
  const int32_t length = field(kDescrLenOffset);
  if (length >= 0) object.InterfaceDescription = description.substr(0, static_cast<size_t>(length));
}

}  // namespace

std::shared_ptr<CInterfaces> CIpHelper::Interfaces() {
  interfaces_ = std::make_shared<CInterfaces>();
  ReadInterfaces(*interfaces_);
  return interfaces_;
}

bool CIpHelper::ReadInterfaces(CInterfaces& interfaces) {
  bool result = false;  // never set, as no caller reads it
  // 1. The sums start from 0 at every read.
  bytesReceived_ = 0;
  bytesSent_ = 0;
  // 2.-4. The table, or why there is none. Only a system without one says so.
  platform::IfTable table = adapters_.ifTable();
  if (table.status == platform::IfTable::Status::NotSupported) {
    ui_.showMessageBox(kIpHelperNotSupported, MessageIcon::None);
    return result;
  }
  if (table.status != platform::IfTable::Status::Ok) return result;
  const std::vector<unsigned char> bytes = tableBytes(table.rows);
  // 5. The row count from the first four bytes.
  const int32_t count = get32(bytes.data(), 0);
  // 6. Each row is copied out of the table at a byte offset computed in 16 bits that wrap:
  //    from the 40th row on it turns negative, and from the 78th it comes round again to
  //    land inside the table, across two rows. A copy that would reach outside the table
  //    fails and is skipped, so the local row still holds the row copied before it, and that
  //    row is filled and counted once more.
  unsigned char row[kRowSize] = {};
  for (int32_t number = 1; number <= count; ++number) {
    const auto offset = static_cast<int16_t>(static_cast<int64_t>(number - 1) * kRowSize + 4);
    if (offset >= 0 && static_cast<size_t>(offset) + kRowSize <= bytes.size())
      std::memcpy(row, bytes.data() + offset, kRowSize);
    auto object = std::make_shared<CInterface>();
    fill(*object, row);
    // The sums wrap at 32 bits without an error.
    bytesReceived_ = static_cast<int32_t>(static_cast<uint32_t>(bytesReceived_) +
                                          static_cast<uint32_t>(get32(row, kInOctetsOffset)));
    bytesSent_ = static_cast<int32_t>(static_cast<uint32_t>(bytesSent_) +
                                      static_cast<uint32_t>(get32(row, kOutOctetsOffset)));
    interfaces.Add(object);
  }
  // 7. The table's bytes go with this scope.
  return result;
}

}  // namespace tessmark
