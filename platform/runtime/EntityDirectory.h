// Process-wide directory of entities: factories by full type name, and a table of entities
// mounted at paths. create() hands a factory the text arguments given (up to the type's
// arity; missing trailing arguments are the factory's to default). A path holds at most one
// entity; the directory keeps a reference to every mounted entity until it is unmounted.
// Thread-safe; factories run outside the directory's lock and may use the directory.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/runtime/Entity.h"
#include "platform/runtime/Ptr.h"

namespace Oro {

class EntityDirectory {
 public:
  using Factory = std::function<Ptr<Entity>(const std::vector<std::string>&)>;

  static EntityDirectory& global();
  EntityDirectory() = default;
  EntityDirectory(const EntityDirectory&) = delete;
  EntityDirectory& operator=(const EntityDirectory&) = delete;

  // Registers (or replaces) the factory of typeName, taking at most arity arguments.
  void registerType(const std::string& typeName, size_t arity, Factory factory);
  bool typeRegistered(const std::string& typeName) const;
  // Throws Oro::Exception for an unknown type and UnexpectedEntityArgumentsException for
  // more arguments than the arity.
  Ptr<Entity> create(const std::string& typeName, const std::vector<std::string>& args);

  // Mounts e at path, replacing what was there; true when the path was free.
  bool mount(const std::string& path, Ptr<Entity> e);
  // The entity at path if there is one; else a new one from create(typeName, args), mounted
  // there. An entity of another type at path raises Oro::Exception.
  Ptr<Entity> mountNew(const std::string& path, const std::string& typeName,
                       const std::vector<std::string>& args);
  Ptr<Entity> lookup(const std::string& path) const;  // null when nothing is mounted
  bool unmount(const std::string& path);              // false when nothing was mounted
  std::vector<std::string> paths() const;             // sorted

 private:
  struct TypeEntry {
    size_t arity;
    Factory factory;
  };
  mutable std::mutex mu_;
  std::map<std::string, TypeEntry> types_;
  std::map<std::string, Ptr<Entity>> mounts_;
};

}  // namespace Oro
