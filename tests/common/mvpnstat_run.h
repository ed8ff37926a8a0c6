// Runs the mvpnstat binary (MVPNSTAT_PATH, set by the build for the binaries that drive it) on
// this process's segment namespace, and promtool on a metrics exposition.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <fmt/format.h>

#include "platform/shm/ShmSegment.h"

namespace shmtest {

struct Result {
  int status;
  std::string out;
};

// A shell command's exit status and its output, stderr included.
inline Result run(const std::string& command) {
  FILE* p = popen((command + " 2>&1").c_str(), "r");
  Result r{-1, {}};
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
  const int st = pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return r;
}

inline Result mvpnstat(const std::string& args) {
  return run(fmt::format("{} --namespace {} {}", MVPNSTAT_PATH, Oro::shmNamespace(), args));
}

// promtool's verdict on a metrics exposition.
inline Result promtool(const std::string& exposition) {
  char file[] = "/tmp/mvpnstat-metrics-XXXXXX";
  const int fd = ::mkstemp(file);
  (void)!::write(fd, exposition.data(), exposition.size());
  ::close(fd);
  Result r = run(fmt::format("promtool check metrics < {}", file));
  ::unlink(file);
  return r;
}

}  // namespace shmtest
