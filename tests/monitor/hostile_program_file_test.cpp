// Whatever stands at a program's path (a FIFO without a writer, whose open waits for good; a
// link to /dev/zero, whose read never ends; a 1 TiB sparse file) the engine thread asks about
// it, goes on to the next program, resumes the programs held on the answer, and polls on.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>

#include "monitor/engine.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

using namespace std::string_literals;

// A name at the very end of the sparse file: shown only if the engine read the file's tail.
const std::string kTail = "StringFileInfo InternalName\x01\x02\x03\x04\x05Huge Tool\x00\x00\x00"s;
constexpr off_t kTerabyte = off_t{1} << 40;
// Its CRC-32, D7843142, worked out outside this system with GF(2) matrix powers over the zeros.
constexpr const char* kSparseCrc = "-679202494";

class HostileProgramFile : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(engine.rules.folders.AppDataDir);
    if (GetParam() == "FifoWithoutWriter") {
      ASSERT_EQ(::mkfifo(path.c_str(), 0700), 0) << std::strerror(errno);
    } else if (GetParam() == "LinkToDevZero") {
      std::filesystem::create_symlink("/dev/zero", path);
    } else {
      std::ofstream(path, std::ios::binary) << "\177ELF sparse program";
      if (::truncate(path.c_str(), kTerabyte - off_t(kTail.size())) != 0)
        GTEST_SKIP() << "this file system takes no 1 TiB file: " << std::strerror(errno);
      std::ofstream(path, std::ios::binary | std::ios::app) << kTail;
      ASSERT_EQ(std::filesystem::file_size(path), uint64_t(kTerabyte));
    }
    // Both connections stand before the engine starts: its first walk judges the hostile
    // program, in the last row, first.
    sim.addProcess(42, path, 2);
    sim.addProcess(43, sim.writeProgramFile("chat", "chat program"));
    sim.tcpRows.push_back(platform::sim::MakeTcpRow(5, "192.168.1.20", 3001, "10.0.0.7", 80, 43));
    sim.tcpRows.push_back(platform::sim::MakeTcpRow(5, "192.168.1.20", 3000, "10.0.0.8", 443, 42));
  }

  // Runs `question` on the engine thread, the owner of its state, between two polls. An engine
  // silent for 10 s is stuck in a call that does not return, and stopping it would join that
  // thread for ever: the process ends at once, with its reason and no 1 TiB file left behind.
  template <class Question>
  auto ask(Question question) {
    auto answer = std::make_shared<std::promise<decltype(question())>>();
    auto future = answer->get_future();
    engine.post([answer, question] { answer->set_value(question()); });
    if (future.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
      std::fprintf(stderr, "FATAL: the engine is stuck judging the program at %s\n", path.c_str());
      std::filesystem::remove_all(sim.root);
      std::quick_exit(EXIT_FAILURE);
    }
    return future.get();
  }
  // True once `done` holds on the engine; false after a second of its time, a hundred polls.
  bool await(const std::function<bool()>& done) {
    const uint32_t start = ask([this] { return sim.now; });
    for (;;) {
      auto [held, now] = ask([&] { return std::pair(done(), sim.now); });
      if (held || now - start > 1000) return held;
    }
  }
  // The hostile program, judged first, has alert 1 and the first rule: its checksum and word.
  std::string rule() {
    const RuleRow& row = engine.monitor.ListView1.Item(1);
    return row.SubItems[1] + " " + row.SubItems[2];
  }

  platform::sim::SimSystem sim;
  testing::RecordingUi ui;
  Engine engine{sim, ui};
  std::string path = sim.root + "/hostile";
};

TEST_P(HostileProgramFile, IsJudgedAndTheEngineKeepsPolling) {
  const bool readable = GetParam() == "SparseTerabyte";
  const std::string crc = readable ? kSparseCrc : "0";  // a failed read checksums as 0
  engine.start();
  ASSERT_TRUE(engine.threaded());

  // The first walk freezes each program, checksums and names its file, and asks.
  ASSERT_TRUE(await([&] { return ui.alertsShown.size() == 2; })) << "a program was not asked";
  auto [name, frozen, asked] = ask([&] {
    return std::tuple(engine.monitor.AlertForm(1).view.lblProgram,
                      sim.isFrozen(42) && sim.isFrozen(43), rule());
  });
  EXPECT_EQ(name, readable ? "Huge Tool" : "hostile");
  EXPECT_TRUE(frozen);
  EXPECT_EQ(asked, crc + " ask");

  // Both answered "Yes": the hostile file is checksummed again, and every hold is let go.
  auto [held, allowed] = ask([&] {
    engine.monitor.AlertForm(1).chkRemember = 1;
    engine.monitor.AlertForm(1).Command1_Click();
    engine.monitor.AlertForm(2).Command1_Click();
    return std::pair(sim.isFrozen(42) || sim.isFrozen(43), rule());
  });
  EXPECT_FALSE(held) << "a held program was not resumed";
  EXPECT_EQ(allowed, crc + " allow");

  // And the engine polls on: fifty more looks at the table.
  const int probes = ask([&] { return sim.calls.tcpProbes; });
  EXPECT_TRUE(await([&] { return sim.calls.tcpProbes >= probes + 50; }))
      << "the engine stopped polling after the answers";
}

INSTANTIATE_TEST_SUITE_P(HostileProgramFile, HostileProgramFile,
                         ::testing::Values("FifoWithoutWriter", "LinkToDevZero", "SparseTerabyte"),
                         [](const auto& info) { return info.param; });

}  // namespace
}  // namespace tessmark
