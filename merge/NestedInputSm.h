// Input machines over two-level inputs: a root whose keyed collection holds one entity per
// outer key (a VRF), each entity holding the keyed collections the streams follow.
//
// NestedInputSm (input I of description D) watches the root's collection, one scan, task and
// reactor per stream it runs (one or two), and keeps a child machine per outer key:
// - a child is created on first sight of its key (in a scan or a notification) and follows its
//   entity's collections, one per stream, reacting per key and handing each to the machine's
//   merge (onChildEvent<k> -> Machine::onStream<n>);
// - a child scans its entity in the input machine's task and yields by that task's verdict;
//   an interrupted child scan, and one started by a notification, waits in the stream's queue,
//   which each task run works off before the outer scan goes on;
// - a stream is complete when its outer scan is complete and its queue is empty; the rescan
//   after the parent's initial scan reaches every child through the outer rescan;
// - when the key leaves the root, the child replays every key of its departed entity with no
//   value (doDeleteAll: the merge falls back to the other inputs), then is dropped. Before
//   that it checks that it has seen every change of the entity (the change versions it
//   recorded): anything else is a missed notification and fatal;
// - a child is never re-pointed: asking for a child of a key whose child follows another
//   entity raises Oro::MutatorReinstantiationException.
//
// Damage (merge/InputRead.h) is tracked per stream: a failed read of the root or of a child's
// entity makes it damaged until a clean full rescan of the stream, which the stream's next
// notification starts once its scan is complete.
//
// RootSource concept: Root, Key, Entity, Iterator, Bookmark, `static constexpr Oro::AttrId
// attr`, static lookup(root, key) -> Oro::Ptr<Entity> (null when absent), iter(root),
// iterAt(root, bookmark), size(root), handleCorruption(root, exception).
// ChildSource concept (one per stream): Entity, Key, Value, Iterator, Bookmark, attr, static
// lookup(entity, key) -> optional<Value>, iter, iterAt, size, version(entity) -> uint32_t,
// handleCorruption(entity, exception).
//
// Single-threaded: everything runs on the machine's scheduler thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include <absl/container/flat_hash_map.h>
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

// The child machine of one outer key. Input is the (concrete) input machine that owns it;
// Sources are the collections of the entity it follows, one per stream of Input, in order.
template <class Input, class... Sources>
class ChildSm : public Oro::Entity {
  using Result = ScanResult;

 public:
  using InputType = Input;
  using OuterKey = typename Input::OuterKey;
  using Entity = typename std::tuple_element_t<0, std::tuple<Sources...>>::Entity;
  template <size_t k>
  using SourceAt = std::tuple_element_t<k, std::tuple<Sources...>>;
  template <size_t k>
  using KeyAt = typename SourceAt<k>::Key;
  template <size_t k>
  using ValueAt = typename SourceAt<k>::Value;
  static constexpr size_t kStreams = sizeof...(Sources);

  ChildSm(Input* parent, const OuterKey& smKey, Oro::Ptr<const Entity> entity)
      : parent_(parent),
        smKey_(smKey),
        entity_(std::move(entity)),
        name_(parent->childName()),
        typeName_(parent->childTypeName()) {
    recordVersions(std::index_sequence_for<Sources...>());
  }
  ~ChildSm() override { watcher_.notifierIs(nullptr); }

  std::string_view typeName() const override { return typeName_; }
  Input* parent() const { return parent_; }
  const OuterKey& smKey() const { return smKey_; }
  const Entity* entity() const { return entity_.get(); }
  bool inReactor() const { return inReactor_; }
  bool departed() const { return departed_; }
  std::string_view name() const { return name_; }

  // Per stream k: inputScanState<n>, inputScanBookmark<n>, inputScanComplete<n>, and the
  // change version of the collection as last seen (versionEncapTunnel, ...).
  template <size_t k>
  uint8_t scanState() const {
    return std::get<k>(streams_).scan.state();
  }
  template <size_t k>
  const auto& scanBookmark() const {
    return std::get<k>(streams_).scan.bookmark();
  }
  template <size_t k>
  bool scanComplete() const {
    return std::get<k>(streams_).scan.complete(parent_->machine()->initialScanDone());
  }
  template <size_t k>
  uint32_t version() const {
    return std::get<k>(streams_).version;
  }

