// Trace levels shared by every merge machine. A machine writes all of its lines through its
// one trace handle (named after the machine, e.g. "MergedMvpnVrfStatusSm"); the levels let an
// operator follow the lifecycle without drowning in per-key lines.
#pragma once

namespace Routing::Multicast::DynaCode {

// Creation, initial scan done, reconciliation start/end, departures of inputs.
inline constexpr int kTraceLifecycle = 1;
// Scan progress: scan start, yields, completions, scan-flag waits.
inline constexpr int kTraceScan = 3;
// Merge steps of one key: source lines, precedence decisions, output writes.
inline constexpr int kTraceMerge = 5;
// Raw per-key notifications ("k: ...").
inline constexpr int kTraceKey = 8;

}  // namespace Routing::Multicast::DynaCode
