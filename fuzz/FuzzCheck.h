// Shared pieces of the libFuzzer harnesses (one harness per fuzz/<name>.cpp, seed corpus in
// fuzz/corpus/<name>/, optional dictionary fuzz/<name>.dict).
//
// A harness feeds its input to one reader and checks the properties that matter: the reader
// either raises one of the exception types it documents, or yields a value whose text (or
// wire) form reads back to an equal value. Anything else is a crash: an exception of an
// undocumented type escapes (libFuzzer reports the abort), and a broken property aborts
// through FUZZ_CHECK with the offending values. ASan and UBSan watch every step.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "platform/CharRange.h"
#include "platform/Error.h"
#include "platform/WireBuffer.h"

// FUZZ_CHECK(cond, detail): aborts with cond's text and detail (a std::string) when false.
#define FUZZ_CHECK(cond, detail)                                    \
  do {                                                              \
    if (!(cond)) ::Fuzz::fail(#cond, (detail), __FILE__, __LINE__); \
  } while (0)

namespace Fuzz {

// The fuzzer's input as text (any bytes, including NULs) or as wire bytes.
inline std::string_view asText(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}
inline std::span<const uint8_t> asBytes(const uint8_t* data, size_t size) {
  return {data, size};
}

[[noreturn]] inline void fail(const char* condition, const std::string& detail, const char* file,
                              int line) {
  std::fprintf(stderr, "%s:%d: property violated: %s\n%s\n", file, line, condition, detail.c_str());
  std::abort();
}

// Runs f; an exception of one of the Allowed types (or derived from one) means "rejected"
// and gives nothing. Other exceptions propagate and crash the harness.
template <class... Allowed, class F>
auto rejectOnly(F&& f) -> std::optional<decltype(f())> {
  try {
    return std::forward<F>(f)();
  } catch (const std::exception& e) {
    if ((... || (dynamic_cast<const Allowed*>(&e) != nullptr))) return std::nullopt;
    throw;
  }
}

// Parses the whole of text with T's CharRange constructor (trailing text is rejected).
template <class T>
T parseWhole(std::string_view text) {
  Oro::CharRange in(text);
  return T(in);
}

// Text with every byte outside printable ASCII written as \xNN, for failure reports.
inline std::string visible(std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c >= 0x20 && c < 0x7f && c != '\\' && c != '"') {
      out += static_cast<char>(c);
    } else {
      out += {'\\', 'x', kHex[c >> 4], kHex[c & 15]};
    }
  }
  return out + "\"";
}

// The text-form property: text is either rejected with one of Allowed, or it parses to v,
// print(v) parses back to a value equal to v, and that value prints as the same text (the
// printed form is canonical).
template <class T, class... Allowed, class Print>
void checkTextRoundTrip(std::string_view text, Print print) {
  const std::optional<T> v = rejectOnly<Allowed...>([&] { return parseWhole<T>(text); });
  if (!v) return;
  const std::string printed = print(*v);
  std::optional<T> again;
  try {
    again = parseWhole<T>(printed);
  } catch (const std::exception& e) {
    fail("the printed form parses",
         "input " + visible(text) + " printed as " + visible(printed) + ": " + e.what(), __FILE__,
         __LINE__);
  }
  FUZZ_CHECK(*again == *v, "input " + visible(text) + " printed as " + visible(printed) +
                               " reads back as " + visible(print(*again)));
  FUZZ_CHECK(print(*again) == printed, "input " + visible(text) + " printed as " +
                                           visible(printed) + ", then as " +
                                           visible(print(*again)));
  // Equal values must be interchangeable as keys: same order, same hash.
  if constexpr (std::three_way_comparable<T>) {
    FUZZ_CHECK((*again <=> *v) == 0, "equal values that do not compare equal: " + printed);
  }
  if constexpr (requires(const T& t) { std::hash<T>{}(t); }) {
    FUZZ_CHECK(std::hash<T>{}(*again) == std::hash<T>{}(*v),
               "equal values, other hashes: " + printed);
  }
}

}  // namespace Fuzz
