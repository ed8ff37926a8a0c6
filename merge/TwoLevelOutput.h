// Two-level outputs of a merge machine: a root holding one entity per outer key (VRF), each
// entity holding the keyed collection the output writes. TwoLevelKey is the output key (both
// levels, with the flags that say which are set); TwoLevelOutputColl is the collection as the
// reconciliation walks it: every (outer, inner) pair, in the root's order and then the
// entity's, with a composite bookmark.
#pragma once

#include <algorithm>
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
// k1Valid say whether each part is set; both are set in every key the merge records. A key of
// the VRF alone (k1Valid false) stands for a VRF entity that holds no key of the output.
template <class Inner>
class TwoLevelKey {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;
  TwoLevelKey() = default;
  explicit TwoLevelKey(VrfId vrfId) : vrfId_(vrfId), k0Valid_(true) {}
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
  size_t operator()(const K& k) const { return k.hash(Oro::processHashSeed()); }
};

// RootSource and InnerSource as in merge/NestedInputSm.h (over the writable merged root), and
// RootSource::records(root), the records of all its entities' collections together; Key
// is built from (vrfId, inner key), or from the vrfId alone, and has vrfId(), inner() and
// k1Valid(). The walk visits every pair, and each entity that holds none as a key of its VRF
// alone, so that a reconciliation can drop empty merged VRFs and every step of the walk, also
// over many empty entities, is one entity at most. Deleting is the machine's (it knows when an
// entity has become empty); del returns whether anything was deleted.
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
    std::optional<typename InnerSource::Bookmark> inner;  // none: at the entity itself
    // The output key the walk resumes at.
    Key key() const { return inner ? Key(outerKey, inner->key) : Key(outerKey); }
    bool operator==(const Key& k) const { return key() == k; }
  };

  class Iterator {
   public:
    bool valid() const { return outer_.valid(); }
    Key key() const { return atEntity_ ? Key(outer_.key()) : Key(outer_.key(), inner_->key()); }
    Bookmark bookmark() const {
      return Bookmark{outer_.bookmark(), outer_.key(),
                      atEntity_ ? std::nullopt : std::optional(inner_->bookmark())};
    }
    void next() {
      if (!atEntity_) {
        inner_->next();
        if (inner_->valid()) return;
      }
      outer_.next();
      enter(nullptr);
    }

   private:
    friend class TwoLevelOutputColl;
    explicit Iterator(typename RootSource::Iterator outer) : outer_(std::move(outer)) {}
    // Enters the entity the outer iterator is at: at its first key, at the bookmarked one,
    // or, when it holds none, at the entity itself. An entity whose keys from the bookmark on
    // have all gone is left for the next one.
    void enter(const typename InnerSource::Bookmark* at) {
      inner_.reset();
      atEntity_ = false;
      if (!outer_.valid()) return;
      entity_ = outer_.value();
      inner_.emplace(at ? InnerSource::iterAt(*entity_, *at) : InnerSource::iter(*entity_));
      if (inner_->valid()) return;
      if (!at) {
        atEntity_ = true;
        return;
      }
      outer_.next();
      enter(nullptr);
    }
    typename RootSource::Iterator outer_;
    Oro::Ptr<Entity> entity_;
    std::optional<typename InnerSource::Iterator> inner_;
    bool atEntity_ = false;
  };

  TwoLevelOutputColl(Root* root, std::function<bool(const Key&)> del)
      : root_(root), del_(std::move(del)) {}

  Iterator iter() const {
    Iterator it(RootSource::iter(*root_));
    it.enter(nullptr);
    return it;
  }
  Iterator iterAt(const Bookmark& b) const {
    Iterator it(RootSource::iterAt(*root_, b.outer));
    // The bookmarked entity may have gone: then the walk goes on at the next one's start.
    const bool same = it.outer_.valid() && it.outer_.key() == b.outerKey;
    it.enter(same && b.inner ? &*b.inner : nullptr);
    return it;
  }
  // How many keys the walk visits, counted without walking (no walk of a hundred thousand
  // entities outside any task): every pair, over every entity. When the root holds no record
  // of any of its collections, its entities are all empty (an earlier life stopped between an
  // entity's last record and the entity): then they are what the walk visits and drops. With
  // records anywhere, an empty entity is walked by an output that holds pairs, and an output
  // without pairs has nothing to walk.
  size_t size() const {
    const size_t pairs = InnerSource::total(*root_);
    if (pairs != 0 || RootSource::records(*root_) != 0) return pairs;
    return RootSource::size(*root_);
  }
  bool del(const Key& key) const { return del_(key); }
  void handleCorruption(const Oro::ShmCorruptionException& e) const {
    RootSource::handleCorruption(*root_, e);
  }

 private:
  Root* root_;
  std::function<bool(const Key&)> del_;
};

}  // namespace Routing::Multicast::DynaCode
