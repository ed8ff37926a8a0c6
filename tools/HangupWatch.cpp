#include "tools/HangupWatch.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/runtime/TaskScheduler.h"
#include "platform/shm/ShmBell.h"

namespace Mvpnstat {

namespace {

enum class Connect { connected, gone, busy };

// A connection to the doorbell at `path` in `*fd`; `gone` when nobody serves it, `busy` when
// it cannot be made now (a full queue of waiting connections, no descriptor left).
Connect connectTo(const std::string& path, int* fd) {
  *fd = Oro::shmBellConnect(path);
  if (*fd >= 0) return Connect::connected;
  const int err = -*fd;
  return err == EAGAIN || err == EMFILE || err == ENFILE || err == ENOBUFS ? Connect::busy
                                                                           : Connect::gone;
}

// Whether the peer of `fd` closed its end: the writer never sends, so anything readable is
// the end of the connection (or data to drop).
bool closedByPeer(int fd) {
  char buf[64];
  for (;;) {
    const ssize_t n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n == 0) return true;
    if (n < 0) return errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR;
  }
}

}  // namespace

HangupWatch::HangupWatch(Oro::TaskScheduler& scheduler, std::function<void()> onHangup)
    : scheduler_(scheduler), onHangup_(std::move(onHangup)) {
  event_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (event_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  // The thread takes no signals: an operator's SIGINT or SIGTERM must reach the main thread,
  // the one that may be blocked writing to a full pipe (the signal ends that write).
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &before);
  try {
    thread_ = std::thread([this] { run(); });
  } catch (...) {
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    ::close(event_);
    throw;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

HangupWatch::~HangupWatch() {
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
  }
  signal();
  thread_.join();
  ::close(event_);
}

void HangupWatch::signal() {
  const uint64_t one = 1;
  (void)!::write(event_, &one, sizeof one);
}

void HangupWatch::follow(const std::string& bellPath) {
  {
    std::lock_guard lock(mutex_);
    path_ = bellPath;
    changed_ = true;
  }
  signal();
}

void HangupWatch::run() {
  int fd = -1;
  std::string path;
  bool retry = false;  // the doorbell was busy: connect again a little later
  for (;;) {
    pollfd p[2] = {{event_, POLLIN, 0}, {fd, POLLRDHUP, 0}};
    const int n = ::poll(p, fd >= 0 ? 2 : 1, retry ? 1000 : -1);
    if (n < 0 && errno != EINTR) break;
    bool connect = retry && n == 0;
    if (p[0].revents & POLLIN) {
      uint64_t count;
      (void)!::read(event_, &count, sizeof count);
      std::lock_guard lock(mutex_);
      if (stop_) break;
      if (changed_) {
        changed_ = false;
        // Following the writer already followed: nothing to do while its connection holds.
        connect = fd < 0 || path_ != path;
        path = path_;
      }
    }
    if (fd >= 0 && p[1].revents != 0 && closedByPeer(fd)) {
      ::close(fd);
      fd = -1;
      scheduler_.post(onHangup_);
    }
    if (!connect) continue;
    if (fd >= 0) ::close(fd);
    retry = false;
    switch (connectTo(path, &fd)) {
      case Connect::connected:
        break;
      case Connect::busy:
        retry = true;
        break;
      case Connect::gone:
        if (!path.empty()) scheduler_.post(onHangup_);
        break;
    }
  }
  if (fd >= 0) ::close(fd);
}

}  // namespace Mvpnstat
