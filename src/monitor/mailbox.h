#pragma once
// The engine's mailbox. Everything the user does while the engine runs (an alert's answer,
// a rule edit, the toolbar) is posted here as a command and runs on the engine thread when
// it pumps, so the engine's state has one owner and needs no lock. This is the only lock of
// the program.

#include <atomic>
#include <deque>
#include <functional>
#include <mutex>

#include "monitor/message_pump.h"

namespace tessmark {

class Mailbox final : public MessagePump {
 public:
  using Command = std::function<void()>;

  // From any thread.
  void post(Command command);

  // "Something waits": one atomic read, cheap enough for every record of a walk.
  int32_t cGetInputState(int32_t mask) override;

  // Runs the commands that wait now; commands they post wait for the next pump.
  void pumpOnce() override;

 private:
  std::mutex mutex_;
  std::deque<Command> queue_;
  std::atomic<bool> waiting_{false};
};

}  // namespace tessmark
