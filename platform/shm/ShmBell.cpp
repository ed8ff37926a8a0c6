#include "platform/shm/ShmBell.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>

#include <fmt/format.h>

#include "platform/Error.h"
#include "platform/runtime/Futex.h"
#include "platform/shm/ShmSegment.h"

namespace Oro {

namespace {

using State = ShmBellServer::State;

// epoll tokens: the stop event, listening sockets and connections.
constexpr uint64_t kStopToken = 0;
// How often a listener the watcher had to stop polling (no descriptor left) is tried again
// when no connection closes meanwhile: descriptors may be freed by anything in the process.
constexpr int kRearmMs = 1000;

// Connections the watcher keeps open at most: half of the descriptors the process may open,
// so that readers (anyone who may read a store may connect) cannot take the descriptors the
// writer itself needs for its segments and sockets.
size_t connectionLimit() {
  rlimit r{};
  if (::getrlimit(RLIMIT_NOFILE, &r) != 0 || r.rlim_cur == RLIM_INFINITY) return SIZE_MAX;
  return static_cast<size_t>(r.rlim_cur / 2);
}

// The process's watcher: one thread serving every doorbell of this process's writers.
class Watcher {
 public:
  static Watcher& instance() {
    static Watcher* w = new Watcher();  // never destroyed: stores may outlive static objects
    return *w;
  }

  void add(const std::shared_ptr<State>& state) {
    std::lock_guard lock(mu_);
    if (!running_) start();
    const uint64_t token = nextToken_++;
    entries_[token] = Entry{state, state->listenFd, true};
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = token;
    ::epoll_ctl(epfd_, EPOLL_CTL_ADD, state->listenFd, &ev);
  }

  void remove(const std::shared_ptr<State>& state) {
    std::unique_lock lock(mu_);
    for (auto it = entries_.begin(); it != entries_.end();) {
      if (it->second.state == state) {
        ::epoll_ctl(epfd_, EPOLL_CTL_DEL, it->second.fd, nullptr);
        if (!it->second.listening) {
          ::close(it->second.fd);
          --connections_;
        } else if (!it->second.armed) {
          --disarmed_;
        }
        it = entries_.erase(it);
      } else {
        ++it;
      }
    }
    if (entries_.empty() && running_) stop(lock);
  }

  // Around fork: the mutex is held across it, so the child's copy is in a known state; the
  // child has no watcher thread and forgets the parent's registrations.
  void beforeFork() { mu_.lock(); }
  void afterForkParent() { mu_.unlock(); }
  void afterForkChild() {
    mu_.unlock();
    // The child's copies of the readers' connections are nobody's: closed, so that a reader
    // sees its connection end when this process does.
    for (auto& [token, e] : entries_) {
      if (!e.listening) ::close(e.fd);
    }
    entries_.clear();
    connections_ = 0;
    disarmed_ = 0;
    if (running_) {
      thread_.detach();  // the thread object of a thread that does not exist here
      thread_ = std::thread();
      ::close(epfd_);
      ::close(stopFd_);
      epfd_ = stopFd_ = -1;
      running_ = false;
    }
  }

 private:
  struct Entry {
    std::shared_ptr<State> state;
    int fd;
    bool listening;
    bool armed = true;  // a listener: polled for connections
  };

  Watcher() {
    ::pthread_atfork([] { Watcher::instance().beforeFork(); },
                     [] { Watcher::instance().afterForkParent(); },
                     [] { Watcher::instance().afterForkChild(); });
  }

  // Under mu_. Each start makes descriptors of its own and hands them to its thread: a stop
  // in progress (waiting for the old thread, without the lock) closes only the old ones.
  void start() {
    int ep = -1, sf = -1;
    auto fail = [&](int e) {
      if (ep >= 0) ::close(ep);
      if (sf >= 0) ::close(sf);
      throw ShmException(fmt::format("cannot start the doorbell watcher: {}", std::strerror(e)));
    };
    if ((ep = ::epoll_create1(EPOLL_CLOEXEC)) < 0) fail(errno);
    if ((sf = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) < 0) fail(errno);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = kStopToken;
    ::epoll_ctl(ep, EPOLL_CTL_ADD, sf, &ev);
    try {
      thread_ = std::thread([this, ep] { loop(ep); });
    } catch (const std::system_error& e) {
      fail(e.code().value());
    }
    epfd_ = ep;
    stopFd_ = sf;
    running_ = true;
  }

  // Under mu_, released while the thread ends: another thread may start a new watcher then.
  void stop(std::unique_lock<std::mutex>& lock) {
    const int ep = std::exchange(epfd_, -1);
    const int sf = std::exchange(stopFd_, -1);
    const uint64_t one = 1;
    (void)!::write(sf, &one, sizeof one);
    std::thread t = std::move(thread_);
    running_ = false;
    lock.unlock();
    t.join();
    ::close(ep);
    ::close(sf);
    lock.lock();
  }

