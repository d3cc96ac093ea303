// The firewall log: the counters, the exact bytes of a day's file, the buffer and its
// flushes, the file's name, reading the file from its end and the search that fills the
// settings window's result list.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "base/booleans.h"
#include "log/modWriteLog.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

namespace fs = std::filesystem;

const std::string kHeader =
    "# Tessmark Personal Firewall 0.1  LogFile\r\n"
    "# Blocked Connections\r\n"
    "# Fields: path pid time dst-ip src-ip dst-port src-port status risk\r\n"
    "\r\n";
const std::string kCurlLine =
    "|/usr/bin/curl|4242|12:00:01|192.168.1.20|93.184.216.34|1025|80|ESTAB|n";

class WriteLog : public ::testing::Test, public testing::SimMonitor {
 protected:
  // The data folder is made at start-up; the Logs folder below it is the writer's.
  void SetUp() override { fs::create_directories(rules.folders.AppDataDir); }

  std::string logsFolder() const { return rules.folders.AppDataDir + "/Logs"; }
  // sim.date is "15.11.2026" unless a test says otherwise.
  std::string logPath(const std::string& name = "15.11.2026") const {
    return logsFolder() + "/" + name + ".txt";
  }
  std::string read(const std::string& path) const {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
  }
  void writeFile(const std::string& bytes) {
    fs::create_directories(logsFolder());
    std::ofstream(logPath(), std::ios::binary | std::ios::trunc) << bytes;
  }

  // One TCP row of curl, local 192.168.1.20:1025, remote 93.184.216.34:80, established.
  void curlConnection() {
    program(4242, "/usr/bin/curl");
    tcp(4242, 1025, 80);
    main.GetTCPConnections(-1, -1);
  }
  void refuse(int16_t isTcp, int16_t index, std::string rating = "n") {
    log.WriteBlockedConnection(isTcp, index, rating);
  }
  void search(int16_t maxLines, std::string searchText = "", std::string ipText = "") {
    log.SearchLog(maxLines, searchText, ipText);
  }
  // The item text and sub-items 1 to 8 of a result row.
  std::vector<std::string> row(int16_t index) const {
    const LogResultRow& item = log.ListView2.Item(index);
    std::vector<std::string> cells{item.Text};
    for (int column = 1; column <= 8; ++column) cells.push_back(item.SubItems[column]);
    return cells;
  }

  int16_t Check3 = 1;
  std::vector<std::pair<int32_t, int32_t>> shownCounters;
  modWriteLog log{main.TcpConnections,
                  main.UdpConnections,
                  rules.folders,
                  sim,
                  mailbox,
                  Check3,
                  [this](int32_t& all, int32_t& high) { shownCounters.emplace_back(all, high); }};
};

// ---- writing

TEST_F(WriteLog, TheFirstRefusalOfTheDayMakesTheFolderAndWritesHeaderAndLineAtOnce) {
  curlConnection();
  ASSERT_FALSE(fs::exists(logsFolder()));
  refuse(kTrue, 0);
  EXPECT_EQ(read(logPath()),
            "# Tessmark Personal Firewall 0.1  LogFile\r\n"
            "# Blocked Connections\r\n"
            "# Fields: path pid time dst-ip src-ip dst-port src-port status risk\r\n"
            "\r\n"
            "|/usr/bin/curl|4242|12:00:01|192.168.1.20|93.184.216.34|1025|80|ESTAB|n\r\n");
  EXPECT_EQ(log.LogBuffer, "");
}

TEST_F(WriteLog, AnOwnerWithoutPathIsLoggedAsDashWithTheClockOfTheMoment) {
  // No process 1234 is known, so its path is empty.
  sim.tcpRows.push_back(platform::sim::MakeTcpRow(5, "0.0.0.0", 80, "10.0.0.2", 1025, 1234));
  main.GetTCPConnections(-1, -1);
  sim.time = "23:59:58";
  refuse(kTrue, 0);
  EXPECT_EQ(read(logPath()), kHeader + "|-|1234|23:59:58|0.0.0.0|10.0.0.2|80|1025|ESTAB|n\r\n");
}

