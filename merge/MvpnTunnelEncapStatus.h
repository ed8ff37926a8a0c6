// The tunnel encapsulation status of one writer (or the merged one): MvpnTunnelEncapStatus, a
// root whose collection vrfStatus holds one MvpnVrfTunnelEncapStatus per VRF, each with the
// collections encapTunnel (MvpnEncapTunnel by MvpnRouteKey) and encapIntfTunnel
// (MvpnEncapIntfTunnel by MvpnRouteIntfKey). The three live in one shared-memory store, so
// that the MVPN, static and EVPN writers can be separate processes; a root starts in process
// memory and is mounted at a path of its agent's choosing. Every added, replaced or removed
// key is published to the collection's subscribers (attributes vrfStatusAttr,
// encapTunnelAttr, encapIntfTunnelAttr), in the writer's process and, through the store, in
// every reader's.
//
// What users may rely on:
// - every lookup, iteration step and size call may raise Oro::ShmCorruptionException (a
//   damaged store, or a fault injected by EncapStatusFaults);
// - a collection's version is its change counter taken as an unsigned 23-bit number: it
//   advances with every change, so a reader that recorded it can tell whether it missed one;
// - iteration is in each collection's own (store) order; a bookmark resumes a walk where it
//   was taken, visiting every record present throughout; one made from a key alone resumes
//   at that key, or from the start when the key is gone; an iterator stays usable across
//   changes of its collection, but a walk begun in the store ends when its entity leaves the
//   store (a walk begun afterwards shows what the entity kept);
// - a per-VRF entity removed from its root keeps its records (a reader's: its keys) for
//   whoever still holds it.
//
// Single-threaded, like every entity: all calls on the owning scheduler's thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "merge/MvpnEncapRecords.h"
#include "platform/Error.h"
#include "platform/net/VrfId.h"
#include "platform/runtime/Entity.h"
#include "platform/runtime/EntityHeap.h"
#include "platform/runtime/Ptr.h"
#include "platform/shm/ShmHandles.h"
#include "status/ShmStatusRoot.h"

namespace Routing::Multicast {

// Collection indexes of the tunnel encapsulation store.
namespace TunnelEncapStore {
inline constexpr uint32_t kVrfStatus = 0;
inline constexpr uint32_t kEncapTunnel = 1;
inline constexpr uint32_t kEncapIntfTunnel = 2;
Oro::ShmStoreSchema schema();
}  // namespace TunnelEncapStore

// Stored records: the key is the record's own key; encapData is the record's variable part.
template <class R, class K, uint32_t Coll>
struct EncapColl {
  using Key = K;
  using Record = R;
  static constexpr uint32_t collection = Coll;
  static constexpr bool blobs = true;
  static constexpr uint32_t valueBytes = 0;
  static constexpr uint64_t valueFingerprint = Oro::shmFingerprint("encapData:string", 0);
  static Key keyOf(const Record& r);
  static void writeValue(const Record&, std::byte*) {}
  static Record readRecord(const Key& key, const std::byte*, std::string_view blob) {
    return Record(key, std::string(blob));
  }
  static std::string_view blobOf(const Record& r) { return r.encapData(); }
};
using EncapTunnelColl = EncapColl<MvpnEncapTunnel, MvpnRouteKey, TunnelEncapStore::kEncapTunnel>;
using EncapIntfTunnelColl =
    EncapColl<MvpnEncapIntfTunnel, MvpnRouteIntfKey, TunnelEncapStore::kEncapIntfTunnel>;
template <>
inline MvpnRouteKey EncapTunnelColl::keyOf(const MvpnEncapTunnel& r) {
  return r.routeKey();
}
template <>
inline MvpnRouteIntfKey EncapIntfTunnelColl::keyOf(const MvpnEncapIntfTunnel& r) {
  return r.routeIntfKey();
}

class MvpnVrfTunnelEncapStatus;
using EncapTunnelIterator = Oro::ShmValues<EncapTunnelColl>::Cursor;
using EncapTunnelBookmark = Oro::ShmValues<EncapTunnelColl>::Bookmark;
using EncapIntfTunnelIterator = Oro::ShmValues<EncapIntfTunnelColl>::Cursor;
using EncapIntfTunnelBookmark = Oro::ShmValues<EncapIntfTunnelColl>::Bookmark;
struct EncapStatusFaults;

class MvpnVrfTunnelEncapStatus : public Oro::Entity, public Oro::ShmNode {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;
  using Key = VrfId;
  static constexpr uint32_t collection = TunnelEncapStore::kVrfStatus;
  static constexpr Oro::AttrId encapTunnelAttr = 1;
  static constexpr Oro::AttrId encapIntfTunnelAttr = 2;
  static constexpr uint32_t kVersionMask = (uint32_t{1} << 23) - 1;

