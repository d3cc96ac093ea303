#pragma once
// Fields of the firewall's line-based files (the rule file, the log) that may hold any byte a
// Linux file name holds. A field that holds a line break, one of its file's separators or a
// control byte, or that begins with a double quote, is written quoted: a double quote, the
// field with each such byte as \xHH and each backslash as \\, and a closing double quote. A
// quoted field holds no separator and no line break, so a reader that splits a line at its
// separators finds every field whole. Every other field is written as it stands, so files
// whose paths hold none of these bytes keep their exact bytes. A program path is absolute, so
// a plain one never begins with a double quote.

#include <string>
#include <string_view>

namespace tessmark {

// The field as it goes into a line whose fields are separated by any byte of `separators`.
std::string QuoteField(std::string_view field, std::string_view separators);

// The field as it was before QuoteField. A field that is not quoted comes back as it stands;
// an escape that QuoteField never writes stands for itself.
std::string UnquoteField(std::string_view field);

}  // namespace tessmark
