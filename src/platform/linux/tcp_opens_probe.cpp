#include "platform/linux/tcp_opens_probe.h"

#include <charconv>

namespace tessmark::platform::linux_backend {

namespace {

constexpr std::string_view kTcpLabel = "Tcp:";

// The next line of `text` from `pos` on, without its LF; `pos` moves past it.
std::string_view NextLine(std::string_view text, size_t& pos) {
  size_t end = text.find('\n', pos);
  if (end == std::string_view::npos) end = text.size();
  std::string_view line = text.substr(pos, end - pos);
  pos = end + 1;
  return line;
}

// The field of `line` at `index` (0 is the label), fields parted by single blanks.
std::optional<std::string_view> FieldAt(std::string_view line, size_t index) {
  size_t start = 0;
  for (size_t i = 0; i < index; ++i) {
    start = line.find(' ', start);
    if (start == std::string_view::npos) return std::nullopt;
    ++start;
  }
  size_t end = line.find(' ', start);
  return line.substr(start, end == std::string_view::npos ? end : end - start);
}

// The index of the field named `name` in the header line; 0 when it is not there.
size_t IndexOf(std::string_view header, std::string_view name) {
  for (size_t i = 1;; ++i) {
    auto field = FieldAt(header, i);
    if (!field) return 0;
    if (*field == name) return i;
  }
}

std::optional<uint64_t> NumberAt(std::string_view values, size_t index) {
  auto field = FieldAt(values, index);
  if (!field || field->empty()) return std::nullopt;
  uint64_t value = 0;
  auto [end, ec] = std::from_chars(field->data(), field->data() + field->size(), value);
  if (ec != std::errc() || end != field->data() + field->size()) return std::nullopt;
  return value;
}

}  // namespace

std::optional<TcpOpenCounts> ParseTcpOpens(std::string_view text) {
  size_t pos = 0;
  while (pos < text.size()) {
    std::string_view header = NextLine(text, pos);
    if (!header.starts_with(kTcpLabel)) continue;
    // The values follow the names on the very next line.
    if (pos >= text.size()) return std::nullopt;
    std::string_view values = NextLine(text, pos);
    if (!values.starts_with(kTcpLabel)) return std::nullopt;
    size_t active = IndexOf(header, "ActiveOpens");
    size_t passive = IndexOf(header, "PassiveOpens");
    if (active == 0 || passive == 0) return std::nullopt;
    auto activeOpens = NumberAt(values, active);
    auto passiveOpens = NumberAt(values, passive);
    if (!activeOpens || !passiveOpens) return std::nullopt;
    return TcpOpenCounts{*activeOpens, *passiveOpens};
  }
  return std::nullopt;
}

TcpOpensProbe::TcpOpensProbe(const std::string& procRoot) : file_(procRoot + "/net/snmp") {}

std::optional<TcpOpenCounts> TcpOpensProbe::read() const {
  // The file is about 1.3 KB; its ICMP message lines grow with each message type the machine
  // has seen, up to about 10 KB when all 256 types came in and went out. The seq_file hands
  // it whole to a read from offset 0.
  char buffer[16384];
  std::optional<std::string_view> text = file_.read(buffer, sizeof buffer);
  if (!text) return std::nullopt;
  return ParseTcpOpens(*text);
}

}  // namespace tessmark::platform::linux_backend