TEST_F(WriteLog, LaterLinesWaitInTheBufferAndEachFlushLeavesAnEmptyLine) {
  curlConnection();
  refuse(kTrue, 0);
  sim.time = "12:00:02";
  refuse(kTrue, 0, "h");
  const std::string second =
      "|/usr/bin/curl|4242|12:00:02|192.168.1.20|93.184.216.34|1025|80|ESTAB|h\r\n";
  EXPECT_EQ(read(logPath()), kHeader + kCurlLine + "\r\n");
  EXPECT_EQ(log.LogBuffer, second);

  log.FlushLogBuffer();
  EXPECT_EQ(read(logPath()), kHeader + kCurlLine + "\r\n" + second + "\r\n");
  EXPECT_EQ(log.LogBuffer, "");
  // A flush does not look whether there is anything to write.
  log.FlushLogBuffer();
  EXPECT_EQ(read(logPath()), kHeader + kCurlLine + "\r\n" + second + "\r\n\r\n");
}

TEST_F(WriteLog, TheBufferIsWrittenOnlyOnceItHoldsMoreThan50000Characters) {
  curlConnection();
  refuse(kTrue, 0);
  const std::string before = read(logPath());
  const std::string line = kCurlLine + "\r\n";
  const std::string held(50000 - line.size(), 'x');
  log.LogBuffer = held;

  refuse(kTrue, 0);  // exactly 50000 now
  EXPECT_EQ(log.LogBuffer.size(), 50000u);
  EXPECT_EQ(read(logPath()), before);

  refuse(kTrue, 0);
  EXPECT_EQ(log.LogBuffer, "");
  EXPECT_EQ(read(logPath()), before + held + line + line + "\r\n");
}

TEST_F(WriteLog, WithTheLogOffOnlyTheCountersAndTheirDisplayMove) {
  curlConnection();
  Check3 = 0;
  refuse(kTrue, 0, "h");
  refuse(kTrue, 0, "n");
  refuse(kTrue, 0, "H");  // only exactly "h" is rated high
  EXPECT_EQ(log.BlockedAll, 3);
  EXPECT_EQ(log.BlockedHigh, 1);
  EXPECT_EQ(shownCounters, (std::vector<std::pair<int32_t, int32_t>>{{1, 1}, {2, 1}, {3, 1}}));
  EXPECT_FALSE(fs::exists(logsFolder()));
  EXPECT_EQ(log.LogBuffer, "");

  Check3 = 1;
  refuse(kTrue, 0, "H");
  EXPECT_EQ(log.BlockedAll, 4);
  EXPECT_EQ(log.BlockedHigh, 1);
  EXPECT_EQ(
      read(logPath()),
      kHeader + "|/usr/bin/curl|4242|12:00:01|192.168.1.20|93.184.216.34|1025|80|ESTAB|H\r\n");
}

TEST_F(WriteLog, OnlyExactlyTrueSelectsTheTcpTable) {
  program(4242, "/usr/bin/curl");
  program(77, "/usr/sbin/dnsd");
  tcp(4242, 1025, 80);
  udp(77, 53);
  main.GetTCPConnections(-1, -1);  // also names the UDP table's owners
  main.GetUDPConnections(-1, -1);
  refuse(kTrue, 0);
  refuse(1, 0);
  refuse(kFalse, 0);
  log.FlushLogBuffer();
  const std::string udpLine = "|/usr/sbin/dnsd|77|12:00:01|0.0.0.0||53|0|LISTEN|n\r\n";
  EXPECT_EQ(read(logPath()), kHeader + kCurlLine + "\r\n" + udpLine + udpLine + "\r\n");
}

TEST_F(WriteLog, ARowNumberOutsideTheTableGivesALineOfEmptyFields) {
  curlConnection();
  refuse(kTrue, 0);
  refuse(kTrue, 7);
  refuse(kTrue, -1);
  refuse(kFalse, 0);  // the UDP table was never read
  log.FlushLogBuffer();
  const std::string empty = "|-|0|12:00:01|||0|0||n\r\n";
  EXPECT_EQ(read(logPath()), kHeader + kCurlLine + "\r\n" + empty + empty + empty + "\r\n");
  EXPECT_EQ(log.BlockedAll, 4);
}

