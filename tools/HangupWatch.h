// Tells a watch at once when the writer of the store it follows is gone. A reader asleep on a
// store's wake word hears of changes only: a writer killed between two writes changes nothing,
// so without this a watch would go on showing a dead merger as running. A thread holds a
// connection to the writer's doorbell (the writer never sends on it) and sleeps in poll()
// until the writer's end closes, which the kernel does when the writer's process ends however
// it ends, or until it is told to follow another writer. Nothing is polled on a clock.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace Oro {
class TaskScheduler;
}

namespace Mvpnstat {

class HangupWatch {
 public:
  // `onHangup` runs as a task of `scheduler` each time the followed writer is found gone
  // (its connection closed, or none could be made).
  HangupWatch(Oro::TaskScheduler& scheduler, std::function<void()> onHangup);
  ~HangupWatch();
  HangupWatch(const HangupWatch&) = delete;
  HangupWatch& operator=(const HangupWatch&) = delete;

  // Follows the writer serving the doorbell at `bellPath` from now on (the same path again
  // after a hang-up: connects anew). "" follows nobody.
  void follow(const std::string& bellPath);

 private:
  void run();
  void signal();

  Oro::TaskScheduler& scheduler_;
  std::function<void()> onHangup_;
  std::mutex mutex_;
  std::string path_;      // guarded by mutex_
  bool changed_ = false;  // guarded by mutex_
  bool stop_ = false;     // guarded by mutex_
  int event_ = -1;        // eventfd: a new path to follow, or the stop
  std::thread thread_;
};

}  // namespace Mvpnstat
