#include "merge/MvpnTunnelEncapStatus.h"

#include <utility>

#include "platform/shm/ShmEntityStore.h"

namespace Routing::Multicast {

namespace TunnelEncapStore {

Oro::ShmStoreSchema schema() {
  using Oro::ShmImage;
  using VrfId = Vrf::VrfIdMap::VrfId;
  Oro::ShmCollectionSchema vrfs{"vrfStatus",
                                "Routing::Multicast::MvpnVrfTunnelEncapStatus",
                                ShmImage<VrfId>::fingerprint,
                                0,
                                Oro::ShmLayout::kCollEntities,
                                Oro::ShmLayout::kNoParent,
                                ShmImage<VrfId>::bytes,
                                0,
                                false};
  Oro::ShmCollectionSchema routes{"encapTunnel",
                                  MvpnEncapTunnel::kTypeName,
                                  ShmImage<MvpnRouteKey>::fingerprint,
                                  EncapTunnelColl::valueFingerprint,
                                  Oro::ShmLayout::kCollValues,
                                  kVrfStatus,
                                  ShmImage<MvpnRouteKey>::bytes,
                                  0,
                                  true};
  Oro::ShmCollectionSchema intfs{"encapIntfTunnel",
                                 MvpnEncapIntfTunnel::kTypeName,
                                 ShmImage<MvpnRouteIntfKey>::fingerprint,
                                 EncapIntfTunnelColl::valueFingerprint,
                                 Oro::ShmLayout::kCollValues,
                                 kVrfStatus,
                                 ShmImage<MvpnRouteIntfKey>::bytes,
                                 0,
                                 true};
  return Oro::ShmStoreSchema{MvpnTunnelEncapStatus::kTypeName, {vrfs, routes, intfs}};
}

}  // namespace TunnelEncapStore

namespace {
ShmRootBase::MutatorCounters* rootCounters(Oro::ShmBinding* binding, uint32_t coll) {
  if (!binding || !binding->owner()) return nullptr;
  return &static_cast<ShmRootBase*>(binding->owner())->counters(coll);
}
}  // namespace

// ---- MvpnVrfTunnelEncapStatus -----------------------------------------------------------------

MvpnVrfTunnelEncapStatus::MvpnVrfTunnelEncapStatus(Oro::ShmBinding* binding, uint64_t ref,
                                                   const VrfId& vrfId)
    : vrfId_(vrfId),
      encapTunnel_(binding, ref,
                   [this](const MvpnRouteKey& k) {
                     announce(TunnelEncapStore::kEncapTunnel, encapTunnelAttr, k);
                   }),
      encapIntfTunnel_(binding, ref, [this](const MvpnRouteIntfKey& k) {
        announce(TunnelEncapStore::kEncapIntfTunnel, encapIntfTunnelAttr, k);
      }) {
  if (binding) shmBind(binding, collection, ref);
}

MvpnVrfTunnelEncapStatus::~MvpnVrfTunnelEncapStatus() = default;

Oro::Ptr<MvpnVrfTunnelEncapStatus> MvpnVrfTunnelEncapStatus::make(Oro::ShmBinding* binding,
                                                                  uint64_t ref,
                                                                  const VrfId& vrfId) {
  return Oro::Ptr<MvpnVrfTunnelEncapStatus>(new MvpnVrfTunnelEncapStatus(binding, ref, vrfId));
}

std::string_view MvpnVrfTunnelEncapStatus::typeName() const {
  return "Routing::Multicast::MvpnVrfTunnelEncapStatus";
}

Oro::ShmHandleBase* MvpnVrfTunnelEncapStatus::childHandle(uint32_t coll) {
  if (coll == TunnelEncapStore::kEncapTunnel) return &encapTunnel_;
  if (coll == TunnelEncapStore::kEncapIntfTunnel) return &encapIntfTunnel_;
  return nullptr;
}

void MvpnVrfTunnelEncapStatus::forEachChild(const std::function<void(Oro::ShmHandleBase&)>& fn) {
  fn(encapTunnel_);
  fn(encapIntfTunnel_);
}

ShmRootBase::MutatorCounters* MvpnVrfTunnelEncapStatus::counters(uint32_t coll) const {
  return rootCounters(shmBinding(), coll);
}

template <class K>
void MvpnVrfTunnelEncapStatus::announce(uint32_t coll, Oro::AttrId attr, const K& key) {
  publishKey(attr, key);
  if (auto* c = counters(coll)) c->notify.inc();
}

void MvpnVrfTunnelEncapStatus::encapTunnelIs(const MvpnEncapTunnel& record) {
  const auto held = holdForMutation();
  if (auto* c = counters(TunnelEncapStore::kEncapTunnel)) c->is.inc();
  record.routeKey().handleInit();  // the key goes into a slot of its own
  writeOrStop("write", "encapTunnel", encapTunnelReporter(), [&] { encapTunnel_.insert(record); });
  announce(TunnelEncapStore::kEncapTunnel, encapTunnelAttr, record.routeKey());
}

template <class Coll, class Reporter>
typename Coll::Record MvpnVrfTunnelEncapStatus::removeRecord(Oro::ShmValues<Coll>& values,
                                                             const typename Coll::Key& key,
                                                             uint32_t coll, const char* name,
                                                             const Reporter& reporter,
                                                             Oro::AttrId attr) {
  const auto held = holdForMutation();
  if (auto* c = counters(coll)) c->del.inc();
  const typename Coll::Key k = key;  // `key` may live in the caller's copy of the record
  typename Coll::Record removed;
  if (!writeOrStop("removal", name, reporter, [&] { return values.remove(k, &removed); })) {
    return typename Coll::Record();
  }
  announce(coll, attr, k);
  return removed;
}

MvpnEncapTunnel MvpnVrfTunnelEncapStatus::encapTunnelDel(const MvpnRouteKey& key) {
  return removeRecord(encapTunnel_, key, TunnelEncapStore::kEncapTunnel, "encapTunnel",
                      encapTunnelReporter(), encapTunnelAttr);
}

void MvpnVrfTunnelEncapStatus::encapTunnelHandleCorruption(const std::string& message) const {
  if (encapTunnelHandler_) {
    encapTunnelHandler_(message);
  } else if (Oro::ShmBinding* b = shmBinding()) {
    b->handleCorruption(message);
  }
}

void MvpnVrfTunnelEncapStatus::encapIntfTunnelIs(const MvpnEncapIntfTunnel& record) {
  const auto held = holdForMutation();
  if (auto* c = counters(TunnelEncapStore::kEncapIntfTunnel)) c->is.inc();
  const MvpnRouteIntfKey key = record.routeIntfKey();
  writeOrStop("write", "encapIntfTunnel", encapIntfTunnelReporter(),
              [&] { encapIntfTunnel_.insert(record); });
  announce(TunnelEncapStore::kEncapIntfTunnel, encapIntfTunnelAttr, key);
}

MvpnEncapIntfTunnel MvpnVrfTunnelEncapStatus::encapIntfTunnelDel(const MvpnRouteIntfKey& key) {
  return removeRecord(encapIntfTunnel_, key, TunnelEncapStore::kEncapIntfTunnel, "encapIntfTunnel",
                      encapIntfTunnelReporter(), encapIntfTunnelAttr);
}

void MvpnVrfTunnelEncapStatus::encapIntfTunnelHandleCorruption(const std::string& message) const {
  if (encapIntfTunnelHandler_) {
    encapIntfTunnelHandler_(message);
  } else if (Oro::ShmBinding* b = shmBinding()) {
    b->handleCorruption(message);
  }
}

// ---- MvpnTunnelEncapStatus --------------------------------------------------------------------

Oro::TraceHandle& MvpnTunnelEncapStatus::trace() {
  static Oro::TraceHandle& handle = Oro::TraceHandle::immortal("MvpnTunnelEncapStatus");
  return handle;
}

MvpnTunnelEncapStatus::MvpnTunnelEncapStatus(std::string name)
    : ShmRootBase(std::move(name), TunnelEncapStore::schema(), trace(), vrfStatusControlAttr),
      vrfs_(&binding(), 0, [this](const VrfId& v) { vrfStatusNotify(v); }) {}

void MvpnTunnelEncapStatus::vrfStatusNotify(VrfId vrfId) {
  publishKey(vrfStatusAttr, vrfId);
  counters(TunnelEncapStore::kVrfStatus).notify.inc();
}

MvpnTunnelEncapStatus::~MvpnTunnelEncapStatus() = default;

Oro::Ptr<MvpnTunnelEncapStatus> MvpnTunnelEncapStatus::MvpnTunnelEncapStatusIs(
    const std::string& name) {
  return mvpnTunnelEncapStatusFactory(name);
}

size_t MvpnTunnelEncapStatus::encapTunnelTotal() const {
  return vrfs_.nestedTotal(TunnelEncapStore::kEncapTunnel,
                           &MvpnVrfTunnelEncapStatus::encapTunnelSize);
}

size_t MvpnTunnelEncapStatus::encapIntfTunnelTotal() const {
  return vrfs_.nestedTotal(TunnelEncapStore::kEncapIntfTunnel,
                           &MvpnVrfTunnelEncapStatus::encapIntfTunnelSize);
}

// Every call counts, as every call of a record's Is does; only a new VRF is announced. The
// lookup is part of the write: damage it meets stops the process as the write's would.
Oro::Ptr<MvpnVrfTunnelEncapStatus> MvpnTunnelEncapStatus::vrfStatusIs(VrfId vrfId) {
  const auto held = holdForMutation();
  counters(TunnelEncapStore::kVrfStatus).is.inc();
  bool added = false;
  Oro::Ptr<MvpnVrfTunnelEncapStatus> v =
      writeOrStop("write", "vrfStatus", *this, [&] { return vrfs_.insert(vrfId, &added); });
  if (added) vrfStatusNotify(vrfId);
  return v;
}

void MvpnTunnelEncapStatus::vrfStatusDel(VrfId vrfId) {
  const auto held = holdForMutation();
  counters(TunnelEncapStore::kVrfStatus).del.inc();
  // Subscribers told of the removal may still read the departing entity: it keeps its records.
  if (writeOrStop("removal", "vrfStatus", *this, [&] { return vrfs_.remove(vrfId); })) {
    vrfStatusNotify(vrfId);
  }
}

std::string MvpnTunnelEncapStatus::mountPath(std::string_view writer) {
  if (writer != "mvpn" && writer != "static" && writer != "evpn" && writer != "merged") {
    throw Oro::RangeException("unknown tunnel encapsulation writer: " + std::string(writer));
  }
  return "routing/multicast/vpn/tunnelEncapStatus/" + std::string(writer);
}

Oro::Ptr<MvpnTunnelEncapStatus> mvpnTunnelEncapStatusFactory(const std::string& name) {
  Oro::EntityHeapScope heap(Oro::ShmEntityStore::heap());
  MvpnTunnelEncapStatus* root = new (std::nothrow) MvpnTunnelEncapStatus(name);
  if (!root) {
    throw Oro::NullPointerException(
        "mvpnTunnelEncapStatusFactory: no memory for a Routing::Multicast::MvpnTunnelEncapStatus");
  }
  return Oro::Ptr<MvpnTunnelEncapStatus>(root);
}

namespace {

Oro::Ptr<Oro::Entity> createForStore(const std::string& name,
                                     const Oro::ShmEntityStore::Initializer* initializer) {
  MVPN_ASSERT(initializer);
  Oro::Ptr<MvpnTunnelEncapStatus> root = mvpnTunnelEncapStatusFactory(name);
  if (!initializer->mountPath.empty()) root->mount(*initializer);
  return root;
}

const bool registered =
    Oro::ShmEntityStore::registerRoot(MvpnTunnelEncapStatus::kTypeName, &createForStore) &&
    registerStatusRootType<MvpnTunnelEncapStatus>(MvpnTunnelEncapStatus::kTypeName,
                                                  &mvpnTunnelEncapStatusFactory);

}  // namespace

}  // namespace Routing::Multicast
