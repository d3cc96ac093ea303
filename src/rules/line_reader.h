#pragma once
// Lines of the firewall's text files: a line ends at CR LF or at a CR alone. A lone LF
// belongs to the line, so a path that holds one survives a write and a read.

#include <string>
#include <string_view>
#include <vector>

namespace tessmark {

// Takes the next line off the front of `text`; false at the end of the text.
bool ReadLine(std::string_view& text, std::string& line);

// The pieces of the text between the separators, with no limit on their number.
std::vector<std::string> SplitAt(std::string_view text, char separator);

// The whole file as bytes; false when it cannot be read.
bool ReadWholeFile(const std::string& path, std::string& contents);

}  // namespace tessmark
