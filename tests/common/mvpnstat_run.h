// Runs the mvpnstat binary (MVPNSTAT_PATH, set by the build for the binaries that drive it) on
// this process's segment namespace, and promtool on a metrics exposition; runs a program beside
// the test, reading its output line by line.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

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

// Runs mvpnstat, expecting its exit status and each of `parts` in its output.
inline Result mvpnstatExpect(const std::string& args, int status,
                             const std::vector<std::string>& parts = {}) {
  Result r = mvpnstat(args);
  EXPECT_EQ(r.status, status) << args << ":\n" << r.out;
  for (const auto& p : parts) EXPECT_NE(r.out.find(p), std::string::npos) << p << "\n" << r.out;
  return r;
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

// A child process running `argv`, its stdout readable line by line (stderr to /dev/null).
struct Child {
  pid_t pid = -1;
  int out = -1;
  std::string buffered;

  explicit Child(const std::vector<std::string>& argv) {
    int p[2];
    if (::pipe(p) != 0) return;
    pid = ::fork();
    if (pid == 0) {
      ::dup2(p[1], 1);
      const int devnull = ::open("/dev/null", O_WRONLY);
      ::dup2(devnull, 2);
      std::vector<char*> args;
      for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
      args.push_back(nullptr);
      ::execvp(args[0], args.data());
      ::_exit(127);
    }
    ::close(p[1]);
    out = p[0];
  }
  ~Child() {
    // The pipe goes first: a child blocked writing to it unread is then ended by the write.
    if (out >= 0) ::close(out);
    if (pid > 0) {
      ::kill(pid, SIGTERM);
      ::waitpid(pid, nullptr, 0);
    }
  }
  // Reads lines until one equals `want` (true) or the output ends (false); `seen` keeps every
  // line read this way, for the failure message.
  bool waitFor(const std::string& want) {
    for (std::string l = line(); !l.empty(); l = line()) {
      seen += l + "\n";
      if (l == want) return true;
    }
    return false;
  }
  std::string seen;

  // The next line of output; empty when the child ends or nothing comes within `guardMs`.
  std::string line(int guardMs = 60000) {
    for (;;) {
      const size_t nl = buffered.find('\n');
      if (nl != std::string::npos) {
        std::string l = buffered.substr(0, nl);
        buffered.erase(0, nl + 1);
        return l;
      }
      pollfd pfd{out, POLLIN, 0};
      if (::poll(&pfd, 1, guardMs) <= 0) return {};
      char buf[4096];
      const ssize_t n = ::read(out, buf, sizeof buf);
      if (n <= 0) return {};
      buffered.append(buf, static_cast<size_t>(n));
    }
  }
};

}  // namespace shmtest