TEST_F(WriteLog, TheNameIsTheDateWithCharactersUnfitForAFileNameMadeDots) {
  sim.date = "15/11/2026";
  EXPECT_EQ(log.TodayLogName(), "15.11.2026");
  sim.date = "a/b\\c:d*e?f\"g<h>i|j";
  EXPECT_EQ(log.TodayLogName(), "a.b.c.d.e.f.g.h.i.j");
  sim.date = "2026-11-15";
  EXPECT_EQ(log.TodayLogName(), "2026-11-15");

  sim.date = "15/11/2026";
  curlConnection();
  refuse(kTrue, 0);
  EXPECT_TRUE(fs::exists(logsFolder() + "/15.11.2026.txt"));
}

TEST_F(WriteLog, ANewDaysFirstLineGoesAheadOfLinesStillBuffered) {
  curlConnection();
  refuse(kTrue, 0);
  sim.time = "23:59:59";
  refuse(kTrue, 0);  // buffered on the 15th
  sim.date = "16.11.2026";
  sim.time = "00:00:01";
  refuse(kTrue, 0);
  log.FlushLogBuffer();
  EXPECT_EQ(read(logPath("15.11.2026")), kHeader + kCurlLine + "\r\n");
  EXPECT_EQ(read(logPath("16.11.2026")),
            kHeader +
                "|/usr/bin/curl|4242|00:00:01|192.168.1.20|93.184.216.34|1025|80|ESTAB|n\r\n"
                "|/usr/bin/curl|4242|23:59:59|192.168.1.20|93.184.216.34|1025|80|ESTAB|n\r\n"
                "\r\n");
}

TEST_F(WriteLog, AFlushWithoutALogsFolderLosesTheBufferQuietly) {
  log.LogBuffer = "|pending|1|12:00:00|a|b|1|2|ESTAB|n\r\n";
  log.FlushLogBuffer();
  EXPECT_EQ(log.LogBuffer, "");
  EXPECT_FALSE(fs::exists(logsFolder()));
  EXPECT_TRUE(ui.errorBoxes.empty());
  EXPECT_TRUE(ui.messageBoxes.empty());
}

TEST_F(WriteLog, ADayWhoseFileAFlushStartedNeverGetsAHeader) {
  fs::create_directories(logsFolder());
  log.FlushLogBuffer();
  curlConnection();
  refuse(kTrue, 0);
  log.FlushLogBuffer();
  EXPECT_EQ(read(logPath()), "\r\n" + kCurlLine + "\r\n\r\n");
}

// ---- reading from the end

TEST_F(WriteLog, ReadingTheEndCountsTwoLineFeedsMoreThanAskedFor) {
  EXPECT_EQ(log.ReadLastLogLines(300), "");  // no file for today
  writeFile("# H\r\n\r\n|a\r\n|b\r\n|c\r\n\r\n");
  EXPECT_EQ(log.ReadLastLogLines(0), "\r\n");
  EXPECT_EQ(log.ReadLastLogLines(1), "|c\r\n\r\n");
  EXPECT_EQ(log.ReadLastLogLines(2), "|b\r\n|c\r\n\r\n");
  // Fewer lines than asked for: everything but the file's first byte.
  EXPECT_EQ(log.ReadLastLogLines(300), " H\r\n\r\n|a\r\n|b\r\n|c\r\n\r\n");
  EXPECT_EQ(log.ReadLastLogLines(5), " H\r\n\r\n|a\r\n|b\r\n|c\r\n\r\n");
}

TEST_F(WriteLog, ReadingTinyFilesGivesNothing) {
  writeFile("");
  EXPECT_EQ(log.ReadLastLogLines(300), "");
  writeFile("#");
  EXPECT_EQ(log.ReadLastLogLines(300), "");
  writeFile("#\n");
  EXPECT_EQ(log.ReadLastLogLines(300), "\n");
}

