#include "platform/net/VrfIdMapStatus.h"

#include <vector>

#include "platform/Assert.h"

namespace Vrf::VrfIdMap {

std::string Status::vrfName(VrfId vrfId) const {
  const std::string* name = names_.find(vrfId);
  return name ? *name : std::string();
}

void Status::vrfNameIs(VrfId vrfId, const std::string& name) {
  MVPN_ASSERT_MSG(vrfId.isValid(), "The invalid VRF id has no name");
  std::optional<std::string> old = names_.lookup(vrfId);
  if (old && *old == name) return;
  names_.insertOrReplace(vrfId, name);
  publishOldNew(vrfNameAttr, vrfId, old ? &*old : nullptr, &name);
}

std::string Status::vrfNameDel(VrfId vrfId) {
  std::optional<std::string> old = names_.remove(vrfId);
  if (!old) return std::string();
  publishOldNew<VrfId, std::string>(vrfNameAttr, vrfId, &*old, nullptr);
  return std::move(*old);
}

void Status::vrfNameDelAll() {
  const auto held = holdForMutation();
  if (!hasNotifiees()) {
    names_.clear();
    return;
  }
  // Subscribers may change the collection while a removal is published: walk a copy of
  // the ids.
  std::vector<VrfId> ids;
  ids.reserve(names_.size());
  for (const auto& entry : names_) ids.push_back(entry.first);
  for (VrfId id : ids) vrfNameDel(id);
}

Oro::Ptr<Status> vrfIdMapStatusFactory() {
  return Status::StatusIs();
}

}  // namespace Vrf::VrfIdMap
