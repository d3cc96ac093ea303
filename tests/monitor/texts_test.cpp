// The texts shown and compared: ports, addresses, states, the online sentence, the wildcard
// match of the answer script and the log search's substring test; only ASCII letters fold.

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <array>

#include "base/address_text.h"
#include "base/booleans.h"
#include "base/modCompare.h"
#include "monitor/modNetStat.h"
#include "support/sim_engine.h"

namespace tessmark {
namespace {

using platform::sim::RawPort;

TEST(Converters, PortsSwapInFloatingPointAddressesJoinInNetworkOrderStatesHaveNames) {
  // Pairs of a port and the number shown: halves round to even, so from 32768 up some show +1.
  const int32_t ports[] = {0,     0,     443,   443,   32767, 32767, 32769, 32770,
                           32770, 32770, 33023, 33024, 33024, 33025, 65535, 65536};
  for (size_t i = 0; i < std::size(ports); i += 2)
    EXPECT_EQ(GetTcpPortNumber(int32_t(RawPort(uint16_t(ports[i])))), ports[i + 1]) << ports[i];
  EXPECT_EQ(GetIpFromLong(platform::sim::RawAddress("10.200.3.255")), "10.200.3.255");
  std::string states;
  for (int32_t s = -1; s <= 13; ++s) states += GetState(s) + " ";
  EXPECT_EQ(states,
            "LISTEN LISTEN CLOSED LISTEN SYN_SENT SYN_RCVD ESTAB FIN_WAIT1 FIN_WAIT2 CLOSE_WAIT "
            "CLOSING LAST_ACK TIME_WAIT DELETE_TCB LISTEN ");
}

TEST(Converters, Ipv6AddressesReadInTheirShortestFormAndIpv4OnesCarriedAsIpv6AsDotted) {
  // The system's own text form is the known answer; ::ffff:a.b.c.d is the one exception.
  for (const char* text : {"::", "::1", "2001:db8::1", "2001:db8:0:0:1:0:0:1", "fe80::1:2",
                           "2001:0:0:1::1", "1::", "::2:3:4:5:6:7:8", "1:2:3:4:5:6:7:8",
                           "2001:db8:0:1:1:1:1:1", "::ffff:0:1.2.3.4", "FF02::FB", "::1.2.3.4"}) {
    platform::Ipv6Address raw{};
    ASSERT_EQ(inet_pton(AF_INET6, text, raw.data()), 1) << text;
    std::array<char, INET6_ADDRSTRLEN> expected{};
    inet_ntop(AF_INET6, raw.data(), expected.data(), expected.size());
    // The C library writes a trailing 32 bits as dotted for ::a.b.c.d; the log keeps hex.
    std::string known = expected.data();
    if (known == "::1.2.3.4") known = "::102:304";
    EXPECT_EQ(Ipv6Text(raw), known) << text;
  }
  EXPECT_EQ(Ipv6Text(platform::sim::RawIpv6Address("::ffff:93.184.216.34")), "93.184.216.34");
  // A typed filter finds the form the log holds.
  const std::pair<const char*, const char*> filters[] = {{"[::1]", "::1"},
                                                         {"::FFFF:10.0.0.1", "10.0.0.1"},
                                                         {"::ffff:a00:1", "::ffff:a00:1"},
                                                         {"10.0", "10.0"},
                                                         {"[", "["},
                                                         {"", ""}};
  for (auto [typed, sought] : filters) EXPECT_EQ(AddressFilterText(typed), sought) << typed;
}

TEST(NetStat, OnlineIsTheSystemsAnswerAndEachFlagAddsItsSentenceInItsOwnOrder) {
  platform::sim::SimSystem sim;
  modNetStat netStat{sim};
  sim.online = false;
  EXPECT_EQ(netStat.IsNetConnectOnline(), kFalse);
  EXPECT_EQ(netStat.GetNetConnectString(), "Not connected To the internet now.");
  sim.online = true;
  EXPECT_EQ(netStat.IsNetConnectOnline(), kTrue);
  // In the order they join, whatever the bits' order; the proxy fragment ends the LAN one.
  const std::pair<uint32_t, std::string> sentences[] = {
      {0, ""},
      {64, "You have a network connection configured."},
      {2, "The local system connects To the Internet via a LAN"},
      {4, ", and uses a proxy server. "},
      {1, "The local system uses a modem To connect to the Internet. "},
      {32, "The connection is currently offline. "},
      {8, "The local system's modem is busy With a non-Internet connection. "},
      {16, "Remote Access Services are installed On this system."}};
  std::string all;
  for (const auto& [flag, text] : sentences) {
    sim.onlineFlags = flag;
    EXPECT_EQ(netStat.GetNetConnectString(), text);
    all += text;
  }
  sim.onlineFlags = 127;
  EXPECT_EQ(netStat.GetNetConnectString(), all);
}

// Each list holds pairs: a text, then the pattern or the piece looked for in it.
void ExpectPairs(int16_t (*test)(std::string&, std::string&), std::vector<std::string> pairs,
                 int16_t expected) {
  for (size_t i = 0; i + 1 < pairs.size(); i += 2) {
    EXPECT_EQ(test(pairs[i], pairs[i + 1]), expected) << pairs[i] << " / " << pairs[i + 1];
  }
}

TEST(CompareString, MatchesWholeTextsByWildcardsAndCharacterLists) {
  ExpectPairs(CompareString,
              {"/USR/Bin/Curl", "/usr/bin/curl", "/usr/bin/curl", "/USR/BIN/CURL", "", "",
               "/home/\xC4", "/home/\xC4", "/usr/bin/curl", "*bin*", "", "*", "", "**", "abc",
               "a*c*", "abcbd", "a*b?",  // the star gives back the first "b"
               "ab", "a?", "v1", "v#", "v12", "v##", "B", "[abc]", "q", "[A-Z]", "Q", "[a-z]", "5",
               "[!a-z]", "y", "[a-cx-z]", "-", "[a-]", "-", "[-a]", "!", "[!]", "!", "[ab!]", "ab",
               "a[]b",  // an empty list matches nothing at all
               // The wildcard characters stand for themselves inside brackets only.
               "*", "[*]", "?", "[?]", "#", "[#]", "[", "[[]", "a]", "a]", "a!", "a!",
               "/home/u/o/app", "/home/u/[old]/app"},
              kTrue);
  ExpectPairs(CompareString,
              {"/usr/bin/curl2", "/usr/bin/curl", "/usr/bin/cur", "/usr/bin/curl", "a", "", "", "a",
               "/home/\xC4", "/home/\xE4", "/usr/bin/curl", "*sbin*", "a", "a?", "abc", "a?", "",
               "?", "va", "v#", "v12", "v#", "d", "[abc]", "X", "[!a-z]", "m", "[a-cx-z]", "-",
               "[!-a]", "a", "[]", "a", "[*]",
               // Patterns that cannot be read match nothing; the path of a rule that holds a
               // list not even itself.
               "a", "[abc", "[abc", "[abc", "a", "[", "b", "[z-a]", "b", "[!z-a]", "a", "[!]", "b",
               "[a--z]", "b", "[a-b-c]", "/home/u/[old]/app", "/home/u/[old]/app"},
              kFalse);
  // A naive backtracking matcher would try every way of placing the stars here.
  ExpectPairs(CompareString, {std::string(100000, 'a'), "*a*a*a*a*a*a*b"}, kFalse);
  ExpectPairs(CompareString, {std::string(100000, 'a'), "*a*a*a*a*a*a"}, kTrue);
}

TEST(InstrString, FindsAPieceAnywhereIgnoringCaseAndTheEmptyPieceInAnyTextButTheEmptyOne) {
  ExpectPairs(
      InstrString,
      {"/usr/bin/curl", "BIN", "/usr/bin/curl", "/usr/bin/curl", "110.0.0.1", "10.0", "abc", ""},
      kTrue);
  ExpectPairs(InstrString, {"192.168.1.20", "10.0", "abc", "abcd", "", "", "", "x"}, kFalse);
}

}  // namespace
}  // namespace tessmark
