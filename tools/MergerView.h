// How mvpnstat shows the merge record of a merged status table (see ShmMergeInfo.h): a few
// indented text lines, or one JSON object.
#pragma once

#include <string>

#include "platform/shm/ShmMergeInfo.h"

namespace Mvpnstat {

// "merger <type>: <phase and progress>", then the rule and one line per input, each line
// starting with `indent`.
std::string mergerText(const Oro::ShmMergeState& m, const std::string& indent);
// {"type": ..., "rule": ..., "phase": ..., "progress": ..., "inputs": [...], "outputs": [...]}
std::string mergerJson(const Oro::ShmMergeState& m);
// The record of the table at `path`, when it has one (nullopt also when it cannot be read).
std::optional<Oro::ShmMergeState> mergerOf(const std::string& path);

}  // namespace Mvpnstat
