// The interface table read into CInterface objects and summed: every row counts, loopback
// included; the sums wrap at 32 bits; a system without the table says so at every read.

#include <gtest/gtest.h>

#include <string>

#include "platform/sim/sim_system.h"
#include "support/sim_engine.h"
#include "traffic/CIpHelper.h"

namespace tessmark {
namespace {

using platform::IfRow;
using platform::sim::MakeIfRow;

class IpHelper : public ::testing::Test {
 protected:
  platform::sim::SimSystem sim;
  testing::RecordingUi ui;
  CIpHelper helper{sim, ui};
};

TEST_F(IpHelper, NoInterfacesGiveAnEmptyCollectionAndZeroSums) {
  auto interfaces = helper.Interfaces();
  ASSERT_NE(interfaces, nullptr);
  EXPECT_EQ(interfaces->Count(), 0);
  EXPECT_EQ(interfaces->item(1), nullptr);
  EXPECT_EQ(helper.BytesReceived(), 0);
  EXPECT_EQ(helper.BytesSent(), 0);
  EXPECT_TRUE(ui.messageBoxes.empty());
}

TEST_F(IpHelper, EveryRowCountsInTheSumsLoopbackIncluded) {
  sim.ifRows = {MakeIfRow(1, "lo", 1000, 1000), MakeIfRow(2, "eth0", 5000, 300),
                MakeIfRow(3, "wlan0", 20, 7)};
  auto interfaces = helper.Interfaces();
  ASSERT_EQ(interfaces->Count(), 3);
  EXPECT_EQ(helper.BytesReceived(), 6020);
  EXPECT_EQ(helper.BytesSent(), 1307);
  // In the system's order.
  EXPECT_EQ(interfaces->item(1)->InterfaceDescription, "lo");
  EXPECT_EQ(interfaces->item(2)->InterfaceDescription, "eth0");
  EXPECT_EQ(interfaces->item(3)->OctetsSent, 7);
}

TEST_F(IpHelper, SumsWrapAt32BitsWithoutAnError) {
  sim.ifRows = {MakeIfRow(1, "a", 0xFFFFFFF0u, 0x7FFFFFFFu), MakeIfRow(2, "b", 0x20, 1)};
  helper.Interfaces();
  EXPECT_EQ(helper.BytesReceived(), 0x10);
  EXPECT_EQ(helper.BytesSent(), INT32_MIN);
}

TEST_F(IpHelper, ARowBecomesOneObjectWithItsBitsUnchanged) {
  IfRow row = MakeIfRow(7, "", 0, 0);
  const std::u16string name = u"eth0";
  std::copy(name.begin(), name.end(), row.wszName.begin());
  const std::string description = "Intel 82540EM Gigabit";
  std::copy(description.begin(), description.end(), row.bDescr.begin());
  row.bDescr[description.size()] = '!';  // past the length: cut off
  row.dwDescrLen = static_cast<uint32_t>(description.size());
  row.dwType = 6;
  row.dwMtu = 1500;
  row.dwSpeed = 3000000000u;  // above 2^31: reads negative
  row.dwPhysAddrLen = 6;
  row.bPhysAddr = {0x00, 0xA0, 0xC9, 0x01, 0x02, 0x03, 0xEE, 0xEE};
  row.dwAdminStatus = 1;
  row.dwOperStatus = 5;
  row.dwLastChange = 1234;
  row.dwInOctets = 11;
  row.dwInUcastPkts = 12;
  row.dwInNUcastPkts = 13;
  row.dwInDiscards = 14;
  row.dwInErrors = 0xFFFFFFFFu;
  row.dwInUnknownProtos = 16;
  row.dwOutOctets = 21;
  row.dwOutUcastPkts = 22;
  row.dwOutNUcastPkts = 23;
  row.dwOutDiscards = 24;
  row.dwOutErrors = 25;
  row.dwOutQLen = 26;
  sim.ifRows = {row};

  auto object = helper.Interfaces()->item(1);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->InterfaceDescription, "Intel 82540EM Gigabit");
  EXPECT_EQ(object->InterfaceIndex, 7);
  EXPECT_EQ(object->InterfaceType, 6);
  EXPECT_EQ(object->MaximumTransmissionUnit, 1500);
  EXPECT_EQ(object->speed, -1294967296);
  EXPECT_EQ(object->AdapterAddress, "00-A0-C9-1-2-3");
  EXPECT_EQ(object->AdminStatus, 1);
  EXPECT_EQ(object->OperationalStatus, 5);
  EXPECT_EQ(object->LastChange, 1234.0);
  EXPECT_EQ(object->OctetsReceived, 11);
  EXPECT_EQ(object->UnicastPacketsReceived, 12);
  EXPECT_EQ(object->NonunicastPacketsReceived, 13);
  EXPECT_EQ(object->DiscardedIncomingPackets, 14);
  EXPECT_EQ(object->IncomingErrors, -1);
  EXPECT_EQ(object->UnknownProtocolPackets, 16);
  EXPECT_EQ(object->OctetsSent, 21);
  EXPECT_EQ(object->UnicastPacketsSent, 22);
  EXPECT_EQ(object->NonunicastPacketsSent, 23);
  EXPECT_EQ(object->DiscardedOutgoingPackets, 24);
  EXPECT_EQ(object->OutgoingErrors, 25);
  EXPECT_EQ(object->OutputQueueLength, 26);
  // The 16-bit name read byte by byte: a zero after each letter, zeros up to 512.
  EXPECT_EQ(object->InterfaceName, std::string("e\0t\0h\0000\0", 8) + std::string(504, '\0'));
}

TEST_F(IpHelper, AdapterAddressFollowsTheAddressLength) {
  IfRow none = MakeIfRow(1, "tun0", 0, 0);
  IfRow zeros = MakeIfRow(2, "lo", 0, 0);
  zeros.dwPhysAddrLen = 6;
  IfRow long10 = MakeIfRow(3, "ib0", 0, 0);
  long10.dwPhysAddrLen = 10;  // more than the record's 8 bytes
  long10.bPhysAddr = {0x80, 0, 0, 0x48, 0xFE, 0x80, 0, 0x0F};
  IfRow negative = MakeIfRow(4, "odd", 0, 0);
  negative.dwPhysAddrLen = 0xFFFFFFFFu;
  sim.ifRows = {none, zeros, long10, negative};
  auto interfaces = helper.Interfaces();
  EXPECT_EQ(interfaces->item(1)->AdapterAddress, "");
  EXPECT_EQ(interfaces->item(2)->AdapterAddress, "00-00-00-00-00-00");
  EXPECT_EQ(interfaces->item(3)->AdapterAddress, "80-00-00-48-FE-80-00-F-00-00");
  EXPECT_EQ(interfaces->item(4)->AdapterAddress, "");
}

TEST_F(IpHelper, DescriptionIsCutToItsLengthWithinTheFieldsBytes) {
  IfRow full = MakeIfRow(1, std::string(256, 'd'), 0, 0);
  full.dwDescrLen = 300;  // longer than the field: the whole field
  IfRow negative = MakeIfRow(2, "eth1", 0, 0);
  negative.dwDescrLen = 0x80000000u;  // a negative length cuts nothing
  IfRow empty = MakeIfRow(3, "eth2", 0, 0);
  empty.dwDescrLen = 0;
  sim.ifRows = {full, negative, empty};
  auto interfaces = helper.Interfaces();
  EXPECT_EQ(interfaces->item(1)->InterfaceDescription, std::string(256, 'd'));
  EXPECT_EQ(interfaces->item(2)->InterfaceDescription, "");
  EXPECT_EQ(interfaces->item(3)->InterfaceDescription, "");
}

TEST_F(IpHelper, ASystemWithoutTheTableSaysSoAtEveryRead) {
  sim.ifRows = {MakeIfRow(1, "lo", 1000, 1000)};
  helper.Interfaces();
  sim.ifTableNotSupported = true;
  auto interfaces = helper.Interfaces();
  EXPECT_EQ(interfaces->Count(), 0);
  EXPECT_EQ(helper.BytesReceived(), 0);
  EXPECT_EQ(helper.BytesSent(), 0);
  helper.Interfaces();
  ASSERT_EQ(ui.messageBoxes.size(), 2u);
  EXPECT_EQ(ui.messageBoxes[0].text, "IP Helper is not supported by this system.");
  EXPECT_EQ(ui.messageBoxes[0].icon, MessageIcon::None);
  EXPECT_TRUE(ui.errorBoxes.empty());
}

TEST_F(IpHelper, AFailedReadGivesNothingAndSaysNothing) {
  sim.ifRows = {MakeIfRow(1, "lo", 1000, 1000)};
  helper.Interfaces();
  sim.ifTableFails = true;
  auto interfaces = helper.Interfaces();
  EXPECT_EQ(interfaces->Count(), 0);
  EXPECT_EQ(helper.BytesReceived(), 0);
  EXPECT_EQ(helper.BytesSent(), 0);
  EXPECT_TRUE(ui.messageBoxes.empty());
}

TEST_F(IpHelper, EachReadMakesANewCollectionAndOnlyGettingReads) {
  EXPECT_EQ(helper.BytesReceived(), 0);  // nothing read yet
  sim.ifRows = {MakeIfRow(1, "eth0", 500, 50)};
  auto first = helper.Interfaces();
  auto kept = first->item(1);
  sim.ifRows = {MakeIfRow(1, "eth0", 900, 90)};
  auto second = helper.Interfaces();
  EXPECT_NE(first, second);
  EXPECT_EQ(kept->OctetsReceived, 500);  // an object of the first read stays as it was
  EXPECT_EQ(second->item(1)->OctetsReceived, 900);
  EXPECT_EQ(helper.BytesReceived(), 900);

  // Setting the collection reads nothing and leaves the sums.
  const int reads = sim.calls.ifTableReads;
  helper.setInterfaces(std::make_shared<CInterfaces>());
  EXPECT_EQ(sim.calls.ifTableReads, reads);
  EXPECT_EQ(helper.BytesReceived(), 900);
}

// The rows are walked by a 16-bit byte offset, (row - 1) * 860 + 4. From the 40th row on it
// is negative: that copy cannot be made, the row copied before is filled and counted again.
// From the 78th it is positive again, 77 * 860 + 4 - 65536 = 688, inside the table, and the
// row then starts in the description of row 1 (at its byte 684 = 604 + 80).
TEST_F(IpHelper, RowsPastThe39thAreReadAtTheWrappedOffset) {
  for (uint32_t n = 1; n <= 80; ++n) sim.ifRows.push_back(MakeIfRow(n, "if", n, 2 * n));
  const std::string wrap = std::string(80, 'x') + "WRAP";
  std::copy(wrap.begin(), wrap.end(), sim.ifRows[0].bDescr.begin());

  auto interfaces = helper.Interfaces();
  ASSERT_EQ(interfaces->Count(), 80);
  EXPECT_EQ(interfaces->item(39)->InterfaceIndex, 39);
  EXPECT_EQ(interfaces->item(40)->InterfaceIndex, 39);
  EXPECT_EQ(interfaces->item(77)->InterfaceIndex, 39);
  EXPECT_EQ(interfaces->item(78)->InterfaceName.substr(0, 4), "WRAP");
  // Rows 1-39 once (780), row 39 for rows 40-77 (38 * 39 = 1482), and rows 78-80 read their
  // counters from inside the names of rows 2-4, which hold zeros there.
  EXPECT_EQ(helper.BytesReceived(), 780 + 1482);
  EXPECT_EQ(helper.BytesSent(), 2 * (780 + 1482));
}

TEST(Interfaces, AddTakesTheCallersObjectAndLeavesItsReferenceEmpty) {
  CInterfaces interfaces;
  auto object = std::make_shared<CInterface>();
  object->InterfaceIndex = 4;
  auto added = interfaces.Add(object);
  EXPECT_EQ(object, nullptr);
  EXPECT_EQ(added->InterfaceIndex, 4);
  // The caller's next use of its empty variable is a fresh object.
  auto fresh = interfaces.Add(object);
  ASSERT_NE(fresh, nullptr);
  EXPECT_EQ(fresh->InterfaceIndex, 0);
  EXPECT_EQ(interfaces.Count(), 2);
  EXPECT_EQ(interfaces.item(1), added);
}

TEST(Interfaces, ItemAndRemoveAreFromOneAndFailOutsideTheCollection) {
  CInterfaces interfaces;
  EXPECT_EQ(interfaces.item(1), nullptr);
  EXPECT_FALSE(interfaces.Remove(1));
  for (int32_t index : {10, 20, 30}) {
    auto object = std::make_shared<CInterface>();
    object->InterfaceIndex = index;
    interfaces.Add(object);
  }
  EXPECT_EQ(interfaces.item(0), nullptr);
  EXPECT_EQ(interfaces.item(4), nullptr);
  EXPECT_TRUE(interfaces.Remove(2));
  EXPECT_EQ(interfaces.Count(), 2);
  std::vector<int32_t> order;
  for (const auto& object : interfaces) order.push_back(object->InterfaceIndex);
  EXPECT_EQ(order, (std::vector<int32_t>{10, 30}));
}

}  // namespace
}  // namespace tessmark
