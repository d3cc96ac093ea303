#include "log/modWriteLog.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

#include "base/address_text.h"
#include "base/booleans.h"
#include "base/modCompare.h"
#include "rules/field_quoting.h"
#include "rules/line_reader.h"

namespace tessmark {

namespace {

namespace fs = std::filesystem;

const std::string kCrLf = "\r\n";
constexpr char kFieldSeparator = '|';
// A record's fields, counting the empty one in front of the path.
constexpr size_t kRecordFields = 10;

// The first lines of a day's file. The version shows major and minor number only.
std::string LogHeader() {
  return "# " + AppTitle + " " + std::to_string(AppMajor) + "." + std::to_string(AppMinor) +
         "  LogFile" + kCrLf + "# Blocked Connections" + kCrLf +
         "# Fields: path pid time dst-ip src-ip dst-port src-port status risk" + kCrLf + kCrLf;
}

// One record: ten "|"-separated fields, the first empty. dst is the local side and src the
// remote one, whatever the direction of the connection. Every field is quoted when it holds a
// "|", a line break or another control byte, which a Linux file name may: the record then
// stays one line of ten fields, and a program cannot write lines of its own into the log
// through its name. A field without such bytes keeps its exact bytes.
std::string LogLine(const ConnectionRecord& record, const std::string& time,
                    const std::string& rating) {
  const std::string& path = record.ProcessPath.empty() ? std::string("-") : record.ProcessPath;
  const std::string pid = std::to_string(record.ProcessId);
  const std::string localPort = std::to_string(record.LocalPort);
  const std::string remotePort = std::to_string(record.RemotePort);
  const std::array<std::string_view, kRecordFields> fields{
      "",        path,       pid,          time,  record.LocalAddress, record.RemoteAddress,
      localPort, remotePort, record.State, rating};
  std::string line;
  for (size_t i = 0; i < fields.size(); ++i) {
    if (i > 0) line += kFieldSeparator;
    line += QuoteField(fields[i], std::string_view(&kFieldSeparator, 1));
  }
  return line;
}

// Opens the file for appending, writes `text` and a line end of its own, and closes it: the
// log file is never held open. False when it could not be opened or written.
bool PrintToFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::app);
  if (!out) return false;
  out << text << kCrLf;
  out.close();
  return !out.fail();
}

std::vector<std::string> Split(const std::string& text, const std::string& separator) {
  std::vector<std::string> pieces;
  size_t start = 0;
  for (size_t found; (found = text.find(separator, start)) != std::string::npos;
       start = found + separator.size()) {
    pieces.push_back(text.substr(start, found - start));
  }
  pieces.push_back(text.substr(start));
  return pieces;
}

// The fields of a record line as they were before quoting, or nothing when the line does not
// hold exactly ten fields: such a line was not written by LogLine, and its fields cannot be
// told apart.
std::vector<std::string> RecordFields(const std::string& line) {
  std::vector<std::string> fields = SplitAt(line, kFieldSeparator);
  if (fields.size() != kRecordFields) return {};
  for (std::string& field : fields) field = UnquoteField(field);
  return fields;
}

// Adds a record's row: the path as the item text, pid to status as they stand, and the rating
// as "normal" for exactly "n" and "high" for anything else.
void AddResultRow(LogResultList& list, const std::vector<std::string>& fields) {
  LogResultRow& row = list.Add(fields[1]);
  for (size_t column = 1; column <= 7; ++column) row.SubItems[column] = fields[column + 1];
  row.SubItems[8] = fields[9] == "n" ? "normal" : "high";
}

// The count of a 32-bit counter plus one, wrapping as the system's integers do.
int32_t Increment(int32_t value) {
  return static_cast<int32_t>(static_cast<uint32_t>(value) + 1u);
}

}  // namespace

LogResultRow& LogResultList::Add(const std::string& text) {
  rows_.push_back(LogResultRow{text, {}});
  return rows_.back();
}

std::string modWriteLog::TodayLogName() {
  std::string name = clock_.dateText();
  for (char c : std::string("/\\:*?\"<>|")) std::replace(name.begin(), name.end(), c, '.');
  return name;
}

std::string modWriteLog::TodayLogPath() {
  // Worked out at each write, so lines buffered before midnight go into the next day's file.
  return folders_.AppDataDir + "/Logs/" + TodayLogName() + ".txt";
}

