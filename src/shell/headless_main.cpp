// The firewall without windows: the engine on the real machine, the two numbers of the main
// window printed as they change, and an orderly end on SIGTERM, SIGINT or SIGHUP with every
// held program resumed.

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>
#include <system_error>

#include "monitor/booleans.h"
#include "monitor/engine.h"
#include "monitor/ui_port.h"
#include "platform/linux/linux_platform.h"
#include "platform/linux/session_signals.h"
#include "platform/linux/user_paths.h"
#include "rules/modSetting.h"

namespace {

using namespace tessmark;
namespace lx = tessmark::platform::linux_backend;

// Prints a line whenever the pair of numbers differs from the last line printed. Called on
// the engine thread only.
class ConsoleUi final : public SilentUi {
 public:
  void setIlabel(const std::string& text) override { incoming_ = text; }
  void setBLabel(const std::string& text) override {
    if (incoming_ == shownIncoming_ && text == shownBlocked_) return;
    shownIncoming_ = incoming_;
    shownBlocked_ = text;
    std::printf("%s  connections: %s  blocked: %s\n", now().c_str(), incoming_.c_str(),
                text.c_str());
    std::fflush(stdout);
  }
  void showErrorBox(const std::string& text) override {
    std::fprintf(stderr, "Tessmark Personal Firewall: %s\n", text.c_str());
  }
  // Nobody can click OK here: the text is printed and the start-up goes on.
  void showMessageBox(const std::string& text, MessageIcon) override {
    std::printf("%s  %s\n", now().c_str(), text.c_str());
    std::fflush(stdout);
  }
  void setToolbarButtonEnabled(int16_t, bool) override {}
  void setStatusText(int16_t, const std::string& text) override {
    std::printf("%s  status: %s\n", now().c_str(), text.c_str());
    std::fflush(stdout);
  }

 private:
  static std::string now() {
    char buffer[16];
    std::time_t t = std::time(nullptr);
    std::tm local{};
    localtime_r(&t, &local);
    std::strftime(buffer, sizeof buffer, "%H:%M:%S", &local);
    return buffer;
  }
  std::string incoming_, shownIncoming_, shownBlocked_;
};

// The rules' part of the start, in its order: the data folder, the check of the settings'
// seal, the service ports, the known programs, then the rule file. The engine thread does not
// run yet, so its state may be touched from here.
void loadRulesAndSettings(Engine& engine) {
  RuleStore& rules = engine.rules;
  std::error_code error;
  std::filesystem::create_directories(rules.folders.AppDataDir, error);
  rules.secureConfig.VerifyConfig();
  rules.closePorts.LoadPorts();
  rules.knownPrograms.LoadKnownPrograms(rules.folders.KnownProgramsPath());
  LoadRuleFile(engine.monitor.ListView1, rules.folders.RuleFilePath(), kFalse);
  std::printf("%d rules, %d known programs, data in %s\n", engine.monitor.ListView1.Count(),
              rules.knownPrograms.KnownProgramCount, rules.folders.AppDataDir.c_str());
}

}  // namespace

int main() {
  lx::BlockSessionSignals();
  lx::LinuxThreads::InstallFatalSignalRelease();
  std::string ledger = lx::DefaultHoldLedgerPath();
  if (!ledger.empty()) lx::LinuxThreads::ContinueLeftoverHolds(ledger);

  lx::LinuxPlatform system(ledger);
  ConsoleUi ui;
  Engine engine(system, ui);
  loadRulesAndSettings(engine);
  engine.start();
  std::printf("Tessmark Personal Firewall is watching (%s). Ctrl-C ends it.\n",
              engine.threaded() ? "engine thread" : "timer");
  std::fflush(stdout);

  int signal = 0;
  while ((signal = lx::WaitForSessionSignal(engine.timerInterval())) == 0) engine.timerTick();

  engine.stop();
  std::printf("Stopped (signal %d); every held program was resumed.\n", signal);
  return 0;
}
