// An input machine that watches one keyed collection of one input root: it reacts to the
// collection's per-key notifications, scans the collection in its task (or inline when
// synchronous), and hands every key to the machine's merge (Machine::onStream<n>). Its name,
// argument and stream come from the machine's description D (input I): KeyedInputSm is that
// binding, KeyedInput<Source> the machine itself, shared by every input of one Source.
//
// Source concept (one per watched collection type): Root, Key, Value, Iterator, Bookmark,
// `static constexpr Oro::AttrId attr`, and static lookup(root, key) -> optional<Value>,
// iter(root), iterAt(root, bookmark), size(root), handleCorruption(root, exception).
//
// Invariants: nothing happens before start(); the input root is never null (checked by the
// parent before creation); after inputRootDel() the input counts as empty for lookups and
// scans. A notification being handled (pending) when doDeleteAll runs is a missed
// notification and fatal.
//
// Damage: a lookup that meets corruption answers "unreadable" (InputRead.h) and a scan that
// meets it ends early; either makes the stream damaged (streamDamaged) until a scan that
// started after the last failed read completes cleanly. The first notification of a damaged
// stream whose scan is complete (its writer republishing) starts that scan, from the task so
// that it never runs inside the notification; its clean end tells the parent
// (streamRecovered), which re-merges the keys kept on the ground of damage.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "merge/InputRead.h"
#include "merge/InputScan.h"
#include "merge/MachineDesc.h"
#include "merge/MergeSm.h"
#include "merge/MergeSmParts.h"
#include "merge/MergeTraceLevels.h"
#include "platform/Assert.h"
#include "platform/Error.h"
#include "platform/Trace.h"
#include "platform/runtime/Entity.h"
#include "platform/runtime/Ptr.h"
#include "platform/runtime/TaskScheduler.h"

namespace Routing::Multicast::DynaCode {

template <class Source>
class KeyedInput : public InputSmBase {
 public:
  using Root = typename Source::Root;
  using Key = typename Source::Key;
  using Value = typename Source::Value;

  // The watched collection as the scan sees it: empty once the input has departed.
  struct Coll {
    using Key = typename Source::Key;
    using Bookmark = typename Source::Bookmark;
    struct Iterator {
      std::optional<typename Source::Iterator> it;
      bool valid() const { return it && it->valid(); }
      Key key() const { return it->key(); }
      void next() { it->next(); }
      Bookmark bookmark() const { return it->bookmark(); }
    };
    const KeyedInput* sm;
    Iterator iter() const { return sm->departed_ ? Iterator{} : Iterator{Source::iter(*sm->en_)}; }
    Iterator iterAt(const Bookmark& b) const {
      return sm->departed_ ? Iterator{} : Iterator{Source::iterAt(*sm->en_, b)};
    }
    size_t size() const { return sm->departed_ ? 0 : Source::size(*sm->en_); }
    void handleCorruption(const Oro::ShmCorruptionException& e) const {
      Source::handleCorruption(*sm->en_, e);
    }
  };

  // Input `input` of the machine's description.
  KeyedInput(MergeSm* machine, size_t input, Oro::Ptr<const Root> en)
      : machine_(machine),
        en_(std::move(en)),
        name_(machine->desc().inputs[input].name),
        stream_(machine->desc().inputs[input].streams[0]),
        typeName_(machine->inputTypeName(name_)),
        synchronous_(machine->dynaControl().defaultSynchronous),
        reactor_(Source::attr, [this](const Key& key) {
          const auto held = machine_->hold();  // released last: the machine may go with it
          handleReactor(key);
        }) {}

  ~KeyedInput() override { reactor_.notifierIs(nullptr); }

  std::string_view typeName() const override { return typeName_; }
  MergeSm* parent() const { return machine_; }
  const Root* en() const { return en_.get(); }
  size_t stream() const { return stream_; }
  std::string_view name() const { return name_; }
  bool initialized() const { return initialized_; }
  bool synchronous() const { return synchronous_; }
  bool departed() const { return departed_; }

  // task<n>, inputScanBookmark<n>, inputScanState<n> and the derived attributes.
  Oro::Task* task() const { return task_.get(); }
  const std::optional<typename Source::Bookmark>& inputScanBookmark() const {
    return scan_.bookmark();
  }
  uint8_t inputScanState() const { return scan_.state(); }
  bool inTask() const {
    return task_ && task_->scheduler() && task_->scheduler()->taskCurrentlyRunning() == task_.get();
  }
  bool shouldYield() const { return env().shouldYield(); }
  bool inputScanComplete() const { return scan_.complete(machine_->initialScanDone()); }
  bool initialScanDone() const { return machine_->initialScanDone(); }
  uint64_t lastScanRunItems() const { return scan_.lastRunItems(); }

