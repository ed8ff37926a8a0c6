// Bookkeeping of one output collection of a merge machine: the Seen set of keys merged while
// reconciling, the walk that deletes stale entries after the merging scans, with its bookmark
// and its own task, the output's ready flag, and a task that gives Seen's memory back in
// slices once the walk is done.
//
// Reconciling is decided once, at initialisation: it is set exactly when the output already
// holds entries (a restart over a surviving output). While it is set every key the merge
// decides is recorded in Seen, whether it writes, deletes or keeps it (see below); the walk
// deletes every output entry not in Seen, then clears Seen and marks the output ready. With an
// empty output the walk is skipped.
//
// Damaged input: while the last scan of one of the output's streams ended on damage, the keys
// of that input are not all known, so the output is not reconciled and not ready: nothing is
// deleted, Seen keeps recording, and a walk that had yielded stays at its bookmark. The step
// runs again when the stream's clean rescan sets its scan flag.
//
// It also holds the keys whose last merge was decided with an input unreadable
// (merge/InputRead.h): remergeKept() merges them again once that input reads cleanly.
//
// OutColl concept: Key, Bookmark, iter(), iterAt(bookmark), size() (how many keys it holds),
// del(key) (true when something was deleted) and
// handleCorruption(const Oro::ShmCorruptionException&). KeyType wraps Key (the element type
// of Seen; constructible from a Key, hashable with Hash).
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "merge/MergeSm.h"
#include "merge/MergeSmParts.h"
#include "merge/MergeTraceLevels.h"
#include "merge/SeenSet.h"
#include "platform/Error.h"
#include "platform/Trace.h"
#include "platform/runtime/TaskScheduler.h"

namespace Routing::Multicast::DynaCode {

template <class OutColl, class KeyType, class Hash = std::hash<KeyType>>
class OutputReconciler : public OutputBase {
 public:
  using Key = typename OutColl::Key;
  using Bookmark = typename OutColl::Bookmark;

  // Output `index` of the machine's description (its name, e.g.
  // "mergedVrfStatusMvpnVrfOutput", the streams that must all be scanned before reconciling,
  // whether each step traces "Reconciling <name>: <flag>"). `remerge` runs the output's merge
  // rule for one key.
  OutputReconciler(MergeSm* parent, size_t index, OutColl coll,
                   std::function<void(const Key&)> remerge)
      : parent_(parent),
        index_(index),
        desc_(parent->desc().outputs[index]),
        name_(desc_.name),
        coll_(std::move(coll)),
        remerge_(std::move(remerge)) {}

  const std::string& name() const { return name_; }
  const OutColl& coll() const { return coll_; }
  // <out>Seen, <out>Bookmark, <out>UseBookmark, <out>Reconciling, <out>ReconciliationTask.
  const SeenSet<KeyType, Hash>& seen() const { return seen_; }
  const std::optional<Bookmark>& bookmark() const { return bookmark_; }
  bool useBookmark() const { return useBookmark_; }
  bool reconciling() const override { return reconciling_; }
  Oro::Task* reconciliationTask() const { return task_.get(); }
  // Totals over the whole reconciliation (the trace reports the last task run only).
  uint64_t processedTotal() const { return processedTotal_; }
  uint64_t deletedTotal() const { return deletedTotal_; }

  // Called by the merge for every key it decides, before it writes, deletes or keeps it.
  void keyMerged(const Key& key) {
    if (reconciling_) seen_.insert(KeyType(key));
  }
  // Called by the merge for a key it decided with an input unreadable.
  void keyKept(const Key& key) { kept_.insert(key); }
  const std::set<Key>& kept() const { return kept_; }

  bool mergesStream(size_t stream) const override {
    const auto streams = desc_.streamList();
    return std::find(streams.begin(), streams.end(), stream) != streams.end();
  }
  void remergeKept() override {
    // A key still undecidable is kept again by its merge.
    const std::set<Key> kept = std::exchange(kept_, {});
    for (const Key& key : kept) remerge_(key);
  }

  void initialize() override {
    size_t present = 0;
    try {
      present = coll_.size();
    } catch (const Oro::ShmCorruptionException& e) {
      // Nothing can be walked either; reconciling only records what the merge writes.
      coll_.handleCorruption(e);
      present = 1;
    }
    sizeAtStart_ = present;
    reconciling_ = present != 0;
    // The merging scans record about as many keys as the output holds now.
    if (reconciling_) seen_.reserve(present);
    if (Oro::TaskScheduler* scheduler = parent_->scheduler()) {
      const std::string prefix = std::string(parent_->shortName()) + "-" + name_;
      task_ = std::make_unique<Oro::Task>(scheduler, parent_->dynaControl().taskPriority,
                                          prefix + "Task", [this] {
                                            const auto held = parent_->hold();
                                            handleInputReady();
                                          });
      releaseTask_ = std::make_unique<Oro::Task>(scheduler, parent_->dynaControl().taskPriority,
                                                 prefix + "SeenReleaseTask", [this] {
                                                   const auto held = parent_->hold();
                                                   releaseSeen();
                                                 });
    }
  }

