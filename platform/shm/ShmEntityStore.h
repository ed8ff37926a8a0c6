// The shared-memory entity store's process side: the heap that roots of the store are
// allocated from (selected while a root is constructed), and the creators of root types, by
// type name, that a directory uses to create a root for a mount path.
#pragma once

#include <string>

#include "platform/runtime/Entity.h"
#include "platform/runtime/EntityHeap.h"
#include "platform/runtime/Ptr.h"
#include "platform/shm/ShmBinding.h"

namespace Oro::ShmEntityStore {

// How a root created for a directory is attached.
using Initializer = ShmAttach;
// Creates a root of one type with the given name and attaches it as the initializer says.
using Creator = Ptr<Entity> (*)(const std::string& name, const Initializer* initializer);

// The store's process-side heap.
CountingHeap& heap();
// Registers (or replaces) the creator of a root type; returns true (for static registration).
bool registerRoot(const std::string& typeName, Creator creator);
bool rootRegistered(const std::string& typeName);
// Creates a root through its type's creator; an unknown type raises Oro::Exception.
Ptr<Entity> createRoot(const std::string& typeName, const std::string& name,
                       const Initializer* initializer);

}  // namespace Oro::ShmEntityStore
