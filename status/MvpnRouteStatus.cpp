#include "status/MvpnRouteStatus.h"

#include "platform/Assert.h"
#include "platform/Error.h"
#include "platform/Toggle.h"
#include "platform/shm/WalkOnce.h"

namespace Routing::Multicast {

using Nevo::IpGenAddr;
using Nevo::IpGenPrefix;

namespace RouteStatusStore {

Oro::ShmStoreSchema schema() {
  using Oro::ShmCollectionSchema;
  using Oro::ShmImage;
  Oro::ShmStoreSchema s;
  s.rootType = MvpnRouteStatus::kTypeName;
  auto coll = [](const char* name, const char* type, uint32_t kind, uint32_t parent, uint64_t keyFp,
                 uint32_t keyBytes, uint64_t valueFp, uint32_t valueBytes) {
    ShmCollectionSchema c;
    c.name = name;
    c.typeName = type;
    c.kind = kind;
    c.parent = parent;
    c.keyFingerprint = keyFp;
    c.keyBytes = keyBytes;
    c.valueFingerprint = valueFp;
    c.valueBytes = valueBytes;
    return c;
  };
  using VrfId = Vrf::VrfIdMap::VrfId;
  s.collections = {
      coll("vrfRouteStatus", "Routing::Multicast::MvpnVrfRouteStatus", Oro::ShmLayout::kCollEntities,
           Oro::ShmLayout::kNoParent, ShmImage<VrfId>::fingerprint, ShmImage<VrfId>::bytes, 0, 0),
      coll("mvpnRoute", "Routing::Multicast::MvpnRoute", Oro::ShmLayout::kCollValues, kVrfRouteStatus,
           ShmImage<MvpnRouteKey>::fingerprint, ShmImage<MvpnRouteKey>::bytes,
           MvpnRouteColl::valueFingerprint, MvpnRouteColl::valueBytes),
      coll("mvpnGroup", "Routing::Multicast::MvpnGroup", Oro::ShmLayout::kCollEntities, kVrfRouteStatus,
           ShmImage<IpGenAddr>::fingerprint, ShmImage<IpGenAddr>::bytes, 0, 0),
      coll("sharedTree", "Routing::Multicast::MvpnSource", Oro::ShmLayout::kCollValues, kMvpnGroup,
           ShmImage<IpGenAddr>::fingerprint, ShmImage<IpGenAddr>::bytes,
           MvpnSourceColl<kSharedTree>::valueFingerprint, MvpnSourceColl<kSharedTree>::valueBytes),
      coll("sourceTree", "Routing::Multicast::MvpnSource", Oro::ShmLayout::kCollValues, kMvpnGroup,
           ShmImage<IpGenAddr>::fingerprint, ShmImage<IpGenAddr>::bytes,
           MvpnSourceColl<kSourceTree>::valueFingerprint, MvpnSourceColl<kSourceTree>::valueBytes),
  };
  return s;
}

}  // namespace RouteStatusStore

namespace {

// A flag byte read back from shared memory: 0..7, anything else is damage.
uint8_t flagsOf(const std::byte* p, const char* type) {
  const auto v = static_cast<uint8_t>(*p);
  if (v > 7) Oro::shmBadImage(type);
  return v;
}

// A dump line: "%*c" and a space indent it, except at indent 0.
template <class... Args>
void line(Oro::DumpContext& dc, int indent, const char* fmt0, const char* fmtIndented, Args... args) {
  if (indent != 0) {
    dc.print(fmtIndented, indent, ' ', args...);
  } else {
    dc.print(fmt0, args...);
  }
}

ShmRootBase::MutatorCounters* rootCounters(Oro::ShmBinding* binding, uint32_t coll) {
  if (!binding || !binding->owner()) return nullptr;
  return &static_cast<ShmRootBase*>(binding->owner())->counters(coll);
}

bool groupModel() {
  return Oro::toggleEnabled("MvpnGroupTylModel");
}

}  // namespace

void MvpnRouteColl::writeValue(const Record& r, std::byte* out) {
  Oro::ShmImage<IpGenPrefix>::write(r.umhPrefix(), out);
  out[Oro::ShmImage<IpGenPrefix>::bytes] = static_cast<std::byte>(r.routeFlags().value());
}

MvpnRoute MvpnRouteColl::readRecord(const Key& key, const std::byte* value, std::string_view) {
  const IpGenPrefix prefix = Oro::ShmImage<IpGenPrefix>::read(value);
  const uint8_t flags = flagsOf(value + Oro::ShmImage<IpGenPrefix>::bytes, "Routing::Multicast::MvpnRoute");
  return MvpnRoute(key, prefix, MvpnRoute::RouteFlags(flags));
}

template <uint32_t Coll>
void MvpnSourceColl<Coll>::writeValue(const Record& r, std::byte* out) {
  Oro::ShmImage<IpGenPrefix>::write(r.umhPrefix(), out);
  out[Oro::ShmImage<IpGenPrefix>::bytes] = static_cast<std::byte>(r.sourceFlags().value());
}

template <uint32_t Coll>
MvpnSource MvpnSourceColl<Coll>::readRecord(const Key& key, const std::byte* value, std::string_view) {
  const IpGenPrefix prefix = Oro::ShmImage<IpGenPrefix>::read(value);
  const uint8_t flags = flagsOf(value + Oro::ShmImage<IpGenPrefix>::bytes, "Routing::Multicast::MvpnSource");
  return MvpnSource(key, prefix, MvpnSource::SourceFlags(flags));
}

template struct MvpnSourceColl<RouteStatusStore::kSharedTree>;
template struct MvpnSourceColl<RouteStatusStore::kSourceTree>;

// ---- MvpnGroup ------------------------------------------------------------------------------

MvpnGroup::MvpnGroup(Oro::ShmBinding* binding, uint64_t ref, const Key& group)
    : group_(group),
      sharedTree_(binding, ref,
                  [this](const IpGenAddr& s) { sharedTreeNotify(s, sharedTree(s).value_or(MvpnSource())); }),
      sourceTree_(binding, ref,
                  [this](const IpGenAddr& s) { sourceTreeNotify(s, sourceTree(s).value_or(MvpnSource())); }) {
  if (binding) shmBind(binding, collection, ref);
}

MvpnGroup::~MvpnGroup() = default;

Oro::Ptr<MvpnGroup> MvpnGroup::make(Oro::ShmBinding* binding, uint64_t ref, const Key& group) {
  return Oro::Ptr<MvpnGroup>(new MvpnGroup(binding, ref, group));
}

Oro::ShmHandleBase* MvpnGroup::childHandle(uint32_t coll) {
  if (coll == RouteStatusStore::kSharedTree) return &sharedTree_;
  if (coll == RouteStatusStore::kSourceTree) return &sourceTree_;
  return nullptr;
}

void MvpnGroup::forEachChild(const std::function<void(Oro::ShmHandleBase&)>& fn) {
  fn(sharedTree_);
  fn(sourceTree_);
}

ShmRootBase::MutatorCounters* MvpnGroup::counters(uint32_t coll) const {
  return rootCounters(shmBinding(), coll);
}

void MvpnGroup::sharedTreeIs(const MvpnSource& record) {
  const auto held = holdForMutation();
  if (auto* c = counters(RouteStatusStore::kSharedTree)) c->is.inc();
  writeOrStop("write", "sharedTree", *this, [&] { sharedTree_.insert(record); });
  sharedTreeNotify(record.source(), record);
}

MvpnSource MvpnGroup::sharedTreeDel(const IpGenAddr& source) {
  const auto held = holdForMutation();
  if (auto* c = counters(RouteStatusStore::kSharedTree)) c->del.inc();
  MvpnSource removed;
  if (!writeOrStop("removal", "sharedTree", *this,
                   [&] { return sharedTree_.remove(source, &removed); })) {
    return MvpnSource();
  }
  sharedTreeNotify(source, removed);
  return removed;
}

void MvpnGroup::sharedTreeDelAll() {
  const auto held = holdForMutation();
  for (const IpGenAddr& k : keysOrReport(sharedTree_, *this)) sharedTreeDel(k);
}

void MvpnGroup::sharedTreeNotify(const IpGenAddr& source, const MvpnSource& /*record*/) {
  publishKey(sharedTreeAttr, source);
  if (auto* c = counters(RouteStatusStore::kSharedTree)) c->notify.inc();
}

void MvpnGroup::sourceTreeIs(const MvpnSource& record) {
  const auto held = holdForMutation();
  if (auto* c = counters(RouteStatusStore::kSourceTree)) c->is.inc();
  writeOrStop("write", "sourceTree", *this, [&] { sourceTree_.insert(record); });
  sourceTreeNotify(record.source(), record);
}

MvpnSource MvpnGroup::sourceTreeDel(const IpGenAddr& source) {
  const auto held = holdForMutation();
  if (auto* c = counters(RouteStatusStore::kSourceTree)) c->del.inc();
  MvpnSource removed;
  if (!writeOrStop("removal", "sourceTree", *this,
                   [&] { return sourceTree_.remove(source, &removed); })) {
    return MvpnSource();
  }
  sourceTreeNotify(source, removed);
  return removed;
}

void MvpnGroup::sourceTreeDelAll() {
  const auto held = holdForMutation();
  for (const IpGenAddr& k : keysOrReport(sourceTree_, *this)) sourceTreeDel(k);
}

void MvpnGroup::sourceTreeNotify(const IpGenAddr& source, const MvpnSource& /*record*/) {
  publishKey(sourceTreeAttr, source);
  if (auto* c = counters(RouteStatusStore::kSourceTree)) c->notify.inc();
}

void MvpnGroup::dumpState(Oro::DumpContext& dc, int indent) const {
  line(dc, indent, "Group: %s\n", "%*cGroup: %s\n", group_.toStrep().c_str());
  dc.attributePrinted("group");
  line(dc, indent + 2, "Shared tree: #%u\n", "%*cShared tree: #%u\n",
       static_cast<unsigned>(sharedTree_.size()));
  Oro::WalkOnce<IpGenAddr> shared(shmBinding());
  for (auto it = sharedTree_.begin(); it.valid(); it.next()) {
    if (shared.first(it.key()))
      line(dc, indent + 4, "%s\n", "%*c%s\n", it.value().toStrep().c_str());
  }
  dc.attributePrinted("sharedTree");
  line(dc, indent + 2, "Source tree: #%u\n", "%*cSource tree: #%u\n",
       static_cast<unsigned>(sourceTree_.size()));
  Oro::WalkOnce<IpGenAddr> sources(shmBinding());
  for (auto it = sourceTree_.begin(); it.valid(); it.next()) {
    if (sources.first(it.key()))
      line(dc, indent + 4, "%s\n", "%*c%s\n", it.value().toStrep().c_str());
  }
  dc.attributePrinted("sourceTree");
}

// ---- MvpnVrfRouteStatus ---------------------------------------------------------------------

MvpnVrfRouteStatus::MvpnVrfRouteStatus(Oro::ShmBinding* binding, uint64_t ref, const Key& vrfId)
    : vrfId_(vrfId),
      routes_(binding, ref,
              [this](const MvpnRouteKey& k) { mvpnRouteNotify(k, mvpnRoute(k).value_or(MvpnRoute())); }),
      groups_(binding, ref, [this](const IpGenAddr& g) { mvpnGroupNotify(g); }) {
  if (binding) shmBind(binding, collection, ref);
}

MvpnVrfRouteStatus::~MvpnVrfRouteStatus() = default;

Oro::Ptr<MvpnVrfRouteStatus> MvpnVrfRouteStatus::make(Oro::ShmBinding* binding, uint64_t ref,
                                                      const Key& vrfId) {
  // VRF entities live in the entity store's heap, as roots do.
  Oro::EntityHeapScope heap(Oro::ShmEntityStore::heap());
  return Oro::Ptr<MvpnVrfRouteStatus>(new MvpnVrfRouteStatus(binding, ref, vrfId));
}

Oro::ShmHandleBase* MvpnVrfRouteStatus::childHandle(uint32_t coll) {
  if (coll == RouteStatusStore::kMvpnRoute) return &routes_;
  if (coll == RouteStatusStore::kMvpnGroup) return &groups_;
  return nullptr;
}

void MvpnVrfRouteStatus::forEachChild(const std::function<void(Oro::ShmHandleBase&)>& fn) {
  fn(routes_);
  fn(groups_);
}

ShmRootBase::MutatorCounters* MvpnVrfRouteStatus::counters(uint32_t coll) const {
  return rootCounters(shmBinding(), coll);
}

void MvpnVrfRouteStatus::mvpnRouteIs(const MvpnRoute& route) {
  const auto held = holdForMutation();
  if (auto* c = counters(RouteStatusStore::kMvpnRoute)) c->is.inc();
  route.key().handleInit();  // the key goes into a slot of its own
  writeOrStop("write", "mvpnRoute", *this, [&] { routes_.insert(route); });
  mvpnRouteNotify(route.key(), route);
}

MvpnRoute MvpnVrfRouteStatus::mvpnRouteDel(const MvpnRouteKey& key) {
  const auto held = holdForMutation();
  if (auto* c = counters(RouteStatusStore::kMvpnRoute)) c->del.inc();
  MvpnRoute removed;
  if (!writeOrStop("removal", "mvpnRoute", *this, [&] { return routes_.remove(key, &removed); })) {
    return MvpnRoute();
  }
  mvpnRouteNotify(key, removed);
  return removed;
}

void MvpnVrfRouteStatus::mvpnRouteDelAll() {
  const auto held = holdForMutation();
  for (const MvpnRouteKey& k : keysOrReport(routes_, *this)) mvpnRouteDel(k);
}

void MvpnVrfRouteStatus::mvpnRouteNotify(const MvpnRouteKey& key, const MvpnRoute& /*route*/) {
  publishKey(mvpnRouteAttr, key);
  if (auto* c = counters(RouteStatusStore::kMvpnRoute)) c->notify.inc();
}

// Every call counts, as every call of a record's Is does; only a new group is announced. The
// lookup is part of the write: damage it meets stops the process as the write's would.
Oro::Ptr<MvpnGroup> MvpnVrfRouteStatus::mvpnGroupIs(const IpGenAddr& group) {
  bool added = false;
  return groupIs(group, &added);
}

Oro::Ptr<MvpnGroup> MvpnVrfRouteStatus::groupIs(const IpGenAddr& group, bool* added) {
  const auto held = holdForMutation();
  if (auto* c = counters(RouteStatusStore::kMvpnGroup)) c->is.inc();
  Oro::Ptr<MvpnGroup> g =
      writeOrStop("write", "mvpnGroup", *this, [&] { return groups_.insert(group, added); });
  if (*added) mvpnGroupNotify(group);
  return g;
}

void MvpnVrfRouteStatus::mvpnGroupDel(const IpGenAddr& group) {
  const auto held = holdForMutation();
  if (auto* c = counters(RouteStatusStore::kMvpnGroup)) c->del.inc();
  if (writeOrStop("removal", "mvpnGroup", *this, [&] { return groups_.remove(group); })) {
    mvpnGroupNotify(group);
  }
}

void MvpnVrfRouteStatus::mvpnGroupDelAll() {
  const auto held = holdForMutation();
  for (const IpGenAddr& k : keysOrReport(groups_, *this)) mvpnGroupDel(k);
}

void MvpnVrfRouteStatus::mvpnGroupNotify(const IpGenAddr& group) {
  publishKey(mvpnGroupAttr, group);
  if (auto* c = counters(RouteStatusStore::kMvpnGroup)) c->notify.inc();
}

MvpnSource MvpnVrfRouteStatus::mvpnSourceIs(const IpGenAddr& group, const IpGenAddr& source,
                                            const IpGenPrefix& umhPrefix, bool sharedTree,
                                            MvpnSource::SourceFlags sourceFlags) {
  // Held whoever is subscribed: a subscriber of the group (not of this VRF) may let go of it.
  const auto held = Oro::keepAlive(this);
  bool added = false;
  Oro::Ptr<MvpnGroup> g = groupIs(group, &added);
  const MvpnSource record(source, umhPrefix, sourceFlags);
  try {
    if (sharedTree) {
      g->sharedTreeIs(record);
    } else {
      g->sourceTreeIs(record);
    }
  } catch (const Oro::ShmException&) {
    // Out of shared memory: a group made for this source alone goes again, so that the failed
    // call leaves nothing behind.
    if (added && g->sharedTreeSize() == 0 && g->sourceTreeSize() == 0 && mvpnGroup(group) == g) {
      mvpnGroupDel(group);
    }
    throw;
  }
  return record;
}

MvpnSource MvpnVrfRouteStatus::mvpnSourceDel(const IpGenAddr& group, const IpGenAddr& source,
                                             bool sharedTree) {
  // Held whoever is subscribed: a subscriber of the group (not of this VRF) may let go of it.
  const auto held = Oro::keepAlive(this);
  // The lookup and the emptiness check belong to the removal: damage they meet stops the
  // process as the removal's would, rather than leaving the caller an exception.
  Oro::Ptr<MvpnGroup> g =
      writeOrStop("removal", "mvpnGroup", *this, [&] { return mvpnGroup(group); });
  if (!g) return MvpnSource();
  const MvpnSource removed = sharedTree ? g->sharedTreeDel(source) : g->sourceTreeDel(source);
  // Also when nothing was removed: an empty group goes. The group looked at, that is: not one
  // a subscriber told of the removal put under the key since.
  if (writeOrStop("removal", "mvpnGroup", *this, [&] {
        return g->sharedTreeSize() == 0 && g->sourceTreeSize() == 0 && mvpnGroup(group) == g;
      })) {
    mvpnGroupDel(group);
  }
  return removed;
}

MvpnSource MvpnVrfRouteStatus::mvpnSource(const IpGenAddr& group, const IpGenAddr& source,
                                          bool sharedTree) const {
  Oro::Ptr<MvpnGroup> g = mvpnGroup(group);
  if (!g) return MvpnSource();
  return (sharedTree ? g->sharedTree(source) : g->sourceTree(source)).value_or(MvpnSource());
}

bool MvpnVrfRouteStatus::mvpnSharedTree(const IpGenAddr& group) const {
  Oro::Ptr<MvpnGroup> g = mvpnGroup(group);
  return g && g->sharedTreeSize() != 0;
}

// A group whose collection is damaged counts 0 and the walk goes on; damage in the walk of
// the groups itself is reported too, and what was counted stands.
uint32_t MvpnVrfRouteStatus::countSources(size_t (MvpnGroup::*treeSize)() const) const {
  uint32_t total = 0;
  try {
    for (auto it = groups_.begin(); it.valid(); it.next()) {
      try {
        if (Oro::Ptr<MvpnGroup> g = it.value()) total += static_cast<uint32_t>(((*g).*treeSize)());
      } catch (const Oro::ShmCorruptionException& e) {
        shmReportCorruption(e.what());
      }
    }
  } catch (const Oro::ShmCorruptionException& e) {
    shmReportCorruption(e.what());
  }
  return total;
}

uint32_t MvpnVrfRouteStatus::mvpnSharedTrees() const {
  return countSources(&MvpnGroup::sharedTreeSize);
}

uint32_t MvpnVrfRouteStatus::mvpnSourceTrees() const {
  return countSources(&MvpnGroup::sourceTreeSize);
}

void MvpnVrfRouteStatus::dumpState(Oro::DumpContext& dc, int indent) const {
  line(dc, indent, "VRF ID: %u\n", "%*cVRF ID: %u\n", vrfId_.value());
  dc.attributePrinted("vrfId");
  if (groupModel()) {
    line(dc, indent + 2, "MVPN Groups #%u\n", "%*cMVPN Groups #%u\n",
         static_cast<unsigned>(groups_.size()));
    Oro::WalkOnce<IpGenAddr> groups(shmBinding());
    for (auto it = groups_.begin(); it.valid(); it.next()) {
      if (!groups.first(it.key())) continue;
      Oro::Ptr<MvpnGroup> g = it.value();
      if (!g) {
        dc.reportNull(indent + 4, "MvpnGroup");
        continue;
      }
      if (!dc.markPrinted(g.get(), indent + 4, "MvpnGroup")) continue;
      dc.childBegin();
      g->dumpState(dc, indent + 4);
      dc.childEnd(indent + 4, {"group", "sharedTree", "sourceTree"});
    }
    dc.attributePrinted("mvpnGroup");
  } else {
    line(dc, indent + 2, "MVPN Routes #%u\n", "%*cMVPN Routes #%u\n",
         static_cast<unsigned>(routes_.size()));
    Oro::WalkOnce<MvpnRouteKey> routes(shmBinding());
    for (auto it = routes_.begin(); it.valid(); it.next()) {
      if (routes.first(it.key()))
        line(dc, indent + 4, "%s\n", "%*c%s\n", it.value().toStrep().c_str());
    }
    dc.attributePrinted("mvpnRoute");
  }
}

// ---- MvpnRouteStatus ------------------------------------------------------------------------

Oro::TraceHandle& MvpnRouteStatus::trace() {
  static Oro::TraceHandle& handle = Oro::TraceHandle::immortal("MvpnRouteStatus");
  return handle;
}

MvpnRouteStatus::MvpnRouteStatus(std::string name)
    : ShmRootBase(std::move(name), RouteStatusStore::schema(), trace(), vrfRouteStatusControlAttr),
      vrfs_(&binding(), 0, [this](VrfId v) { vrfRouteStatusNotify(v); }) {}

MvpnRouteStatus::~MvpnRouteStatus() = default;

std::string MvpnRouteStatus::mountPath(Nevo::AddressFamily af, MvpnClient client) {
  if (af == Nevo::AddressFamily::ipv4) return "routing/multicast/vpn/routeStatus/" + stringValue(client);
  if (af == Nevo::AddressFamily::ipv6) return "routing6/multicast/vpn/routeStatus/" + stringValue(client);
  MVPN_ASSERT_MSG(false, "Unsupported address family");
  return {};
}

// Every call counts, as every call of a record's Is does; only a new VRF is announced. The
// lookup is part of the write, as in mvpnGroupIs.
Oro::Ptr<MvpnVrfRouteStatus> MvpnRouteStatus::vrfRouteStatusIs(VrfId vrfId) {
  const auto held = holdForMutation();
  counters(RouteStatusStore::kVrfRouteStatus).is.inc();
  bool added = false;
  Oro::Ptr<MvpnVrfRouteStatus> v =
      writeOrStop("write", "vrfRouteStatus", *this, [&] { return vrfs_.insert(vrfId, &added); });
  if (added) vrfRouteStatusNotify(vrfId);
  return v;
}

void MvpnRouteStatus::vrfRouteStatusDel(VrfId vrfId) {
  const auto held = holdForMutation();
  counters(RouteStatusStore::kVrfRouteStatus).del.inc();
  if (writeOrStop("removal", "vrfRouteStatus", *this, [&] { return vrfs_.remove(vrfId); })) {
    vrfRouteStatusNotify(vrfId);
  }
}

void MvpnRouteStatus::vrfRouteStatusDelAll() {
  const auto held = holdForMutation();
  for (VrfId v : keysOrReport(vrfs_, *this)) vrfRouteStatusDel(v);
}

void MvpnRouteStatus::vrfRouteStatusNotify(VrfId vrfId) {
  publishKey(vrfRouteStatusAttr, vrfId);
  counters(RouteStatusStore::kVrfRouteStatus).notify.inc();
}

void MvpnRouteStatus::dumpState(Oro::DumpContext& dc, int indent) const {
  unsigned count = 0;
  try {
    count = static_cast<unsigned>(vrfs_.size());
  } catch (const Oro::ShmCorruptionException& e) {
    handleCorruption(e.what());
  }
  line(dc, indent, "MvpnRouteStatus #%u:\n", "%*cMvpnRouteStatus #%u:\n", count);
  try {
    Oro::WalkOnce<VrfId> vrfs(&binding());
    for (auto it = vrfs_.begin(); it.valid(); it.next()) {
      if (!vrfs.first(it.key())) continue;
      Oro::Ptr<MvpnVrfRouteStatus> v = it.value();
      if (!v) {
        dc.reportNull(indent + 2, "MvpnVrfRouteStatus");
        continue;
      }
      if (!dc.markPrinted(v.get(), indent + 2, "MvpnVrfRouteStatus")) continue;
      dc.childBegin();
      v->dumpState(dc, indent + 2);
      dc.childEnd(indent + 2, {"vrfId", groupModel() ? "mvpnGroup" : "mvpnRoute"});
    }
  } catch (const Oro::ShmCorruptionException& e) {
    handleCorruption(e.what());
  }
}

Oro::Ptr<MvpnRouteStatus> mvpnRouteStatusFactory(const std::string& name) {
  Oro::EntityHeapScope heap(Oro::ShmEntityStore::heap());
  MvpnRouteStatus* root = new (std::nothrow) MvpnRouteStatus(name);
  if (!root) {
    throw Oro::NullPointerException(
        "mvpnRouteStatusFactory: no memory for a Routing::Multicast::MvpnRouteStatus");
  }
  return Oro::Ptr<MvpnRouteStatus>(root);
}

namespace {

Oro::Ptr<Oro::Entity> createForStore(const std::string& name,
                                     const Oro::ShmEntityStore::Initializer* initializer) {
  MVPN_ASSERT(initializer);
  Oro::Ptr<MvpnRouteStatus> root = mvpnRouteStatusFactory(name);
  if (!initializer->mountPath.empty()) root->mount(*initializer);
  return root;
}

const bool registered =
    Oro::ShmEntityStore::registerRoot(MvpnRouteStatus::kTypeName, &createForStore) &&
    registerStatusRootType<MvpnRouteStatus>(MvpnRouteStatus::kTypeName, &mvpnRouteStatusFactory);

}  // namespace

}  // namespace Routing::Multicast
