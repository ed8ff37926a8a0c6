// Writer processes driven phase by phase, for the merge tests across processes: each child
// sets itself up (mounts its status as the writer), then runs one phase per byte the test
// sends and answers with one byte when the phase's writes are done. The test applies the same
// phase to its model after the answer, so model and shared memory agree at every hand-off.
#pragma once

#include <signal.h>
#include <unistd.h>

#include <functional>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "common/shm_test_util.h"

namespace MergeTest {

class WriterProcesses {
 public:
  // `setUp(w)` runs in writer w's process and returns what that writer does in a phase.
  using SetUp = std::function<std::function<void(int phase)>(int w)>;

  WriterProcesses(int count, SetUp setUp) : setUp_(std::move(setUp)) {
    for (int w = 0; w < count; ++w) children_.push_back(spawn(w));
  }
  // Stops every writer; each must exit cleanly.
  ~WriterProcesses() {
    for (size_t w = 0; w < children_.size(); ++w) stop(static_cast<int>(w));
  }
  // Stops writer w for good (it takes no more phases).
  void stop(int w) {
    Child& c = children_[w];
    if (c.pid < 0) return;
    EXPECT_EQ(::write(c.command, &kStop, 1), 1);
    EXPECT_EQ(shmtest::waitChild(c.pid), 0);
    ::close(c.command);
    ::close(c.ack);
    c.pid = -1;
  }

  // Kills writer w (SIGKILL, whatever it was doing) and starts its successor, which takes the
  // status over as it was left.
  void restart(int w) {
    Child& c = children_[w];
    ASSERT_EQ(::kill(c.pid, SIGKILL), 0);
    EXPECT_EQ(shmtest::waitChild(c.pid), 128 + SIGKILL);
    ::close(c.command);
    ::close(c.ack);
    c = spawn(w);
  }

  // Runs `phase` in every writer at once; returns when all are done.
  void runPhase(int phase) {
    const auto p = static_cast<unsigned char>(phase);
    for (Child& c : children_) {
      if (c.pid >= 0) {
        ASSERT_EQ(::write(c.command, &p, 1), 1);
      }
    }
    for (Child& c : children_) {
      if (c.pid < 0) continue;
      unsigned char done = 0;
      ASSERT_EQ(::read(c.ack, &done, 1), 1) << "a writer process died in phase " << phase;
    }
  }

 private:
  static constexpr unsigned char kStop = 0xff;
  struct Child {
    pid_t pid = -1;
    int command = -1;
    int ack = -1;
  };
  Child spawn(int w) {
    Child c;
    int down[2], up[2];
    EXPECT_EQ(::pipe(down), 0);
    EXPECT_EQ(::pipe(up), 0);
    c.pid = shmtest::forkChild([&] {
      ::close(down[1]);
      ::close(up[0]);
      const auto phaseFn = setUp_(w);
      for (unsigned char phase; ::read(down[0], &phase, 1) == 1 && phase != kStop;) {
        phaseFn(phase);
        if (::write(up[1], &phase, 1) != 1) return 3;
      }
      return 0;
    });
    ::close(down[0]);
    ::close(up[1]);
    c.command = down[1];
    c.ack = up[0];
    return c;
  }

  SetUp setUp_;
  std::vector<Child> children_;
};

}  // namespace MergeTest