  // Subscribes to the entity's collections (done by the input machine once the child is in
  // its map). Until then, and after departedIs(), the child does nothing.
  void startWatching() { watcher_.notifierIs(const_cast<Entity*>(entity_.get())); }
  void departedIs() {
    departed_ = true;
    watcher_.notifierIs(nullptr);
  }

  // handle<Coll><n>: the per-key reaction of stream k. A scan hands in the value its iterator
  // is at (the entity's current record), which saves looking the key up again. An iterator
  // that knows the key alone (a reader's entity that lost its store) raises instead, and the
  // scan ends as damaged.
  template <size_t k>
  void handle(const KeyAt<k>& key, const ValueAt<k>* current = nullptr) {
    if (departed_ || !parent_->initialized()) return;
    MergeSm* machine = parent_->machine();
    ORO_TRACE(machine->qtHandle(), kTraceKey, "k: {}", key);
    using S = SourceAt<k>;
    std::optional<ValueAt<k>> value;
    try {
      std::get<k>(streams_).version = S::version(*entity_);
      // Before the initial scan is done the merge ignores every event: no lookup then.
      if (!machine->initialScanDone()) return;
      if (current) {
        value = *current;
      } else {
        value = S::lookup(*entity_, key);
      }
    } catch (const Oro::ShmCorruptionException& e) {
      S::handleCorruption(*entity_, e);
      parent_->template childReadFailed<k>();
    }
    parent_->template onChildEvent<k>(smKey_, key, value);
  }
  // handle<Coll><n>Reactor: the notification entry.
  template <size_t k>
  void handleReactor(const KeyAt<k>& key) {
    const auto held = parent_->machine()->hold();
    // A subscriber of the output may remove this child's entity from inside the merge (its
    // input machine then drops the child): the child lives until its notification is done.
    const Oro::Ptr<ChildSm> self(this);
    const bool outer = inReactor_;
    inReactor_ = true;
    handle<k>(key);
    inReactor_ = outer;
    parent_->template afterNotification<k>();
  }

  // One run of stream k's scan of the entity, in the environment of the input machine's task
  // (the child's own name in its traces).
  template <size_t k>
  Result runScan(ScanEnv env) {
    auto& st = std::get<k>(streams_);
    if (st.scan.complete(parent_->machine()->initialScanDone())) return Result::completed;
    if (st.scan.state() != kScanInterrupted) st.items = 0;
    env.inputName = name_;
    const Result r =
        st.scan.run(typename Stream<SourceAt<k>>::Coll{entity_.get()}, env,
                    [this](const KeyAt<k>& key, const auto& it) { handle<k>(key, &it.value()); });
    st.items += st.scan.lastRunItems();
    if (st.scan.damaged()) parent_->template childReadFailed<k>();
    if (r == Result::completed) {
      ORO_TRACE(parent_->machine()->qtHandle(), kTraceScan,
                "{}::doInputScan{} scan complete. Processed {} children.", typeName_,
                parent_->streamNumber(k), st.items);
    }
    return r;
  }
  // doInputScan: this child's scans of all its streams, in its input machine's task
  // environment (a scan that yields waits in that stream's queue).
  void doInputScan() { doInputScans(std::index_sequence_for<Sources...>()); }

  // The next scan of stream k starts from the first key again.
  template <size_t k>
  void restartScan() {
    std::get<k>(streams_).scan.restart();
  }

  // The entity leaves (or the machine is torn down): every key it still holds is merged again
  // without it. Once the parent's initial scan is done, a change of the entity that the child
  // has not seen is fatal.
  void doDeleteAll() {
    MergeSm* machine = parent_->machine();
    ORO_TRACE(machine->qtHandle(), kTraceLifecycle, "{} doDeleteAll {}", name_, smKey_);
    if (!machine->initialScanDone()) return;
    checkVersions(std::index_sequence_for<Sources...>());
    replay(std::index_sequence_for<Sources...>());
  }

