#include "monitor/mailbox.h"

namespace tessmark {

void Mailbox::post(Command command) {
  std::lock_guard<std::mutex> lock(mutex_);
  queue_.push_back(std::move(command));
  waiting_.store(true, std::memory_order_release);
}

int32_t Mailbox::cGetInputState(int32_t) {
  return waiting_.load(std::memory_order_acquire) ? 1 : 0;
}

void Mailbox::pumpOnce() {
  if (!waiting_.load(std::memory_order_acquire)) return;
  std::vector<Command> now;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    now.swap(queue_);
    waiting_.store(false, std::memory_order_release);
  }
  for (auto& command : now) command();
}

}  // namespace tessmark