  // The thread of the watcher started with epoll descriptor `ep`; it ends when that watcher
  // is stopped (epfd_ no longer `ep`), whatever it was doing.
  void loop(int ep) {
    epoll_event events[64];
    for (;;) {
      int timeout;
      {
        std::lock_guard lock(mu_);
        if (epfd_ != ep) return;
        timeout = disarmed_ != 0 ? kRearmMs : -1;
      }
      const int n = ::epoll_wait(ep, events, 64, timeout);
      if (n < 0) {
        if (errno == EINTR) continue;
        return;
      }
      std::lock_guard lock(mu_);
      if (epfd_ != ep) return;
      if (n == 0) rearm();
      for (int i = 0; i < n; ++i) {
        const uint64_t token = events[i].data.u64;
        if (token == kStopToken) return;
        auto it = entries_.find(token);
        if (it == entries_.end()) continue;  // withdrawn meanwhile
        if (it->second.listening) {
          accept(token, it->second);
        } else {
          receive(it);
        }
      }
    }
  }

  // Takes in every waiting connection of a listener, reading what each has sent already. When
  // one cannot be taken in, the listener stops being polled (level-triggered, it would report
  // the same connection again at once) and its doorbell is saturated until a later round has
  // taken in and read every waiting connection.
  void accept(uint64_t listener, Entry& l) {
    for (;;) {
      if (connections_ >= connectionLimit()) return saturate(listener, l);
      const int fd = ::accept4(l.fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (fd < 0) {
        if (errno == EINTR || errno == ECONNABORTED) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) break;
        return saturate(listener, l);  // EMFILE, ENFILE, ENOBUFS, ENOMEM
      }
      const uint64_t token = nextToken_++;
      auto it = entries_.emplace(token, Entry{l.state, fd, false}).first;
      ++connections_;
      epoll_event ev{};
      ev.events = EPOLLIN;
      ev.data.u64 = token;
      ::epoll_ctl(epfd_, EPOLL_CTL_ADD, fd, &ev);
      receive(it);
    }
    l.state->saturated.store(false, std::memory_order_seq_cst);
  }

  // Sleepers whose registrations wait in connections not taken in are woken once here; from
  // now on the writer wakes on every publication (see State::saturated).
  void saturate(uint64_t listener, Entry& l) {
    if (l.armed) {
      epoll_event ev{};
      ev.events = 0;
      ev.data.u64 = listener;
      ::epoll_ctl(epfd_, EPOLL_CTL_MOD, l.fd, &ev);
      l.armed = false;
      ++disarmed_;
    }
    if (!l.state->saturated.exchange(true, std::memory_order_seq_cst)) {
      futexWake(l.state->wakeWord, INT_MAX, /*shared=*/true);
    }
  }

  // Polls every stopped listener again (a descriptor was freed, or it is time to retry).
  void rearm() {
    if (disarmed_ == 0) return;
    for (auto& [token, e] : entries_) {
      if (!e.listening || e.armed) continue;
      epoll_event ev{};
      ev.events = EPOLLIN;
      ev.data.u64 = token;
      ::epoll_ctl(epfd_, EPOLL_CTL_MOD, e.fd, &ev);
      e.armed = true;
    }
    disarmed_ = 0;
  }

  void receive(std::unordered_map<uint64_t, Entry>::iterator it) {
    State& s = *it->second.state;
    for (;;) {
      uint32_t wake = 0;
      const ssize_t n = ::recv(it->second.fd, &wake, sizeof wake, MSG_DONTWAIT);
      if (n == static_cast<ssize_t>(sizeof wake)) {
        s.rings.fetch_add(1, std::memory_order_relaxed);
        if (s.record(wake)) futexWake(s.wakeWord, INT_MAX, /*shared=*/true);
        continue;
      }
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
      if (n < 0 && errno == EINTR) continue;
      // Closed (the reader went away) or a malformed message: drop the connection.
      ::epoll_ctl(epfd_, EPOLL_CTL_DEL, it->second.fd, nullptr);
      ::close(it->second.fd);
      entries_.erase(it);
      --connections_;
      rearm();
      return;
    }
  }

  std::mutex mu_;
  std::unordered_map<uint64_t, Entry> entries_;
  size_t connections_ = 0;  // entries that are connections
  size_t disarmed_ = 0;     // listeners not polled
  uint64_t nextToken_ = 1;
  bool running_ = false;
  int epfd_ = -1;
  int stopFd_ = -1;
  std::thread thread_;
};

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  if (path.size() >= sizeof a.sun_path) {
    throw ShmException(fmt::format("doorbell path {} is too long", path));
  }
  std::memcpy(a.sun_path, path.c_str(), path.size() + 1);
  return a;
}

}  // namespace

