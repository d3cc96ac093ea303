#include "monitor/engine.h"

#include <system_error>

#include "base/booleans.h"

namespace tessmark {

Engine::Engine(platform::Platform& system, UiPort& ui)
    : procs(system, mailbox),
      pause(system.threads(), procs),
      main(system, procs, mailbox),
      rules(system, pause, mailbox, ui, main.InternetLocked),
      monitor(main, pause, mailbox, ui, system.clock(), rules, system.settings()),
      system_(system) {}

Engine::~Engine() {
  stop();
}

void Engine::start() {
  monitor.Timer1Enabled = true;
  try {
    thread_ = std::thread([this] {
      // Under load a normal-priority poll falls behind by tens of milliseconds.
      system_.threads().raiseCallingThreadPriority();
      monitor.FirewallActive = kTrue;
      monitor.startthefirewall();
    });
    threaded_ = true;
  } catch (const std::system_error&) {
    // No second thread: the timer alone runs the monitor, on the host's thread, at the
    // loop's pace.
    threaded_ = false;
    monitor.Timer1Interval = 10;
    monitor.FirewallActive = kTrue;
  }
}

void Engine::timerTick() {
  if (stopped_) return;
  if (threaded_) {
    post([this] {
      if (monitor.Timer1Enabled) monitor.Timer1_Timer();
    });
  } else {
    if (monitor.Timer1Enabled) monitor.Timer1_Timer();
    mailbox.pumpOnce();
  }
}

void Engine::stop() {
  if (stopped_.exchange(true)) return;
  auto end = [this] {
    monitor.UnloadAllAlerts();
    monitor.FirewallActive = kFalse;
    monitor.StopMonitor = kTrue;
  };
  if (thread_.joinable()) {
    post(end);
    thread_.join();
  } else {
    end();
  }
  system_.threads().releaseAllHolds();
}

}  // namespace tessmark
