#pragma once
// modprocs: from process id to program path. ProcessPaths is rebuilt whole by
// LoadProcessTable and read by ProcessPathFromId, once per connection row.

#include <cstdint>
#include <string>
#include <unordered_map>

#include "base/message_pump.h"
#include "platform/platform.h"

namespace tessmark {

class modprocs {
 public:
  // The one constant that picks the road of LoadProcessTable: 1 is the process snapshot
  // road, 2 the process list road. No system version takes part in the choice.
  static constexpr int16_t kProcessRoad = 2;

  modprocs(platform::Platform& system, MessagePump& pump) : system_(system), pump_(pump) {}

  // Rebuilds ProcessPaths. exceptPid is read only on road 1, where that process is killed
  // and left out. False only for an unknown road.
  bool LoadProcessTable(int32_t exceptPid);

  // The path of pid, or "" when unknown. An unknown id is entered with an empty path until
  // the next rebuild, as a dictionary read does.
  std::string ProcessPathFromId(int32_t pid);

  int32_t MyProcess();

  const std::unordered_map<int32_t, std::string>& ProcessPaths() const { return ProcessPaths_; }

 private:
  bool loadByProcessSnapshot(int32_t exceptPid);
  bool loadByProcessList();

  platform::Platform& system_;
  MessagePump& pump_;
  std::unordered_map<int32_t, std::string> ProcessPaths_;
};

// The text without its last character, whatever that character is.
std::string StrZToStr(const std::string& text);

}  // namespace tessmark
