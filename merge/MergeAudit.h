// The audit of a merged status against its inputs, for operators and their tools: explain one
// key (every input's record for it, the winner by the merge rule, whether the merged record
// agrees) and check every key (each merged entry that disagrees with the rule, is missing or is
// stale). An audit reads the tables as a reader in any process would, by the mount paths the
// merger recorded in its output store, and decides with the machine's own rule functions.
//
// Every merge machine has one audit, found by its type name: a tool needs no code of its own
// for a new machine.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/shm/ShmMergeInfo.h"

namespace Routing::Multicast {

struct AuditInputRecord {
  std::string input;  // the merger's argument name, e.g. "evpnVrfStatus"
  std::string path;
  std::optional<std::string> record;  // absent: the input does not hold the key
};

struct Explanation {
  std::string collection;                // the merged collection, e.g. "mvpnVrf"
  std::string key;                       // the key's text form, from the VRF down
  std::vector<AuditInputRecord> inputs;  // the inputs of this collection, in argument order
  std::optional<std::string> winner;     // the input whose record decides, none when absent
  std::optional<std::string> expected;   // the merged record by the rule
  std::optional<std::string> merged;     // the merged record as found
  bool agrees() const { return expected == merged; }
};

struct AuditFinding {
  std::string kind;  // "differs", "missing", "stale" or "empty"
  std::string collection;
  std::string key;
  std::string expected;  // "" when the rule wants no entry
  std::string found;     // "" when there is none
};

struct AuditReport {
  uint64_t keysChecked = 0;
  std::vector<AuditFinding> findings;  // the first kMaxFindings
  uint64_t problems = 0;               // all of them
  static constexpr size_t kMaxFindings = 1000;
  void add(AuditFinding f) {
    ++problems;
    if (findings.size() < kMaxFindings) findings.push_back(std::move(f));
  }
};

class MergeAudit {
 public:
  virtual ~MergeAudit() = default;
  virtual std::string_view machineType() const = 0;
  // How a key is written for explain, e.g. "VRF" or "VRF ROUTE-KEY".
  virtual std::string_view keySyntax() const = 0;
  // The key `key` of the merged status at `mergedPath` (merger record `m`). Oro::Exception
  // when the key cannot be read or an input cannot be opened.
  virtual Explanation explain(const Oro::ShmMergeState& m, const std::string& mergedPath,
                              std::string_view key) const = 0;
  virtual AuditReport check(const Oro::ShmMergeState& m, const std::string& mergedPath) const = 0;
};

// The audit of the machine type, or null.
const MergeAudit* mergeAuditFor(std::string_view machineType);

// The input of a merge record whose path is the merged status's own, empty when none. No
// merger runs so (its machine refuses it at start): such a record is damaged or forged.
std::string mergeRecordSelfInput(const Oro::ShmMergeState& m, const std::string& mergedPath);

}  // namespace Routing::Multicast
