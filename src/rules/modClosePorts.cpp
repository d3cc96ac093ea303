#include "rules/modClosePorts.h"

#include <algorithm>

#include "base/booleans.h"
#include "rules/app_settings.h"
#include "rules/text_numbers.h"

namespace tessmark {

namespace {

struct Service {
  const char* caption;
  int32_t port;
  const char* name;
};

// The boxes in the order of the setting. A caption begins with its port number, left-aligned
// in four characters. The trailing blank and the full stop in two names are part of them.
constexpr Service kServices[kServiceCount] = {
    {"139 NetBIOS", 139, "Service NetBIOS"},
    {"143 IMAP (Internet Message Access Protocol)", 143,
     "Service IMAP (Internet Message Access Protocol)"},
    {"443 HTTP over TLS/SSL", 443, "Service HTTP over TLS/SSL "},
    {"445 Windows NT / 2000 SMB", 445, "Service Windows NT / 2000 SMB. "},
    {"1080 SOCKS", 1080, "Service SOCKS"},
    {"1723 PPTP (Point-to-Point Tunneling Protocol)", 1723,
     "Service PPTP (Point-to-Point Tunneling Protocol)"},
    {"5000 UPnP (Universal Plug and Play)", 5000, "Service UPnP (Universal Plug and Play)"},
    {"21  FTP (File Transfer Protocol)", 21, "Service FTP (File Transfer Protocol)"},
    {"22  SSH", 22, "Service SSH"},
    {"23  Telnet", 23, "Service Telnet"},
    {"25  SMTP (Simple Mail Transfer Protocol)", 25,
     "Service SMTP (Simple Mail Transfer Protocol)"},
    {"79  Finger", 79, "Service Finger"},
    {"80  HTTP (Hypertext Transfer Protocol)", 80, "Service HTTP (Hypertext Transfer Protocol)"},
    {"110 POP3 (Post Office Protocol)", 110, "Service POP3 (Post Office Protocol)"},
    {"113 Ident / Authentication", 113, "Service Ident / Authentication"},
    {"119 NNTP (Network News Transfer Protocol)", 119,
     "Service NNTP (Network News Transfer Protocol)"},
    {"135 Location service (loc-srv)", 135, "Service Location service (loc-srv)"},
};

// The ports of ordinary services; every other port rates high.
constexpr int32_t kNormalPorts[] = {21,  22,  23,  25,  79,   80,   110,
                                    113, 119, 143, 443, 1080, 1723, 5000};

// The number a text begins with, as a number box reads it: blanks skipped, digits up to the
// first other character; 0 when there is none.
int32_t leadingNumber(std::string_view text) {
  size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
  size_t end = i;
  while (end < text.size() && text[end] >= '0' && text[end] <= '9') ++end;
  return LongFromText(text.substr(i, end - i)).value_or(0);
}

}  // namespace

modClosePorts::modClosePorts(platform::SettingsStore& store, modSecureConfig& secure,
                             MessagePump& pump)
    : store_(store), secure_(secure), pump_(pump) {
  for (int i = 0; i < kServiceCount; ++i) Check4[i].Caption = kServices[i].caption;
  ClosedPorts.fill(-1);
  ClosedPorts[0] = 0;
}

void modClosePorts::LoadPorts() {
  std::string setting = GetSetting(store_, "Ports", "Ports", "");
  if (!setting.empty()) {
    for (size_t i = 1; i <= kServiceCount; ++i) {
      char digit = setting[std::min(i, setting.size()) - 1];
      Check4[i - 1].Value = leadingNumber(std::string_view(&digit, 1)) == 1 ? 1 : 0;
    }
  }
  RefreshClosedPorts();
}

void modClosePorts::SavePorts() {
  std::string setting;
  for (const auto& box : Check4) setting += std::to_string(box.Value);
  secure_.SaveSealedSetting("Ports", "Ports", setting);
}

void modClosePorts::RefreshClosedPorts() {
  for (int i = 0; i < kServiceCount; ++i)
    ClosedPorts[i + 1] =
        Check4[i].Value == 1 ? leadingNumber(std::string_view(Check4[i].Caption).substr(0, 4)) : -1;
}

int16_t modClosePorts::IsClosedPort(int32_t& port) {
  for (int i = 1; i <= kServiceCount; ++i) {
    CooperativeYield(pump_);
    if (ClosedPorts[i] == port) return kTrue;
  }
  return kFalse;
}

std::string modClosePorts::GetPortName(int32_t& port) {
  for (const auto& service : kServices)
    if (service.port == port) return service.name;
  return {};
}

std::string modClosePorts::PortRating(int32_t& port) {
  for (int32_t normal : kNormalPorts)
    if (normal == port) return "n";
  return "h";
}

}  // namespace tessmark
