// Fatal assertions: a violated invariant is a programming error. The message is the
// failed condition, joined by && to a quoted explanation where one is given; it is
// printed to stderr and the process aborts.
#pragma once

#include <string_view>

#include <fmt/format.h>

namespace Oro {

// Prints "Assertion failed: <message> (<file>:<line>)" to stderr, with ", in <function>" before
// the parenthesis closes when a function is named, then aborts.
[[noreturn]] void assertionFailed(std::string_view message, const char* file, int line,
                                  const char* function = nullptr);

}  // namespace Oro

// MVPN_ASSERT(cond): message is the condition's text.
#define MVPN_ASSERT(cond)                                          \
  do {                                                             \
    if (!(cond)) [[unlikely]]                                      \
      ::Oro::assertionFailed(#cond, __FILE__, __LINE__);           \
  } while (0)

// MVPN_ASSERT_MSG(cond, "why"): message is  cond && "why".
#define MVPN_ASSERT_MSG(cond, why)                                          \
  do {                                                                      \
    if (!(cond)) [[unlikely]]                                               \
      ::Oro::assertionFailed(#cond " && \"" why "\"", __FILE__, __LINE__);  \
  } while (0)

// MVPN_ASSERT_FMT(cond, "format {}", args...): message formatted with {fmt}.
#define MVPN_ASSERT_FMT(cond, ...)                                                        \
  do {                                                                                    \
    if (!(cond)) [[unlikely]]                                                             \
      ::Oro::assertionFailed(::fmt::format(__VA_ARGS__), __FILE__, __LINE__);             \
  } while (0)

// MVPN_ASSERT_MSG_AT(cond, "why", "Source", line): as MVPN_ASSERT_MSG, reporting where the
// check is declared (a type's declaration and its line) rather than this file's line: the
// place an operator looks up stays the same however the implementation moves.
#define MVPN_ASSERT_MSG_AT(cond, why, source, line)                      \
  do {                                                                   \
    if (!(cond)) [[unlikely]]                                            \
      ::Oro::assertionFailed(#cond " && \"" why "\"", (source), (line)); \
  } while (0)

// MVPN_FATAL("message"): unconditional failure with a ready-made message.
#define MVPN_FATAL(msg) ::Oro::assertionFailed((msg), __FILE__, __LINE__)
