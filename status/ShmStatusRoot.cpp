#include "status/ShmStatusRoot.h"

namespace Routing::Multicast {

ShmRootBase::ShmRootBase(std::string name, Oro::ShmStoreSchema schema,
                         const Oro::TraceHandle& trace, Oro::AttrId controlAttr)
    : name_(std::move(name)),
      trace_(&trace),
      controlAttr_(controlAttr),
      binding_(std::move(schema),
               Oro::ShmBinding::Callbacks{[this] { notifyMountStatus(); },
                                          [this](bool q) { notifyQuiesced(q); }}),
      control_(new TylKetab::CollectionControl()) {
  binding_.ownerIs(this, this);
  for (const Oro::ShmCollectionSchema& c : binding_.schema().collections) {
    counters_.push_back(std::make_unique<MutatorCounters>(c.name, name_));
  }
  zeroRefs_.notifierIs(this);
}

ShmRootBase::~ShmRootBase() {
  ORO_TRACE(*trace_, 2, "deleting state");
  zeroRefs_.notifierIs(nullptr);
  unbindCounters();
}

void writeMetCorruption(const char* operation, std::string_view collection,
                        const Oro::ShmCorruptionException& e) {
  Oro::assertionFailed(fmt::format("{} of {} met a corrupt shared memory table: {}", operation,
                                   collection, e.what()),
                       __FILE__, __LINE__);
}

void ShmRootBase::controlIs(Oro::Ptr<TylKetab::CollectionControl> control) {
  if (control == control_) return;
  std::swap(control_, control);
  publish(controlAttr_);
  // `control` (the old object) is released on return.
}

void ShmRootBase::notifyQuiesced(bool quiesced) {
  if (control_) control_->quiescedIs(quiesced);
}

void ShmRootBase::notifyMountStatus() {
  ORO_TRACE(*trace_, 5, "{}", binding_.mountPath());
  if (control_) control_->mountStatusIs(binding_.mountStatus());
}

void ShmRootBase::bindCounters() {
  for (uint32_t c = 0; c < counters_.size(); ++c) {
    MutatorCounters& m = *counters_[c];
    m.is.storageIs(binding_.counterSlot(3 * c, m.is.name()));
    m.del.storageIs(binding_.counterSlot(3 * c + 1, m.del.name()));
    m.notify.storageIs(binding_.counterSlot(3 * c + 2, m.notify.name()));
  }
}

void ShmRootBase::unbindCounters() {
  for (auto& m : counters_) {
    m->is.storageIs(nullptr);
    m->del.storageIs(nullptr);
    m->notify.storageIs(nullptr);
  }
}

void ShmRootBase::mount(const Oro::ShmAttach& how) {
  // Counters go back to the entity before the store's header may disappear.
  unbindCounters();
  binding_.attach(how);
  bindCounters();
}

void ShmRootBase::unmount() {
  unbindCounters();
  binding_.detach();
}

void ShmRootBase::onZeroReferences() {
  if (zeroRefs_.notifier() != this || !control_) {
    delete this;
    return;
  }
  zeroRefs_.onZeroReferences();
}

void ShmRootZeroReferencesNotifiee::onZeroReferences() {
  ShmRootBase* root = root_;
  Oro::Ptr<TylKetab::CollectionControl> control = std::move(root->control_);
  notifierIs(nullptr);
  control->entityIs(Oro::Ptr<Oro::Entity>(root));
  // Dropping `control` here may release the last reference to the control, and with it the
  // root (and this notifiee): nothing below may touch either.
}

}  // namespace Routing::Multicast