 private:
  template <class S>
  struct Stream {
    // The entity's collection as the scan sees it.
    struct Coll {
      using Key = typename S::Key;
      using Bookmark = typename S::Bookmark;
      const Entity* entity;
      auto iter() const { return S::iter(*entity); }
      auto iterAt(const Bookmark& b) const { return S::iterAt(*entity, b); }
      size_t size() const { return S::size(*entity); }
      void handleCorruption(const Oro::ShmCorruptionException& e) const {
        S::handleCorruption(*entity, e);
      }
    };
    InputScan<Coll> scan;
    uint32_t version = 0;
    uint64_t items = 0;  // keys handled by the current scan, over all its runs
  };

  // Dispatches the entity's notifications to the stream whose collection changed.
  class Watcher : public Oro::Notifiee {
   public:
    explicit Watcher(ChildSm* child) : child_(child) {}
    void onAttributeKey(Oro::AttrId attr, const void* key) override {
      child_->dispatch(attr, key, std::index_sequence_for<Sources...>());
    }

   private:
    ChildSm* child_;
  };

  template <size_t... k>
  void doInputScans(std::index_sequence<k...>) {
    (parent_->template runChildScan<k>(static_cast<typename Input::ChildType*>(this)), ...);
  }
  template <size_t... k>
  void dispatch(Oro::AttrId attr, const void* key, std::index_sequence<k...>) {
    ((attr == SourceAt<k>::attr ? handleReactor<k>(Oro::Notifiee::keyAs<KeyAt<k>>(key)) : void()),
     ...);
  }
  template <size_t... k>
  void recordVersions(std::index_sequence<k...>) {
    (recordVersion<k>(), ...);
  }
  template <size_t k>
  void recordVersion() {
    try {
      std::get<k>(streams_).version = SourceAt<k>::version(*entity_);
    } catch (const Oro::ShmCorruptionException& e) {
      SourceAt<k>::handleCorruption(*entity_, e);
      parent_->template childReadFailed<k>();
    }
  }
  template <size_t... k>
  void checkVersions(std::index_sequence<k...>) {
    (checkVersion<k>(), ...);
  }
  template <size_t k>
  void checkVersion() {
    uint32_t now;
    try {
      now = SourceAt<k>::version(*entity_);
    } catch (const Oro::ShmCorruptionException& e) {
      SourceAt<k>::handleCorruption(*entity_, e);
      parent_->template childReadFailed<k>();
      return;
    }
    if (now != std::get<k>(streams_).version) {
      MVPN_FATAL(fmt::format(
          "We missed notifications that happened to {} before the enclosing entity got deleted",
          parent_->machine()->desc().streams[parent_->streamNumber(k)].coll));
    }
  }
  template <size_t... k>
  void replay(std::index_sequence<k...>) {
    (replayStream<k>(), ...);
  }
  template <size_t k>
  void replayStream() {
    using S = SourceAt<k>;
    static const std::optional<ValueAt<k>> kAbsent;
    try {
      for (auto it = S::iter(*entity_); it.valid(); it.next()) {
        parent_->template onChildEvent<k>(smKey_, it.key(), kAbsent);
      }
    } catch (const Oro::ShmCorruptionException& e) {
      // Keys not replayed keep their merged entries (see merge/InputRead.h).
      S::handleCorruption(*entity_, e);
      parent_->template childReadFailed<k>();
    }
  }

  Input* parent_;
  OuterKey smKey_;
  Oro::Ptr<const Entity> entity_;
  std::string_view name_;
  std::string_view typeName_;  // the input machine's copy, shared by all its children
  bool inReactor_ = false;
  bool departed_ = false;
  std::tuple<Stream<Sources>...> streams_;
  Watcher watcher_{this};
};

template <class Machine, const MachineDesc& D, size_t I, class RootSource, class Child>
class NestedInputSm : public InputSmBase {
  using Result = ScanResult;

 public:
  using Root = typename RootSource::Root;
  using OuterKey = typename RootSource::Key;
  using Entity = typename RootSource::Entity;
  using ChildType = Child;
  static constexpr size_t kStreams = D.inputs[I].streamCount;
  static_assert(kStreams == 1 || kStreams == 2, "an input machine runs one or two streams");