void modWriteLog::WriteBlockedConnection(int16_t& isTcp, int16_t& index, std::string& rating) {
  // 1. The counters rise whether or not anything is written.
  BlockedAll = Increment(BlockedAll);
  if (rating == "h") BlockedHigh = Increment(BlockedHigh);
  // 2. The settings window's display follows even with the log switched off.
  if (ChangeBlockValue_) ChangeBlockValue_(BlockedAll, BlockedHigh);
  // 3.
  if (Check3_ != 1) return;
  // 4. The row of the selected table, copied: the line needs that one row, and a copy of
  //    the whole table for each line made a pass with many refusals cost a second. A row
  //    number outside the table reads nothing, so the line is built from an empty record:
  //    path "-", pid and ports 0, the rest empty.
  const ConnectionTable& table = isExactlyTrue(isTcp) ? tcp_ : udp_;
  ConnectionRecord record;
  if (index >= 0 && static_cast<size_t>(index) < table.size())
    record = table[static_cast<size_t>(index)];
  // 5.
  const std::string line = LogLine(record, clock_.timeText(), rating);
  // 6. A new day's file gets the header and this first line at once, ahead of older lines
  //    still in the buffer.
  const std::string path = TodayLogPath();
  std::error_code error;
  if (!fs::exists(path, error)) {
    // The data folder is made at start-up; only its Logs folder is made here.
    fs::create_directory(folders_.AppDataDir + "/Logs", error);
    PrintToFile(path, LogHeader() + line);
    return;
  }
  // 7. Otherwise the line waits in the buffer until the buffer is past its limit.
  LogBuffer += line + kCrLf;
  if (LogBuffer.size() > kLogBufferLimit) {
    PrintToFile(path, LogBuffer);
    LogBuffer.clear();
  }
}

void modWriteLog::FlushLogBuffer() {
  // Printing adds a line end of its own behind the buffer's last one, so every flush leaves
  // an empty line in the file; with no Logs folder yet the open fails and the lines are lost.
  PrintToFile(TodayLogPath(), LogBuffer);
  LogBuffer.clear();
}

std::string modWriteLog::ReadLastLogLines(int16_t maxLines) {
  const std::string path = TodayLogPath();
  std::error_code error;
  if (!fs::exists(path, error)) return "";
  std::ifstream in(path, std::ios::binary);
  if (!in) return "";
  in.seekg(0, std::ios::end);
  const std::streamoff size = in.tellg();
  if (size <= 0) return "";

  // Back from the last byte, counting line feeds. The walk stops at the (maxLines + 2)-th
  // line feed, which stands for the flush's empty line and the end of the last record, or at
  // the first byte of the file; the byte it stops on is not kept, so on a short file the
  // first byte, the header's "#", is dropped. Counts are 16-bit and wrap.
  const int16_t wanted = static_cast<int16_t>(maxLines + 2);
  int16_t newlines = 0;
  std::streamoff stop = 0;
  constexpr std::streamoff kBlock = 4096;
  std::string block;
  bool found = false;
  for (std::streamoff end = size; end > 0 && !found;) {
    const std::streamoff begin = std::max<std::streamoff>(0, end - kBlock);
    block.resize(static_cast<size_t>(end - begin));
    in.seekg(begin);
    if (!in.read(block.data(), static_cast<std::streamsize>(block.size()))) return "";
    for (std::streamoff position = end - 1; position >= begin; --position) {
      if (block[static_cast<size_t>(position - begin)] == '\n')
        newlines = static_cast<int16_t>(newlines + 1);
      if (newlines == wanted || position == 0) {
        stop = position;
        found = true;
        break;
      }
    }
    end = begin;
  }

  std::string result(static_cast<size_t>(size - stop - 1), '\0');
  in.seekg(stop + 1);
  if (!result.empty() && !in.read(result.data(), static_cast<std::streamsize>(result.size())))
    return "";
  return result;
}

void modWriteLog::SearchLog(int16_t& maxLines, std::string& searchText, std::string& ipText) {
  // 1. Everything logged so far goes to the file first, even for a search turned away.
  FlushLogBuffer();
  // 2. A click that arrives during the yields of a running search ends here.
  if (LogSearchBusy != kFalse) return;
  LogSearchBusy = kTrue;
  // 3.-8.
  FillListView2(maxLines, searchText, ipText);
  // 9. Every way out of a search that got this far: the rows found so far stay.
  ListView2Visible = true;
  LogSearchBusy = kFalse;
}

void modWriteLog::FillListView2(int16_t& maxLines, std::string& searchText, std::string& ipText) {
  ListView2.Clear();
  // "[::1]" and "::ffff:10.0.0.1" find the "::1" and "10.0.0.1" the log holds.
  std::string ipFilter = AddressFilterText(ipText);
  std::string text = ReadLastLogLines(maxLines);
  if (text.empty()) return;
  const std::vector<std::string> pieces = Split(text, kCrLf);
  // Hidden so that it does not repaint for each new row.
  ListView2Visible = false;
  // Piece 0, the oldest, is passed over: it is usually the cut end of an older line. The
  // counter is 16-bit, so piece 32767 is the last one a search can reach.
  const size_t last = std::min<size_t>(pieces.size() - 1, 32767);
  for (size_t i = 1; i <= last; ++i) {
    CooperativeYield(pump_);
    const std::string& piece = pieces[i];
    // Headers and the empty lines the flushes leave.
    if (piece.empty() || piece[0] != '|') continue;
    // A line that starts like a record but does not hold ten fields (a damaged file, or a
    // line from before fields were quoted whose path held a "|" or a line break) is passed
    // over, and the lines after it are still searched.
    std::vector<std::string> fields = RecordFields(piece);
    if (fields.empty()) continue;
    // The filters look at the path and remote address as they were, not as quoted.
    if (InstrString(fields[1], searchText) == kFalse || InstrString(fields[5], ipFilter) == kFalse)
      continue;
    AddResultRow(ListView2, fields);
  }
}

}  // namespace tessmark
