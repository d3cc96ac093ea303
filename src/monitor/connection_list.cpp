// The display pass of NewtcpCon and NewUdpCon: a fresh snapshot, and the main window's
// connection list rebuilt from it. It judges nothing, breaks nothing and touches no rule.

#include <cctype>
#include <charconv>
#include <cstdlib>
#include <string>
#include <unordered_map>

#include "base/booleans.h"
#include "base/text_compare.h"
#include "monitor/frmThread.h"

namespace tessmark {

namespace {

// The number a text begins with, as a number box reads it: "93.184.216.34" reads 93.184.
double leadingNumber(const std::string& text) {
  size_t end = 0;
  while (end < text.size() && (std::isdigit(static_cast<unsigned char>(text[end])) != 0)) ++end;
  if (end < text.size() && text[end] == '.') {
    ++end;
    while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end])) != 0) ++end;
  }
  double value = 0.0;  // read whatever the locale's decimal mark is
  std::from_chars(text.data(), text.data() + end, value);
  return value;
}

// Whether a record's remote side is a peer worth showing. IPv4: a dotted address whose first
// number is not 0. IPv6: any address but the unspecified "::", so that a link-local or
// unique-local peer ("fe80::1", "fd00::2"), which begins with a letter, counts too.
bool hasRealPeer(const std::string& remote) {
  if (remote.find(':') != std::string::npos) return remote != "::";
  return leadingNumber(remote) != 0 && remote != "0.0.0.0";
}

void showRecord(ConnectionListRow& row, const ConnectionRecord& record) {
  row.SubItems[1] = record.LocalAddress;
  row.SubItems[2] = record.RemoteAddress;
  row.SubItems[3] = std::to_string(record.LocalPort);
  row.SubItems[4] = std::to_string(record.RemotePort);
  row.SubItems[5] = record.State;
}

void countOneMore(ConnectionListRow& row) {
  row.SubItems[7] = std::to_string(static_cast<int64_t>(leadingNumber(row.SubItems[7])) + 1);
}

}  // namespace

void frmThread::displayPass(Side& side, int16_t showAll) {
  if (side.tcp) {
    main_.GetTCPConnections(kTrue, kTrue);
  } else {
    main_.GetUDPConnections(kTrue, kTrue);
  }
  ConnectionTable& table = side.table;
  const int32_t last = LastTableIndex(table);
  for (int32_t i = 0; i <= last; ++i) {
    // An IPv6 row has no remote side the IPv4 way: a UDP one shows the unspecified "::".
    const bool ipv6 = table[i].LocalAddress.find(':') != std::string::npos;
    if (table[i].LocalAddress.empty()) table[i].LocalAddress = "0.0.0.0";
    if (table[i].RemoteAddress.empty()) table[i].RemoteAddress = ipv6 ? "::" : "0.0.0.0";
  }
  // The TCP pass starts the list afresh; the UDP pass adds to what it left.
  if (side.tcp) {
    if (ListSelection > 0) SelectedConnection = ListSelection;
    ConnectionList.clear();
  }
  const char* protocol = side.tcp ? (showAll == kFalse ? "Tcp" : "tcp") : "Udp";

  // Rows only ever get appended and their Text never changes, so an index by path stays
  // valid through the pass: the row search costs rows, not rows times programs.
  std::unordered_map<std::string, size_t> rowOf;
  for (size_t r = 0; r < ConnectionList.size(); ++r)
    rowOf.emplace(FoldedText(ConnectionList[r].Text), r);

  for (int32_t i = last; i >= 0; --i) {
    const ConnectionRecord& record = table[i];
    if (record.ProcessPath.empty()) continue;
    if (showAll == kFalse) {
      auto found = rowOf.find(FoldedText(record.ProcessPath));
      // TCP looks for the program's TCP row; UDP for the program's row of either kind.
      if (found != rowOf.end() &&
          (!side.tcp || EqualIgnoringCase(ConnectionList[found->second].SubItems[6], "Tcp"))) {
        ConnectionListRow& row = ConnectionList[found->second];
        if (side.tcp) {
          // A row shows the last record walked that has a real peer.
          if (hasRealPeer(record.RemoteAddress)) showRecord(row, record);
        } else if (!EqualIgnoringCase(row.SubItems[6], "Udp")) {
          row.SubItems[6] = "Tcp | Udp";
          showRecord(row, record);
        }
        countOneMore(row);
        continue;
      }
    }
    ConnectionListRow row;
    row.Text = record.ProcessPath;
    showRecord(row, record);
    row.SubItems[6] = protocol;
    row.SubItems[7] = "1";
    rowOf.emplace(FoldedText(row.Text), ConnectionList.size());
    ConnectionList.push_back(std::move(row));
  }
  ui_.setConnectionList(ConnectionList, SelectedConnection);
}

}  // namespace tessmark