  NestedInputSm(Machine* machine, Oro::Ptr<const Root> en)
      : machine_(machine),
        en_(std::move(en)),
        typeName_(machine->inputTypeName(D.inputs[I].name)),
        childTypeName_(machine->inputTypeName(D.inputs[I].childName)),
        synchronous_(machine->dynaControl().defaultSynchronous) {
    for (size_t k = 0; k < kStreams; ++k) streams_[k] = std::make_unique<Stream>();
  }
  ~NestedInputSm() override {
    for (auto& st : streams_) st->reactor.notifierIs(nullptr);
    childDelAll();
  }

  std::string_view typeName() const override { return typeName_; }
  Machine* machine() const { return machine_; }
  // `parent` and `initialScanDone`: the merge machine, and whether its initial scan is done.
  Machine* parent() const { return machine_; }
  bool initialScanDone() const { return machine_->initialScanDone(); }
  const Root* en() const { return en_.get(); }
  static constexpr std::string_view name() { return D.inputs[I].name; }
  static constexpr std::string_view childName() { return D.inputs[I].childName; }
  const std::string& childTypeName() const { return childTypeName_; }
  // The stream number of this input's k-th stream.
  static constexpr size_t streamNumber(size_t k) { return D.inputs[I].streams[k]; }
  bool initialized() const { return initialized_; }
  bool synchronous() const { return synchronous_; }

  // Per stream k: task<n>, inputScanState<n>, inputScanBookmark<n>, inTask<n>,
  // shouldYield<n>, inputScanComplete<n>.
  template <size_t k>
  Oro::Task* task() const {
    return stream<k>().task.get();
  }
  template <size_t k>
  uint8_t inputScanState() const {
    return stream<k>().scan.state();
  }
  template <size_t k>
  const auto& inputScanBookmark() const {
    return stream<k>().scan.bookmark();
  }
  template <size_t k>
  bool inTask() const {
    const Oro::Task* t = task<k>();
    return t && t->scheduler() && t->scheduler()->taskCurrentlyRunning() == t;
  }
  template <size_t k>
  bool shouldYield() const {
    return env<k>().shouldYield();
  }
  template <size_t k>
  bool inputScanComplete() const {
    return stream<k>().scan.complete(machine_->initialScanDone());
  }
  // Children whose scan of stream k waits for the task.
  template <size_t k>
  size_t queuedChildScans() const {
    return stream<k>().queue.size();
  }

  template <size_t k>
  void taskIs(Oro::TaskScheduler* scheduler, Oro::TaskPriority priority, std::string name) {
    stream<k>().task = std::make_unique<Oro::Task>(scheduler, priority, std::move(name), [this] {
      const auto held = machine_->hold();  // released last: the machine may go with it
      doInputScan<k>();
    });
  }
  template <size_t k>
  void taskDel() {
    stream<k>().task.reset();
  }
  template <size_t k>
  void doInitializeTask() {
    Oro::TaskScheduler* scheduler = machine_->scheduler();
    if (!scheduler) return;
    taskIs<k>(scheduler, machine_->dynaControl().taskPriority,
              fmt::format("{}-{}InputScanTask{}", machine_->typeName(), name(), streamNumber(k)));
  }
  void doInitializeTask() {
    forEachStream([this](auto k) { doInitializeTask<decltype(k)::value>(); });
  }

  // The child map (childSm<Coll>...PtrConst).
  Child* child(const OuterKey& key) const {
    auto it = children_.find(key);
    return it == children_.end() ? nullptr : it->second.get();
  }
  size_t childCount() const { return children_.size(); }
  // `parent` is this machine, as the child's parent type.
  template <class Parent>
  Child* childIs(Oro::Ptr<const Entity> entity, Parent* parent, const OuterKey& key) {
    auto [it, inserted] = children_.try_emplace(key);
    if (!inserted) {
      if (it->second->entity() != entity.get()) {
        throw Oro::MutatorReinstantiationException(fmt::format(
            "{}: the child machine of {} already follows another entity", childName(), key));
      }
      return it->second.get();
    }
    it->second = Oro::makePtr<Child>(parent, key, std::move(entity));
    it->second->startWatching();
    return it->second.get();
  }
  void childDel(const OuterKey& key) {
    auto it = children_.find(key);
    if (it == children_.end()) return;
    it->second->departedIs();
    children_.erase(it);
  }
  void childDelAll() {
    for (auto& [key, child] : children_) child->departedIs();
    children_.clear();
  }