  void taskIs(Oro::TaskScheduler* scheduler, Oro::TaskPriority priority, std::string name) {
    task_ = std::make_unique<Oro::Task>(scheduler, priority, std::move(name), [this] {
      const auto held = machine_->hold();
      doInputScan();
    });
  }
  void taskDel() { task_.reset(); }
  void doInitializeTask() {
    Oro::TaskScheduler* scheduler = machine_->scheduler();
    if (!scheduler) return;
    taskIs(scheduler, machine_->dynaControl().taskPriority,
           fmt::format("{}-{}InputScanTask{}", machine_->typeName(), name_, stream_));
  }

  // The input's current value for `key`: absent once the input has departed; unreadable when
  // the table reports corruption (handed to its handler).
  InputRead<Value> lookup(const Key& key) const {
    if (departed_) return {};
    try {
      return {Source::lookup(*en_, key)};
    } catch (const Oro::ShmCorruptionException& e) {
      Source::handleCorruption(*en_, e);
      damage_.readFailed();
      return InputRead<Value>::damaged();
    }
  }
  // A read of the input failed and no clean scan has completed since.
  bool damaged() const { return damage_.damaged(); }
  bool streamDamaged(size_t stream) const override { return stream == stream_ && damaged(); }

  // handle<Coll><n>: the per-key reaction.
  void handle(const Key& key) {
    if (!initialized_) return;
    ORO_TRACE(machine_->qtHandle(), kTraceKey, "k: {}", key);
    // Until the parent's initial scan is done the merge ignores every event, so the first
    // scan only walks the keys and does not pay for a lookup per key.
    if (!machine_->initialScanDone()) return;
    event(key, lookup(key).value);
  }
  // handle<Coll><n>Reactor: the notification entry.
  void handleReactor(const Key& key) {
    ++pendingNotifications_;
    struct Done {
      uint32_t& n;
      ~Done() { --n; }
    } done{pendingNotifications_};
    handle(key);
    if (damaged() && scan_.state() == kScanComplete) rescanAfterDamage();
  }

  // doInputScan<n>.
  void doInputScan() {
    if (!initialized_ || scan_.complete(machine_->initialScanDone())) return;
    MVPN_ASSERT_MSG(en(),
                    "Sm args can only be null if marked as Optional in the SM type declaration");
    using Result = typename InputScan<Coll>::Result;
    if (scan_.state() != kScanInterrupted) damage_.scanStarts();
    const Result r =
        scan_.run(Coll{this}, env(), [this](const Key& key, const auto&) { handle(key); });
    machine_->scanProgressIs(stream_, scan_.scanned(), scan_.total());
    if (r != Result::completed) return;
    const std::string label = scan_.completionLabel(name());
    if (scan_.damaged()) damage_.readFailed();
    if (!damage_.scanEnds()) {
      if (damaged()) {
        ORO_TRACE(machine_->qtHandle(), kTraceLifecycle,
                  "{} scan met a damaged input: its merged entries are kept", name());
      }
    } else if (machine_->initialScanDone()) {
      machine_->streamRecovered(stream_);
    }
    if (scan_.state() == kScanComplete) taskDel();
    machine_->inputSmScanState()->streamScanIs(stream_, true);
    ORO_TRACE(machine_->qtHandle(), kTraceScan, "{} scan, and parent scan, complete.", label);
  }

  void start() override {
    if (initialized_) return;
    initialized_ = true;
    doInitializeTask();
    reactor_.notifierIs(const_cast<Root*>(en_.get()));
    runScan();
  }

  void rescan() override {
    if (scan_.state() == kScanInitialComplete) runScan();
  }

  void doDeleteAll() override {
    ORO_TRACE(machine_->qtHandle(), kTraceLifecycle, "{} doDeleteAll", name());
    if (!machine_->initialScanDone()) return;
    if (pendingNotifications_ != 0) {
      MVPN_FATAL(fmt::format(
          "We missed notifications that happened to {} before the enclosing entity got deleted",
          machine_->desc().streams[stream_].coll));
    }
    try {
      for (auto it = Source::iter(*en_); it.valid(); it.next()) {
        event(it.key(), std::nullopt);
      }
    } catch (const Oro::ShmCorruptionException& e) {
      Source::handleCorruption(*en_, e);
      damage_.readFailed();
    }
  }

