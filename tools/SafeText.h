// Text that mvpnstat prints comes partly from shared memory (type names, mount paths, counter
// names), which any process with access can fill with any bytes. These functions make such
// text safe to print: JSON stays valid and a terminal never receives a raw control character
// or escape sequence.
//
// Both decode UTF-8 strictly (no overlong forms, no surrogates, nothing above U+10FFFF); a
// byte that does not start a valid sequence is an invalid byte on its own.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Mvpnstat {

// A JSON string literal, quotes included. Valid UTF-8 passes through except control
// characters (C0, DEL, C1) and the line and paragraph separators U+2028 and U+2029, which
// are written as \uXXXX (C0 ones with the short escapes where JSON has them); each invalid
// byte becomes \ufffd.
std::string jsonQuote(std::string_view s);

// What displayText is given.
enum class Shown {
  text,  // any text: a backslash is doubled, so that every escape shown is one of ours
  form,  // a record's or a key's text form, whose strings escape their own backslashes: a
         // backslash there never stands for a byte displayText escaped, and passes through
  dump,  // lines of text forms: newlines pass through too
};

// Text for plain-text output. Printable UTF-8 passes through; a control character (C0, DEL)
// or an invalid byte is shown as \xNN, a C1 control as \u00NN; backslashes and newlines as
// `shown` says.
std::string displayText(std::string_view s, Shown shown = Shown::text);

// A count with its noun, singular for one: "1 record", "3 records".
inline std::string counted(uint64_t n, std::string_view noun) {
  return std::to_string(n) + " " + std::string(noun) + (n == 1 ? "" : "s");
}

}  // namespace Mvpnstat