  static Oro::Ptr<MvpnVrfTunnelEncapStatus> make(Oro::ShmBinding* binding, uint64_t ref,
                                                 const VrfId& vrfId);
  // An entity of no store: its collections live in process memory, ordered by key.
  explicit MvpnVrfTunnelEncapStatus(VrfId vrfId) : MvpnVrfTunnelEncapStatus(nullptr, 0, vrfId) {}
  ~MvpnVrfTunnelEncapStatus() override;
  std::string_view typeName() const override;

  VrfId vrfId() const { return vrfId_; }

  std::optional<MvpnEncapTunnel> encapTunnel(const MvpnRouteKey& key) const {
    return encapTunnel_.find(key);
  }
  size_t encapTunnelSize() const { return encapTunnel_.size(); }
  uint32_t encapTunnelVersion() const { return encapTunnel_.version() & kVersionMask; }
  EncapTunnelIterator encapTunnelIter() const { return encapTunnel_.begin(); }
  EncapTunnelIterator encapTunnelIterAt(const EncapTunnelBookmark& b) const {
    return encapTunnel_.at(b);
  }
  // Inserts the record under its own routeKey, or replaces the one stored there.
  void encapTunnelIs(const MvpnEncapTunnel& record);
  // Removes the record of `key` and returns it; an absent key changes and publishes nothing
  // and returns the default record.
  MvpnEncapTunnel encapTunnelDel(const MvpnRouteKey& key);
  void encapTunnelHandleCorruption(const std::string& message) const;
  void encapTunnelCorruptionHandlerIs(std::function<void(const std::string&)> handler) {
    encapTunnelHandler_ = std::move(handler);
  }

  std::optional<MvpnEncapIntfTunnel> encapIntfTunnel(const MvpnRouteIntfKey& key) const {
    return encapIntfTunnel_.find(key);
  }
  size_t encapIntfTunnelSize() const { return encapIntfTunnel_.size(); }
  uint32_t encapIntfTunnelVersion() const { return encapIntfTunnel_.version() & kVersionMask; }
  EncapIntfTunnelIterator encapIntfTunnelIter() const { return encapIntfTunnel_.begin(); }
  EncapIntfTunnelIterator encapIntfTunnelIterAt(const EncapIntfTunnelBookmark& b) const {
    return encapIntfTunnel_.at(b);
  }
  void encapIntfTunnelIs(const MvpnEncapIntfTunnel& record);
  MvpnEncapIntfTunnel encapIntfTunnelDel(const MvpnRouteIntfKey& key);
  void encapIntfTunnelHandleCorruption(const std::string& message) const;
  void encapIntfTunnelCorruptionHandlerIs(std::function<void(const std::string&)> handler) {
    encapIntfTunnelHandler_ = std::move(handler);
  }

  // ShmNode.
  Oro::ShmHandleBase* childHandle(uint32_t coll) override;
  void forEachChild(const std::function<void(Oro::ShmHandleBase&)>& fn) override;

 private:
  friend struct EncapStatusFaults;
  MvpnVrfTunnelEncapStatus(Oro::ShmBinding* binding, uint64_t ref, const VrfId& vrfId);
  ShmRootBase::MutatorCounters* counters(uint32_t coll) const;
  // Tells subscribers of `key` on `attr` and counts it in the collection's Notify counter:
  // a writer's own changes and a reader's deliveries alike.
  template <class K>
  void announce(uint32_t coll, Oro::AttrId attr, const K& key);
  // A write's corruption report goes to the collection's handler.
  auto encapTunnelReporter() const {
    return [this](const std::string& message) { encapTunnelHandleCorruption(message); };
  }
  auto encapIntfTunnelReporter() const {
    return [this](const std::string& message) { encapIntfTunnelHandleCorruption(message); };
  }
  // Both collections' Del: counts the call, removes `key` from `values` and announces it on
  // `attr`; returns the removed record, or the default one when the key was absent.
  template <class Coll, class Reporter>
  typename Coll::Record removeRecord(Oro::ShmValues<Coll>& values, const typename Coll::Key& key,
                                     uint32_t coll, const char* name, const Reporter& reporter,
                                     Oro::AttrId attr);

