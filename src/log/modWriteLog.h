#pragma once
// modWriteLog: the firewall log. Every connection the firewall refuses on its own authority
// is counted for the settings window and, while the log is on, written as one line into a
// text file per calendar day under the data folder. Lines are held back in LogBuffer so that
// a burst of refusals costs one file open per 50,000 characters. The module also reads the
// end of today's file back for the settings window's log search, into ListView2.

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "base/connection_record.h"
#include "base/message_pump.h"
#include "platform/platform.h"
#include "rules/app_settings.h"

namespace tessmark {

// One row of the search's result list: the program path as Text, then SubItems 1 to 8 (PID,
// time, local and remote address, local and remote port, status, risk). SubItems[0] is
// never used, since column 0 is Text.
struct LogResultRow {
  std::string Text;
  std::array<std::string, 9> SubItems;
};

// The search's result list. Rows are numbered from 1 and keep the order they were added in.
class LogResultList {
 public:
  std::vector<std::string> ColumnHeaders{"Program Path", "PID",       "Time",
                                         "Local Ip",     "Remote Ip", "Local Port",
                                         "Remote Port",  "Status",    "Risk"};

  int16_t Count() const { return static_cast<int16_t>(rows_.size()); }
  LogResultRow& Item(int16_t index) { return rows_.at(static_cast<size_t>(index) - 1); }
  const LogResultRow& Item(int16_t index) const { return rows_.at(static_cast<size_t>(index) - 1); }
  // Appends a row with this text and empty sub-items, and gives it for filling.
  LogResultRow& Add(const std::string& text);
  void Clear() { rows_.clear(); }

 private:
  std::vector<LogResultRow> rows_;
};

class modWriteLog {
 public:
  // LogBuffer is written out once it holds more than this many characters.
  static constexpr size_t kLogBufferLimit = 50000;

  // Check3 is the settings window's "Activate Firewall Log" box (1 ticked), read at every
  // refusal. ChangeBlockValue shows the two counters in the settings window.
  modWriteLog(const ConnectionTable& TcpConnections, const ConnectionTable& UdpConnections,
              const AppFolders& folders, platform::Clock& clock, MessagePump& pump,
              const int16_t& Check3, std::function<void(int32_t&, int32_t&)> ChangeBlockValue)
      : tcp_(TcpConnections),
        udp_(UdpConnections),
        folders_(folders),
        clock_(clock),
        pump_(pump),
        Check3_(Check3),
        ChangeBlockValue_(std::move(ChangeBlockValue)) {}

  // Counts one refusal and, with the log on, logs row `index` of the TCP table when isTcp is
  // exactly -1, otherwise of the UDP table. rating "h" counts as high. A field holding "|",
  // a line break or another control byte is written quoted (rules/field_quoting.h), so every
  // refusal is exactly one line of ten fields. Nothing is reported: a line that cannot be
  // written is lost.
  void WriteBlockedConnection(int16_t& isTcp, int16_t& index, std::string& rating);

  // Appends LogBuffer and a line end to today's file and empties it, whatever it held and
  // whether or not the write went through. Creates no folder and writes no header.
  void FlushLogBuffer();

  // Today's date in the desktop's short form, with / \ : * ? " < > | each made ".": the base
  // name of today's file.
  std::string TodayLogName();

  // The end of today's file: the bytes after the (maxLines + 2)-th line feed from the end, or
  // from the second byte on when the file has fewer. "" when there is no file for today.
  std::string ReadLastLogLines(int16_t maxLines);

  // Flushes, then fills ListView2 with the records among the last maxLines lines of today's
  // file whose path holds searchText and whose remote address holds ipText, case ignored,
  // oldest first. Fields are unquoted before they are matched and shown. A line that starts
  // with "|" but does not hold exactly ten fields is passed over. A search that arrives while
  // one runs only flushes.
  void SearchLog(int16_t& maxLines, std::string& searchText, std::string& ipText);

  // Refusals since the program started, and those rated high. Never saved or reset.
  int32_t BlockedAll = 0;
  int32_t BlockedHigh = 0;
  // Lines, each with its CR LF, waiting to be written.
  std::string LogBuffer;
  // True while a search runs.
  int16_t LogSearchBusy = 0;
  // The search's result list, and whether it is shown: it is hidden while it fills.
  LogResultList ListView2;
  bool ListView2Visible = true;

 private:
  std::string TodayLogPath();
  void FillListView2(int16_t& maxLines, std::string& searchText, std::string& ipText);

  // The monitor's snapshot tables, whose rows the lines are made of.
  const ConnectionTable& tcp_;
  const ConnectionTable& udp_;
  const AppFolders& folders_;
  platform::Clock& clock_;
  MessagePump& pump_;
  const int16_t& Check3_;
  std::function<void(int32_t&, int32_t&)> ChangeBlockValue_;
};

}  // namespace tessmark
