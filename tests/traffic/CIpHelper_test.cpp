// The interface table read into CInterface objects and summed.

#include <gtest/gtest.h>

#include <utility>

#include "platform/sim/sim_system.h"
#include "support/sim_engine.h"
#include "traffic/CIpHelper.h"

namespace tessmark {
namespace {

using platform::sim::MakeIfRow;

class IpHelper : public ::testing::Test {
 protected:
  platform::sim::SimSystem sim;
  testing::RecordingUi ui;
  CIpHelper helper{sim, ui};
  std::pair<int32_t, int32_t> sums() const { return {helper.BytesReceived(), helper.BytesSent()}; }
};

TEST_F(IpHelper, EachReadIsANewCollectionAndSumsEveryRowLoopbackIncluded) {
  EXPECT_EQ(sums(), std::pair(0, 0));  // nothing read yet
  EXPECT_EQ(helper.Interfaces()->item(1), nullptr);
  sim.ifRows = {MakeIfRow(1, "lo", 1000, 0x7FFFFFFFu), MakeIfRow(2, "eth0", 0xFFFFFFF0u, 1),
                MakeIfRow(3, "wlan0", 20, 7)};
  auto first = helper.Interfaces();
  ASSERT_EQ(first->Count(), 3);
  EXPECT_EQ(first->item(1)->InterfaceDescription, "lo");  // in the system's order
  // The sums wrap at 32 bits without an error.
  EXPECT_EQ(sums(), std::pair(1000 - 16 + 20, INT32_MIN + 7));
  // An object of the last read stays as it was; setting the collection reads nothing.
  sim.ifRows[0].dwInOctets = 5000;
  EXPECT_EQ(helper.Interfaces()->item(1)->OctetsReceived, 5000);
  EXPECT_EQ(first->item(1)->OctetsReceived, 1000);
  const int reads = sim.calls.ifTableReads;
  helper.setInterfaces(std::make_shared<CInterfaces>());
  EXPECT_EQ(sim.calls.ifTableReads, reads);
  EXPECT_EQ(sums(), std::pair(5000 - 16 + 20, INT32_MIN + 7));

  // No table after a good read: nothing, and only a system that has none says so, at every read.
  for (bool supported : {false, true, false}) {
    sim.ifTableNotSupported = sim.ifTableFails = false;
    helper.Interfaces();
    (supported ? sim.ifTableFails : sim.ifTableNotSupported) = true;
    EXPECT_EQ(helper.Interfaces()->Count(), 0);
    EXPECT_EQ(sums(), std::pair(0, 0));
  }
  ASSERT_EQ(ui.messageBoxes.size(), 2u);
  EXPECT_EQ(ui.messageBoxes[1].text, "IP Helper is not supported by this system.");
  EXPECT_EQ(ui.messageBoxes[1].icon, MessageIcon::None);
  EXPECT_TRUE(ui.errorBoxes.empty());
}

TEST_F(IpHelper, TheAddressFollowsItsLengthAndTheDescriptionIsCutToItsLength) {
  platform::IfRow nic = MakeIfRow(1, "Intel 82540EM Gigabit", 0, 0),
                  ib = MakeIfRow(2, std::string(256, 'd'), 0, 0), odd = MakeIfRow(3, "odd", 0, 0);
  nic.bDescr[nic.dwDescrLen] = '!';  // past the length: cut off
  nic.dwPhysAddrLen = 6;
  nic.bPhysAddr = {0x00, 0xA0, 0xC9, 0x01, 0x02, 0x03, 0xEE, 0xEE};
  ib.dwPhysAddrLen = 10;  // more than the record's 8 bytes
  ib.bPhysAddr = {0x80, 0, 0, 0x48, 0xFE, 0x80, 0, 0x0F};
  ib.dwDescrLen = 300;  // longer than the field: the whole field
  odd.dwPhysAddrLen = 0xFFFFFFFFu;
  odd.dwDescrLen = 0x80000000u;  // a negative length cuts nothing and leaves it empty
  sim.ifRows = {nic, ib, odd, MakeIfRow(4, "tun0", 0, 0)};
  auto interfaces = helper.Interfaces();
  std::vector<std::string> seen;
  for (const auto& object : *interfaces)
    seen.push_back(object->AdapterAddress + " '" + object->InterfaceDescription + "'");
  EXPECT_EQ(seen,
            (std::vector<std::string>{
                "00-A0-C9-1-2-3 'Intel 82540EM Gigabit'",
                "80-00-00-48-FE-80-00-F-00-00 '" + std::string(256, 'd') + "'", " ''", " 'tun0'"}));
}

// The rows are walked by a 16-bit byte offset, (row - 1) * 860 + 4: negative from the 40th row
// on, so the row copied before is filled and counted again; from the 78th positive again, 688,
// starting in the description of row 1 (at its byte 684 = 604 + 80).
TEST_F(IpHelper, RowsPastThe39thAreReadAtTheWrappedOffset) {
  for (uint32_t n = 1; n <= 80; ++n) sim.ifRows.push_back(MakeIfRow(n, "if", n, 2 * n));
  std::copy_n("WRAP", 4, sim.ifRows[0].bDescr.begin() + 80);
  auto interfaces = helper.Interfaces();
  ASSERT_EQ(interfaces->Count(), 80);
  EXPECT_EQ(interfaces->item(40)->InterfaceIndex, 39);
  EXPECT_EQ(interfaces->item(77)->InterfaceIndex, 39);
  EXPECT_EQ(interfaces->item(78)->InterfaceName.substr(0, 4), "WRAP");
  // Rows 1-39 once (780), row 39 for rows 40-77 (38 * 39 = 1482), and rows 78-80 read their
  // counters from inside the names of rows 2-4, which hold zeros there.
  EXPECT_EQ(sums(), std::pair(780 + 1482, 2 * (780 + 1482)));
}

TEST(Interfaces, AddTakesTheCallersObjectAndPlacesCountFromOne) {
  CInterfaces interfaces;
  std::shared_ptr<CInterface> object;  // empty: a fresh object is added
  auto first = interfaces.Add(object);
  object = std::make_shared<CInterface>();
  auto second = interfaces.Add(object);
  EXPECT_EQ(object, nullptr);  // the caller's reference is taken
  EXPECT_EQ(interfaces.item(0), nullptr);
  EXPECT_EQ(interfaces.item(3), nullptr);
  EXPECT_FALSE(interfaces.Remove(3));
  EXPECT_TRUE(interfaces.Remove(1));
  EXPECT_EQ(interfaces.item(1), second);
  EXPECT_NE(first, nullptr);
}

}  // namespace
}  // namespace tessmark
