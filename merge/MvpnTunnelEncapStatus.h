// The tunnel encapsulation status of one writer (or the merged one): MvpnTunnelEncapStatus, a
// root whose collection vrfStatus holds one MvpnVrfTunnelEncapStatus per VRF, each with the
// collections encapTunnel (MvpnEncapTunnel by MvpnRouteKey) and encapIntfTunnel
// (MvpnEncapIntfTunnel by MvpnRouteIntfKey). Every added, replaced or removed key is published
// to the collection's subscribers (Entity::publishKey, attributes vrfStatusAttr,
// encapTunnelAttr, encapIntfTunnelAttr).
//
// These are in-process entities; their storage may move to a shared-memory entity store under
// the same interface, so users code against the contract that store will keep:
// - every lookup, iteration step and size call may raise Oro::ShmCorruptionException (the
//   in-process store raises it only when told to, see EncapStatusFaults);
// - a collection's version is its change counter taken as an unsigned 23-bit number: it
//   advances with every change, so a reader that recorded it can tell whether it missed one;
// - iteration is in each collection's own order; a bookmark resumes a walk at the key it was
//   taken at, or at the next one when that key has gone; an iterator stays usable across
//   changes of its collection (it resumes after its current key), but value() is valid only
//   until the next change;
// - a per-VRF entity removed from its root keeps its records for whoever still holds it.
//
// Single-threaded, like every entity: all calls on the owning scheduler's thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <absl/container/btree_map.h>

#include "merge/MvpnEncapRecords.h"
#include "platform/Error.h"
#include "platform/net/VrfId.h"
#include "platform/runtime/Entity.h"
#include "platform/runtime/Ptr.h"

namespace Routing::Multicast {

namespace EncapDetail {

// One ordered collection of an encapsulation status, with its change counter, its corruption
// handler and the fault switch of EncapStatusFaults.
template <class K, class V>
class Collection {
  using Map = absl::btree_map<K, V>;

 public:
  static constexpr uint32_t kVersionMask = (uint32_t{1} << 23) - 1;

  struct Bookmark {
    K key;
  };

  class Iterator {
   public:
    Iterator() = default;
    bool valid() const { return valid_; }
    const K& key() const { return key_; }
    const V& value() const { return it_->second; }
    Bookmark bookmark() const { return Bookmark{key_}; }
    void next() {
      if (!valid_) return;
      coll_->checkReadable();
      if (coll_->changes_ == changesAt_) {
        ++it_;
      } else {
        it_ = coll_->map_.upper_bound(key_);
      }
      settle();
    }

   private:
    friend class Collection;
    Iterator(const Collection* coll, typename Map::const_iterator it) : coll_(coll), it_(it) {
      settle();
    }
    void settle() {
      changesAt_ = coll_->changes_;
      valid_ = it_ != coll_->map_.end();
      if (valid_) key_ = it_->first;
    }
    const Collection* coll_ = nullptr;
    typename Map::const_iterator it_;
    uint64_t changesAt_ = 0;
    bool valid_ = false;
    K key_{};
  };

  explicit Collection(std::string name) : name_(std::move(name)) {}

  const V* find(const K& key) const {
    checkReadable();
    auto it = map_.find(key);
    return it == map_.end() ? nullptr : &it->second;
  }
  size_t size() const {
    checkReadable();
    return map_.size();
  }
  uint32_t version() const { return static_cast<uint32_t>(changes_) & kVersionMask; }
  Iterator iter() const {
    checkReadable();
    return Iterator(this, map_.begin());
  }
  Iterator iterAt(const Bookmark& b) const {
    checkReadable();
    return Iterator(this, map_.lower_bound(b.key));
  }

  // Inserts or replaces; returns the stored value.
  V& put(const K& key, V value) {
    ++changes_;
    return map_.insert_or_assign(key, std::move(value)).first->second;
  }
  // Removes the key; false (and no change) when it was absent. The removed value is moved to
  // `removed` when given.
  bool remove(const K& key, V* removed = nullptr) {
    auto it = map_.find(key);
    if (it == map_.end()) return false;
    if (removed) *removed = std::move(it->second);
    map_.erase(it);
    ++changes_;
    return true;
  }

  void handleCorruption(const std::string& message) const {
    ++corruptions_;
    if (handler_) handler_(message);
  }
  void corruptionHandlerIs(std::function<void(const std::string&)> h) { handler_ = std::move(h); }
  uint64_t corruptions() const { return corruptions_; }

  void damagedIs(bool damaged) { damaged_ = damaged; }

 private:
  void checkReadable() const {
    if (damaged_) [[unlikely]]
      throw Oro::ShmCorruptionException(name_ + " is corrupt");
  }

  std::string name_;
  Map map_;
  uint64_t changes_ = 0;
  bool damaged_ = false;
  mutable uint64_t corruptions_ = 0;
  std::function<void(const std::string&)> handler_;
};

}  // namespace EncapDetail

class MvpnVrfTunnelEncapStatus;

using EncapTunnelIterator = EncapDetail::Collection<MvpnRouteKey, MvpnEncapTunnel>::Iterator;
using EncapTunnelBookmark = EncapDetail::Collection<MvpnRouteKey, MvpnEncapTunnel>::Bookmark;
using EncapIntfTunnelIterator =
    EncapDetail::Collection<MvpnRouteIntfKey, MvpnEncapIntfTunnel>::Iterator;
using EncapIntfTunnelBookmark =
    EncapDetail::Collection<MvpnRouteIntfKey, MvpnEncapIntfTunnel>::Bookmark;
using VrfStatusIterator =
    EncapDetail::Collection<Vrf::VrfIdMap::VrfId, Oro::Ptr<MvpnVrfTunnelEncapStatus>>::Iterator;
using VrfStatusBookmark =
    EncapDetail::Collection<Vrf::VrfIdMap::VrfId, Oro::Ptr<MvpnVrfTunnelEncapStatus>>::Bookmark;

struct EncapStatusFaults;

class MvpnVrfTunnelEncapStatus : public Oro::Entity {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;
  static constexpr Oro::AttrId encapTunnelAttr = 1;
  static constexpr Oro::AttrId encapIntfTunnelAttr = 2;

