#include "traffic/modbandwidth.h"

#include "traffic/rounding.h"

namespace tessmark {

namespace {

// A rate from a change of a counter over `elapsed` ms: bytes a millisecond times 1000/1024
// are units of 1024 bytes a second. No rate when the division fails (elapsed 0) or the
// result does not fit.
std::optional<int32_t> rate(int32_t delta, int32_t elapsed) {
  if (elapsed == 0) return std::nullopt;
  return RoundHalfEven<int32_t>(static_cast<double>(delta) /
                                (static_cast<double>(elapsed) * (128.0 / 125.0)));
}

int32_t wrappedDifference(int32_t current, int32_t last) {
  return static_cast<int32_t>(static_cast<uint32_t>(current) - static_cast<uint32_t>(last));
}

}  // namespace

void modbandwidth::CalculateBandwidth(int32_t& totalReceived, int32_t& totalSent,
                                      int32_t& rateReceived, int32_t& rateSent) {
  // 1. Ticks wrap at 2^32; their difference is right across the wrap.
  const auto elapsed = static_cast<int32_t>(clock_.tickCount() - LastTick);
  // 2.-3. A fresh helper; getting its interfaces is the read that fills the sums.
  helper_ = std::make_unique<CIpHelper>(adapters_, ui_);
  (void)helper_->Interfaces()->item(1);
  // 4.-5. A sum of exactly 0 is no reading (the table failed or is empty): the previous
  //    total stays, and the rate comes out 0 rather than a fall to nothing.
  if (int32_t received = helper_->BytesReceived(); received != 0) CurBytesReceived = received;
  if (int32_t sent = helper_->BytesSent(); sent != 0) CurBytesSent = sent;
  // 6. The sums wrap past 2^31 and so do their differences, which keeps the rates right.
  const int32_t deltaSent = wrappedDifference(CurBytesSent, LastBytesSent);
  const int32_t deltaReceived = wrappedDifference(CurBytesReceived, LastBytesReceived);
  // 7.-8. A rate that cannot be worked out leaves the caller's value.
  if (auto value = rate(deltaReceived, elapsed)) rateReceived = *value;
  if (auto value = rate(deltaSent, elapsed)) rateSent = *value;
  // 9.-10.
  LastBytesReceived = CurBytesReceived;
  LastBytesSent = CurBytesSent;
  totalReceived = CurBytesReceived;
  totalSent = CurBytesSent;
  // 11. The time the read took lies outside the next elapsed time.
  LastTick = clock_.tickCount();
}

TrafficLabels Traffic_Timer(modbandwidth& bandwidth, TrendView& TrendView1) {
  int32_t totalReceived = 0;
  int32_t totalSent = 0;
  int32_t rateReceived = 0;
  int32_t rateSent = 0;
  bandwidth.CalculateBandwidth(totalReceived, totalSent, rateReceived, rateSent);
  TrafficLabels labels{std::to_string(rateReceived) + " Kb/sec",
                       std::to_string(rateSent) + " Kb/sec"};
  // The limit is the chart's MaxValue as a whole number; one that does not fit leaves the
  // rate as it is.
  const float limit = TrendView1.MaxValue();
  if (static_cast<double>(limit) < rateReceived) {
    if (auto value = RoundHalfEven<int32_t>(limit)) rateReceived = *value;
  }
  if (static_cast<double>(limit) < rateSent) {
    if (auto value = RoundHalfEven<int32_t>(limit)) rateSent = *value;
  }
  float first = static_cast<float>(rateReceived);
  float second = static_cast<float>(rateSent);
  TrendView1.setValue(first, second);
  return labels;
}

}  // namespace tessmark
