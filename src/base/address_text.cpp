#include "base/address_text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

#include "base/connection_record.h"
#include "base/text_compare.h"

namespace tessmark {

namespace {

constexpr char kMappedPrefix[] = "::ffff:";

bool IsV4Mapped(const platform::Ipv6Address& a) {
  return std::all_of(a.begin(), a.begin() + 10, [](uint8_t b) { return b == 0; }) &&
         a[10] == 0xFF && a[11] == 0xFF;
}

uint32_t LastFourBytes(const platform::Ipv6Address& a) {
  uint32_t raw = 0;
  std::memcpy(&raw, a.data() + 12, sizeof raw);
  return raw;
}

void AppendHex(std::string& text, unsigned value) {
  static constexpr char kDigits[] = "0123456789abcdef";
  bool started = false;
  for (int shift = 12; shift >= 0; shift -= 4) {
    unsigned digit = (value >> shift) & 0xF;
    if (digit == 0 && !started && shift != 0) continue;
    started = true;
    text += kDigits[digit];
  }
}

}  // namespace

std::string Ipv6Text(const platform::Ipv6Address& address) {
  if (IsV4Mapped(address)) return GetIpFromLong(LastFourBytes(address));
  std::array<unsigned, 8> groups{};
  for (size_t g = 0; g < groups.size(); ++g)
    groups[g] = static_cast<unsigned>(address[2 * g]) << 8 | address[2 * g + 1];
  // The longest run of zero groups, two at least; the first of runs of equal length.
  int bestStart = -1, bestLength = 1;
  for (int g = 0; g < 8;) {
    if (groups[g] != 0) {
      ++g;
      continue;
    }
    int start = g;
    while (g < 8 && groups[g] == 0) ++g;
    if (g - start > bestLength) bestStart = start, bestLength = g - start;
  }
  std::string text;
  for (int g = 0; g < 8; ++g) {
    if (g == bestStart) {
      text += "::";
      g += bestLength - 1;
      continue;
    }
    if (!text.empty() && text.back() != ':') text += ':';
    AppendHex(text, groups[g]);
  }
  return text;
}

std::string LocalAddressText(const platform::TcpRow& row) {
  return row.ipv6 ? Ipv6Text(row.ucLocalAddr) : GetIpFromLong(row.dwLocalAddr);
}

std::string RemoteAddressText(const platform::TcpRow& row) {
  return row.ipv6 ? Ipv6Text(row.ucRemoteAddr) : GetIpFromLong(row.dwRemoteAddr);
}

std::string LocalAddressText(const platform::UdpOwnerRow& row) {
  return row.ipv6 ? Ipv6Text(row.ucLocalAddr) : GetIpFromLong(row.dwLocalAddr);
}

std::string AddressFilterText(const std::string& typed) {
  std::string text = typed;
  if (text.size() >= 2 && text.front() == '[' && text.back() == ']')
    text = text.substr(1, text.size() - 2);
  const size_t prefix = sizeof kMappedPrefix - 1;
  // Only a dotted tail is an IPv4 address written as IPv6; "::ffff:a00:1" stays as typed.
  if (text.size() > prefix && EqualIgnoringCase(text.substr(0, prefix), kMappedPrefix) &&
      text.find('.', prefix) != std::string::npos)
    text = text.substr(prefix);
  return text;
}

}  // namespace tessmark
