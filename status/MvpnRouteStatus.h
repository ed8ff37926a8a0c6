// The route status tree: the state in which one MVPN writer publishes, for one address family,
// the customer multicast routes it holds in each VRF. Three levels of entities in one
// shared-memory store:
//   MvpnRouteStatus     root, one per writer and address family (mountPath);
//   MvpnVrfRouteStatus  per VRF (vrfRouteStatus, keyed by VrfId): the flat route model
//                       (mvpnRoute: MvpnRoute by MvpnRouteKey) and the group model (mvpnGroup);
//   MvpnGroup           per customer group (mvpnGroup, keyed by the group address): the
//                       group's shared-tree and source-tree sources (MvpnSource by source).
// The root owns its VRFs, a VRF its routes and groups, a group its sources. Children are
// process-local proxies of the store's entities, reference counted: deleting a key drops the
// collection's reference, and a proxy someone still holds keeps its members in process memory.
//
// Groups live from mvpnGroupIs (or the first mvpnSourceIs) until deleted, or until
// mvpnSourceDel leaves both of their collections empty.
//
// Every mutator publishes the changed key to the entity's subscribers and counts itself in the
// root's counters ("<collection>Is", "<collection>Del", "<collection>Notify"); readers in other
// processes attach by mount path and get each change at its level (Notify).
//
// Dumps: the group model when the toggle "MvpnGroupTylModel" is on (read once), else the flat
// route model.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "platform/DumpContext.h"
#include "platform/net/IpAddr.h"
#include "platform/net/VrfId.h"
#include "platform/runtime/EntityHeap.h"
#include "platform/shm/ShmEntityStore.h"
#include "platform/shm/ShmHandles.h"
#include "status/ShmStatusRoot.h"
#include "types/MvpnClient.h"
#include "types/MvpnRoute.h"
#include "types/MvpnSource.h"

namespace Routing::Multicast {

class MvpnRouteStatus;

// Collection indexes of the route status store.
namespace RouteStatusStore {
inline constexpr uint32_t kVrfRouteStatus = 0;
inline constexpr uint32_t kMvpnRoute = 1;
inline constexpr uint32_t kMvpnGroup = 2;
inline constexpr uint32_t kSharedTree = 3;
inline constexpr uint32_t kSourceTree = 4;
Oro::ShmStoreSchema schema();
}  // namespace RouteStatusStore

// Stored records: the key is the collection key; the value holds the rest.
struct MvpnRouteColl {
  using Key = MvpnRouteKey;
  using Record = MvpnRoute;
  static constexpr uint32_t collection = RouteStatusStore::kMvpnRoute;
  static constexpr bool blobs = false;
  static constexpr uint32_t valueBytes = Oro::ShmImage<Nevo::IpGenPrefix>::bytes + 1;
  static constexpr uint64_t valueFingerprint = Oro::shmFingerprint(
      "Routing::Multicast::MvpnRoute{umhPrefix:Nevo::IpGenPrefix,routeFlags:u8 0..7}", valueBytes);
  static Key keyOf(const Record& r) { return r.key(); }
  static void writeValue(const Record& r, std::byte* out);
  static Record readRecord(const Key& key, const std::byte* value, std::string_view blob);
  static std::string_view blobOf(const Record&) { return {}; }
};

template <uint32_t Coll>
struct MvpnSourceColl {
  using Key = Nevo::IpGenAddr;
  using Record = MvpnSource;
  static constexpr uint32_t collection = Coll;
  static constexpr bool blobs = false;
  static constexpr uint32_t valueBytes = Oro::ShmImage<Nevo::IpGenPrefix>::bytes + 1;
  static constexpr uint64_t valueFingerprint = Oro::shmFingerprint(
      "Routing::Multicast::MvpnSource{umhPrefix:Nevo::IpGenPrefix,sourceFlags:u8 0..7}",
      valueBytes);
  static Key keyOf(const Record& r) { return r.source(); }
  static void writeValue(const Record& r, std::byte* out);
  static Record readRecord(const Key& key, const std::byte* value, std::string_view blob);
  static std::string_view blobOf(const Record&) { return {}; }
};

class MvpnGroup : public Oro::Entity, public Oro::ShmNode {
 public:
  using Key = Nevo::IpGenAddr;
  static constexpr uint32_t collection = RouteStatusStore::kMvpnGroup;
  static constexpr Oro::AttrId sharedTreeAttr = 1;
  static constexpr Oro::AttrId sourceTreeAttr = 2;
  using SharedTree = Oro::ShmValues<MvpnSourceColl<RouteStatusStore::kSharedTree>>;
  using SourceTree = Oro::ShmValues<MvpnSourceColl<RouteStatusStore::kSourceTree>>;

