// Whatever stands at a program's path, the engine judges the program and polls on: a FIFO
// without a writer (a blocking open waits for good), a link to /dev/zero (a read never ends)
// and a 1 TiB sparse file (reading its zeros takes minutes) each get their alert while the
// engine thread runs, and the programs held meanwhile are resumed on the answer.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <system_error>
#include <tuple>
#include <utility>
#include <vector>

#include "monitor/engine.h"
#include "rules/crc32.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

using namespace std::string_literals;

enum class Kind { Fifo, LinkToDevZero, SparseTerabyte };

// A name resource at the very end of the sparse file: the alert shows it only if the engine
// read the file's tail, which it can reach without reading the terabyte before it.
const std::string kHead = "\177ELF sparse program";
const std::string kTail = "StringFileInfo InternalName\x01\x02\x03\x04\x05Huge Tool\x00\x00\x00"s;
constexpr off_t kTerabyte = off_t{1} << 40;

class HostileProgramFile : public ::testing::TestWithParam<Kind> {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(engine.rules.folders.AppDataDir);
    path = sim.root + "/hostile";
    if (GetParam() == Kind::Fifo) {
      ASSERT_EQ(::mkfifo(path.c_str(), 0700), 0) << std::strerror(errno);
    } else if (GetParam() == Kind::LinkToDevZero) {
      std::filesystem::create_symlink("/dev/zero", path);
    } else {
      int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0700);
      ASSERT_GE(fd, 0) << std::strerror(errno);
      if (::ftruncate(fd, kTerabyte) != 0) {
        int error = errno;
        ::close(fd);
        GTEST_SKIP() << "this file system takes no 1 TiB file: " << std::strerror(error);
      }
      auto put = [fd](const std::string& bytes, off_t at) {
        return ::pwrite(fd, bytes.data(), bytes.size(), at) == ssize_t(bytes.size());
      };
      bool written = put(kHead, 0) && put(kTail, kTerabyte - off_t(kTail.size()));
      ::close(fd);
      ASSERT_TRUE(written) << std::strerror(errno);
    }
    // The hostile program's connection stands before the engine starts: its first poll judges.
    sim.addProcess(42, path, 2);
    sim.tcpRows.push_back(
        platform::sim::MakeTcpRow(5, "192.168.1.20", 3000, "93.184.216.34", 443, 42));
  }

  // Runs `question` on the engine thread between its polls and gives the answer. The engine's
  // state has one owner, so the test reads it only there. An engine that answers nothing for
  // 10 s is stuck in a call that does not return (an open waiting for a writer, a read without
  // end); stopping it would join that thread and hold the whole run for ever, so the process
  // ends at once, with the reason on the error stream.
  template <class Question>
  auto ask(Question question) {
    using Answer = decltype(question());
    auto answer = std::make_shared<std::promise<Answer>>();
    std::future<Answer> future = answer->get_future();
    engine.post([answer, question] { answer->set_value(question()); });
    if (future.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
      std::fprintf(stderr, "FATAL: the engine is stuck judging the program at %s\n", path.c_str());
      std::fflush(stderr);
      std::error_code ignored;  // no 1 TiB file left behind in the temporary folder
      std::filesystem::remove_all(sim.root, ignored);
      std::quick_exit(EXIT_FAILURE);
    }
    return future.get();
  }

  // True once `done` holds on the engine; false when it has not within a second of the
  // engine's own time, a hundred polls.
  bool await(const std::function<bool()>& done) {
    const uint32_t start = ask([this] { return sim.now; });
    for (;;) {
      auto [held, now] = ask([&] { return std::pair(done(), sim.now); });
      if (held) return true;
      if (now - start > 1000) return false;
    }
  }

  int16_t slotOf(const std::string& program) {
    for (const auto& shown : ui.alertsShown)
      if (shown.view.path == program) return shown.slot;
    return 0;
  }
  std::vector<std::string> ruleOf(const std::string& program) {
    int16_t index = engine.monitor.ListView1.FindPath(program);
    if (index < 1) return {};
    const RuleRow& row = engine.monitor.ListView1.Item(index);
    return {row.SubItems[1], row.SubItems[2]};
  }

  // The file's checksum by another road: the data, the holes' zeros by the register's own
  // shift, the tail.
  static std::string sparseChecksum() {
    uint32_t reg = crc32::Update(0xFFFFFFFFu, kHead.data(), kHead.size());
    reg = crc32::UpdateZeros(reg, uint64_t(kTerabyte) - kHead.size() - kTail.size());
    reg = crc32::Update(reg, kTail.data(), kTail.size());
    return std::to_string(static_cast<int32_t>(~reg));
  }

  platform::sim::SimSystem sim;
  testing::RecordingUi ui;
  Engine engine{sim, ui};
  std::string path;
};

