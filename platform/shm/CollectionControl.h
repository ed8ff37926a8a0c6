// The collection-control object of a shared-memory table: carries the table's mount status
// and quiesced flag to subscribers, publishing each change, and can hold a reference to the
// entity that owns the table (the owner hands itself over when its last outside reference
// goes, so the table outlives its creator's pointers for as long as the control lives).
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/runtime/Entity.h"

namespace TylKetab {

enum class MountStatus : uint8_t { notMounted = 0, mounting = 1, mounted = 2, mountFailed = 3 };

// "notMounted", "mounting", "mounted", "mountFailed".
const char* mountStatusName(MountStatus status);

class CollectionControl : public Oro::Entity {
 public:
  static constexpr Oro::AttrId mountStatusAttr = 1;
  static constexpr Oro::AttrId quiescedAttr = 2;
  static constexpr Oro::AttrId entityAttr = 3;

  std::string_view typeName() const override { return "TylKetab::CollectionControl"; }

  MountStatus mountStatus() const { return mountStatus_; }
  // Publishes mountStatusAttr when the status changes.
  void mountStatusIs(MountStatus status);
  bool quiesced() const { return quiesced_; }
  // Publishes quiescedAttr when the flag changes.
  void quiescedIs(bool quiesced);

  const Oro::Ptr<Oro::Entity>& entity() const { return entity_; }
  // Holds (or, with null, releases) the owning entity; publishes entityAttr on a change.
  void entityIs(Oro::Ptr<Oro::Entity> entity);

 private:
  MountStatus mountStatus_ = MountStatus::notMounted;
  bool quiesced_ = false;
  Oro::Ptr<Oro::Entity> entity_;
};

}  // namespace TylKetab