  static Oro::Ptr<MvpnGroup> make(Oro::ShmBinding* binding, uint64_t ref, const Key& group);
  ~MvpnGroup() override;
  std::string_view typeName() const override { return "Routing::Multicast::MvpnGroup"; }

  const Nevo::IpGenAddr& group() const { return group_; }

  std::optional<MvpnSource> sharedTree(const Nevo::IpGenAddr& source) const {
    return sharedTree_.find(source);
  }
  size_t sharedTreeSize() const { return sharedTree_.size(); }
  SharedTree::Cursor sharedTreeIter() const { return sharedTree_.begin(); }
  SharedTree::Cursor sharedTreeIterAt(const SharedTree::Bookmark& b) const { return sharedTree_.at(b); }
  void sharedTreeIs(const MvpnSource& record);
  MvpnSource sharedTreeDel(const Nevo::IpGenAddr& source);
  void sharedTreeDelAll();
  void sharedTreeNotify(const Nevo::IpGenAddr& source, const MvpnSource& record);

  std::optional<MvpnSource> sourceTree(const Nevo::IpGenAddr& source) const {
    return sourceTree_.find(source);
  }
  size_t sourceTreeSize() const { return sourceTree_.size(); }
  SourceTree::Cursor sourceTreeIter() const { return sourceTree_.begin(); }
  SourceTree::Cursor sourceTreeIterAt(const SourceTree::Bookmark& b) const { return sourceTree_.at(b); }
  void sourceTreeIs(const MvpnSource& record);
  MvpnSource sourceTreeDel(const Nevo::IpGenAddr& source);
  void sourceTreeDelAll();
  void sourceTreeNotify(const Nevo::IpGenAddr& source, const MvpnSource& record);

  // "%*cGroup: %s", then each tree's count and records.
  void dumpState(Oro::DumpContext& dc, int indent) const;

  // ShmNode.
  Oro::ShmHandleBase* childHandle(uint32_t coll) override;
  void forEachChild(const std::function<void(Oro::ShmHandleBase&)>& fn) override;

 private:
  MvpnGroup(Oro::ShmBinding* binding, uint64_t ref, const Key& group);
  ShmRootBase::MutatorCounters* counters(uint32_t coll) const;

  Nevo::IpGenAddr group_;
  SharedTree sharedTree_;
  SourceTree sourceTree_;
};

class MvpnVrfRouteStatus : public Oro::Entity, public Oro::ShmNode, public Oro::HeapAllocated {
 public:
  using Key = Vrf::VrfIdMap::VrfId;
  using VrfId = Vrf::VrfIdMap::VrfId;
  static constexpr uint32_t collection = RouteStatusStore::kVrfRouteStatus;
  static constexpr Oro::AttrId mvpnRouteAttr = 1;
  static constexpr Oro::AttrId mvpnGroupAttr = 2;
  using MvpnRoutes = Oro::ShmValues<MvpnRouteColl>;
  // The nested collection type of the group model.
  using TylMvpnGroup = Oro::ShmEntities<MvpnGroup>;

  static Oro::Ptr<MvpnVrfRouteStatus> make(Oro::ShmBinding* binding, uint64_t ref, const Key& vrfId);
  ~MvpnVrfRouteStatus() override;
  std::string_view typeName() const override { return "Routing::Multicast::MvpnVrfRouteStatus"; }

  VrfId vrfId() const { return vrfId_; }

  // Flat route model.
  std::optional<MvpnRoute> mvpnRoute(const MvpnRouteKey& key) const { return routes_.find(key); }
  size_t mvpnRouteSize() const { return routes_.size(); }
  MvpnRoutes::Cursor mvpnRouteIter() const { return routes_.begin(); }
  MvpnRoutes::Cursor mvpnRouteIterAt(const MvpnRoutes::Bookmark& b) const { return routes_.at(b); }
  // Stores the record unchanged (the flags invariant is the writer's duty).
  void mvpnRouteIs(const MvpnRoute& route);
  MvpnRoute mvpnRouteDel(const MvpnRouteKey& key);
  void mvpnRouteDelAll();
  void mvpnRouteNotify(const MvpnRouteKey& key, const MvpnRoute& route);

