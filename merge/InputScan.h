// The resumable scan of one input stream: walks a collection in its own order, hands every key
// to the owner's per-key reaction, and yields by the scheduler's verdict, remembering the next
// key as a bookmark. Input machines and per-entity child machines embed one per stream.
//
// Scan states: 0 not scanned, 1 interrupted (resume at the bookmark), 2 complete, 3 first scan
// complete while the parent had not finished its initial scan (a second scan follows).
// Invariants: the bookmark is set exactly in state 1; a yield never happens after the last
// key (a scan with no next key completes in the same run); a synchronous scan never yields; a
// scan that completes after the parent's initial scan is done (state 2) handled every key
// after that point (one interrupted across it starts over).
//
// Coll concept: Key, Bookmark, iter(), iterAt(bookmark), size(), and
// handleCorruption(const Oro::ShmCorruptionException&); its iterators have valid(), key(),
// next() and bookmark(). A corruption met while walking (or raised by onKey) is handed to the
// collection's handler and ends the walk; the scan then counts as complete but damaged()
// until a later scan of the same stream completes cleanly. The owner must not act on the
// absence of the keys a damaged scan did not reach (see InputRead.h).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "merge/MergeTraceLevels.h"
#include "platform/Error.h"
#include "platform/Trace.h"
#include "platform/runtime/TaskScheduler.h"

namespace Routing::Multicast::DynaCode {

enum ScanState : uint8_t {
  kScanNotScanned = 0,
  kScanInterrupted = 1,
  kScanComplete = 2,
  kScanInitialComplete = 3,
};

// How one run of a scan ended.
enum class ScanResult { yielded, completed };

// What a scan needs to know of the machine that runs it.
struct ScanEnv {
  const bool* parentInitialScanDone;  // read live: it may change while the scan runs
  Oro::Task* task;                    // the task the scan runs in; null when it has none
  bool synchronous;
  const Oro::TraceHandle* trace;
  std::string_view machineName;
  std::string_view inputName;

  // shouldYield<n>: a task, not synchronous, and the scheduler says the slice is used up.
  bool shouldYield() const { return task && !synchronous && task->shouldYield(); }
};

template <class Coll>
class InputScan {
 public:
  using Key = typename Coll::Key;
  using Bookmark = typename Coll::Bookmark;
  using Result = ScanResult;

  uint8_t state() const { return state_; }
  const std::optional<Bookmark>& bookmark() const { return bookmark_; }
  // inputScanComplete<n>.
  bool complete(bool parentInitialScanDone) const {
    return state_ == kScanComplete || (state_ == kScanInitialComplete && !parentInitialScanDone);
  }
  // Items handled by the last run (for tracing and benchmarks).
  uint64_t lastRunItems() const { return lastRunItems_; }
  // The last scan that completed ended on damage instead of at the end of the collection.
  bool damaged() const { return damaged_; }
  // Progress of the current (or last) scan: keys handled, and the collection's size when last
  // looked at (the keys handled, once the scan is complete).
  uint64_t scanned() const { return scanned_; }
  uint64_t total() const { return total_; }

  // Starts over from the first key: the next run scans the whole collection again. Used to
  // rescan a stream whose last scan ended on damage; damaged() holds until that scan ends.
  void restart() {
    state_ = kScanNotScanned;
    bookmark_.reset();
  }

  // One run of the scan (the caller has checked that it is not complete). Calls
  // onKey(key, iterator) for every key (the iterator is at the key); on a yield reschedules
  // env.task and returns yielded; at the end of the collection moves to state 2 (parent done) or 3
  // and returns completed.
  template <class OnKey>
  Result run(const Coll& coll, const ScanEnv& env, OnKey&& onKey) {
    // The keys a scan handled before the parent's initial scan was done were not merged: a
    // scan interrupted across that point starts over.
    if (state_ == kScanInterrupted && startedBeforeParentDone_ && *env.parentInitialScanDone) {
      restart();
    }
    if (state_ != kScanInterrupted) startedBeforeParentDone_ = !*env.parentInitialScanDone;
    const bool resumed = state_ == kScanInterrupted;
    ORO_TRACE(*env.trace, kTraceScan, " scan complete: {} resumed: {} scan: {}",
              complete(*env.parentInitialScanDone), resumed, state_);
    uint64_t handled = 0;
    bool damaged = false;
    if (!resumed) scanned_ = 0;
    try {
      if (!resumed) total_ = coll.size();
      auto it = resumed ? coll.iterAt(*bookmark_) : coll.iter();
      while (it.valid()) {
        const Key key = it.key();
        onKey(key, it);
        ++handled;
        it.next();
        // The verdict is asked after every key; one that comes after the last key does not
        // yield (there is nothing left to resume).
        const bool yield = env.shouldYield();
        if (!it.valid()) break;
        if (yield) {
          const size_t total = coll.size();
          ORO_TRACE(*env.trace, kTraceScan, "{} {} yielding after {} iterations ({} total items)",
                    env.machineName, env.inputName, handled, total);
          state_ = kScanInterrupted;
          bookmark_ = it.bookmark();
          lastRunItems_ = handled;
          scanned_ += handled;
          total_ = total;
          env.task->workCountInc(handled);
          env.task->pendingWorkIs(total);
          env.task->schedule();
          return Result::yielded;
        }
      }
    } catch (const Oro::ShmCorruptionException& e) {
      coll.handleCorruption(e);
      damaged = true;
    }
    damaged_ = damaged;
    lastRunItems_ = handled;
    scanned_ += handled;
    if (!damaged) total_ = scanned_;
    if (env.task) {
      env.task->workCountInc(handled);
      env.task->pendingWorkIs(0);
    }
    bookmark_.reset();
    state_ = *env.parentInitialScanDone ? kScanComplete : kScanInitialComplete;
    return Result::completed;
  }

  // The scan's name in its completion trace: "<input>" or "<input> initial".
  std::string completionLabel(std::string_view inputName) const {
    std::string label(inputName);
    if (state_ == kScanInitialComplete) label += " initial";
    return label;
  }

 private:
  uint8_t state_ = kScanNotScanned;
  std::optional<Bookmark> bookmark_;
  uint64_t lastRunItems_ = 0;
  uint64_t scanned_ = 0;
  uint64_t total_ = 0;
  bool damaged_ = false;
  bool startedBeforeParentDone_ = false;
};

}  // namespace Routing::Multicast::DynaCode