std::string shmBellPath(uint64_t instance, uint64_t nameKey) {
  return fmt::format("{}/{}@{:016x}.{}", kShmDirectory, shmNamespace(), instance,
                     shmSegmentSuffix(instance, nameKey, "bell"));
}

ShmBellServer::ShmBellServer(std::string path, mode_t mode, const std::atomic<uint32_t>* wakeWord)
    : path_(std::move(path)),
      state_(std::make_shared<State>()),
      forkGeneration_(shmForkGeneration()) {
  state_->wakeWord = wakeWord;
  const sockaddr_un addr = addressOf(path_);
  const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) throw ShmException(fmt::format("cannot create doorbell: {}", std::strerror(errno)));
  ::unlink(path_.c_str());
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(fd, 64) != 0) {
    const int err = errno;
    ::close(fd);
    throw ShmException(fmt::format("cannot bind doorbell {}: {}", path_, std::strerror(err)));
  }
  // Everyone who may read the store may ring: write permission where the store grants read.
  const mode_t read = mode & 0444;
  (void)::chmod(path_.c_str(), 0600 | (read >> 1));
  state_->listenFd = fd;
  // Nobody answers at the doorbell once this process is gone, even if a child of it lives on.
  (void)shmForkReleaseAdd(fd);
  try {
    Watcher::instance().add(state_);
  } catch (...) {
    shmForkReleaseRemove(fd);
    ::close(fd);
    ::unlink(path_.c_str());
    throw;
  }
}

// Registrations may still be on their way to the watcher: the writer wakes every sleeper once
// as it goes (advancing the word first, so that a reader about to sleep does not).
ShmBellServer::~ShmBellServer() {
  Watcher::instance().remove(state_);
  shmForkReleaseRemove(state_->listenFd);
  ::close(state_->listenFd);
  if (forkGeneration_ != shmForkGeneration()) return;  // the parent's doorbell, still serving
  ::unlink(path_.c_str());
  auto* word = const_cast<std::atomic<uint32_t>*>(state_->wakeWord);
  word->fetch_add(1, std::memory_order_seq_cst);
  futexWake(word, INT_MAX, /*shared=*/true);
}

// A registration always replaces the recorded one. Keeping the older value instead loses the
// newer sleeper when the writer, already waking for the older value, clears the word just
// before that sleeper falls asleep. Nobody behind the replaced registration loses anything:
// if the word moved off its value they are woken here, and if not, the word now differs from
// one of the two values, so they are woken here or at the writer's next publication.
bool ShmBellServer::State::record(uint32_t wake) {
  const uint64_t old = pending.exchange(kRegistered | wake, std::memory_order_seq_cst);
  const uint32_t now = wakeWord->load(std::memory_order_seq_cst);
  return now != wake || (old != 0 && static_cast<uint32_t>(old) != now);
}

void ShmBellServer::wake(uint64_t seen) {
  state_->claim(seen);
  wakeAll();
}

void ShmBellServer::wakeAll() {
  state_->wakes.fetch_add(1, std::memory_order_relaxed);
  futexWake(state_->wakeWord, INT_MAX, /*shared=*/true);
}

ShmBellClient::~ShmBellClient() {
  reset();
}

void ShmBellClient::reset() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  sent_ = false;
}

int shmBellConnect(const std::string& path) {
  // Non-blocking: a connect to a doorbell whose queue of waiting connections is full fails at
  // once (EAGAIN: try again later) instead of blocking the caller.
  if (path.empty()) return -ENOENT;
  sockaddr_un addr{};
  try {
    addr = addressOf(path);
  } catch (const ShmException&) {
    return -ENAMETOOLONG;
  }
  const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return -errno;
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    const int err = errno;
    ::close(fd);
    return -err;
  }
  return fd;
}

int ShmBellClient::connectNow() {
  const int fd = shmBellConnect(path_);
  if (fd < 0) return -fd;
  fd_ = fd;
  sent_ = false;
  return 0;
}

ShmBellClient::Ring ShmBellClient::ring(uint32_t wake) {
  if (fd_ >= 0 && sent_ && last_ == wake) return Ring::registered;
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (fd_ < 0) {
      // No socket, or one nobody listens on (its writer died): no live writer.
      if (const int err = connectNow(); err != 0) {
        return err == ENOENT || err == ECONNREFUSED ? Ring::noWriter : Ring::failed;
      }
    }
    const ssize_t n = ::send(fd_, &wake, sizeof wake, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n == static_cast<ssize_t>(sizeof wake)) {
      sent_ = true;
      last_ = wake;
      return Ring::registered;
    }
    const int err = errno;
    reset();
    if (err == EAGAIN || err == EWOULDBLOCK) return Ring::failed;
    // The writer went away (a new one may serve the same path): connect again once.
  }
  return Ring::noWriter;
}

}  // namespace Oro