  // handle<Coll><n>: the per-key reaction of stream k to an outer key (see the header).
  template <size_t k>
  void handle(const OuterKey& key) {
    handleOuter<k>(key, false);
  }
  // handle<Coll><n>Reactor: the notification entry.
  template <size_t k>
  void handleReactor(const OuterKey& key) {
    const auto held = machine_->hold();
    handleOuter<k>(key, false);
    afterNotification<k>();
  }

  // doInputScan<n>: one run of stream k: queued child scans first, then the outer scan.
  template <size_t k>
  void doInputScan() {
    if (!initialized_) return;
    if (nothingToScan<k>()) {
      if (stream<k>().scan.state() == kScanComplete) taskDel<k>();
      return;
    }
    MVPN_ASSERT_MSG(en(),
                    "Sm args can only be null if marked as Optional in the SM type declaration");
    Stream& st = stream<k>();
    const ScanEnv e = env<k>();
    // Once the stream is complete (for now, when only its initial scan is and the parent's is
    // not), and said so, a run only works off the scans of children that came later: the
    // stream stays complete, not announced again.
    const bool followUp =
        outerComplete<k>() && machine_->inputSmScanState()->streamScan(streamNumber(k));
    while (!st.queue.empty()) {
      Oro::Ptr<Child> child = st.queue.front();
      if (!child->departed() && child->template runScan<k>(e) == Result::yielded) return;
      st.queue.pop_front();
      if (e.shouldYield() && (!st.queue.empty() || !outerComplete<k>())) {
        st.task->schedule();
        return;
      }
    }
    if (followUp && outerComplete<k>()) {
      // The task stays for the rescan that follows the parent's initial scan.
      if (st.scan.state() == kScanComplete) taskDel<k>();
      return;
    }
    if (!outerComplete<k>()) {
      if (st.scan.state() != kScanInterrupted) st.damage.scanStarts();
      const Result r =
          st.scan.run(RootColl{en_.get()}, e, [this](const OuterKey& key, const auto& it) {
            handleOuter<k>(key, true, [&it] { return it.value(); });
          });
      machine_->scanProgressIs(streamNumber(k), st.scan.scanned(), st.scan.total());
      if (st.scan.damaged()) st.damage.readFailed();
      if (r == Result::yielded) return;
      if (!st.queue.empty()) {  // a child's scan yielded on the last outer key
        st.task->schedule();
        return;
      }
    }
    streamComplete<k>();
  }
  void doInputScan() {
    forEachStream([this](auto k) { doInputScan<decltype(k)::value>(); });
  }
  // doInputScan<n> of a child: its scan of stream k, in this machine's task environment.
  template <size_t k>
  void runChildScan(Child* child) {
    // The scan's merges may end in notifications that drop the child: hold it.
    Oro::Ptr<Child> held(child);
    if (held->template runScan<k>(env<k>()) == Result::yielded) {
      stream<k>().queue.push_back(std::move(held));
    }
  }

  // The value of `key` in the entity of `outer`, for the merge: absent when the outer key or
  // the key is absent, unreadable when either read meets damage. An entity no child follows
  // counts as absent too: a reader in another process can find an entity before it is told
  // of it, and may then be told of it only once it is gone again. Whatever was merged from an
  // entity must leave with its child's doDeleteAll, so only followed entities are read; the
  // records of one followed later come with its child's scan.
  template <size_t k, class K>
  auto lookup(const OuterKey& outer, const K& key) const {
    using S = typename Child::template SourceAt<k>;
    using R = InputRead<typename S::Value>;
    Oro::Ptr<Entity> entity;
    try {
      entity = RootSource::lookup(*en_, outer);
    } catch (const Oro::ShmCorruptionException& e) {
      RootSource::handleCorruption(*en_, e);
      stream<k>().damage.readFailed();
      return R::damaged();
    }
    if (!entity) return R{};
    if (const Child* c = child(outer); !c || c->entity() != entity.get()) return R{};
    try {
      return R{S::lookup(*entity, key)};
    } catch (const Oro::ShmCorruptionException& e) {
      S::handleCorruption(*entity, e);
      stream<k>().damage.readFailed();
      return R::damaged();
    }
  }