TEST_P(HostileProgramFile, IsJudgedAndTheEngineKeepsPolling) {
  const bool readable = GetParam() == Kind::SparseTerabyte;
  // An unreadable file checksums as 0, the value of a failed read.
  const std::string crc = readable ? sparseChecksum() : "0";
  engine.start();
  ASSERT_TRUE(engine.threaded());

  // The first poll freezes the program, checksums and names its file, and asks.
  ASSERT_TRUE(await([&] { return slotOf(path) != 0; })) << "no alert for the hostile program";
  auto [view, depth, rule, errors] = ask([&] {
    return std::tuple(engine.monitor.AlertForm(slotOf(path)).view, sim.suspensionDepth(42),
                      ruleOf(path), ui.errorBoxes.size());
  });
  EXPECT_EQ(view.Label1, "New program");
  EXPECT_EQ(view.lblProgram, readable ? "Huge Tool" : "hostile");
  EXPECT_EQ(depth, 1);
  EXPECT_EQ(rule, (std::vector<std::string>{crc, "ask"}));
  EXPECT_TRUE(!readable || errors == 0) << "the sparse file could not be read";

  // A second program's connection, while the first question stands open, is still seen and
  // judged; the hostile program's row, walked again, joins its open alert.
  std::string chat = sim.writeProgramFile("chat", "chat program");
  ask([&] {
    sim.addProcess(43, chat);
    sim.tcpRows.push_back(platform::sim::MakeTcpRow(5, "192.168.1.20", 3001, "10.0.0.7", 80, 43));
    return true;
  });
  ASSERT_TRUE(await([&] {
    return slotOf(chat) != 0 && sim.isFrozen(43) && sim.suspensionDepth(42) == 2;
  })) << "the second program was not judged";

  // Both answered "Yes": the hostile file is checksummed once more for its rule, and every
  // hold of either program is let go.
  auto [held, ruleAfter] = ask([&] {
    frmAlert& hostile = engine.monitor.AlertForm(slotOf(path));
    hostile.chkRemember = 1;
    hostile.Command1_Click();
    engine.monitor.AlertForm(slotOf(chat)).Command1_Click();
    return std::pair(sim.isFrozen(42) || sim.isFrozen(43), ruleOf(path));
  });
  EXPECT_FALSE(held) << "a held program was not resumed";
  EXPECT_EQ(ruleAfter, (std::vector<std::string>{crc, "allow"}));

  // And the engine polls on: fifty more looks at the table.
  const int probes = ask([&] { return sim.calls.tcpProbes; });
  EXPECT_TRUE(await([&] { return sim.calls.tcpProbes >= probes + 50; }))
      << "the engine stopped polling after the answers";
}

std::string KindName(const ::testing::TestParamInfo<Kind>& info) {
  const char* const names[] = {"FifoWithoutWriter", "LinkToDevZero", "SparseTerabyte"};
  return names[static_cast<int>(info.param)];
}

INSTANTIATE_TEST_SUITE_P(HostileProgramFile, HostileProgramFile,
                         ::testing::Values(Kind::Fifo, Kind::LinkToDevZero, Kind::SparseTerabyte),
                         KindName);

}  // namespace
}  // namespace tessmark
