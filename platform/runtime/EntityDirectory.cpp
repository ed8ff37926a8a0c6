#include "platform/runtime/EntityDirectory.h"

#include <fmt/format.h>

#include "platform/Error.h"

namespace Oro {

EntityDirectory& EntityDirectory::global() {
  static auto* d = new EntityDirectory;  // never destroyed (see EntityHeap::process)
  return *d;
}

void EntityDirectory::registerType(const std::string& typeName, size_t arity, Factory factory) {
  std::lock_guard lock(mu_);
  types_.insert_or_assign(typeName, TypeEntry{arity, std::move(factory)});
}

bool EntityDirectory::typeRegistered(const std::string& typeName) const {
  std::lock_guard lock(mu_);
  return types_.count(typeName) != 0;
}

Ptr<Entity> EntityDirectory::create(const std::string& typeName,
                                    const std::vector<std::string>& args) {
  TypeEntry entry;
  {
    std::lock_guard lock(mu_);
    auto it = types_.find(typeName);
    if (it == types_.end()) throw Exception(fmt::format("unknown entity type {}", typeName));
    entry = it->second;
  }
  if (args.size() > entry.arity) {
    throw UnexpectedEntityArgumentsException(typeName, args.size(), entry.arity);
  }
  return entry.factory(args);
}

bool EntityDirectory::mount(const std::string& path, Ptr<Entity> e) {
  Ptr<Entity> old;  // released outside the lock: its destructor may use the directory
  std::lock_guard lock(mu_);
  auto [it, isNew] = mounts_.try_emplace(path);
  old = std::move(it->second);
  it->second = std::move(e);
  return isNew;
}

Ptr<Entity> EntityDirectory::mountNew(const std::string& path, const std::string& typeName,
                                      const std::vector<std::string>& args) {
  if (Ptr<Entity> existing = lookup(path)) {
    if (existing->typeName() != typeName) {
      throw Exception(
          fmt::format("{} is mounted at {}, not {}", existing->typeName(), path, typeName));
    }
    return existing;
  }
  Ptr<Entity> e = create(typeName, args);
  std::lock_guard lock(mu_);
  // Another thread may have mounted something while the factory ran: the first one wins.
  auto [it, isNew] = mounts_.try_emplace(path, e);
  if (!isNew && it->second->typeName() != typeName) {
    throw Exception(
        fmt::format("{} is mounted at {}, not {}", it->second->typeName(), path, typeName));
  }
  return it->second;
}

Ptr<Entity> EntityDirectory::lookup(const std::string& path) const {
  std::lock_guard lock(mu_);
  auto it = mounts_.find(path);
  return it == mounts_.end() ? Ptr<Entity>() : it->second;
}

bool EntityDirectory::unmount(const std::string& path) {
  Ptr<Entity> old;
  std::lock_guard lock(mu_);
  auto it = mounts_.find(path);
  if (it == mounts_.end()) return false;
  old = std::move(it->second);
  mounts_.erase(it);
  return true;
}

std::vector<std::string> EntityDirectory::paths() const {
  std::lock_guard lock(mu_);
  std::vector<std::string> out;
  out.reserve(mounts_.size());
  for (const auto& [p, e] : mounts_) out.push_back(p);
  return out;
}

}  // namespace Oro
