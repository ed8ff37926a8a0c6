// The input of every text parser: a view over characters with a moving position.
// Parsers read from the position forward and leave it just behind what they read.
//
// Invariants: position() <= text().size(); the viewed characters outlive the range.
// Failures raise ParseException (text that does not match) or RangeException (a number
// that matches but does not fit); after a failure the position is unspecified, so the
// caller keeps nothing of a partly read value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "platform/Error.h"

namespace Oro {

class CharRange {
 public:
  constexpr explicit CharRange(std::string_view text) : text_(text) {}
  constexpr explicit CharRange(const char* text) : text_(text) {}
  // A range over a temporary string would dangle as soon as the statement ends.
  explicit CharRange(std::string&&) = delete;

  bool atEnd() const { return pos_ >= text_.size(); }
  // The next character, or '\0' at the end.
  char peek() const { return atEnd() ? '\0' : text_[pos_]; }
  size_t position() const { return pos_; }
  // Moves back (or forward) to a position obtained from position(); for backtracking.
  void positionIs(size_t pos) { pos_ = pos < text_.size() ? pos : text_.size(); }
  std::string_view text() const { return text_; }
  std::string_view rest() const { return text_.substr(pos_); }

  // Takes one character; ParseException at the end.
  char next() {
    if (atEnd()) fail("a character");
    return text_[pos_++];
  }

  // Takes c or lit when the text continues with it; otherwise leaves the position.
  bool consume(char c) {
    if (atEnd() || text_[pos_] != c) return false;
    ++pos_;
    return true;
  }
  bool consume(std::string_view lit) {
    if (rest().substr(0, lit.size()) != lit) return false;
    pos_ += lit.size();
    return true;
  }

  // Like consume, but a mismatch raises ParseException.
  void expect(std::string_view lit) {
    if (!consume(lit)) fail(fmt::format("'{}'", lit));
  }
  void expectEnd() const {
    if (!atEnd()) fail("end of text");
  }

  void skipSpaces() {
    while (!atEnd() && (text_[pos_] == ' ' || text_[pos_] == '\t')) ++pos_;
  }

  // Takes the longest run of characters satisfying pred (possibly empty).
  template <class Pred>
  std::string_view readWhile(Pred pred) {
    size_t start = pos_;
    while (!atEnd() && pred(text_[pos_])) ++pos_;
    return text_.substr(start, pos_ - start);
  }

  // An unsigned decimal number of at least one digit. ParseException without a digit;
  // RangeException when it exceeds max (the digits are consumed either way).
  uint64_t readUnsigned(uint64_t max = UINT64_MAX) {
    auto digits = readWhile([](char c) { return c >= '0' && c <= '9'; });
    if (digits.empty()) fail("a decimal number");
    uint64_t v = 0;
    bool over = false;
    for (char c : digits) {
      uint64_t d = static_cast<uint64_t>(c - '0');
      if (v > (UINT64_MAX - d) / 10) over = true;
      v = v * 10 + d;
    }
    if (over || v > max) {
      throw RangeException(fmt::format("value {} exceeds {}", digits, max));
    }
    return v;
  }

  // A string in single or double quotes; a backslash takes the next character as is.
  std::string readQuoted() {
    char q = peek();
    if (q != '\'' && q != '"') fail("a quoted string");
    ++pos_;
    std::string out;
    for (;;) {
      if (atEnd()) fail(fmt::format("closing {}", q));
      char c = text_[pos_++];
      if (c == q) return out;
      if (c == '\\') {
        if (atEnd()) fail("an escaped character");
        c = text_[pos_++];
      }
      out.push_back(c);
    }
  }

  // Reads a field of a key's text with read(*this): a key's text either matches field by
  // field or is a parse error, so a number that does not fit its field is one too.
  template <class Read>
  auto readKeyField(Read&& read) {
    const size_t start = pos_;
    try {
      return read(*this);
    } catch (const RangeException& e) {
      throw ParseException(fmt::format("{} at offset {} of \"{}\"", e.what(), start, text_));
    }
  }

  [[noreturn]] void fail(std::string_view expected) const {
    throw ParseException(fmt::format("expected {} at offset {} of \"{}\"", expected, pos_, text_));
  }

 private:
  std::string_view text_;
  size_t pos_ = 0;
};

// Parses the whole of a text form as a T (strep: the string representation) through T's
// constructor from a CharRange, which rejects trailing characters.
template <class T>
T strepToValue(std::string_view text) {
  CharRange in(text);
  return T(in);
}

// Writes s in single quotes, escaping quotes and backslashes; readQuoted reads it back.
inline std::string quoteText(std::string_view s) {
  std::string out;
  out.reserve(s.size() + 2);
  out.push_back('\'');
  for (char c : s) {
    if (c == '\'' || c == '\\') out.push_back('\\');
    out.push_back(c);
  }
  out.push_back('\'');
  return out;
}

}  // namespace Oro
