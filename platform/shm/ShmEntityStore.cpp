#include "platform/shm/ShmEntityStore.h"

#include <map>
#include <mutex>

#include <fmt/format.h>

#include "platform/Error.h"

namespace Oro::ShmEntityStore {

namespace {
struct Registry {
  std::mutex mu;
  std::map<std::string, Creator> creators;
};
Registry& registry() {
  static auto* r = new Registry;  // never destroyed: roots in globals outlive main
  return *r;
}
}  // namespace

// Never destroyed: a root held in a global releases its entities here after main returns,
// after every function-local static made inside main is gone.
CountingHeap& heap() {
  static auto* h = new CountingHeap;
  return *h;
}

bool registerRoot(const std::string& typeName, Creator creator) {
  Registry& r = registry();
  std::lock_guard lock(r.mu);
  r.creators[typeName] = creator;
  return true;
}

bool rootRegistered(const std::string& typeName) {
  Registry& r = registry();
  std::lock_guard lock(r.mu);
  return r.creators.count(typeName) != 0;
}

Ptr<Entity> createRoot(const std::string& typeName, const std::string& name,
                       const Initializer* initializer) {
  Creator creator = nullptr;
  {
    Registry& r = registry();
    std::lock_guard lock(r.mu);
    auto it = r.creators.find(typeName);
    if (it == r.creators.end()) {
      throw Exception(fmt::format("no root type {} in the entity store", typeName));
    }
    creator = it->second;
  }
  return creator(name, initializer);
}

}  // namespace Oro::ShmEntityStore
