#pragma once
// The text of an address of either family, as the connection list, the alert and the log
// show it, and the remote-address filter of the log search that finds either form.

#include <string>

#include "platform/platform.h"

namespace tessmark {

// The compressed lower-case form of an IPv6 address ("2001:db8::1", "::1", "::"): the longest
// run of two or more zero groups, the first of equal runs, shortened to "::", and no leading
// zeros. An IPv4 address the system carries as ::ffff:a.b.c.d reads as the dotted a.b.c.d.
// No brackets and no zone: the port stands in a column of its own everywhere.
std::string Ipv6Text(const platform::Ipv6Address& address);

// The local and the remote address of a table row, of its own family.
std::string LocalAddressText(const platform::TcpRow& row);
std::string RemoteAddressText(const platform::TcpRow& row);
std::string LocalAddressText(const platform::UdpOwnerRow& row);

// What a typed remote-address filter looks for: the text itself, but a bracketed address
// ("[::1]") loses its brackets, and an IPv4 address written as IPv6 ("::ffff:10.0.0.1") is
// looked for in the dotted form the log holds.
std::string AddressFilterText(const std::string& typed);

}  // namespace tessmark