  // The watched input root goes away: stop watching it, then re-merge each of its keys so
  // that the output falls back to the other inputs. A scan still to run finds it empty.
  void inputRootDel() {
    if (departed_) return;
    ORO_TRACE(machine_->qtHandle(), kTraceLifecycle, "{} input deleted", name());
    reactor_.notifierIs(nullptr);
    departed_ = true;
    doDeleteAll();
  }

 protected:
  // Hands one key to the machine's merge of this stream (value: the input's, unused by the
  // decision except as a shortcut for "this input holds the key").
  virtual void event(const Key& key, const std::optional<Value>& value) = 0;

 private:
  ScanEnv env() const {
    return ScanEnv{machine_->initialScanDonePtr(), task_.get(),           synchronous_,
                   &machine_->qtHandle(),          machine_->shortName(), name()};
  }
  // A read of the input failed and the input has changed since: scan it again from the start.
  // Its scan flag drops until then, which holds back the reconciliation.
  void rescanAfterDamage() {
    ORO_TRACE(machine_->qtHandle(), kTraceLifecycle, "{} rescanning after damage", name());
    scan_.restart();
    machine_->inputSmScanState()->streamScanIs(stream_, false);
    if (!task_) doInitializeTask();
    if (task_ && task_->scheduler()) {
      task_->schedule();
    } else {
      doInputScan();
    }
  }
  // In the task when there is one and the machine is not synchronous, else right here.
  void runScan() {
    if (task_ && task_->scheduler() && !synchronous_) {
      task_->schedule();
    } else {
      doInputScan();
    }
  }

  MergeSm* machine_;
  Oro::Ptr<const Root> en_;
  std::string_view name_;
  size_t stream_;
  std::string typeName_;
  bool synchronous_;
  bool initialized_ = false;
  bool departed_ = false;
  uint32_t pendingNotifications_ = 0;
  mutable StreamDamage damage_;
  InputScan<Coll> scan_;
  std::unique_ptr<Oro::Task> task_;
  Oro::KeyReactor<Key> reactor_;
};

// Input I of the machine described by D, bound to the machine's merge of its stream.
template <class Source, class Machine, const MachineDesc& D, size_t I>
class KeyedInputSm : public KeyedInput<Source> {
 public:
  using Root = typename Source::Root;
  using Key = typename Source::Key;
  using Value = typename Source::Value;
  static constexpr size_t kStream = D.inputs[I].streams[0];

  KeyedInputSm(Machine* machine, Oro::Ptr<const Root> en)
      : KeyedInput<Source>(machine, I, std::move(en)) {}

 protected:
  void event(const Key& key, const std::optional<Value>& value) override {
    static_cast<Machine*>(this->parent())->template onStream<kStream>(key, value);
  }
};

}  // namespace Routing::Multicast::DynaCode

// Declares `Name`, input machine I of the machine described by `desc`, watching the collection
// of `Source`, under the numbered names of its stream n (handle<Coll><n>,
// handle<Coll><n>Reactor, doInputScan<n>, task<n>, task<n>Is, task<n>Del, inputScanState<n>,
// ...). n must be the stream the description gives the input.
#define DYX_KEYED_INPUT_SM(Name, Source, Machine, desc, I, Coll, n)                            \
  class Name : public ::Routing::Multicast::DynaCode::KeyedInputSm<Source, Machine, desc, I> { \
   public:                                                                                     \
    static_assert(desc.inputs[I].streams[0] == n, "stream number of " #Name);                  \
    using KeyedInputSm::KeyedInputSm;                                                          \
    void handle##Coll##n(const Key& k) { handle(k); }                                          \
    void handle##Coll##n##Reactor(const Key& k) { handleReactor(k); }                          \
    void doInputScan##n() { doInputScan(); }                                                   \
    Oro::Task* task##n() const { return task(); }                                              \
    void task##n##Is(Oro::TaskScheduler* s, Oro::TaskPriority p, std::string name) {           \
      taskIs(s, p, std::move(name));                                                           \
    }                                                                                          \
    void task##n##Del() { taskDel(); }                                                         \
    uint8_t inputScanState##n() const { return inputScanState(); }                             \
    const auto& inputScanBookmark##n() const { return inputScanBookmark(); }                   \
    bool inTask##n() const { return inTask(); }                                                \
    bool shouldYield##n() const { return shouldYield(); }                                      \
    bool inputScanComplete##n() const { return inputScanComplete(); }                          \
  }
