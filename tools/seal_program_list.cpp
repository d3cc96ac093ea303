// Seals a list of known programs into the ProgramCheck.dat that ships beside the firewall:
// the entries as CR LF lines, the closing "END" line, and the CRC-32 trailer that the
// firewall checks before it reads a single line.
//
//   seal-program-list OUTPUT INPUT
//
// INPUT holds one entry a line, "checksum|action|description"; "@FILE" in place of the
// checksum stands for the checksum of that file. Lines starting with "#" and empty lines are
// left out. A line the firewall could not read is refused, and nothing is written.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/booleans.h"
#include "base/ui_port.h"
#include "monitor/mailbox.h"
#include "platform/linux/linux_platform.h"
#include "process/modPauseProcess.h"
#include "process/modprocs.h"
#include "rules/line_reader.h"
#include "rules/modChecksum.h"
#include "rules/text_numbers.h"

namespace {

using namespace tessmark;

class StderrUi final : public SilentUi {
 public:
  void showErrorBox(const std::string& text) override {
    std::fprintf(stderr, "seal-program-list: %s\n", text.c_str());
    failed = true;
  }
  void showMessageBox(const std::string& text, MessageIcon) override { showErrorBox(text); }
  bool failed = false;
};

int refuse(size_t lineNumber, const std::string& why) {
  std::fprintf(stderr, "seal-program-list: line %zu: %s\n", lineNumber, why.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: seal-program-list OUTPUT INPUT\n");
    return 2;
  }
  const std::string output = argv[1];
  std::string input;
  if (!ReadWholeFile(argv[2], input)) {
    std::fprintf(stderr, "seal-program-list: cannot read %s\n", argv[2]);
    return 1;
  }

  platform::linux_backend::LinuxPlatform system;
  Mailbox mailbox;
  StderrUi ui;
  modprocs procs(system, mailbox);
  modPauseProcess pause(system.threads(), procs);
  modChecksum checksum(pause, mailbox, ui);

  std::string body;
  size_t lineNumber = 0;
  for (std::string line : SplitAt(input, '\n')) {
    ++lineNumber;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line.front() == '#') continue;
    if (line == "END") break;
    std::vector<std::string> fields = SplitAt(line, '|');
    if (fields.size() != 3) return refuse(lineNumber, "needs checksum|action|description");
    if (!fields[0].empty() && fields[0].front() == '@') {
      std::string file = fields[0].substr(1);
      if (!std::filesystem::is_regular_file(file)) return refuse(lineNumber, "no file " + file);
      fields[0] = std::to_string(checksum.CRC32File(file, kFalse, kFalse));
    }
    if (!LongFromText(fields[0])) return refuse(lineNumber, "the checksum is no 32-bit number");
    auto action = IntegerFromText(fields[1]);
    if (!action || *action < 1 || *action > 3)
      return refuse(lineNumber, "the action is not 1, 2 or 3");
    body += fields[0] + "|" + fields[1] + "|" + fields[2] + "\r\n";
  }
  body += "END\r\n";

  std::filesystem::remove(output);
  std::ofstream(output, std::ios::binary | std::ios::trunc) << body;
  checksum.CRC32File(output, kFalse, kTrue);  // appends the trailer
  if (ui.failed || checksum.CRC32File(output, kTrue, kFalse) != kTrue) {
    std::fprintf(stderr, "seal-program-list: %s does not check after sealing\n", output.c_str());
    return 1;
  }
  return 0;
}
