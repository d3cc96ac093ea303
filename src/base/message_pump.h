#pragma once
// The engine's message pump as the long walks see it.

#include <cstdint>

namespace tessmark {

class MessagePump {
 public:
  virtual ~MessagePump() = default;
  // Non-zero when something waits to be handled; takes nothing off the queue.
  virtual int32_t cGetInputState(int32_t mask) = 0;
  // Runs what waits right now, once.
  virtual void pumpOnce() = 0;
};

// The event mask that asks for every kind of input.
inline constexpr int32_t QS_ALLEVENTS = 191;

// The yield that every long loop contains: pump only when something waits, so the screen
// lives on during a walk and no time goes on pumping when nothing does.
inline void CooperativeYield(MessagePump& pump) {
  if (pump.cGetInputState(QS_ALLEVENTS) != 0) pump.pumpOnce();
}

}  // namespace tessmark
