#pragma once
// modbandwidth: the receive and send rates of the whole machine, in units of 1024 bytes a
// second, from two readings of the interface counters some seconds apart. No smoothing: a
// rate is the plain average since the last call.

#include <cstdint>
#include <memory>
#include <string>

#include "base/ui_port.h"
#include "platform/platform.h"
#include "traffic/CIpHelper.h"
#include "traffic/TrendView.h"

namespace tessmark {

class modbandwidth {
 public:
  modbandwidth(platform::Adapters& adapters, platform::Clock& clock, UiPort& ui)
      : adapters_(adapters), clock_(clock), ui_(ui) {}

  // Reads the counters and writes the totals and the rates since the last call. The
  // start-up calls it once and discards the results, which primes the counters and the
  // tick, so the first timer tick shows the traffic since start-up, not since boot. An
  // elapsed time of 0 leaves both rates as they were passed in.
  void CalculateBandwidth(int32_t& totalReceived, int32_t& totalSent, int32_t& rateReceived,
                          int32_t& rateSent);

  int32_t CurBytesReceived = 0;
  int32_t LastBytesReceived = 0;
  int32_t CurBytesSent = 0;
  int32_t LastBytesSent = 0;
  uint32_t LastTick = 0;

 private:
  platform::Adapters& adapters_;
  platform::Clock& clock_;
  UiPort& ui_;
  std::unique_ptr<CIpHelper> helper_;
};

// The main window's Traffic timer, every 3000 ms: the rates since the last tick into the
// labels lnetIn and lNetOut, as "<rate> Kb/sec", and into the chart, received first. The
// labels show the rates as they are; the chart gets them limited from above to its MaxValue
// only, so a negative rate (after an interface went away) reaches it and is refused there.
struct TrafficLabels {
  std::string lnetIn;
  std::string lNetOut;
};
TrafficLabels Traffic_Timer(modbandwidth& bandwidth, TrendView& TrendView1);

}  // namespace tessmark
