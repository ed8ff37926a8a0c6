// The parent merge machine's view of its parts: the input machines (one per watched input,
// each running one or more scan streams) and the output bookkeeping (one per output
// collection). The parent drives them through the lifecycle without knowing their key types.
#pragma once

#include <cstddef>
#include <vector>

#include "platform/runtime/Entity.h"

namespace Routing::Multicast::DynaCode {

class InputSmBase : public Oro::Entity {
 public:
  // Creates the scan task(s), subscribes to the input and starts the first scan.
  virtual void start() = 0;
  // Scans the input again once the parent's initial scan is done (state 3 -> 2).
  virtual void rescan() = 0;
  // Replays every key of the input through the merge with no value from this input.
  virtual void doDeleteAll() = 0;
  // A read of `stream`'s input (one this machine runs) met damage and no clean scan has
  // followed: the input's keys are not all known.
  virtual bool streamDamaged(size_t stream) const = 0;
};

class OutputBase {
 public:
  virtual ~OutputBase() = default;
  // At initialisation: decides whether stale entries must be reconciled, creates the task.
  virtual void initialize() = 0;
  // Reconciliation step, run when the scan flags change after the initial scan.
  virtual void handleInputReady() = 0;
  // Whether the output merges stream `stream`.
  virtual bool mergesStream(size_t stream) const = 0;
  // Merges again every key whose last merge was decided with an input unreadable.
  virtual void remergeKept() = 0;
  // Stale entries are still to be walked (or are being walked).
  virtual bool reconciling() const = 0;
};

}  // namespace Routing::Multicast::DynaCode