  explicit MvpnVrfTunnelEncapStatus(VrfId vrfId);
  std::string_view typeName() const override;
  VrfId vrfId() const { return vrfId_; }

  std::optional<MvpnEncapTunnel> encapTunnel(const MvpnRouteKey& key) const;
  size_t encapTunnelSize() const { return encapTunnel_.size(); }
  uint32_t encapTunnelVersion() const { return encapTunnel_.version(); }
  EncapTunnelIterator encapTunnelIter() const { return encapTunnel_.iter(); }
  EncapTunnelIterator encapTunnelIterAt(const EncapTunnelBookmark& b) const {
    return encapTunnel_.iterAt(b);
  }
  // Inserts the record under its own routeKey, or replaces the one stored there.
  void encapTunnelIs(const MvpnEncapTunnel& record);
  // Removes the record of `key`; an absent key changes and publishes nothing.
  void encapTunnelDel(const MvpnRouteKey& key);
  void encapTunnelHandleCorruption(const std::string& message) const {
    encapTunnel_.handleCorruption(message);
  }
  void encapTunnelCorruptionHandlerIs(std::function<void(const std::string&)> handler) {
    encapTunnel_.corruptionHandlerIs(std::move(handler));
  }

  std::optional<MvpnEncapIntfTunnel> encapIntfTunnel(const MvpnRouteIntfKey& key) const;
  size_t encapIntfTunnelSize() const { return encapIntfTunnel_.size(); }
  uint32_t encapIntfTunnelVersion() const { return encapIntfTunnel_.version(); }
  EncapIntfTunnelIterator encapIntfTunnelIter() const { return encapIntfTunnel_.iter(); }
  EncapIntfTunnelIterator encapIntfTunnelIterAt(const EncapIntfTunnelBookmark& b) const {
    return encapIntfTunnel_.iterAt(b);
  }
  void encapIntfTunnelIs(const MvpnEncapIntfTunnel& record);
  void encapIntfTunnelDel(const MvpnRouteIntfKey& key);
  void encapIntfTunnelHandleCorruption(const std::string& message) const {
    encapIntfTunnel_.handleCorruption(message);
  }
  void encapIntfTunnelCorruptionHandlerIs(std::function<void(const std::string&)> handler) {
    encapIntfTunnel_.corruptionHandlerIs(std::move(handler));
  }

 private:
  friend struct EncapStatusFaults;
  VrfId vrfId_;
  EncapDetail::Collection<MvpnRouteKey, MvpnEncapTunnel> encapTunnel_;
  EncapDetail::Collection<MvpnRouteIntfKey, MvpnEncapIntfTunnel> encapIntfTunnel_;
};

class MvpnTunnelEncapStatus : public Oro::Entity {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;
  static constexpr Oro::AttrId vrfStatusAttr = 1;

  explicit MvpnTunnelEncapStatus(std::string name);
  static Oro::Ptr<MvpnTunnelEncapStatus> MvpnTunnelEncapStatusIs(const std::string& name);
  std::string_view typeName() const override;
  const std::string& name() const { return name_; }

  // The VRF's entity, or null.
  Oro::Ptr<MvpnVrfTunnelEncapStatus> vrfStatus(VrfId vrfId) const;
  // The VRF's entity, created empty (and published) when absent.
  Oro::Ptr<MvpnVrfTunnelEncapStatus> vrfStatusIs(VrfId vrfId);
  // Removes the VRF's entity; an absent VRF changes and publishes nothing.
  void vrfStatusDel(VrfId vrfId);
  size_t vrfStatusSize() const { return vrfStatus_.size(); }
  VrfStatusIterator vrfStatusIter() const { return vrfStatus_.iter(); }
  VrfStatusIterator vrfStatusIterAt(const VrfStatusBookmark& b) const {
    return vrfStatus_.iterAt(b);
  }
  void vrfStatusHandleCorruption(const std::string& message) const {
    vrfStatus_.handleCorruption(message);
  }
  void vrfStatusCorruptionHandlerIs(std::function<void(const std::string&)> handler) {
    vrfStatus_.corruptionHandlerIs(std::move(handler));
  }

 private:
  friend struct EncapStatusFaults;
  std::string name_;
  EncapDetail::Collection<Vrf::VrfIdMap::VrfId, Oro::Ptr<MvpnVrfTunnelEncapStatus>> vrfStatus_;
};

Oro::Ptr<MvpnTunnelEncapStatus> mvpnTunnelEncapStatusFactory(const std::string& name);

// Fault injection: makes every lookup, iteration step and size call of one collection raise
// Oro::ShmCorruptionException, as a damaged shared-memory table does, so that readers' damage
// handling can be exercised on in-process statuses. Writes still work.
struct EncapStatusFaults {
  static void vrfStatusDamagedIs(MvpnTunnelEncapStatus& s, bool damaged) {
    s.vrfStatus_.damagedIs(damaged);
  }
  static void encapTunnelDamagedIs(MvpnVrfTunnelEncapStatus& s, bool damaged) {
    s.encapTunnel_.damagedIs(damaged);
  }
  static void encapIntfTunnelDamagedIs(MvpnVrfTunnelEncapStatus& s, bool damaged) {
    s.encapIntfTunnel_.damagedIs(damaged);
  }
};

}  // namespace Routing::Multicast
