#include "platform/shm/CollectionControl.h"

#include <utility>

namespace TylKetab {

const char* mountStatusName(MountStatus status) {
  switch (status) {
    case MountStatus::notMounted:
      return "notMounted";
    case MountStatus::mounting:
      return "mounting";
    case MountStatus::mounted:
      return "mounted";
    case MountStatus::mountFailed:
      return "mountFailed";
  }
  return "unknown";
}

void CollectionControl::mountStatusIs(MountStatus status) {
  if (status == mountStatus_) return;
  mountStatus_ = status;
  publish(mountStatusAttr);
}

void CollectionControl::quiescedIs(bool quiesced) {
  if (quiesced == quiesced_) return;
  quiesced_ = quiesced;
  publish(quiescedAttr);
}

void CollectionControl::entityIs(Oro::Ptr<Oro::Entity> entity) {
  if (entity == entity_) return;
  // Swap first: releasing the old entity may run its destructor, which may look at us.
  std::swap(entity_, entity);
  publish(entityAttr);
}

}  // namespace TylKetab
