// The description of a merge machine as its dataflow source gives it: names, mandatory
// arguments, input machines with the streams they run, the from-line of every stream and the
// output collections with the streams they merge. The runtime reads it for everything that is
// the same in every machine: the null-pointer checks, the creation of the input machines, task
// names, scan flags, trace texts of the streams, the output bookkeeping. A machine adds only
// its source adapters, its merge rule and the rule's own trace lines.
//
// Descriptions are constexpr objects with static storage (input machine templates take them
// as template arguments).
#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string_view>

namespace Routing::Multicast::DynaCode {

// One input machine: `<Input>Sm<n>`.
struct InputDesc {
  std::string_view name;            // e.g. "StaticEncapSm2"
  size_t arg;                       // the argument (input root) it watches
  std::array<size_t, 2> streams{};  // the streams it runs, in order
  size_t streamCount = 1;
  std::string_view childName = {};  // nested inputs: the child machine per key, "VrfStatusSm3"

  constexpr size_t stream(size_t k) const { return streams[k]; }
  // The position of `stream` among this input's streams.
  constexpr size_t localIndex(size_t stream) const { return stream == streams[0] ? 0 : 1; }
};

// One stream (dyx_stream<n>).
struct StreamDesc {
  std::string_view
      from;  // its from-line trace, e.g. "Line 15: from( mvpnVrfStatus.mvpnVrf[] ): vrfId={}"
  std::string_view coll;  // the watched collection, e.g. "mvpnVrf"
};

// One output collection.
struct OutputDesc {
  std::string_view name;  // the prefix of its attributes, e.g. "mergedVrfStatusMvpnVrfOutput"
  std::array<size_t, 4> streams{};
  size_t streamCount = 0;
  bool traceReconciling = false;  // each step also traces "Reconciling <name>: <flag>"

  constexpr std::span<const size_t> streamList() const { return {streams.data(), streamCount}; }
};

struct MachineDesc {
  std::string_view typeName;               // "Routing::Multicast::MergedMvpnVrfStatusSm"
  std::string_view shortName;              // "MergedMvpnVrfStatusSm"
  std::string_view inputTypePrefix;        // prefix of input machines' type names
  std::span<const std::string_view> args;  // mandatory pointer arguments, in order
  std::span<const InputDesc> inputs;
  std::span<const StreamDesc> streams;
  std::span<const OutputDesc> outputs;
  std::string_view rule = {};  // the merge rule in one line, for the merged status's readers
};

}  // namespace Routing::Multicast::DynaCode
