// The log of refusals: a day's file byte by byte, its buffer, counters, and search.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "base/booleans.h"
#include "log/modWriteLog.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

namespace fs = std::filesystem;
using Cells = std::vector<std::string>;

const std::string kHeader =
    "# Tessmark Personal Firewall 0.1  LogFile\r\n# Blocked Connections\r\n"
    "# Fields: path pid time dst-ip src-ip dst-port src-port status risk\r\n\r\n";
// The record of curl's connection from 192.168.1.20:1025 to 93.184.216.34:80, established.
std::string Curl(const std::string& time, const std::string& rating) {
  return "|/usr/bin/curl|4242|" + time + "|192.168.1.20|93.184.216.34|1025|80|ESTAB|" + rating +
         "\r\n";
}

class WriteLog : public ::testing::Test, public testing::SimMonitor {
 protected:
  void SetUp() override { fs::create_directories(rules.folders.AppDataDir); }
  std::string logs() const { return rules.folders.AppDataDir + "/Logs"; }
  std::string read(const std::string& day = "15.11.2026") const {  // the date of sim
    std::ifstream in(logs() + "/" + day + ".txt", std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  void writeFile(const std::string& bytes) {
    fs::create_directories(logs());
    std::ofstream(logs() + "/15.11.2026.txt", std::ios::binary) << bytes;
  }
  void curlConnection() {
    program(4242, "/usr/bin/curl");
    tcp(4242, 1025, 80);
    main.GetTCPConnections(-1, -1);
  }
  void refuse(int16_t tcp, int16_t i, std::string rating = "n") {
    log.WriteBlockedConnection(tcp, i, rating);
  }
  void search(int16_t n, std::string path = "", std::string ip = "") { log.SearchLog(n, path, ip); }
  Cells row(int16_t index) const {  // the path, then sub-items 1 to 8
    const LogResultRow& item = log.ListView2.Item(index);
    Cells cells{item.Text};
    for (int column = 1; column <= 8; ++column) cells.push_back(item.SubItems[column]);
    return cells;
  }
  Cells paths() const {
    Cells texts;
    for (int16_t i = 1; i <= log.ListView2.Count(); ++i) texts.push_back(row(i)[0]);
    return texts;
  }

  int16_t Check3 = 1;
  std::string shown;  // the counters as the settings window was given them
  std::function<void(int32_t&, int32_t&)> show = [this](int32_t& all, int32_t& high) {
    shown += std::to_string(all) + "/" + std::to_string(high) + " ";
  };
  modWriteLog log{
      main.TcpConnections, main.UdpConnections, rules.folders, sim, mailbox, Check3, show};
};

TEST_F(WriteLog, ADaysFileGetsHeaderAndFirstLineAtOnceAndTheRestInBulk) {
  curlConnection();
  refuse(kTrue, 0);
  const std::string first = Curl("12:00:01", "n"), second = Curl("12:00:02", "h");
  EXPECT_EQ(read(), kHeader + first);
  sim.time = "12:00:02";
  refuse(kTrue, 0, "h");
  const std::string filler(50000 - 2 * second.size(), 'x');  // held until past 50000 characters
  log.LogBuffer += filler;
  refuse(kTrue, 0, "h");
  EXPECT_EQ(read(), kHeader + first);
  refuse(kTrue, 0, "h");
  const std::string day15 = kHeader + first + second + filler + second + second + "\r\n";
  log.FlushLogBuffer();  // each flush leaves an empty line, with or without lines to write
  EXPECT_EQ(read(), day15 + "\r\n");

  // A new day's first line goes ahead of lines still buffered from the day before, and the
  // search flushes first, so those are found.
  sim.time = "23:59:59";
  refuse(kTrue, 0, "h");
  sim.date = "16.11.2026";
  sim.time = "00:00:01";
  refuse(kTrue, 0);
  search(300);
  EXPECT_EQ(read(), day15 + "\r\n");
  EXPECT_EQ(read("16.11.2026"), kHeader + Curl("00:00:01", "n") + Curl("23:59:59", "h") + "\r\n");
  EXPECT_EQ(log.ListView2.ColumnHeaders,
            (Cells{"Program Path", "PID", "Time", "Local Ip", "Remote Ip", "Local Port",
                   "Remote Port", "Status", "Risk"}));
  ASSERT_EQ(log.ListView2.Count(), 2);
  EXPECT_EQ(row(2)[2] + row(2)[8], "23:59:59high");
}

TEST_F(WriteLog, EveryRefusalIsCountedAndWithTheLogOnWritesOneLineOfTheRowItNames) {
  program(77, "/usr/sbin/dnsd");
  udp(77, 53);
  sim.tcpRows.push_back(platform::sim::MakeTcpRow(5, "0.0.0.0", 80, "10.0.0.2", 1025, 1234));
  curlConnection();  // also names the UDP table's owners
  main.GetUDPConnections(-1, -1);
  Check3 = 0;
  for (const char* rating : {"h", "n", "H"}) refuse(kTrue, 1, rating);  // only "h" is high
  log.LogBuffer = "|pending|1|12:00:00|a|b|1|2|ESTAB|n\r\n";
  log.FlushLogBuffer();  // no Logs folder: the buffer is lost quietly
  EXPECT_FALSE(fs::exists(logs()));
  EXPECT_TRUE(ui.errorBoxes.empty() && ui.messageBoxes.empty());

  // A file a flush started gets no header; a date's characters unfit for a name become dots.
  fs::create_directories(logs());
  sim.date = "a/b\\c:d*e?f\"g<h>i|j";
  log.FlushLogBuffer();
  Check3 = 1;
  refuse(kTrue, 1, "H");
  sim.time = "23:59:58";  // each line holds the clock of its moment
  refuse(kTrue, 0);
  refuse(1, 0);  // only exactly true selects the TCP table
  refuse(kFalse, 0);
  refuse(kTrue, 7);  // rows outside the tables
  refuse(kTrue, -1);
  refuse(kFalse, 1);
  log.FlushLogBuffer();
  const std::string udp = "|/usr/sbin/dnsd|77|23:59:58|0.0.0.0||53|0|LISTEN|n\r\n";
  const std::string empty = "|-|0|23:59:58|||0|0||n\r\n";
  EXPECT_EQ(read("a.b.c.d.e.f.g.h.i.j"),
            "\r\n" + Curl("12:00:01", "H") +
                "|-|1234|23:59:58|0.0.0.0|10.0.0.2|80|1025|ESTAB|n\r\n" + udp + udp + empty +
                empty + empty + "\r\n");
  EXPECT_EQ(shown, "1/1 2/1 3/1 4/1 5/1 6/1 7/1 8/1 9/1 10/1 ");
}

TEST_F(WriteLog, TheSearchReadsTheLastLinesAndListsTheRecordsOfTenFieldsItsFiltersMatch) {
  log.ListView2.Add("/old/row");
  search(300);  // without today's file the list ends empty
  EXPECT_EQ(paths(), Cells{});
  for (const std::string tiny : {"", "#", "#\n"}) {  // all but the first byte
    writeFile(tiny);
    EXPECT_EQ(log.ReadLastLogLines(300), tiny.substr(tiny.empty() ? 0 : 1));
  }
  writeFile(kHeader +
            "|/usr/bin/curl|1|t|10.0.0.9|93.184.216.34|1|2|ESTAB|n\r\n"
            "|/opt/Browser/browser|2|t|192.168.1.20|110.0.0.1|1|2|ESTAB|h\r\n"
            "|/bin/x|1\r\n"                          // cut short
            "|/b|2|t|l|10.0.0.2|80\r\n"              // cut after the remote address
            "|/old|name|3|t|l|10.0.0.3|1|2|S|n\r\n"  // a "|" written before names were quoted
            "|/opt/browser/helper|3|t|192.168.1.20|10.0.0.5|1|2|ESTAB|N\r\n"
            "|/usr/bin/ssh|4|t|192.168.1.20|10.0.0.6|1|2|ESTAB|\r\n");
  const std::string browser = "/opt/Browser/browser", helper = "/opt/browser/helper";
  search(300, "BROWSER");  // case ignored
  EXPECT_EQ(paths(), (Cells{browser, helper}));
  search(300, "", "10.0");  // the remote address only, and 10.0 is inside 110.0.0.1
  EXPECT_EQ(paths(), (Cells{browser, helper, "/usr/bin/ssh"}));
  search(300, "browser", "110.");
  EXPECT_EQ(paths(), Cells{browser});
  search(0);
  EXPECT_EQ(paths(), Cells{});
  search(300);
  EXPECT_EQ(paths(), (Cells{"/usr/bin/curl", browser, helper, "/usr/bin/ssh"}));
  EXPECT_EQ(row(1)[8] + row(3)[8] + row(4)[8], "normalhighhigh");  // all but "n" are high
  EXPECT_EQ(row(2),
            (Cells{browser, "2", "t", "192.168.1.20", "110.0.0.1", "1", "2", "ESTAB", "high"}));

  // 300 lines are the 302nd line feed from the end on: at most 299 records, oldest first, as
  // each search adds an empty line.
  std::string records;
  for (int i = 1; i <= 400; ++i) records += "|/p" + std::to_string(i) + "|1|t|l|r|1|2|S|n\r\n";
  writeFile(kHeader + records);
  search(300);
  ASSERT_EQ(log.ListView2.Count(), 299);
  EXPECT_EQ(row(1)[0] + row(299)[0], "/p102/p400");
  // Fewer lines than asked for: all but the first byte, across the blocks the end is read in.
  EXPECT_EQ(log.ReadLastLogLines(30000), (kHeader + records + "\r\n").substr(1));

  // A second search during the first (a second click on Search, run at the first search's
  // first yield) is turned away: it clears and adds nothing, but flushes.
  std::string during = "not run";
  mailbox.post([&] {
    during = (log.ListView2Visible ? "visible " : "hidden ") + std::to_string(log.LogSearchBusy);
    log.LogBuffer = "|/late|3|t|l|r|1|2|S|n\r\n";
    search(300, "late");
    during += " " + std::to_string(log.ListView2.Count());
  });
  search(300);
  EXPECT_EQ(during, "hidden " + std::to_string(kTrue) + " 0");
  ASSERT_EQ(log.ListView2.Count(), 298);  // the first search's empty line counts among the 300
  EXPECT_EQ(row(1)[0], "/p103");
  EXPECT_TRUE(log.ListView2Visible);
  EXPECT_EQ(log.LogSearchBusy, kFalse);
  EXPECT_EQ(read(), kHeader + records + "\r\n\r\n|/late|3|t|l|r|1|2|S|n\r\n\r\n");
}

TEST_F(WriteLog, AProgramNamedLikeARecordWritesOneLineAndIsFoundUnderItsOwnName) {
  // A file name may hold line breaks, tabs and "|": this one tries to end its own record and
  // forge a second one, and ends in bytes that only the unquoted name holds.
  const std::string hostile = "/tmp/a\r\n|/usr/bin/forged|1|12:00:00|1.2.3.4|5.6.7.8|1|2|x|h\tend";
  program(77, hostile);
  tcp(77, 1026, 443);
  curlConnection();
  refuse(kTrue, 0, "h");
  refuse(kTrue, 1);
  log.FlushLogBuffer();
  const std::string file = read();
  EXPECT_EQ(file.find("\n|/usr/bin/forged"), std::string::npos) << file;
  EXPECT_NE(file.find("\n" + Curl("12:00:01", "n")), std::string::npos) << "curl's exact bytes";
  search(300);
  ASSERT_EQ(paths(), (Cells{hostile, "/usr/bin/curl"}));
  EXPECT_EQ(row(1), (Cells{hostile, "77", "12:00:01", "192.168.1.20", "93.184.216.34", "1026",
                           "443", "ESTAB", "high"}));
  // The path filter matches the name as it was: a tab, and a "|" with what follows it.
  for (const std::string& piece : {std::string("h\tEND"), std::string("\n|/usr/bin/FORGED|")}) {
    search(300, piece);
    EXPECT_EQ(paths(), Cells{hostile});
  }
}

}  // namespace
}  // namespace tessmark
