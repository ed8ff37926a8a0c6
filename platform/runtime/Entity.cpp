#include "platform/runtime/Entity.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>

#include <fmt/format.h>

#include "platform/Assert.h"

namespace Oro {

namespace {
std::string readableTypeName(const std::type_info& type) {
  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> name(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
  return status == 0 && name ? std::string(name.get()) : std::string(type.name());
}
}  // namespace

void detail::keyTypeMismatch(const std::type_info& published, const std::type_info& expected) {
  assertionFailed(fmt::format("a key published as {} reached a notifiee expecting {}",
                              readableTypeName(published), readableTypeName(expected)),
                  __FILE__, __LINE__);
}

Entity::~Entity() {
  for (Notifiee* n : notifiees_) {
    if (n) n->notifier_ = nullptr;
  }
}

void Entity::attach(Notifiee* n) {
  notifiees_.push_back(n);
  ++liveNotifiees_;
}

void Entity::detach(Notifiee* n) {
  auto it = std::find(notifiees_.begin(), notifiees_.end(), n);
  if (it == notifiees_.end()) return;
  --liveNotifiees_;
  if (publishing_ != 0) {
    *it = nullptr;  // keep indexes stable for the publication in progress
  } else {
    notifiees_.erase(it);
  }
}

void Entity::compact() {
  if (publishing_ == 0 && notifiees_.size() != liveNotifiees_) {
    std::erase(notifiees_, nullptr);
  }
}

// Each publication holds the entity: a notifiee may let go of its last reference, and the
// loop still reads the list of notifiees afterwards. It calls the notifiees attached when it
// began: one attached during it (also one that detached and attached again from its own
// callback) hears from the next publication on.
void Entity::publish(AttrId attr) {
  if (liveNotifiees_ == 0) return;
  const auto held = holdForMutation();
  ++publishing_;
  for (size_t i = 0, end = notifiees_.size(); i < end; ++i) {
    if (Notifiee* n = notifiees_[i]) n->onAttribute(attr);
  }
  --publishing_;
  compact();
}

void Entity::publishKeyErased(AttrId attr, const void* key) {
  const auto held = holdForMutation();
  ++publishing_;
  for (size_t i = 0, end = notifiees_.size(); i < end; ++i) {
    if (Notifiee* n = notifiees_[i]) n->onAttributeKey(attr, key);
  }
  --publishing_;
  compact();
}

void Entity::publishOldNewErased(AttrId attr, const void* key, const void* oldValue,
                                 const void* newValue) {
  const auto held = holdForMutation();
  ++publishing_;
  for (size_t i = 0, end = notifiees_.size(); i < end; ++i) {
    if (Notifiee* n = notifiees_[i]) n->onAttributeOldNew(attr, key, oldValue, newValue);
  }
  --publishing_;
  compact();
}

Notifiee::~Notifiee() { notifierIs(nullptr); }

void Notifiee::notifierIs(Entity* e) {
  if (e == notifier_) return;
  if (notifier_) notifier_->detach(this);
  notifier_ = e;
  if (notifier_) notifier_->attach(this);
}

}  // namespace Oro