  void handleInputReady() override {
    const Oro::TraceHandle& trace = parent_->qtHandle();
    if (!parent_->outputState()) return;  // not initialised yet
    if (parent_->outputState()->outputReady(index_)) {
      ORO_TRACE(trace, kTraceScan, "already ready, not reconciling.");
      return;
    }
    for (size_t stream : desc_.streamList()) {
      if (!parent_->inputSmScanState()->streamScan(stream)) return;
    }
    if (!parent_->initialScanDone()) {
      parent_->handleInitialScanDone();
      return;
    }
    for (size_t stream : desc_.streamList()) {
      if (parent_->streamDamaged(stream)) {
        ORO_TRACE(trace, kTraceLifecycle,
                  "Not reconciling {}: the scan of dyx_stream{} ended on damaged input", name_,
                  stream);
        return;
      }
    }
    ORO_TRACE(trace, kTraceLifecycle, "Input scans for {} complete", name_);
    if (desc_.traceReconciling) {
      ORO_TRACE(trace, kTraceLifecycle, "Reconciling {}: {}", name_, reconciling_);
    }
    uint64_t processed = 0;
    uint64_t deleted = 0;
    if (reconciling_ && walk(processed, deleted)) return;  // yielded
    ORO_TRACE(trace, kTraceLifecycle,
              "Deletion scan for reconciliation is done, last task run processed {} items, "
              "deleting {} items.",
              processed, deleted);
    bookmark_.reset();
    useBookmark_ = false;
    reconciling_ = false;
    // Seen may hold tens of megabytes: its memory goes back over later task runs.
    seen_.clear();
    if (seen_.retainedBytes() != 0) {  // none when nothing was recorded (an empty output)
      if (releaseTask_ && releaseTask_->scheduler() && !parent_->synchronous()) {
        releaseTask_->schedule();
      } else {
        seen_.releaseSome(seen_.retainedBytes());
      }
    }
    parent_->outputState()->outputReadyIs(index_, true);
  }

  Oro::Task* seenReleaseTask() const { return releaseTask_.get(); }

 private:
  // Gives Seen's memory back a piece at a time until the slice is used up.
  void releaseSeen() {
    bool more = seen_.releaseSome();
    while (more && !releaseTask_->shouldYield()) more = seen_.releaseSome();
    if (more) releaseTask_->schedule();
  }

  // An output entry: a flat output's key, or a (VRF, key) pair of a two-level output. A
  // two-level walk also steps on each entity that holds none of the output's entries (so that
  // an empty merged VRF left from an earlier life goes); those steps are not entries: the
  // counts are those of a walk over the entries.
  static bool isEntry(const Key& key) {
    if constexpr (requires { key.k1Valid(); }) {
      return key.k1Valid();
    } else {
      return true;
    }
  }

  // Deletes unseen entries from the bookmark on; returns true when it stopped to yield.
  bool walk(uint64_t& processed, uint64_t& deleted) {
    const bool synchronous = parent_->synchronous() || !task_ || !task_->scheduler();
    // A run stops only after it handled an entry, so that every run makes visible progress;
    // a long run of empty entities (all the merged VRFs that hold only the other output's
    // records, say) may stop after kEmptyStepsBeforeYield steps without one, so that the
    // run stays within its slice.
    constexpr uint64_t kEmptyStepsBeforeYield = 256;
    uint64_t steps = 0;  // entries and entity steps
    try {
      auto it = useBookmark_ ? coll_.iterAt(*bookmark_) : coll_.iter();
      while (it.valid()) {
        if (!synchronous && (processed > 0 || steps >= kEmptyStepsBeforeYield) &&
            (task_->scheduler()->taskCurrentlyRunning() != task_.get() || task_->shouldYield())) {
          bookmark_ = it.bookmark();
          useBookmark_ = true;
          task_->workCountInc(processed);
          // An estimate: counting a two-level output exactly would walk all of it.
          task_->pendingWorkIs(sizeAtStart_ > processedTotal_ ? sizeAtStart_ - processedTotal_ : 0);
          task_->schedule();
          parent_->reconcileProgressIs(index_, processedTotal_, sizeAtStart_, deletedTotal_);
          ORO_TRACE(parent_->qtHandle(), kTraceScan,
                    "Yielding in reconciliation processing after processing {} items, "
                    "including {} deletions .",
                    processed, deleted);
          return true;
        }
        const Key key = it.key();
        it.next();  // step off the key before it may be deleted
        const bool entry = isEntry(key);
        if (!seen_.contains(KeyType(key)) && coll_.del(key) && entry) {
          ++deleted;
          ++deletedTotal_;
        }
        ++steps;
        if (entry) {
          ++processed;
          ++processedTotal_;
        }
      }
    } catch (const Oro::ShmCorruptionException& e) {
      coll_.handleCorruption(e);
    }
    if (task_) {
      task_->workCountInc(processed);
      task_->pendingWorkIs(0);
    }
    parent_->reconcileProgressIs(index_, processedTotal_, sizeAtStart_, deletedTotal_);
    return false;
  }

  MergeSm* parent_;
  size_t index_;
  const OutputDesc& desc_;
  std::string name_;
  OutColl coll_;
  std::function<void(const Key&)> remerge_;
  size_t sizeAtStart_ = 0;
  std::set<Key> kept_;
  SeenSet<KeyType, Hash> seen_;
  std::optional<Bookmark> bookmark_;
  bool useBookmark_ = false;
  bool reconciling_ = false;
  std::unique_ptr<Oro::Task> task_;
  std::unique_ptr<Oro::Task> releaseTask_;
  uint64_t processedTotal_ = 0;
  uint64_t deletedTotal_ = 0;
};

}  // namespace Routing::Multicast::DynaCode
