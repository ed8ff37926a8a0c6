// What the demo writers share: parsing of their step arguments and waiting for the end.
#pragma once

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <string>

#include "platform/CharRange.h"
#include "platform/Error.h"

namespace example {

// A decimal number of 32 bits, all of `text` (no sign, no blanks).
inline uint32_t number(const std::string& text) {
  Oro::CharRange in(text);
  uint64_t v = 0;
  try {
    v = in.readUnsigned(UINT32_MAX);
  } catch (const Oro::Exception&) {
    throw Oro::ParseException("not a number: '" + text + "'");
  }
  if (!in.atEnd()) throw Oro::ParseException("not a number: '" + text + "'");
  return static_cast<uint32_t>(v);
}

// A value read from all of `text` (`what` names it in the error).
template <class T>
T parsed(const std::string& text, const char* what) {
  Oro::CharRange in(text);
  T v(in);
  if (!in.atEnd()) throw Oro::ParseException(std::string("not ") + what + ": " + text);
  return v;
}

inline sigset_t stopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

// Called first in main: SIGINT and SIGTERM wait for hold() instead of ending the process, so
// none is lost before it runs.
inline void blockStopSignals() {
  const sigset_t set = stopSignals();
  sigprocmask(SIG_BLOCK, &set, nullptr);
}

// Blocks until SIGINT or SIGTERM (read through a signalfd: nothing polls).
inline void hold() {
  const sigset_t set = stopSignals();
  const int fd = signalfd(-1, &set, SFD_CLOEXEC);
  signalfd_siginfo info;
  while (read(fd, &info, sizeof info) < 0 && errno == EINTR) {
  }
  close(fd);
}

}  // namespace example