  // Called by the children.
  template <size_t k, class K, class V>
  void onChildEvent(const OuterKey& outer, const K& key, const std::optional<V>& value) {
    machine_->template onStream<streamNumber(k)>(outer, key, value);
  }
  template <size_t k>
  void childReadFailed() {
    stream<k>().damage.readFailed();
  }
  // After every notification of stream k (outer or child key): a damaged stream whose scan is
  // complete starts a clean rescan (see merge/InputRead.h).
  template <size_t k>
  void afterNotification() {
    Stream& st = stream<k>();
    if (st.damage.damaged() && st.scan.state() == kScanComplete && st.queue.empty()) {
      rescanAfterDamage<k>();
    }
  }

  void start() override {
    if (initialized_) return;
    initialized_ = true;
    // A child per key of the root, with room for growth: a rehash of a hundred thousand
    // children would stop one task run for milliseconds.
    try {
      children_.reserve(RootSource::size(*en_) * 5 / 4);
    } catch (const Oro::ShmCorruptionException& e) {
      RootSource::handleCorruption(*en_, e);
    }
    doInitializeTask();
    forEachStream([this](auto k) {
      stream<decltype(k)::value>().reactor.handler = [this](const OuterKey& key) {
        handleReactor<decltype(k)::value>(key);
      };
      stream<decltype(k)::value>().reactor.notifierIs(const_cast<Root*>(en_.get()));
    });
    forEachStream([this](auto k) { runScan<decltype(k)::value>(); });
  }
  void rescan() override {
    forEachStream([this](auto k) {
      if (stream<decltype(k)::value>().scan.state() == kScanInitialComplete)
        runScan<decltype(k)::value>();
    });
  }
  void doDeleteAll() override {
    ORO_TRACE(machine_->qtHandle(), kTraceLifecycle, "{} doDeleteAll", name());
    // A child's replay may end in a notification that drops children: walk a copy.
    std::vector<Oro::Ptr<Child>> children;
    children.reserve(children_.size());
    for (auto& [key, child] : children_) children.push_back(child);
    for (auto& child : children) {
      if (!child->departed()) child->doDeleteAll();
    }
  }
  bool streamDamaged(size_t stream) const override {
    for (size_t k = 0; k < kStreams; ++k) {
      if (streamNumber(k) == stream && streams_[k]->damage.damaged()) return true;
    }
    return false;
  }

 private:
  // The root's collection as the outer scan sees it.
  struct RootColl {
    using Key = typename RootSource::Key;
    using Bookmark = typename RootSource::Bookmark;
    const Root* root;
    auto iter() const { return RootSource::iter(*root); }
    auto iterAt(const Bookmark& b) const { return RootSource::iterAt(*root, b); }
    size_t size() const { return RootSource::size(*root); }
    void handleCorruption(const Oro::ShmCorruptionException& e) const {
      RootSource::handleCorruption(*root, e);
    }
  };

  struct Reactor : Oro::Notifiee {
    std::function<void(const OuterKey&)> handler;
    void onAttributeKey(Oro::AttrId attr, const void* key) override {
      if (attr == RootSource::attr) handler(keyAs<OuterKey>(key));
    }
  };

  struct Stream {
    InputScan<RootColl> scan;
    std::unique_ptr<Oro::Task> task;
    std::deque<Oro::Ptr<Child>> queue;
    Reactor reactor;
    StreamDamage damage;
  };

  template <size_t k>
  Stream& stream() const {
    static_assert(k < kStreams);
    return *streams_[k];
  }
  template <class F>
  static void forEachStream(F&& f) {
    f(std::integral_constant<size_t, 0>());
    if constexpr (kStreams > 1) f(std::integral_constant<size_t, 1>());
  }
  template <size_t k>
  bool outerComplete() const {
    return stream<k>().scan.complete(machine_->initialScanDone());
  }
  // Stream k's scan is complete (for now, when only its initial scan is and the parent's is
  // not) and has said so, no child scan waits and no damage is to be recovered from: a scan
  // of the stream has nothing new to do.
  template <size_t k>
  bool nothingToScan() const {
    const Stream& st = stream<k>();
    return st.queue.empty() && outerComplete<k>() && !st.damage.damaged() &&
           machine_->inputSmScanState()->streamScan(streamNumber(k));
  }
  template <size_t k>
  ScanEnv env() const {
    return ScanEnv{machine_->initialScanDonePtr(), stream<k>().task.get(), synchronous_,
                   &machine_->qtHandle(),          machine_->shortName(),  name()};
  }
  // In the task when there is one and the machine is not synchronous, else right here.
  template <size_t k>
  void runScan() {
    Stream& st = stream<k>();
    if (st.task && st.task->scheduler() && !synchronous_) {
      st.task->schedule();
    } else {
      doInputScan<k>();
    }
  }

