#pragma once
// A monitor wired on the simulated system, driven by the test on its own thread.

#include <string>
#include <vector>

#include "monitor/frmThread.h"
#include "monitor/mailbox.h"
#include "monitor/modmain.h"
#include "monitor/ui_port.h"
#include "platform/sim/sim_system.h"
#include "process/modPauseProcess.h"
#include "process/modprocs.h"

namespace tessmark::testing {

// Keeps every label text and error box in the order the engine sent them.
class RecordingUi final : public UiPort {
 public:
  void setIlabel(const std::string& text) override { ilabel.push_back(text); }
  void setBLabel(const std::string& text) override { blabel.push_back(text); }
  void showErrorBox(const std::string& text) override { errorBoxes.push_back(text); }
  std::vector<std::string> ilabel;
  std::vector<std::string> blabel;
  std::vector<std::string> errorBoxes;
};

struct SimMonitor {
  platform::sim::SimSystem sim;
  RecordingUi ui;
  Mailbox mailbox;
  modprocs procs{sim, mailbox};
  modPauseProcess pause{sim, procs};
  modmain main{sim, procs, mailbox};
  frmThread monitor{main, pause, mailbox, ui, sim};

  // A program with one thread, ids pid*10+1 upward.
  void program(int32_t pid, const std::string& path, int threads = 1) {
    sim.addProcess(pid, path, threads);
  }
  void tcp(int32_t pid, uint16_t localPort, uint16_t remotePort = 80, uint32_t state = 5,
           const std::string& remote = "93.184.216.34") {
    sim.tcpRows.push_back(platform::sim::MakeTcpRow(state, "192.168.1.20", localPort, remote,
                                                    remotePort, static_cast<uint32_t>(pid)));
  }
  void udp(int32_t pid, uint16_t localPort, const std::string& local = "0.0.0.0") {
    sim.udpRows.push_back(platform::sim::MakeUdpRow(local, localPort, static_cast<uint32_t>(pid)));
  }
};

}  // namespace tessmark::testing
