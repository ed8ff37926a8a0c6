// Entities: reference-counted objects whose attribute changes are published to
// subscribers (notifiees). Keyed attributes (collections) publish one change per key,
// carrying the key; a collection in old-value mode also hands over old and new values.
//
// Invariants: a notifiee watches at most one entity at a time; notifiees may subscribe
// or unsubscribe (themselves or others) while a change is being published, and a
// notifiee removed during a publication is not called afterwards.
//
// Key types: keys travel to notifiees as `const void*`, and attribute ids are only unique
// within one entity type, so nothing in the call says what the key is. In builds with
// assertions (NDEBUG not defined) every publication records the published key's type next
// to its address for the duration of the calls, and Notifiee::keyAs<K> (which KeyReactor
// uses) checks that a key it is handed is of the type it casts to: a reactor of the wrong
// key type fails loudly instead of reading garbage. Builds without assertions record and
// check nothing.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>
#include <typeinfo>
#include <vector>

#include "platform/runtime/Ptr.h"

namespace Oro {

using AttrId = uint16_t;

namespace detail {
// The key being published on this thread and its type. Publications nest (a notifiee may
// publish on another entity), so each one restores the outer key when it ends. A key is
// only checked against the tag recorded for its own address: a key handed over by code
// that records nothing is let through unchecked.
struct PublishedKey {
  const void* key = nullptr;
  const std::type_info* type = nullptr;
};
#ifndef NDEBUG
inline thread_local PublishedKey tPublishedKey;

class PublishedKeyScope {
 public:
  PublishedKeyScope(const void* key, const std::type_info& type) : outer_(tPublishedKey) {
    tPublishedKey = {key, &type};
  }
  ~PublishedKeyScope() { tPublishedKey = outer_; }
  PublishedKeyScope(const PublishedKeyScope&) = delete;
  PublishedKeyScope& operator=(const PublishedKeyScope&) = delete;

 private:
  PublishedKey outer_;
};
#endif
// Aborts: a notifiee expecting `expected` was handed a key published as `published`.
[[noreturn]] void keyTypeMismatch(const std::type_info& published, const std::type_info& expected);
}  // namespace detail

class Notifiee;

class Entity : public RefCounted {
 public:
  Entity() = default;
  ~Entity() override;

  // Full type name, e.g. "Routing::Multicast::MvpnVrfStatus".
  virtual std::string_view typeName() const = 0;

  size_t notifieeCount() const { return liveNotifiees_; }
  bool hasNotifiees() const { return liveNotifiees_ != 0; }

 protected:
  // A notifiee may let go of the last reference while it is told of a change. Each
  // publication holds the entity for its own loop; a mutator that still touches the entity
  // after publishing (counters, a second publication, the next key of a DelAll) takes this
  // first, so that the entity is freed only when the mutator returns. Null, at no cost, while
  // nobody is subscribed: then nobody can be told.
  Ptr<const Entity> holdForMutation() const {
    return liveNotifiees_ == 0 ? nullptr : keepAlive(this);
  }

  void publish(AttrId attr);
  template <class K>
  void publishKey(AttrId attr, const K& key) {
    if (liveNotifiees_ == 0) return;
#ifndef NDEBUG
    detail::PublishedKeyScope tag(&key, typeid(K));
#endif
    publishKeyErased(attr, &key);
  }
  // Old-value mode: oldValue or newValue is null for an insertion or a removal.
  template <class K, class V>
  void publishOldNew(AttrId attr, const K& key, const V* oldValue, const V* newValue) {
    if (liveNotifiees_ == 0) return;
#ifndef NDEBUG
    detail::PublishedKeyScope tag(&key, typeid(K));
#endif
    publishOldNewErased(attr, &key, oldValue, newValue);
  }

 private:
  friend class Notifiee;
  void publishKeyErased(AttrId attr, const void* key);
  void publishOldNewErased(AttrId attr, const void* key, const void* oldValue,
                           const void* newValue);
  void attach(Notifiee* n);
  void detach(Notifiee* n);
  void compact();

  std::vector<Notifiee*> notifiees_;  // null entries are notifiees removed mid-publication
  size_t liveNotifiees_ = 0;
  uint32_t publishing_ = 0;  // nesting depth of publications in progress
};

// A subscriber to one entity. The key and value pointers handed to the callbacks point
// at the collection's own key and value types; typed subclasses cast keys back with
// keyAs<K>, which checks the type in builds with assertions.
class Notifiee {
 public:
  Notifiee() = default;
  Notifiee(const Notifiee&) = delete;
  Notifiee& operator=(const Notifiee&) = delete;
  virtual ~Notifiee();

  Entity* notifier() const { return notifier_; }
  // Subscribe to e, leaving the entity watched before; nullptr unsubscribes.
  void notifierIs(Entity* e);

  virtual void onAttribute(AttrId) {}
  virtual void onAttributeKey(AttrId, const void* /*key*/) {}
  virtual void onAttributeOldNew(AttrId attr, const void* key, const void* /*old*/,
                                 const void* /*new*/) {
    onAttributeKey(attr, key);
  }

  // The key handed to onAttributeKey / onAttributeOldNew, as the K it was published as.
  template <class K>
  static const K& keyAs(const void* key) {
#ifndef NDEBUG
    const detail::PublishedKey& p = detail::tPublishedKey;
    if (p.key == key && *p.type != typeid(K)) [[unlikely]]
      detail::keyTypeMismatch(*p.type, typeid(K));
#endif
    return *static_cast<const K*>(key);
  }

 private:
  friend class Entity;
  Entity* notifier_ = nullptr;
};

// Calls a function for every change of one keyed attribute of the watched entity.
template <class K>
class KeyReactor : public Notifiee {
 public:
  using Handler = std::function<void(const K&)>;
  KeyReactor(AttrId attr, Handler h) : attr_(attr), handler_(std::move(h)) {}
  void onAttributeKey(AttrId attr, const void* key) override {
    if (attr == attr_) handler_(keyAs<K>(key));
  }

 private:
  AttrId attr_;
  Handler handler_;
};

// Calls a function for every change of a non-keyed attribute of the watched entity.
class AttrReactor : public Notifiee {
 public:
  using Handler = std::function<void(AttrId)>;
  explicit AttrReactor(Handler h) : handler_(std::move(h)) {}
  void onAttribute(AttrId attr) override { handler_(attr); }

 private:
  Handler handler_;
};

}  // namespace Oro
