#pragma once
// CInterface: one row of the interface table as a plain record with no behaviour.

#include <cstdint>
#include <string>

namespace tessmark {

// The fields of one interface row. The system's unsigned fields are held signed with their
// bits unchanged, so a counter past 2^31 reads negative.
struct CInterface {
  std::string InterfaceDescription;  // bDescr cut to dwDescrLen bytes
  int32_t OutputQueueLength = 0;
  int32_t OutgoingErrors = 0;
  int32_t DiscardedOutgoingPackets = 0;
  int32_t NonunicastPacketsSent = 0;
  int32_t UnicastPacketsSent = 0;
  int32_t OctetsSent = 0;
  int32_t UnknownProtocolPackets = 0;
  int32_t IncomingErrors = 0;
  int32_t DiscardedIncomingPackets = 0;
  int32_t NonunicastPacketsReceived = 0;
  int32_t MaximumTransmissionUnit = 0;
  int32_t UnicastPacketsReceived = 0;
  int32_t OctetsReceived = 0;
  // dwLastChange stored as a date, a day count: the number of ticks read as days. Nothing
  // reads it.
  double LastChange = 0;
  int32_t OperationalStatus = 0;
  int32_t AdminStatus = 0;
  std::string AdapterAddress;  // "00-A0-C9-1-2-3": bytes below 16 but not 0 get one digit
  int32_t speed = 0;
  int32_t InterfaceType = 0;
  int32_t InterfaceIndex = 0;
  // The 512 bytes of the 16-bit name, each byte read as one character: a zero character
  // after each letter, then zeros up to 512. Nothing reads it.
  std::string InterfaceName;
};

}  // namespace tessmark
