// The firewall without windows: the engine on the real machine, what a user would see
// printed, the access alerts answered from a script, and an orderly end on SIGTERM, SIGINT or
// SIGHUP with every held program resumed.
//
//   tessmark-firewall [--answers FILE]
//
// Without a script every question is answered "yes" after two seconds, not remembered.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "base/booleans.h"
#include "monitor/engine.h"
#include "platform/linux/linux_platform.h"
#include "platform/linux/session_signals.h"
#include "platform/linux/user_paths.h"
#include "rules/line_reader.h"
#include "rules/modSetting.h"
#include "shell/scripted_ui.h"

namespace {

using namespace tessmark;
namespace lx = tessmark::platform::linux_backend;

// The rules' part of the start, in its order: the data folder, the check of the settings'
// seal, the service ports, the known programs, the option boxes, then the rule file. The
// engine thread does not run yet, so its state may be touched from here.
void loadRulesAndSettings(Engine& engine, platform::SettingsStore& store) {
  RuleStore& rules = engine.rules;
  std::error_code error;
  std::filesystem::create_directories(rules.folders.AppDataDir, error);
  rules.secureConfig.VerifyConfig();
  rules.closePorts.LoadPorts();
  rules.knownPrograms.LoadKnownPrograms(rules.folders.KnownProgramsPath());
  frmThread& monitor = engine.monitor;
  monitor.Check1 = GetSetting(store, "Options", "CheckAuto", "true") == "true" ? 1 : 0;
  monitor.Check2 = GetSetting(store, "Options", "AlertDialogs", "show") == "show" ? 1 : 0;
  monitor.Check3 = GetSetting(store, "Options", "LogFile", "true") == "true" ? 1 : 0;
  LoadRuleFileAtStart(monitor.ListView1, rules.folders.RuleFilePath(), rules.secureConfig);
  std::printf("%d rules, %d known programs, data in %s\n", monitor.ListView1.Count(),
              rules.knownPrograms.KnownProgramCount, rules.folders.AppDataDir.c_str());
}

bool readScript(int argc, char** argv, std::vector<AnswerRule>& script) {
  script = {AnswerRule{"*", AnswerRule::Answer::Yes, false, 2000}};
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--answers") != 0 || i + 1 >= argc) {
      std::fprintf(stderr, "usage: tessmark-firewall [--answers FILE]\n");
      return false;
    }
    std::string text;
    if (!ReadWholeFile(argv[++i], text)) {
      std::fprintf(stderr, "tessmark-firewall: cannot read %s\n", argv[i]);
      return false;
    }
    int badLine = 0;
    auto parsed = ParseAnswerScript(text, badLine);
    if (!parsed) {
      std::fprintf(stderr,
                   "tessmark-firewall: %s: line %d is not PATTERN yes|no|none "
                   "[remember] [after MS]\n",
                   argv[i], badLine);
      return false;
    }
    script = *parsed;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<AnswerRule> script;
  if (!readScript(argc, argv, script)) return 2;

  lx::BlockSessionSignals();
  lx::LinuxThreads::InstallFatalSignalRelease();
  std::string ledger = lx::DefaultHoldLedgerPath();
  if (!ledger.empty()) lx::LinuxThreads::ContinueLeftoverHolds(ledger);

  lx::LinuxPlatform system(ledger);
  ScriptedUi ui(std::move(script), stdout);
  Engine engine(system, ui);
  loadRulesAndSettings(engine, system.settings());
  engine.start();
  std::printf("Tessmark Personal Firewall is watching (%s). Ctrl-C ends it.\n",
              engine.threaded() ? "engine thread" : "timer");
  std::fflush(stdout);

  // The host's timer and the script's answers share this loop; it wakes often enough for
  // an answer to be posted within 50 ms of its time.
  platform::Clock& clock = system.clock();
  uint32_t lastTick = clock.tickCount();
  int signal = 0;
  while ((signal = lx::WaitForSessionSignal(std::min<uint32_t>(engine.timerInterval(), 50))) == 0) {
    uint32_t now = clock.tickCount();
    if (now - lastTick >= engine.timerInterval()) {
      lastTick = now;
      engine.timerTick();
    }
    ui.postDueAnswers(engine, now);
  }

  engine.stop();
  // The engine thread has ended: its log buffer may be written from here.
  engine.monitor.Log.FlushLogBuffer();
  std::printf("Stopped (signal %d); every held program was resumed.\n", signal);
  return 0;
}
