#include "platform/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Oro {

void assertionFailed(std::string_view message, const char* file, int line, const char* function) {
  // stdio, not iostreams: this runs in any state, including during static destruction.
  std::fprintf(stderr, "Assertion failed: %.*s (%s:%d%s%s)\n", static_cast<int>(message.size()),
               message.data(), file, line, function ? ", in " : "", function ? function : "");
  std::fflush(stderr);
  std::abort();
}

}  // namespace Oro
