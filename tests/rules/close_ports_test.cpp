// Closed service ports: the boxes restored from the setting, the table rebuilt from them, the
// check with its yields, and the texts and ratings of the services.

#include <gtest/gtest.h>

#include "base/booleans.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

class ClosePorts : public ::testing::Test, public testing::SimMonitor {
 protected:
  modClosePorts& ports() { return rules.closePorts; }
  void setting(const std::string& value) { sim.writeSetting(AppTitle, "Ports", "Ports", value); }
  std::string ticked() {
    std::string boxes;
    for (const auto& box : ports().Check4) boxes += std::to_string(box.Value);
    return boxes;
  }
  bool closed(int32_t port) { return ports().IsClosedPort(port) == kTrue; }
};

TEST_F(ClosePorts, TheSettingTicksOneBoxPerCharacter) {
  setting("10000001000000001");
  ports().LoadPorts();
  EXPECT_EQ(ticked(), "10000001000000001");
  EXPECT_TRUE(closed(139));
  EXPECT_TRUE(closed(21));
  EXPECT_TRUE(closed(135));
  EXPECT_FALSE(closed(143));
  EXPECT_FALSE(closed(80));
}

TEST_F(ClosePorts, AShortSettingRepeatsItsLastCharacter) {
  setting("1");
  ports().LoadPorts();
  EXPECT_EQ(ticked(), "11111111111111111");
  setting("101");
  ports().LoadPorts();
  EXPECT_EQ(ticked(), "10111111111111111");
}

TEST_F(ClosePorts, AnythingButTheDigitOneLeavesABoxUnticked) {
  setting("1x1 121-10000000000");
  ports().LoadPorts();
  EXPECT_EQ(ticked(), "10101010100000000");
}

TEST_F(ClosePorts, AnEmptySettingLeavesTheBoxesAsTheyAre) {
  ports().Check4[4].Value = 1;
  ports().LoadPorts();
  EXPECT_EQ(ticked(), "00001000000000000");
  EXPECT_TRUE(closed(1080));
}

TEST_F(ClosePorts, TheTableFollowsTheBoxes) {
  ports().RefreshClosedPorts();
  for (int i = 1; i <= 17; ++i) EXPECT_EQ(ports().ClosedPorts[i], -1);
  EXPECT_FALSE(closed(0));      // an unticked entry holds -1, which no connection's port is
  ports().Check4[7].Value = 1;  // "21  FTP ..."
  ports().Check4[4].Value = 1;  // "1080 SOCKS"
  ports().Check4[0].Value = 2;  // a grey box counts as unticked
  ports().RefreshClosedPorts();
  EXPECT_EQ(ports().ClosedPorts[8], 21);
  EXPECT_EQ(ports().ClosedPorts[5], 1080);
  EXPECT_EQ(ports().ClosedPorts[1], -1);
}

TEST_F(ClosePorts, SavingStoresOneDigitPerBoxAndItsSealInOneWrite) {
  ports().Check4[0].Value = 1;
  ports().Check4[16].Value = 1;
  ports().Check4[5].Value = 2;
  ports().SavePorts();
  EXPECT_EQ(sim.readSetting(AppTitle, "Ports", "Ports"), "10000200000000001");
  EXPECT_EQ(rules.secureConfig.GetConfig(), rules.secureConfig.ComputeConfigCheck());
  // Two writes would leave a crash between them an option without its seal.
  EXPECT_EQ(sim.settingsWrites, 1);

  // A store that takes no write keeps the boxes for this run and says why, once.
  sim.settingsWritesFail = true;
  ports().Check4[1].Value = 1;
  ports().SavePorts();
  ports().SavePorts();
  EXPECT_EQ(ports().Check4[1].Value, 1);
  ASSERT_EQ(ui.messageBoxes.size(), 1u);
  EXPECT_NE(ui.messageBoxes[0].text.find("cannot be written"), std::string::npos);
  EXPECT_EQ(sim.readSetting(AppTitle, "Ports", "Ports"), "10000200000000001");
}

TEST_F(ClosePorts, TheCheckYieldsBeforeEveryComparison) {
  ports().Check4[16].Value = 1;  // 135, the last entry
  ports().RefreshClosedPorts();
  // A click that unticks the box arrives while the check runs: it runs at the first yield.
  mailbox.post([this] {
    ports().Check4[16].Value = 0;
    ports().RefreshClosedPorts();
  });
  EXPECT_FALSE(closed(135));
}

TEST_F(ClosePorts, ServiceNamesAndRatings) {
  auto name = [](int32_t port) { return modClosePorts::GetPortName(port); };
  auto rating = [](int32_t port) { return modClosePorts::PortRating(port); };
  EXPECT_EQ(name(139), "Service NetBIOS");
  EXPECT_EQ(name(443), "Service HTTP over TLS/SSL ");
  EXPECT_EQ(name(445), "Service Windows NT / 2000 SMB. ");
  EXPECT_EQ(name(135), "Service Location service (loc-srv)");
  EXPECT_EQ(name(8080), "");
  for (int32_t port : {21, 22, 23, 25, 79, 80, 110, 113, 119, 143, 443, 1080, 1723, 5000})
    EXPECT_EQ(rating(port), "n") << port;
  for (int32_t port : {135, 139, 445, 0, 8080, 65535}) EXPECT_EQ(rating(port), "h") << port;
  EXPECT_EQ(ports().Check4[7].Caption, "21  FTP (File Transfer Protocol)");
}

}  // namespace
}  // namespace tessmark
