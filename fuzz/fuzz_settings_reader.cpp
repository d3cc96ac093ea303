// The settings file's reader and writer under libFuzzer.
//
// The input is read two ways:
//  1. as the text of a settings file: ParseIni must not crash, and what it read must come back
//     unchanged through FormatIni and ParseIni again;
//  2. as settings to store (sections, keys and values of any bytes, drawn from the input):
//     FormatIni must write text in which no control byte but the line end stands raw, and
//     ParseIni must give those settings back exactly.
// A broken property aborts, which the fuzzer reports as a crash with the input that did it.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/linux/ini_settings_store.h"

using tessmark::platform::linux_backend::FormatIni;
using tessmark::platform::linux_backend::IniContents;
using tessmark::platform::linux_backend::ParseIni;

namespace {

[[noreturn]] void Fail(const char* what, const std::string& text) {
  std::fprintf(stderr, "fuzz_settings_reader: %s\n--- formatted text (%zu bytes) ---\n", what,
               text.size());
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fprintf(stderr, "\n---\n");
  std::abort();
}

// Every control byte but LF, and DEL, is written as an escape: a raw one in the file would
// be one a text editor or a line-based tool could change unseen.
bool OnlyLineEndsRaw(const std::string& text) {
  for (char c : text) {
    unsigned char byte = static_cast<unsigned char>(c);
    if ((byte < 0x20 && byte != '\n') || byte == 0x7F) return false;
  }
  return true;
}

void CheckFormatted(const IniContents& contents) {
  std::string text = FormatIni(contents);
  if (!OnlyLineEndsRaw(text)) Fail("a control byte was written raw", text);
  if (ParseIni(text) != contents) Fail("the settings did not come back", text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // 1. The input as a settings file.
  std::string_view text(reinterpret_cast<const char*>(data), size);
  CheckFormatted(ParseIni(text));

  // 2. The input as settings: a few sections of a few keys each, all of any bytes.
  FuzzedDataProvider provider(data, size);
  IniContents contents;
  while (provider.remaining_bytes() > 0) {
    auto& section = contents[provider.ConsumeRandomLengthString(64)];
    int keys = provider.ConsumeIntegralInRange(0, 8);
    for (int k = 0; k < keys && provider.remaining_bytes() > 0; ++k) {
      std::string key = provider.ConsumeRandomLengthString(64);
      section[key] = provider.ConsumeRandomLengthString(256);
    }
  }
  CheckFormatted(contents);
  return 0;
}