TEST_F(WriteLog, ReadingFarBackCrossesManyBlocks) {
  std::string records;
  for (int i = 0; i < 2000; ++i) records += "|/p" + std::to_string(i) + "|1|t|l|r|1|2|S|n\r\n";
  writeFile(kHeader + records + "\r\n");
  const std::string tail = log.ReadLastLogLines(3);
  EXPECT_EQ(
      tail,
      "|/p1997|1|t|l|r|1|2|S|n\r\n|/p1998|1|t|l|r|1|2|S|n\r\n|/p1999|1|t|l|r|1|2|S|n\r\n\r\n");
  EXPECT_EQ(log.ReadLastLogLines(30000), (kHeader + records + "\r\n").substr(1));
}

// ---- the search

TEST_F(WriteLog, WithoutTodaysLogTheListEndsEmptyAndVisible) {
  log.ListView2.Add("/old/row");
  log.ListView2Visible = false;
  search(300);
  EXPECT_EQ(log.ListView2.Count(), 0);
  EXPECT_TRUE(log.ListView2Visible);
  EXPECT_EQ(log.LogSearchBusy, kFalse);
  EXPECT_TRUE(ui.messageBoxes.empty());
  EXPECT_TRUE(ui.errorBoxes.empty());
}

TEST_F(WriteLog, AFileWithTheHeaderAndOneRecordListsTheRecord) {
  EXPECT_EQ(log.ListView2.ColumnHeaders,
            (std::vector<std::string>{"Program Path", "PID", "Time", "Local Ip", "Remote Ip",
                                      "Local Port", "Remote Port", "Status", "Risk"}));
  curlConnection();
  refuse(kTrue, 0);
  search(300);
  ASSERT_EQ(log.ListView2.Count(), 1);
  EXPECT_EQ(row(1), (std::vector<std::string>{"/usr/bin/curl", "4242", "12:00:01", "192.168.1.20",
                                              "93.184.216.34", "1025", "80", "ESTAB", "normal"}));
  EXPECT_TRUE(log.ListView2Visible);
}

TEST_F(WriteLog, TheSearchFlushesFirstSoBufferedLinesAreFound) {
  curlConnection();
  refuse(kTrue, 0);
  sim.time = "12:00:02";
  refuse(kTrue, 0, "h");
  ASSERT_NE(log.LogBuffer, "");
  search(300);
  EXPECT_EQ(log.LogBuffer, "");
  ASSERT_EQ(log.ListView2.Count(), 2);
  EXPECT_EQ(row(2), (std::vector<std::string>{"/usr/bin/curl", "4242", "12:00:02", "192.168.1.20",
                                              "93.184.216.34", "1025", "80", "ESTAB", "high"}));
}

TEST_F(WriteLog, FiltersMatchPartsOfPathAndRemoteAddressIgnoringCase) {
  writeFile(kHeader +
            "|/usr/bin/curl|1|t|10.0.0.9|93.184.216.34|1|2|ESTAB|n\r\n"
            "|/opt/Browser/browser|2|t|192.168.1.20|110.0.0.1|1|2|ESTAB|n\r\n"
            "|/opt/browser/helper|3|t|192.168.1.20|10.0.0.5|1|2|ESTAB|n\r\n"
            "|/usr/bin/ssh|4|t|192.168.1.20|10.0.0.6|1|2|ESTAB|n\r\n");
  search(300, "", "");
  EXPECT_EQ(log.ListView2.Count(), 4);

  search(300, "BROWSER", "");
  ASSERT_EQ(log.ListView2.Count(), 2);
  EXPECT_EQ(log.ListView2.Item(1).Text, "/opt/Browser/browser");
  EXPECT_EQ(log.ListView2.Item(2).Text, "/opt/browser/helper");

  // The address filter looks at the remote address only, and 10.0 is found inside 110.0.0.1.
  search(300, "", "10.0");
  ASSERT_EQ(log.ListView2.Count(), 3);
  EXPECT_EQ(log.ListView2.Item(1).Text, "/opt/Browser/browser");
  EXPECT_EQ(log.ListView2.Item(2).Text, "/opt/browser/helper");
  EXPECT_EQ(log.ListView2.Item(3).Text, "/usr/bin/ssh");

  // Both filters at once.
  search(300, "browser", "110.");
  ASSERT_EQ(log.ListView2.Count(), 1);
  EXPECT_EQ(log.ListView2.Item(1).Text, "/opt/Browser/browser");
}

