// A shared-memory namespace of a benchmark's own for the guard's scope: emptied when the guard
// is made and when it goes, and the namespace in use before restored.
#pragma once

#include <string>

#include "platform/shm/ShmSegment.h"

namespace bench {

class ScopedShmNamespace {
 public:
  explicit ScopedShmNamespace(const std::string& name) : previous_(Oro::shmNamespace()) {
    Oro::shmNamespaceIs(name);
    Oro::shmUnlinkNamespace();
  }
  ~ScopedShmNamespace() {
    Oro::shmUnlinkNamespace();
    Oro::shmNamespaceIs(previous_);
  }
  ScopedShmNamespace(const ScopedShmNamespace&) = delete;
  ScopedShmNamespace& operator=(const ScopedShmNamespace&) = delete;

 private:
  std::string previous_;
};

}  // namespace bench