  // The per-VRF reaction of stream k (handleVrfStatus<n>): make sure a child follows the
  // key's entity and has scanned it for this stream; or, when the key has left the root,
  // replay its child's keys and drop the child. In a scan, a child's scan runs right here in
  // the scan's task run; from a notification it is queued for the task.
  // A scan hands in its iterator's lookup of the key (the same answer as the root's, found
  // through the place the walk is at).
  template <size_t k>
  void handleOuter(const OuterKey& key, bool inScan) {
    handleOuter<k>(key, inScan, [&] { return RootSource::lookup(*en_, key); });
  }
  template <size_t k, class Lookup>
  void handleOuter(const OuterKey& key, bool inScan, const Lookup& lookup) {
    if (!initialized_) return;
    ORO_TRACE(machine_->qtHandle(), kTraceKey, "k: {}", key);
    Stream& st = stream<k>();
    Oro::Ptr<Entity> entity;
    try {
      entity = lookup();
    } catch (const Oro::ShmCorruptionException& e) {
      // The key's presence is unknown: its child, if any, stays as it is.
      RootSource::handleCorruption(*en_, e);
      st.damage.readFailed();
      return;
    }
    if (entity) {
      Child* c = childIs(std::move(entity), static_cast<typename Child::InputType*>(this), key);
      if (c->template scanComplete<k>()) return;
      if (inScan) {
        runChildScan<k>(c);
      } else {
        scheduleChildScan<k>(c);
      }
      return;
    }
    auto it = children_.find(key);
    if (it == children_.end()) return;
    Oro::Ptr<Child> departing = it->second;
    departing->doDeleteAll();
    childDel(key);
  }

  template <size_t k>
  void scheduleChildScan(Child* c) {
    Stream& st = stream<k>();
    if (synchronous_ || !machine_->scheduler()) {
      // The stream was complete and said so before this child came: it stays so, as when the
      // child's scan runs in the task.
      const bool complete = nothingToScan<k>();
      c->template runScan<k>(env<k>());
      if (!complete && outerComplete<k>() && st.queue.empty()) streamComplete<k>();
      return;
    }
    st.queue.push_back(c);
    if (!st.task) doInitializeTask<k>();
    st.task->schedule();
  }

  template <size_t k>
  void streamComplete() {
    Stream& st = stream<k>();
    const bool recovered = st.damage.scanEnds();
    if (st.damage.damaged()) {
      ORO_TRACE(machine_->qtHandle(), kTraceLifecycle,
                "{} scan met a damaged input: its merged entries are kept", name());
    } else if (recovered && machine_->initialScanDone()) {
      settleUnvisitedChildren<k>();
      machine_->streamRecovered(streamNumber(k));
    }
    const std::string label = st.scan.completionLabel(name());
    if (st.scan.state() == kScanComplete && st.queue.empty()) taskDel<k>();
    machine_->inputSmScanState()->streamScanIs(streamNumber(k), true);
    ORO_TRACE(machine_->qtHandle(), kTraceScan, "{} scan, and parent scan, complete.", label);
  }

  // A clean rescan after damage visited every key the root holds; a child it did not reach
  // follows a key that has left the root unannounced: handle that key now.
  template <size_t k>
  void settleUnvisitedChildren() {
    std::vector<OuterKey> unvisited;
    for (auto& [key, child] : children_) {
      if (!child->template scanComplete<k>()) unvisited.push_back(key);
    }
    for (const OuterKey& key : unvisited) handleOuter<k>(key, false);
  }