TEST_F(WriteLog, ARatingOtherThanExactlyNShowsHigh) {
  writeFile(kHeader +
            "|/a|1|t|l|r|1|2|S|n\r\n"
            "|/b|1|t|l|r|1|2|S|h\r\n"
            "|/c|1|t|l|r|1|2|S|N\r\n"
            "|/d|1|t|l|r|1|2|S|\r\n");
  search(300);
  ASSERT_EQ(log.ListView2.Count(), 4);
  EXPECT_EQ(log.ListView2.Item(1).SubItems[8], "normal");
  EXPECT_EQ(log.ListView2.Item(2).SubItems[8], "high");
  EXPECT_EQ(log.ListView2.Item(3).SubItems[8], "high");
  EXPECT_EQ(log.ListView2.Item(4).SubItems[8], "high");
}

TEST_F(WriteLog, NoLinesAskedForShowsNothing) {
  curlConnection();
  refuse(kTrue, 0);
  search(0);
  EXPECT_EQ(log.ListView2.Count(), 0);
  EXPECT_TRUE(log.ListView2Visible);
}

TEST_F(WriteLog, ThreeHundredLinesShowAtMost299RecordsAndEachSearchAddsAnEmptyLine) {
  std::string records;
  for (int i = 1; i <= 400; ++i) records += "|/p" + std::to_string(i) + "|1|t|l|r|1|2|S|n\r\n";
  writeFile(kHeader + records);

  search(300);
  ASSERT_EQ(log.ListView2.Count(), 299);
  EXPECT_EQ(log.ListView2.Item(1).Text, "/p102");  // oldest first
  EXPECT_EQ(log.ListView2.Item(299).Text, "/p400");

  // The first search's flush left an empty line, which now counts among the 300.
  search(300);
  ASSERT_EQ(log.ListView2.Count(), 298);
  EXPECT_EQ(log.ListView2.Item(1).Text, "/p103");
  EXPECT_EQ(read(logPath()), kHeader + records + "\r\n\r\n");
}

TEST_F(WriteLog, ASecondSearchDuringTheFirstIsTurnedAwayButStillFlushes) {
  writeFile(kHeader + "|/a|1|t|l|r|1|2|S|n\r\n|/b|2|t|l|r|1|2|S|n\r\n");
  bool visibleDuring = true;
  int16_t rowsDuring = -1;
  int16_t busyDuring = kFalse;
  // Runs at the first yield of the search below, as a second click on Search would.
  mailbox.post([&] {
    visibleDuring = log.ListView2Visible;
    busyDuring = log.LogSearchBusy;
    log.LogBuffer = "|/late|3|t|l|r|1|2|S|n\r\n";
    int16_t maxLines = 300;
    std::string searchText = "late";
    std::string ipText;
    log.SearchLog(maxLines, searchText, ipText);
    rowsDuring = log.ListView2.Count();
  });
  search(300);

  EXPECT_FALSE(visibleDuring);
  EXPECT_EQ(busyDuring, kTrue);
  EXPECT_EQ(rowsDuring, 0);  // the second search cleared nothing and added nothing
  ASSERT_EQ(log.ListView2.Count(), 2);
  EXPECT_EQ(log.ListView2.Item(1).Text, "/a");
  EXPECT_EQ(log.ListView2.Item(2).Text, "/b");
  EXPECT_TRUE(log.ListView2Visible);
  EXPECT_EQ(log.LogSearchBusy, kFalse);
  // The turned-away search flushed behind the first search's own empty line.
  EXPECT_EQ(
      read(logPath()),
      kHeader + "|/a|1|t|l|r|1|2|S|n\r\n|/b|2|t|l|r|1|2|S|n\r\n\r\n|/late|3|t|l|r|1|2|S|n\r\n\r\n");
}

