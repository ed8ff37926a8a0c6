// Recorders of what an entity publishes: the keys of one attribute, or its changes with their
// old and new values.
#pragma once

#include <functional>
#include <optional>
#include <tuple>
#include <type_traits>
#include <vector>

#include "platform/runtime/Entity.h"

namespace shmtest {

// Every key of `attr` that `e` publishes, in order.
template <class K>
struct KeyLog : Oro::KeyReactor<K> {
  KeyLog(Oro::Entity* e, Oro::AttrId attr)
      : Oro::KeyReactor<K>(attr, [this](const K& k) { keys.push_back(k); }) {
    this->notifierIs(e);
  }
  std::vector<K> keys;
};

// The old-value publications of `attr` by `e`; values are copied, or kept as pointers when
// they are entities. `onChange` runs after each change is recorded.
template <class K, class V>
struct ChangeLog : Oro::Notifiee {
  using Change = std::tuple<K, std::optional<V>, std::optional<V>>;
  ChangeLog(Oro::Entity* e, Oro::AttrId a) : attr(a) { notifierIs(e); }
  Oro::AttrId attr;
  std::vector<Change> changes;
  std::function<void(const K&)> onChange;
  void onAttributeOldNew(Oro::AttrId a, const void* key, const void* o, const void* n) override {
    if (a != attr) return;
    auto value = [](const void* p) -> std::optional<V> {
      if (p == nullptr) return std::nullopt;
      if constexpr (std::is_pointer_v<V>) {
        return static_cast<V>(p);
      } else {
        return *static_cast<const V*>(p);
      }
    };
    const K& k = *static_cast<const K*>(key);
    changes.emplace_back(k, value(o), value(n));
    if (onChange) onChange(k);
  }
};

}  // namespace shmtest
