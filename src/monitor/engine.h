#pragma once
// The engine: the monitor's modules wired together, and the thread that runs the loop.
// Everything in here belongs to the engine thread; other threads reach it only by posting
// commands into the mailbox.

#include <atomic>
#include <thread>

#include "alerts/frmAlert.h"
#include "base/ui_port.h"
#include "monitor/frmThread.h"
#include "monitor/mailbox.h"
#include "monitor/modmain.h"
#include "platform/platform.h"
#include "process/modPauseProcess.h"
#include "process/modprocs.h"
#include "rules/rule_store.h"

namespace tessmark {

class Engine {
 public:
  Engine(platform::Platform& system, UiPort& ui);
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  // Starts the monitor on a thread of its own. When no thread can be had, the monitor runs
  // from the host's timer instead: the timer's period drops from 500 ms to 10 ms.
  void start();

  // The host's timer: call it every timerInterval() ms from the host's own thread.
  void timerTick();
  uint32_t timerInterval() const { return threaded_ ? 500 : 10; }
  bool threaded() const { return threaded_; }

  // From any thread: the command runs on the engine thread at its next pump.
  void post(Mailbox::Command command) { mailbox.post(std::move(command)); }

  // The orderly end: every held program resumed, the loop ended, the thread joined, and
  // whatever the backend still holds let go.
  void stop();

  Mailbox mailbox;
  modprocs procs;
  modPauseProcess pause;
  modmain main;
  RuleStore rules;
  frmThread monitor;

 private:
  platform::Platform& system_;
  std::thread thread_;
  bool threaded_ = false;
  std::atomic<bool> stopped_{false};
};

}  // namespace tessmark
