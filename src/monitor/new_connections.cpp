// The decision pass of NewtcpCon and NewUdpCon: for each row of a snapshot, what happens to
// its program. Nothing, the connection broken, the program frozen and the user asked, or the
// program killed. Programs are judged, not connections: ports have the closed-port list of
// their own, applied to each row after the rule.

#include <algorithm>
#include <cstdint>
#include <optional>

#include "base/booleans.h"
#include "base/text_compare.h"
#include "monitor/frmThread.h"
#include "rules/modSetting.h"
#include "rules/text_numbers.h"

namespace tessmark {

frmThread::Side frmThread::tcpSide() {
  return {true, main_.TcpConnections, TcpLastIndex, TcpBlocked, TcpPrograms};
}

frmThread::Side frmThread::udpSide() {
  return {false, main_.UdpConnections, UdpLastIndex, UdpBlocked, UdpPrograms};
}

void frmThread::NewtcpCon(int16_t displayMode, int16_t showAll) {
  Side side = tcpSide();
  TcpBlocked = 0;
  if (main_.InternetLocked != kFalse) {
    lockedSweep(side);
  } else if (displayMode == kFalse) {
    decisionPass(side);
  } else {
    displayPass(side, showAll);
  }
}

void frmThread::NewUdpCon(int16_t displayMode, int16_t showAll) {
  Side side = udpSide();
  UdpBlocked = 0;
  // The flag read without a sign, above 65534: the same outcome for the values it takes.
  if (static_cast<uint16_t>(main_.InternetLocked) > 65534) {
    lockedSweep(side);
  } else if (displayMode == kFalse) {
    decisionPass(side);
  } else {
    displayPass(side, showAll);
  }
}

void frmThread::writeBlocked(int16_t isTcp, int32_t index, std::string rating) {
  auto row = static_cast<int16_t>(index);
  Log.WriteBlockedConnection(isTcp, row, rating);
}

// Every row broken, no rule consulted, no alert raised, nothing counted. Both protocols log
// through the TCP table, so a UDP index names whatever TCP row has that number.
void frmThread::lockedSweep(Side& side) {
  side.lastIndex = static_cast<int16_t>(LastTableIndex(side.table));
  for (int32_t i = 0; i <= LastTableIndex(side.table); ++i) {
    ConnectionRecord& record = side.table[i];
    int32_t port = 0;
    std::string name;
    if (main_.CloseConnection(record.Row, record.ProcessId, port, name) == kTrue)
      writeBlocked(kTrue, i, "n");
  }
}

void frmThread::decisionPass(Side& side) {
  // The stored index is 16-bit; the walk goes by the table itself, so a table of more than
  // 32768 rows is still walked whole.
  const int32_t last = LastTableIndex(side.table);
  side.lastIndex = static_cast<int16_t>(last);
  side.programs.freeGone(side.table, last);
  // TCP walks from the last row down, UDP from the first up.
  for (int32_t step = 0; step <= last; ++step) {
    const int32_t i = side.tcp ? last - step : step;
    // A display pass during a yield may have replaced the table: a record beyond its end
    // is passed over, and the walk works on a copy, which no yield can pull away.
    if (i > LastTableIndex(side.table)) continue;
    ConnectionRecord record = side.table[i];

    bool seen = side.programs.seen(record.ProcessPath);
    if (!seen) side.programs.enter(record.ProcessPath);
    CooperativeYield(pump_);
    std::string remote =
        side.tcp && !record.RemoteAddress.empty() ? record.RemoteAddress : "[Unknown]";
    // A row whose owner cannot be named is never judged by rules; its port is checked.
    if (!record.ProcessPath.empty() && judge(side, i, record, seen, remote) == Outcome::NextRecord)
      continue;
    closedPortCheck(side, i, record);
  }
}

frmThread::Outcome frmThread::judge(Side& side, int32_t i, ConnectionRecord& record, bool seen,
                                    const std::string& remote) {
  int16_t ruleIndex = ListView1.FindPath(record.ProcessPath);
  if (ruleIndex > 0) return judgeWithRule(side, i, record, seen, ruleIndex, remote);
  return judgeWithoutRule(side, i, record, remote);
}

frmThread::Outcome frmThread::judgeWithRule(Side& side, int32_t i, ConnectionRecord& record,
                                            bool seen, int16_t ruleIndex,
                                            const std::string& remote) {
  // 1. At first sight in this run the file is checked, once per program and not per row.
  if (!seen) {
    int32_t pid = record.ProcessId;
    int32_t crc = rules_.checksum.GetCrc32Hash(record.ProcessPath, pid);
    if (rules_.knownPrograms.knownProgram(crc) == 3) {
      pause_.Process_Kill(record.ProcessId);
      if (ruleRowAt(ruleIndex) != nullptr) ListView1.Item(ruleIndex).SubItems[2] = AccessDeny;
      killDestructive(record, crc);
      return Outcome::NextRecord;
    }
    // Only numeric equality counts. A cell that is no number, an empty one for instance,
    // fails its conversion, and the failed condition acts as one that held: equal.
    const RuleRow* row = ruleRowAt(ruleIndex);
    std::optional<double> stored = row ? DoubleFromText(row->SubItems[1]) : std::nullopt;
    if (stored && *stored != static_cast<double>(crc)) {
      // A changed file is asked about whatever the rule says; the rule waits for the answer.
      holdWithAlert(AlertKind::Changed, side, record, ruleIndex, remote, crc);
      return Outcome::ClosedPortCheck;
    }
  }
  // 2. The access word decides.
  const RuleRow* row = ruleRowAt(ruleIndex);
  if (row == nullptr) return Outcome::ClosedPortCheck;
  const std::string access = row->SubItems[2];
  if (EqualIgnoringCase(access, AccessDeny)) {
    // UDP counts the endpoint first and unconditionally, and logs it as UDP.
    deny(side, i, record, !side.tcp, side.tcp ? kTrue : kFalse);
  } else if (EqualIgnoringCase(access, AccessAsk)) {
    holdWithAlert(AlertKind::Repeat, side, record, ruleIndex, remote, 0);
  }
  // "allow", and any other word, leave the connection alone.
  return Outcome::ClosedPortCheck;
}

frmThread::Outcome frmThread::judgeWithoutRule(Side& side, int32_t i, ConnectionRecord& record,
                                               const std::string& remote) {
  int32_t pid = record.ProcessId;
  int32_t crc = rules_.checksum.GetCrc32Hash(record.ProcessPath, pid);
  switch (rules_.knownPrograms.knownProgram(crc)) {
    case 1:  // known and allowed
      addRuleRow(record.ProcessPath, crc, AccessAllow);
      saveRules();
      InfoNotice.RulesCreated(record.ProcessPath);
      return Outcome::ClosedPortCheck;
    case 2:  // known and refused
      deny(side, i, record, false, side.tcp ? kTrue : kFalse);
      addRuleRow(record.ProcessPath, crc, AccessDeny);
      saveRules();
      InfoNotice.RulesCreated(record.ProcessPath);
      return Outcome::NextRecord;
    case 3:  // destructive
      pause_.Process_Kill(record.ProcessId);
      addRuleRow(record.ProcessPath, crc, AccessDeny);
      killDestructive(record, crc);
      return Outcome::NextRecord;
    default:  // unknown: ask
      holdWithAlert(AlertKind::New, side, record, 0, remote, crc);
      return Outcome::ClosedPortCheck;
  }
}

void frmThread::deny(Side& side, int32_t i, ConnectionRecord& record, bool countFirst,
                     int16_t logAsTcp) {
  if (countFirst) ++side.blocked;
  int32_t port = 0;
  std::string name;
  if (main_.CloseConnection(record.Row, record.ProcessId, port, name) == kTrue) {
    if (!countFirst) ++side.blocked;
    writeBlocked(logAsTcp, i, "n");
  }
}

// The program was killed already; the notice tells the user, and the rule file is saved.
void frmThread::killDestructive(ConnectionRecord& record, int32_t crc) {
  std::string description = rules_.knownPrograms.GetDescriptionOfVirus(crc);
  int32_t pid = record.ProcessId;
  VirusNotice.frmVirusShow(record.ProcessPath, crc, description, pid);
  VirusNotice.Show();
  saveRules();
}

// Both protocols log a closed-port break through the TCP table.
void frmThread::closedPortCheck(Side& side, int32_t i, ConnectionRecord& record) {
  int32_t port = record.LocalPort;
  if (rules_.closePorts.IsClosedPort(port) != kTrue) return;
  if (main_.CloseConnection(record.Row, record.ProcessId, port, record.ProcessPath) == kTrue) {
    ++side.blocked;
    writeBlocked(kTrue, i, modClosePorts::PortRating(port));
  }
}

// The program stands frozen, its connection neither broken nor touched, until the user
// answers. One alert per program: a further connection joins it and freezes the program once
// more, so that each held connection is matched by one resume on the answer.
void frmThread::holdWithAlert(AlertKind kind, Side& side, ConnectionRecord& record,
                              int16_t ruleIndex, const std::string& remote, int32_t crc) {
  // A full alert table takes no more: the row is left alone rather than its program frozen
  // with no id to resume it by.
  if (main_.AlertCount >= INT16_MAX || main_.AlertCount < 0) return;
  int16_t open = 0;
  for (int32_t s = 1; s <= main_.AlertCount; ++s) {
    if (EqualIgnoringCase(AlertForm(s).GetAlertPath(), record.ProcessPath)) {
      open = static_cast<int16_t>(s);
      break;
    }
  }
  auto grow = [this] {
    main_.AlertCount = static_cast<int16_t>(main_.AlertCount + 1);
    size_t size = static_cast<size_t>(main_.AlertCount) + 1;
    main_.AlertRows.resize(size);
    main_.AlertPids.resize(size);
    AlertForms.resize(std::max(AlertForms.size(), size));
  };

  if (open == 0) {
    pause_.SuspendThreads(record.ProcessId);
    if (kind == AlertKind::New) ruleIndex = addRuleRow(record.ProcessPath, crc, AccessAsk);
    grow();
    const int16_t slot = main_.AlertCount;
    // A new question gets a new dialog: the ids of an answered one in this slot are gone.
    AlertForms[slot].reset();
    frmAlert& form = AlertForm(slot);
    form.SetAlertPath(record.ProcessPath);
    main_.AlertRows[slot] = record.Row;
    main_.AlertPids[slot] = record.ProcessId;
    form.SetAlertId(slot);
    form.SetListViewId(ruleIndex);

    AlertView& view = form.view;
    view.kind = kind;
    view.path = record.ProcessPath;
    view.Label1 = kind == AlertKind::Changed  ? "Changed program"
                  : kind == AlertKind::Repeat ? "Repeat program"
                                              : "New program";
    view.lblProgram = form.DisplayName;
    view.lblDESC = record.ProcessPath + " is trying to connect to " + remote + " using port " +
                   std::to_string(record.LocalPort) +
                   " . Do you want to allow this program to access the network?";
    view.raddr = remote;
    view.rport = std::to_string(side.tcp ? record.RemotePort : 0);
    view.Label2 = record.LocalAddress;
    view.localport = std::to_string(record.LocalPort);
    ui_.showAlert(slot, view);
    return;
  }

  grow();
  const int16_t id = main_.AlertCount;
  AlertForms[id].reset();  // the id's own element stays empty
  pause_.SuspendThreads(record.ProcessId);
  main_.AlertRows[id] = record.Row;
  main_.AlertPids[id] = record.ProcessId;
  AlertForm(open).SetAlertPath(record.ProcessPath);
  AlertForm(open).SetAlertId(id);
}

int16_t frmThread::addRuleRow(const std::string& path, int32_t crc, const std::string& access) {
  auto index = static_cast<int16_t>(ListView1.Count() + 1);
  if (!ListView1.Add("", path)) return index;
  RuleRow& row = ListView1.Item(ListView1.Count());
  row.SubItems[1] = std::to_string(crc);
  row.SubItems[2] = access;
  row.SubItems[3] = std::to_string(index);
  return index;
}

const RuleRow* frmThread::ruleRowAt(int16_t index) const {
  // A rule index can go stale when a handler removes rows during a yield. Read through the
  // const list, so the look-up index of the rules stays as it is.
  const RuleList& rules = ListView1;
  if (index < 1 || index > rules.Count()) return nullptr;
  return &rules.Item(index);
}

void frmThread::saveRules() {
  SaveRuleFile(ListView1, rules_.folders.RuleFilePath(), rules_.secureConfig);
}

}  // namespace tessmark
