// Vrf::VrfIdMap::Status: which VRF name each VRF id stands for. An in-process entity: one
// keyed attribute `vrfName` (VrfId -> name), kept in VRF id order.
//
// Writers use vrfNameIs / vrfNameDel / vrfNameDelAll; every change publishes one old-value
// change of vrfNameAttr for its key (old or new name null for an insertion or a removal;
// subscribers that only want the key get onAttributeKey). Setting the name already stored
// publishes nothing. The invalid VRF id never has a name (fatal assertion).
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/net/VrfId.h"
#include "platform/runtime/Entity.h"
#include "platform/runtime/KeyedCollection.h"
#include "platform/runtime/Ptr.h"

namespace Vrf::VrfIdMap {

class Status : public Oro::Entity {
 public:
  static constexpr Oro::AttrId vrfNameAttr = 0;
  using VrfNameColl = Oro::KeyedCollection<VrfId, std::string>;

  std::string_view typeName() const override { return "Vrf::VrfIdMap::Status"; }
  static Oro::Ptr<Status> StatusIs() { return Oro::makePtr<Status>(); }

  // The name of vrfId, or the empty string when it has none.
  std::string vrfName(VrfId vrfId) const;
  std::optional<std::string> vrfNameGet(VrfId vrfId) const { return names_.lookup(vrfId); }
  bool vrfNameHas(VrfId vrfId) const { return names_.contains(vrfId); }
  size_t vrfNameSize() const { return names_.size(); }
  // Iteration in VRF id order; changeCount() tells a reader whether it missed changes.
  const VrfNameColl& vrfNameColl() const { return names_; }

  void vrfNameIs(VrfId vrfId, const std::string& name);
  // The removed name, or the empty string when vrfId had none (then nothing is published).
  std::string vrfNameDel(VrfId vrfId);
  // With subscribers every removal is published (vrfNameDel per id in id order); without,
  // the collection is emptied at once.
  void vrfNameDelAll();

 private:
  VrfNameColl names_;
};

Oro::Ptr<Status> vrfIdMapStatusFactory();

}  // namespace Vrf::VrfIdMap
