#include "tools/MergerView.h"

#include <fmt/format.h>

#include "platform/Error.h"
#include "platform/shm/ShmStoreInfo.h"
#include "tools/SafeText.h"

namespace Mvpnstat {

std::string mergerText(const Oro::ShmMergeState& m, const std::string& indent) {
  std::string out =
      fmt::format("{}merger {}: {}\n", indent, displayText(m.desc.machineType), m.phaseText());
  out += fmt::format("{}  rule: {}\n", indent, displayText(m.desc.rule));
  for (size_t i = 0; i < m.desc.inputs.size(); ++i) {
    const Oro::ShmMergeInput& in = m.desc.inputs[i];
    out +=
        fmt::format("{}  input {}: {}\n", indent, displayText(in.name),
                    in.path.empty() ? std::string("(not in shared memory)") : displayText(in.path));
  }
  return out;
}

std::string mergerJson(const Oro::ShmMergeState& m) {
  std::string inputs;
  for (size_t i = 0; i < m.desc.inputs.size(); ++i) {
    uint64_t scanned = 0, total = 0;
    for (size_t s = 0; s < m.streams.size(); ++s) {
      if (m.desc.streamInput[s] != i) continue;
      scanned += m.streams[s].done;
      total += m.streams[s].total;
    }
    inputs += fmt::format("{}{{\"name\": {}, \"path\": {}, \"scanned\": {}, \"keys\": {}}}",
                          i ? ", " : "", jsonQuote(m.desc.inputs[i].name),
                          jsonQuote(m.desc.inputs[i].path), scanned, total);
  }
  std::string outputs;
  for (size_t o = 0; o < m.outputs.size(); ++o) {
    const auto oo = static_cast<uint32_t>(o);
    outputs += fmt::format(
        "{}{{\"name\": {}, \"ready\": {}, \"reconciling\": {}, \"walked\": {}, \"deleted\": {}}}",
        o ? ", " : "", jsonQuote(m.desc.outputs[o]), m.outputReady(oo), m.outputReconciling(oo),
        m.outputs[o].done, m.outputs[o].deleted);
  }
  return fmt::format(
      "{{\"type\": {}, \"rule\": {}, \"running\": {}, \"initialized\": {}, "
      "\"initialScanDone\": {}, \"ready\": {}, \"phase\": {}, \"progress\": {}, \"inputs\": [{}], "
      "\"outputs\": [{}]}}",
      jsonQuote(m.desc.machineType), jsonQuote(m.desc.rule), m.running, m.initialized(),
      m.initialScanDone(), m.ready(), jsonQuote(m.phase()), jsonQuote(m.phaseText()), inputs,
      outputs);
}

std::optional<Oro::ShmMergeState> mergerOf(const std::string& path) {
  try {
    return Oro::shmStoreInfo(path).merge;
  } catch (const Oro::Exception&) {
    return std::nullopt;
  }
}

}  // namespace Mvpnstat
