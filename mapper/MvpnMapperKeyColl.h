// The key collections of the tunnel mapper: per provider tunnel, the set of keys that use it.
//
//   TunnelIdToTreeIdColl     MulticastTreeId      announces keyColl changes to subscribers
//   MvpnVrfRouteKeyColl      MvpnVrfRouteKey      announces nothing
//   MvpnVrfRouteIntfKeyColl  MvpnVrfRouteIntfKey  announces nothing
//
// Each is an entity created for one tunnel id (attribute `tunnelId`, fixed) with one
// set-valued attribute `keyColl`. keyCollIs adds a key when absent; keyCollDel removes one;
// in TunnelIdToTreeIdColl each actual change is published as a key change of keyCollAttr (a
// key already present, or absent, publishes nothing). Iteration follows the set's own
// (hash) order, which is stable while the set is not changed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include <absl/container/flat_hash_set.h>

#include "platform/Hash.h"
#include "platform/net/TunnelId.h"
#include "platform/runtime/Entity.h"
#include "platform/runtime/Ptr.h"
#include "types/MulticastTreeId.h"
#include "types/MvpnVrfRouteIntfKey.h"
#include "types/MvpnVrfRouteKey.h"

namespace Routing::Multicast {

using Tunnel::TunnelTable::TunnelId;

// Hashes a key with its own seeded hash and the seed of the container that holds it, so that
// the bucket layout of one container tells nothing about another's.
template <class K>
struct SeededKeyHash {
  uint32_t seed = 0;
  size_t operator()(const K& key) const { return key.hash(seed); }
};

// A container's seed: the per-process seed mixed with the container's name.
inline uint32_t namedHashSeed(std::string_view name) {
  return Oro::collectionHashSeed(Oro::hashBytes(name.data(), name.size(), Oro::kFixedHashSeed));
}

template <class K, bool kPublishes>
class TunnelKeyColl : public Oro::Entity {
 public:
  static constexpr Oro::AttrId tunnelIdAttr = 0;
  static constexpr Oro::AttrId keyCollAttr = 1;
  using Key = K;
  using KeyColl = absl::flat_hash_set<K, SeededKeyHash<K>>;

  TunnelId tunnelId() const { return tunnelId_; }

  bool keyCollHas(const K& key) const { return keys_.contains(key); }
  size_t keyCollSize() const { return keys_.size(); }
  bool keyCollEmpty() const { return keys_.empty(); }
  // The keys, for iteration in the set's own order.
  const KeyColl& keyColl() const { return keys_; }
  // The first key in iteration order, or null when the set is empty.
  const K* keyCollFirst() const { return keys_.empty() ? nullptr : &*keys_.begin(); }

  void keyCollIs(const K& key) {
    if (!keys_.insert(key).second) return;
    if constexpr (kPublishes) publishKey(keyCollAttr, key);
  }
  void keyCollDel(const K& key) {
    const auto it = keys_.find(key);
    if (it == keys_.end()) return;
    if constexpr (kPublishes) {
      // Subscribers run after the removal; the extracted node keeps the key alive for them.
      const auto node = keys_.extract(it);
      publishKey(keyCollAttr, node.value());
    } else {
      keys_.erase(it);
    }
  }
  // With subscribers each removal is published (keyCollDel per key, in set order); without,
  // the set is emptied at once.
  void keyCollDelAll() {
    const auto held = this->holdForMutation();
    if (!kPublishes || !hasNotifiees()) {
      keys_.clear();
      return;
    }
    // Subscribers may change the set while a removal is published: walk a copy.
    const std::vector<K> keys(keys_.begin(), keys_.end());
    for (const K& key : keys) keyCollDel(key);
  }

 protected:
  TunnelKeyColl(TunnelId tunnelId, uint32_t seed)
      : tunnelId_(tunnelId), keys_(0, SeededKeyHash<K>{seed}) {}

 private:
  const TunnelId tunnelId_;
  KeyColl keys_;
};

class TunnelIdToTreeIdColl final : public TunnelKeyColl<MulticastTreeId, true> {
 public:
  explicit TunnelIdToTreeIdColl(TunnelId tunnelId);
  std::string_view typeName() const override { return "Routing::Multicast::TunnelIdToTreeIdColl"; }
  static Oro::Ptr<TunnelIdToTreeIdColl> TunnelIdToTreeIdCollIs(TunnelId tunnelId);
};

class MvpnVrfRouteKeyColl final : public TunnelKeyColl<MvpnVrfRouteKey, false> {
 public:
  explicit MvpnVrfRouteKeyColl(TunnelId tunnelId);
  std::string_view typeName() const override { return "Routing::Multicast::MvpnVrfRouteKeyColl"; }
};

class MvpnVrfRouteIntfKeyColl final : public TunnelKeyColl<MvpnVrfRouteIntfKey, false> {
 public:
  explicit MvpnVrfRouteIntfKeyColl(TunnelId tunnelId);
  std::string_view typeName() const override {
    return "Routing::Multicast::MvpnVrfRouteIntfKeyColl";
  }
};

Oro::Ptr<TunnelIdToTreeIdColl> tunnelIdToTreeIdCollFactory(TunnelId tunnelId);

}  // namespace Routing::Multicast