// The path fields of the record lines of a log file, as they stand in the file.
std::vector<std::string> RecordPathFields(const std::string& file) {
  std::vector<std::string> paths;
  std::istringstream lines(file);
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] != '|') continue;
    paths.push_back(line.substr(1, line.find('|', 1) - 1));
  }
  return paths;
}

TEST_F(WriteLog, AProgramNamedLikeARecordWritesOneLineAndIsFoundUnderItsOwnName) {
  // A file name may hold line breaks, tabs and "|": this one tries to end its own record and
  // forge a second one, and ends in bytes that only the unquoted name holds.
  const std::string hostile = "/tmp/a\r\n|/usr/bin/forged|1|12:00:00|1.2.3.4|5.6.7.8|1|2|x|h\tend";
  program(77, hostile);
  program(4242, "/usr/bin/curl");
  tcp(77, 1026, 443);
  tcp(4242, 1025, 80);
  main.GetTCPConnections(-1, -1);
  refuse(kTrue, 0, "h");
  refuse(kTrue, 1);
  log.FlushLogBuffer();

  const std::string file = read(logPath());
  const std::vector<std::string> paths = RecordPathFields(file);
  ASSERT_EQ(paths.size(), 2u) << file;
  EXPECT_NE(paths[0], "/usr/bin/forged");
  EXPECT_EQ(paths[1], "/usr/bin/curl");
  // The ordinary program's line keeps its exact bytes.
  EXPECT_NE(file.find("\r\n" + kCurlLine + "\r\n"), std::string::npos);

  search(300);
  ASSERT_EQ(log.ListView2.Count(), 2);
  EXPECT_EQ(row(1), (std::vector<std::string>{hostile, "77", "12:00:01", "192.168.1.20",
                                              "93.184.216.34", "1026", "443", "ESTAB", "high"}));
  EXPECT_EQ(row(2), (std::vector<std::string>{"/usr/bin/curl", "4242", "12:00:01", "192.168.1.20",
                                              "93.184.216.34", "1025", "80", "ESTAB", "normal"}));

  // The path filter matches the name as it was: a tab, and a "|" with what follows it.
  search(300, "h\tEND");
  ASSERT_EQ(log.ListView2.Count(), 1);
  EXPECT_EQ(log.ListView2.Item(1).Text, hostile);
  search(300, "\n|/usr/bin/FORGED|");
  ASSERT_EQ(log.ListView2.Count(), 1);
  EXPECT_EQ(log.ListView2.Item(1).Text, hostile);
}

TEST_F(WriteLog, LinesWithoutTenFieldsArePassedOverAndTheSearchReadsOn) {
  writeFile(kHeader +
            "|/a|1|t|l|10.0.0.1|1|2|S|n\r\n"
            "|/bin/x|1\r\n"                          // cut short
            "|/b|2|t|l|10.0.0.2|80\r\n"              // cut after the remote address
            "|/old|name|3|t|l|10.0.0.3|1|2|S|n\r\n"  // a "|" written before names were quoted
            "|/c|4|t|l|10.0.0.4|1|2|S|h\r\n"
            "|/d|5|t|l|192.168.0.9|1|2|S|n\r\n");
  search(300);
  ASSERT_EQ(log.ListView2.Count(), 3);
  EXPECT_EQ(log.ListView2.Item(1).Text, "/a");
  EXPECT_EQ(row(2),
            (std::vector<std::string>{"/c", "4", "t", "l", "10.0.0.4", "1", "2", "S", "high"}));
  EXPECT_EQ(log.ListView2.Item(3).Text, "/d");
  EXPECT_TRUE(log.ListView2Visible);
  EXPECT_EQ(log.LogSearchBusy, kFalse);

  search(300, "", "10.0");
  ASSERT_EQ(log.ListView2.Count(), 2);
  EXPECT_EQ(log.ListView2.Item(1).Text, "/a");
  EXPECT_EQ(log.ListView2.Item(2).Text, "/c");
}

}  // namespace
}  // namespace tessmark
