#include "alerts/frmAlert.h"

#include "alerts/modInternalName.h"
#include "alerts/notices.h"
#include "base/text_compare.h"
#include "rules/modSetting.h"

namespace tessmark {

void frmAlert::SetAlertPath(const std::string& path) {
  if (path.empty() || EqualIgnoringCase(path, AlertPath)) return;
  AlertPath = path;
  DisplayName = GetInternalName(path);
  if (DisplayName.empty()) DisplayName = FileNameOf(path);
}

void frmAlert::SetAlertId(int16_t id) {
  AlertIdCount = static_cast<int16_t>(AlertIdCount + 1);
  // 32768 held connections of one program wrap the count; no slot can take a negative index.
  if (AlertIdCount < 0) return;
  AlertIds.resize(static_cast<size_t>(AlertIdCount) + 1, 0);
  AlertIds[AlertIdCount] = id;
}

void frmAlert::SetRemoteAddress(uint32_t& address) {
  // The engine asks no name service, which could stall the walks: the dotted form stands.
  view.raddr = GetIpFromLong(address);
}

void frmAlert::resumeHeld(int16_t from) {
  for (int16_t k = from; k <= AlertIdCount && k >= 0; ++k) {
    int16_t id = AlertIds[k];
    // The alert table may have been erased meanwhile; such an id holds nothing any more.
    if (id < 0 || static_cast<size_t>(id) >= main_.AlertPids.size()) continue;
    pause_.ResumeThreads(main_.AlertPids[id]);
  }
}

void frmAlert::UnloadAlertForm() {
  resumeHeld(1);
}

RuleRow* frmAlert::ruleRow() {
  RuleList& list = services_.ListView1;
  if (ListViewId < 1 || ListViewId > list.Count()) return nullptr;
  return &list.Item(ListViewId);
}

void frmAlert::storeChecksum() {
  int32_t noProcess = -1;  // the program stands frozen already
  int32_t crc = services_.rules.checksum.GetCrc32Hash(AlertPath, noProcess);
  if (RuleRow* row = ruleRow()) row->SubItems[1] = std::to_string(crc);
}

void frmAlert::Command1_Click() {
  storeChecksum();
  resumeHeld(1);
  if (chkRemember == 1)
    if (RuleRow* row = ruleRow()) row->SubItems[2] = AccessAllow;
  AlertPath.clear();
  SaveRuleFile(services_.ListView1, services_.rules.folders.RuleFilePath(),
               services_.rules.secureConfig);
  services_.ui.closeAlert(slot_);
}

void frmAlert::command2_Click() {
  storeChecksum();
  for (int16_t k = 1; k <= AlertIdCount && k >= 1; ++k) {
    int16_t id = AlertIds[k];
    if (id < 0 || static_cast<size_t>(id) >= main_.AlertRows.size()) continue;
    int32_t pid = 0, port = 0;
    std::string name;
    main_.breaker.CloseConnection(main_.AlertRows[id], pid, port, name);
  }
  // From index 0: AlertIds(0) is 0, so the program of alert id 0, which is never set, is
  // resumed once more. Resuming what runs changes nothing.
  resumeHeld(0);
  if (chkRemember == 1)
    if (RuleRow* row = ruleRow()) row->SubItems[2] = AccessDeny;
  SaveRuleFile(services_.ListView1, services_.rules.folders.RuleFilePath(),
               services_.rules.secureConfig);
  AlertPath.clear();
  services_.ui.closeAlert(slot_);
}

}  // namespace tessmark
