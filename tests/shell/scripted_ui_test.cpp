// The headless firewall's answer script: what it reads, and which rule answers a question on
// the engine's thread; the engine's end resumes what is still held and lets every hold go.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <future>
#include <thread>

#include "monitor/engine.h"
#include "shell/scripted_ui.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

TEST(AnswerScript, ReadsRulesAndRefusesWhatItCannotRead) {
  int bad = 0;
  auto rules = ParseAnswerScript(
      "# first match wins\n*/demo-client yes remember\r\n\n/usr/bin/* no after 250\n* none\n", bad);
  ASSERT_TRUE(rules);
  ASSERT_EQ(rules->size(), 3u);
  EXPECT_EQ((*rules)[0].pattern, "*/demo-client");
  EXPECT_TRUE((*rules)[0].remember);
  EXPECT_EQ((*rules)[1].answer, AnswerRule::Answer::No);
  EXPECT_EQ((*rules)[1].afterMs, 250u);
  EXPECT_EQ((*rules)[2].answer, AnswerRule::Answer::None);

  EXPECT_FALSE(ParseAnswerScript("* yes\n* maybe\n", bad));
  EXPECT_EQ(bad, 2);
  for (const char* text : {"* yes after\n", "*\n"}) EXPECT_FALSE(ParseAnswerScript(text, bad));
}

TEST(AnswerScript, TheFirstMatchingRuleAnswersOnTheEngineAndItsEndResumesTheRest) {
  platform::sim::SimSystem sim;
  std::string app = sim.writeProgramFile("app", "app");
  std::string tool = sim.writeProgramFile("tool", "tool");
  sim.addProcess(42, app, 1);
  sim.addProcess(43, tool, 1);
  sim.tcpRows.push_back(platform::sim::MakeTcpRow(5, "127.0.0.1", 3000, "127.0.0.1", 80, 42));
  sim.tcpRows.push_back(platform::sim::MakeTcpRow(5, "127.0.0.1", 3001, "127.0.0.1", 80, 43));
  std::FILE* out = std::tmpfile();
  int bad = 0;
  ScriptedUi ui(*ParseAnswerScript("*/APP no remember\n*/tool none\n", bad), out);
  Engine engine(sim, ui);
  std::filesystem::create_directories(engine.rules.folders.AppDataDir);
  engine.start();
  // Both programs are frozen and asked; only the app's question gets an answer.
  for (int i = 0; i < 200 && ui.pendingAnswers() == 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ui.postDueAnswers(engine, 0);
  std::promise<std::thread::id> ran;  // posted after the answer, so run after it
  engine.post([&] { ran.set_value(std::this_thread::get_id()); });
  EXPECT_NE(ran.get_future().get(), std::this_thread::get_id());
  engine.stop();
  engine.stop();  // a second stop does nothing

  EXPECT_EQ(sim.deletedRows.size(), 1u);  // the app's held connection, refused
  const RuleList& rules = engine.monitor.ListView1;
  EXPECT_EQ(rules.Item(rules.FindPath(app)).SubItems[2], "deny");
  EXPECT_EQ(rules.Item(rules.FindPath(tool)).SubItems[2], "ask");
  // The tool's question stayed open: the end resumed it before letting every hold go, once.
  EXPECT_EQ(std::ranges::count(sim.resumedThreadLog, 431u),
            std::ranges::count(sim.suspendedThreadLog, 431u));
  EXPECT_EQ(sim.releaseAllHoldsCalls, 1);
  std::fclose(out);
}

}  // namespace
}  // namespace tessmark
