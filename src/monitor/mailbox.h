#pragma once
// The engine's mailbox. Everything the user does while the engine runs (an alert's answer,
// a rule edit, the toolbar) is posted here as a command and runs on the engine thread when
// it pumps, so the engine's state has one owner and needs no lock. This is the only lock of
// the program.

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

#include "base/message_pump.h"

namespace tessmark {

class Mailbox final : public MessagePump {
 public:
  using Command = std::function<void()>;

  // From any thread.
  void post(Command command);

  // "Something waits": one atomic read, cheap enough for every record of a walk.
  int32_t cGetInputState(int32_t mask) override;

  // Runs the commands that wait now; commands they post wait for the next pump. With nothing
  // waiting it costs one atomic read, so the loop's pump after every quiet poll is free.
  void pumpOnce() override;

 private:
  std::mutex mutex_;
  std::vector<Command> queue_;
  std::atomic<bool> waiting_{false};
};

}  // namespace tessmark
