// MergeMachine<Derived, D, Args, Inputs>: the part of a merge machine that its description D
// determines. It holds the arguments (Args: a std::tuple of Oro::Ptr, in D.args order), checks
// them, creates the input machines (Inputs: a std::tuple of their types, each constructed from
// the machine and the argument its InputDesc names) and begins every stream event with the
// runtime's step: nothing before the initial scan is done, then the stream's from-line.
//
// Derived supplies `static Oro::TraceHandle& traceHandle()`,
// `template <size_t N, class... A> void onStream(const A&...)`, the merge of one event of
// stream N, which the input machines call, and its companion types `InputSmScanState` and
// `OutputState` (constructed from their type name), which name its flags.
#pragma once

#include <cstddef>
#include <string>
#include <tuple>
#include <utility>

#include <fmt/format.h>

#include "merge/MachineDesc.h"
#include "merge/MergeSm.h"
#include "merge/MergeTraceLevels.h"
#include "platform/Trace.h"
#include "platform/runtime/Ptr.h"
#include "platform/runtime/TaskScheduler.h"
#include "platform/shm/ShmBinding.h"

namespace Routing::Multicast::DynaCode {

template <class Derived, const MachineDesc& D, class Args, class Inputs>
class MergeMachine;

template <class Derived, const MachineDesc& D, class... ArgPtrs, class... InputSms>
class MergeMachine<Derived, D, std::tuple<ArgPtrs...>, std::tuple<InputSms...>> : public MergeSm {
  static_assert(sizeof...(ArgPtrs) == D.args.size(), "one pointer per described argument");
  static_assert(sizeof...(InputSms) == D.inputs.size(), "one machine per described input");

 public:
  // Argument I (in D.args order) and input machine I (null before initialisation).
  // The machine's record in its output store outlives it: it says the machine is gone.
  ~MergeMachine() override { recordStopped(); }

  template <size_t I>
  auto* arg() const {
    return std::get<I>(args_).get();
  }
  template <size_t I>
  auto* input() const {
    return std::get<I>(inputs_).get();
  }
  // The companions as the machine's own types (null before initialisation).
  auto* inputSmScanState() const {
    return static_cast<typename Derived::InputSmScanState*>(MergeSm::inputSmScanState());
  }
  auto* outputState() const {
    return static_cast<typename Derived::OutputState*>(MergeSm::outputState());
  }

  // The runtime's step of eventToDyx_stream<N>: false until the initial scan is done,
  // otherwise traces the stream's from-line with `keys` and returns true.
  template <size_t N, class... K>
  bool streamEventBegins(const K&... keys) const {
    if (!initialScanDone()) return false;
    ORO_TRACE(qtHandle(), kTraceMerge, fmt::runtime(D.streams[N].from), keys...);
    return true;
  }

 protected:
  MergeMachine(std::tuple<ArgPtrs...> args, const Dyx::SmControl& control)
      : MergeSm(D, Derived::traceHandle(), control), args_(std::move(args)) {}

  const void* argEntity(size_t arg) const override {
    return std::apply(
        [arg](const auto&... p) {
          const void* at[] = {static_cast<const void*>(p.get())...};
          return at[arg];
        },
        args_);
  }

  void createInputSms() override { createInputSms(std::index_sequence_for<InputSms...>()); }

  Oro::Ptr<InputSmScanState> makeInputSmScanState() const override {
    return Oro::makePtr<typename Derived::InputSmScanState>(inputTypeName("InputSmScanState"));
  }
  Oro::Ptr<OutputState> makeOutputState() const override {
    return Oro::makePtr<typename Derived::OutputState>(inputTypeName("OutputState"));
  }

  // The machine writes its last argument.
  Oro::ShmBinding* outputBinding() const override {
    auto* out = std::get<sizeof...(ArgPtrs) - 1>(args_).get();
    return out ? &out->binding() : nullptr;
  }
  std::string argPath(size_t arg) const override {
    return std::apply(
        [arg](const auto&... p) {
          const std::string paths[] = {(p ? p->binding().mountPath() : std::string())...};
          return paths[arg];
        },
        args_);
  }

 private:
  template <size_t... I>
  void createInputSms(std::index_sequence<I...>) {
    (createInputSm<I>(), ...);
  }
  template <size_t I>
  void createInputSm() {
    using Sm = std::tuple_element_t<I, std::tuple<InputSms...>>;
    constexpr size_t a = D.inputs[I].arg;
    auto& sm = std::get<I>(inputs_);
    sm = Oro::makePtr<Sm>(static_cast<Derived*>(this), std::get<a>(args_));
    inputSmIs(sm.get());
  }

  std::tuple<ArgPtrs...> args_;
  std::tuple<Oro::Ptr<InputSms>...> inputs_;
};

}  // namespace Routing::Multicast::DynaCode

// The attributes of one output collection under its generated names (<out>, <out>Seen,
// <out>Bookmark, <out>UseBookmark, <out>Reconciling, <out>ReconciliationTask,
// <out>SeenReleaseTask, handle<Out>InputReady), forwarding to the OutputReconciler `member`.
// clang-format off
#define DYX_OUTPUT_ATTRS(out, Out, member)                                                  \
  void handle##Out##InputReady() { member.handleInputReady(); }                             \
  const auto& out() const { return member; }                                                \
  const auto& out##Seen() const { return member.seen(); }                                   \
  const auto& out##Bookmark() const { return member.bookmark(); }                           \
  bool out##UseBookmark() const { return member.useBookmark(); }                            \
  bool out##Reconciling() const { return member.reconciling(); }                            \
  Oro::Task* out##ReconciliationTask() const { return member.reconciliationTask(); }        \
  Oro::Task* out##SeenReleaseTask() const { return member.seenReleaseTask(); }
// clang-format on