  VrfId vrfId_;
  Oro::ShmValues<EncapTunnelColl> encapTunnel_;
  Oro::ShmValues<EncapIntfTunnelColl> encapIntfTunnel_;
  std::function<void(const std::string&)> encapTunnelHandler_;
  std::function<void(const std::string&)> encapIntfTunnelHandler_;
};

using VrfStatusIterator = Oro::ShmEntities<MvpnVrfTunnelEncapStatus>::Cursor;
using VrfStatusBookmark = Oro::ShmEntities<MvpnVrfTunnelEncapStatus>::Bookmark;

class MvpnTunnelEncapStatus : public ShmRootBase, public Oro::HeapAllocated {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;
  static constexpr const char* kTypeName = "Routing::Multicast::MvpnTunnelEncapStatus";
  static constexpr Oro::AttrId vrfStatusAttr = 1;
  static constexpr Oro::AttrId vrfStatusControlAttr = 2;

  explicit MvpnTunnelEncapStatus(std::string name);
  ~MvpnTunnelEncapStatus() override;
  static Oro::Ptr<MvpnTunnelEncapStatus> MvpnTunnelEncapStatusIs(const std::string& name);
  // Where the status of `writer` is mounted: "routing/multicast/vpn/tunnelEncapStatus/" and
  // the writer's name ("mvpn", "static", "evpn" or "merged"; others raise
  // Oro::RangeException).
  static std::string mountPath(std::string_view writer);
  std::string_view typeName() const override { return kTypeName; }

  // The VRF's entity, or null.
  Oro::Ptr<MvpnVrfTunnelEncapStatus> vrfStatus(VrfId vrfId) const { return vrfs_.find(vrfId); }
  // The VRF's entity, created empty (and published) when absent.
  Oro::Ptr<MvpnVrfTunnelEncapStatus> vrfStatusIs(VrfId vrfId);
  // Removes the VRF's entity; an absent VRF changes and publishes nothing.
  void vrfStatusDel(VrfId vrfId);
  // Announces the VRF to subscribers and counts it in the vrfStatus Notify counter (the
  // <attr>Notify of the other status roots).
  void vrfStatusNotify(VrfId vrfId);
  size_t vrfStatusSize() const { return vrfs_.size(); }
  // Records of each collection over every VRF.
  size_t encapTunnelTotal() const;
  size_t encapIntfTunnelTotal() const;
  // Room for n VRF entities in this process (see ShmEntities::reserve).
  void vrfStatusReserve(size_t n) { vrfs_.reserve(n); }
  VrfStatusIterator vrfStatusIter() const { return vrfs_.begin(); }
  VrfStatusIterator vrfStatusIterAt(const VrfStatusBookmark& b) const { return vrfs_.at(b); }
  void vrfStatusHandleCorruption(const std::string& message) const { handleCorruption(message); }
  void vrfStatusCorruptionHandlerIs(std::function<void(const std::string&)> handler) {
    corruptionHandlerIs(std::move(handler));
  }

  static Oro::TraceHandle& trace();

 private:
  friend struct EncapStatusFaults;
  Oro::ShmEntities<MvpnVrfTunnelEncapStatus> vrfs_;
};

// Creates a root in the entity store's heap, like the other store roots.
Oro::Ptr<MvpnTunnelEncapStatus> mvpnTunnelEncapStatusFactory(const std::string& name);

// Fault injection: makes every lookup, iteration step and size call of one collection raise
// Oro::ShmCorruptionException, as a damaged shared-memory store does, so that readers' damage
// handling can be exercised without damaging a store. Writes still work.
struct EncapStatusFaults {
  static void vrfStatusDamagedIs(MvpnTunnelEncapStatus& s, bool damaged) {
    s.vrfs_.faultyIs(damaged);
  }
  static void encapTunnelDamagedIs(MvpnVrfTunnelEncapStatus& s, bool damaged) {
    s.encapTunnel_.faultyIs(damaged);
  }
  static void encapIntfTunnelDamagedIs(MvpnVrfTunnelEncapStatus& s, bool damaged) {
    s.encapIntfTunnel_.faultyIs(damaged);
  }
};

}  // namespace Routing::Multicast