  template <size_t k>
  void rescanAfterDamage() {
    ORO_TRACE(machine_->qtHandle(), kTraceLifecycle, "{} rescanning after damage", name());
    Stream& st = stream<k>();
    st.scan.restart();
    for (auto& [key, child] : children_) child->template restartScan<k>();
    machine_->inputSmScanState()->streamScanIs(streamNumber(k), false);
    if (!st.task) doInitializeTask<k>();
    if (st.task && st.task->scheduler()) {
      st.task->schedule();
    } else {
      doInputScan<k>();
    }
  }

  Machine* machine_;
  Oro::Ptr<const Root> en_;
  std::string typeName_;
  std::string childTypeName_;
  bool synchronous_;
  bool initialized_ = false;
  std::array<std::unique_ptr<Stream>, kStreams> streams_;
  absl::flat_hash_map<OuterKey, Oro::Ptr<Child>, std::hash<OuterKey>> children_;
};

}  // namespace Routing::Multicast::DynaCode

// The numbered names of stream n (the input's k-th) of a nested input machine:
// handle<Coll><n>, handle<Coll><n>Reactor, doInputScan<n>, task<n>, task<n>Is, task<n>Del,
// inputScanState<n>, inputScanBookmark<n>, inTask<n>, shouldYield<n>, inputScanComplete<n>,
// onChildEvent<n>.
// clang-format off
#define DYX_NESTED_STREAM(Coll, n, k)                                                         \
  static_assert(streamNumber(k) == n, "stream number of " #Coll #n);                          \
  void handle##Coll##n(const OuterKey& key) { handle<k>(key); }                               \
  void handle##Coll##n##Reactor(const OuterKey& key) { handleReactor<k>(key); }               \
  void doInputScan##n() { doInputScan<k>(); }                                                 \
  Oro::Task* task##n() const { return task<k>(); }                                            \
  void task##n##Is(Oro::TaskScheduler* s, Oro::TaskPriority p, std::string taskName) {        \
    taskIs<k>(s, p, std::move(taskName));                                                     \
  }                                                                                           \
  void task##n##Del() { taskDel<k>(); }                                                       \
  uint8_t inputScanState##n() const { return inputScanState<k>(); }                           \
  const auto& inputScanBookmark##n() const { return inputScanBookmark<k>(); }                 \
  bool inTask##n() const { return inTask<k>(); }                                              \
  bool shouldYield##n() const { return shouldYield<k>(); }                                    \
  bool inputScanComplete##n() const { return inputScanComplete<k>(); }                        \
  template <class K, class V>                                                                 \
  void onChildEvent##n(const OuterKey& outer, const K& key, const std::optional<V>& value) {  \
    onChildEvent<k>(outer, key, value);                                                       \
  }

// The child map of a nested input machine `Self` under its generated name `map`:
// <map>(key), <map>Is(entity, parent, key), <map>Del(key), <map>DelAll().
#define DYX_CHILD_MAP(map, Self)                                                              \
  auto* map(const OuterKey& key) const { return child(key); }                                 \
  auto* map##Is(Oro::Ptr<const Entity> entity, Self* parent, const OuterKey& key) {           \
    return childIs(std::move(entity), parent, key);                                           \
  }                                                                                           \
  void map##Del(const OuterKey& key) { childDel(key); }                                       \
  void map##DelAll() { childDelAll(); }

// The numbered names of stream n (the child's k-th, following collection Coll) of a child
// machine: handle<Coll><n>, handle<Coll><n>Reactor, doInputScan<n>, inputScanState<n>,
// inputScanBookmark<n>, inTask<n>, shouldYield<n>, inputScanComplete<n>, version<Coll>.
#define DYX_CHILD_STREAM(Coll, n, k)                                                          \
  void handle##Coll##n(const KeyAt<k>& key) { handle<k>(key); }                               \
  void handle##Coll##n##Reactor(const KeyAt<k>& key) { handleReactor<k>(key); }               \
  void doInputScan##n() { parent()->template runChildScan<k>(this); }                         \
  uint8_t inputScanState##n() const { return scanState<k>(); }                                \
  const auto& inputScanBookmark##n() const { return scanBookmark<k>(); }                      \
  bool inTask##n() const { return parent()->template inTask<k>(); }                           \
  bool shouldYield##n() const { return parent()->template shouldYield<k>(); }                 \
  bool inputScanComplete##n() const { return scanComplete<k>(); }                             \
  uint32_t version##Coll() const { return version<k>(); }
// clang-format on