  // Group model.
  Oro::Ptr<MvpnGroup> mvpnGroup(const Nevo::IpGenAddr& group) const { return groups_.find(group); }
  size_t mvpnGroupSize() const { return groups_.size(); }
  TylMvpnGroup::Cursor mvpnGroupIter() const { return groups_.begin(); }
  TylMvpnGroup::Cursor mvpnGroupIterAt(const TylMvpnGroup::Bookmark& b) const { return groups_.at(b); }
  Oro::Ptr<MvpnGroup> mvpnGroupIs(const Nevo::IpGenAddr& group);
  void mvpnGroupDel(const Nevo::IpGenAddr& group);
  void mvpnGroupDelAll();
  void mvpnGroupNotify(const Nevo::IpGenAddr& group);

  MvpnSource mvpnSourceIs(const Nevo::IpGenAddr& group, const Nevo::IpGenAddr& source,
                          const Nevo::IpGenPrefix& umhPrefix, bool sharedTree,
                          MvpnSource::SourceFlags sourceFlags);
  MvpnSource mvpnSourceDel(const Nevo::IpGenAddr& group, const Nevo::IpGenAddr& source,
                           bool sharedTree);
  MvpnSource mvpnSource(const Nevo::IpGenAddr& group, const Nevo::IpGenAddr& source,
                        bool sharedTree) const;
  bool mvpnSharedTree(const Nevo::IpGenAddr& group) const;
  uint32_t mvpnSharedTrees() const;
  uint32_t mvpnSourceTrees() const;

  void dumpState(Oro::DumpContext& dc, int indent) const;

  // ShmNode.
  Oro::ShmHandleBase* childHandle(uint32_t coll) override;
  void forEachChild(const std::function<void(Oro::ShmHandleBase&)>& fn) override;

 private:
  MvpnVrfRouteStatus(Oro::ShmBinding* binding, uint64_t ref, const Key& vrfId);
  ShmRootBase::MutatorCounters* counters(uint32_t coll) const;
  uint32_t countSources(size_t (MvpnGroup::*treeSize)() const) const;
  // mvpnGroupIs, telling whether the group is new.
  Oro::Ptr<MvpnGroup> groupIs(const Nevo::IpGenAddr& group, bool* added);

  VrfId vrfId_;
  MvpnRoutes routes_;
  TylMvpnGroup groups_;
};

class MvpnRouteStatus : public ShmRootBase, public Oro::HeapAllocated {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;
  static constexpr const char* kTypeName = "Routing::Multicast::MvpnRouteStatus";
  static constexpr Oro::AttrId vrfRouteStatusAttr = 1;
  static constexpr Oro::AttrId vrfRouteStatusControlAttr = 2;
  // The nested collection type of the VRFs.
  using TylVrfRouteStatus = Oro::ShmEntities<MvpnVrfRouteStatus>;

  explicit MvpnRouteStatus(std::string name);
  ~MvpnRouteStatus() override;
  std::string_view typeName() const override { return kTypeName; }

  // "routing/multicast/vpn/routeStatus/<client>" (IPv4) or "routing6/..." (IPv6); the client
  // is not checked; another family is a fatal assertion.
  static std::string mountPath(Nevo::AddressFamily af, MvpnClient client);

  Oro::Ptr<MvpnVrfRouteStatus> vrfRouteStatus(VrfId vrfId) const { return vrfs_.find(vrfId); }
  size_t vrfRouteStatusSize() const { return vrfs_.size(); }
  TylVrfRouteStatus::Cursor vrfRouteStatusIter() const { return vrfs_.begin(); }
  TylVrfRouteStatus::Cursor vrfRouteStatusIterAt(const TylVrfRouteStatus::Bookmark& b) const {
    return vrfs_.at(b);
  }
  Oro::Ptr<MvpnVrfRouteStatus> vrfRouteStatusIs(VrfId vrfId);
  void vrfRouteStatusDel(VrfId vrfId);
  void vrfRouteStatusDelAll();
  void vrfRouteStatusNotify(VrfId vrfId);

  void dumpState(Oro::DumpContext& dc, int indent) const;

  static Oro::TraceHandle& trace();

 private:
  TylVrfRouteStatus vrfs_;
};

// Creates a root in the entity store's heap (selected while it is built).
Oro::Ptr<MvpnRouteStatus> mvpnRouteStatusFactory(const std::string& name);

}  // namespace Routing::Multicast
