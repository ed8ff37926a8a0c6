// Two-level outputs of a merge machine: a root holding one entity per outer key (VRF), each
// entity holding the keyed collection the output writes. TwoLevelKey is the output key (both
// levels, with the flags that say which are set); TwoLevelOutputColl is the collection as the
// reconciliation walks it: every (outer, inner) pair, in the root's order and then the
// entity's, with a composite bookmark.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "platform/Error.h"
#include "platform/Hash.h"
#include "platform/net/VrfId.h"
#include "platform/runtime/Ptr.h"

namespace Routing::Multicast::DynaCode {

// An output key of two levels: the VRF and the key inside the VRF's entity. k0Valid and
// k1Valid say whether each part is set; both are set in every key the merge records.
template <class Inner>
class TwoLevelKey {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;
  TwoLevelKey() = default;
  TwoLevelKey(VrfId vrfId, const Inner& inner)
      : vrfId_(vrfId), inner_(inner), k0Valid_(true), k1Valid_(true) {}

  VrfId vrfId() const { return vrfId_; }
  const Inner& inner() const { return inner_; }
  bool k0Valid() const { return k0Valid_; }
  bool k1Valid() const { return k1Valid_; }

  uint32_t hash(uint32_t seed) const {
    return Oro::hashFinish(Oro::hashMix(inner_.hash(seed), vrfId_.value()));
  }
  std::string toStrep() const { return fmt::format("({}, {})", vrfId_, inner_.toStrep()); }

  friend bool operator==(const TwoLevelKey&, const TwoLevelKey&) = default;
  friend auto operator<=>(const TwoLevelKey&, const TwoLevelKey&) = default;

 private:
  VrfId vrfId_;
  Inner inner_{};
  bool k0Valid_ = false;
  bool k1Valid_ = false;
};

// Seen-set hash of an output key type.
template <class K>
struct OutputKeyHash {
  size_t operator()(const K& k) const { return k.hash(Oro::kFixedHashSeed); }
};

// RootSource and InnerSource as in merge/NestedInputSm.h (over the writable merged root); Key
// is built from (vrfId, inner key) and has vrfId() and inner(). Deleting a pair is the
// machine's: it knows when a per-VRF entity has become empty.
template <class RootSource, class InnerSource, class KeyT>
class TwoLevelOutputColl {
 public:
  using Key = KeyT;
  using Root = typename RootSource::Root;
  using Entity = typename RootSource::Entity;
  using OuterKey = typename RootSource::Key;

  struct Bookmark {
    typename RootSource::Bookmark outer;
    OuterKey outerKey;
    typename InnerSource::Bookmark inner;
  };

  class Iterator {
   public:
    bool valid() const { return inner_ && inner_->valid(); }
    Key key() const { return Key(outer_.key(), inner_->key()); }
    Bookmark bookmark() const {
      return Bookmark{outer_.bookmark(), outer_.key(), inner_->bookmark()};
    }
    void next() {
      inner_->next();
      settle();
    }

   private:
    friend class TwoLevelOutputColl;
    explicit Iterator(typename RootSource::Iterator outer) : outer_(std::move(outer)) {}
    // Enters the entity the outer iterator is at, from the start or from `at`.
    void enter(const typename InnerSource::Bookmark* at) {
      if (!outer_.valid()) return;
      entity_ = outer_.value();
      inner_.emplace(at ? InnerSource::iterAt(*entity_, *at) : InnerSource::iter(*entity_));
    }
    // Moves on to the next entity with a key, or to the end.
    void settle() {
      while (outer_.valid() && !(inner_ && inner_->valid())) {
        outer_.next();
        inner_.reset();
        enter(nullptr);
      }
    }
    typename RootSource::Iterator outer_;
    Oro::Ptr<Entity> entity_;
    std::optional<typename InnerSource::Iterator> inner_;
  };

  TwoLevelOutputColl(Root* root, std::function<void(const Key&)> del)
      : root_(root), del_(std::move(del)) {}

  Iterator iter() const {
    Iterator it(RootSource::iter(*root_));
    it.enter(nullptr);
    it.settle();
    return it;
  }
  Iterator iterAt(const Bookmark& b) const {
    Iterator it(RootSource::iterAt(*root_, b.outer));
    // The bookmarked entity may have gone: then the walk goes on at the next one's start.
    it.enter(it.outer_.valid() && it.outer_.key() == b.outerKey ? &b.inner : nullptr);
    it.settle();
    return it;
  }
  // The number of pairs: a walk over every entity.
  size_t size() const {
    size_t n = 0;
    for (auto it = RootSource::iter(*root_); it.valid(); it.next()) {
      n += InnerSource::size(*it.value());
    }
    return n;
  }
  void del(const Key& key) const { del_(key); }
  void handleCorruption(const Oro::ShmCorruptionException& e) const {
    RootSource::handleCorruption(*root_, e);
  }

 private:
  Root* root_;
  std::function<void(const Key&)> del_;
};

}  // namespace Routing::Multicast::DynaCode
