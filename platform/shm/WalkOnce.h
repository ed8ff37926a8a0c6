// The keys a walk of a store has met, for a walk that lists each key once. A walk goes by slot,
// and the writer, in another process, may move a key meanwhile (delete it and insert it again
// into a later slot): a reader's walk can then meet the key twice. Nobody moves keys under any
// other walk, so the walk of a writer or of a store in process memory keeps nothing.
#pragma once

#include <unordered_set>

#include "platform/shm/ShmBinding.h"

namespace Oro {

template <class K>
class WalkOnce {
 public:
  explicit WalkOnce(bool reading = true) : reading_(reading) {}
  // Of a walk of `binding`'s store (none: process memory).
  explicit WalkOnce(const ShmBinding* binding)
      : reading_(binding != nullptr && binding->role() == ShmRole::reader) {}

  // True the first time the walk meets `key`.
  bool first(const K& key) { return !reading_ || met_.insert(key).second; }

 private:
  bool reading_;
  std::unordered_set<K> met_;
};

}  // namespace Oro
