#include "alerts/frmAlert.h"

#include <algorithm>
#include <cctype>

namespace tessmark {

namespace {

bool equalIgnoringCase(const std::string& a, const std::string& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](unsigned char x, unsigned char y) {
    return std::tolower(x) == std::tolower(y);
  });
}

}  // namespace

void frmAlert::SetAlertPath(const std::string& path) {
  if (path.empty() || equalIgnoringCase(path, AlertPath)) return;
  AlertPath = path;
}

void frmAlert::SetAlertId(int16_t id) {
  AlertIdCount = static_cast<int16_t>(AlertIdCount + 1);
  // 32768 held connections of one program wrap the count; no slot can take a negative index.
  if (AlertIdCount < 0) return;
  AlertIds.resize(static_cast<size_t>(AlertIdCount) + 1, 0);
  AlertIds[AlertIdCount] = id;
}

void frmAlert::UnloadAlertForm() {
  for (int16_t k = 1; k <= AlertIdCount; ++k) {
    int16_t id = AlertIds[k];
    // The alert table may have been erased meanwhile; such an id holds nothing any more.
    if (id < 0 || static_cast<size_t>(id) >= main_.AlertPids.size()) continue;
    pause_.ResumeThreads(main_.AlertPids[id]);
  }
}

}  // namespace tessmark
