#include "platform/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Oro {

void assertionFailed(std::string_view message, const char* file, int line) {
  // stdio, not iostreams: this runs in any state, including during static destruction.
  std::fprintf(stderr, "Assertion failed: %.*s (%s:%d)\n", static_cast<int>(message.size()),
               message.data(), file, line);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Oro
