// An audit of a tunnel mapper's forward and reverse maps, for agents that keep them (the
// mapper itself never relates one map to another). It reads the mapper and changes nothing.
//
// Families and what "consistent" means for each:
//   routeKey      routeKeyToTunnelId (key -> tunnel)  vs tunnelIdToRouteKeys (tunnel -> keys)
//   routeIntfKey  routeIntfKeyToTunnelId              vs tunnelIdToRouteIntfKeys
//   treeId        treeIdToVrfId (tree -> VRF)         vs tunnelIdToTreeIdColl (tunnel -> trees)
// A route (or route-interface) key maps to tunnel T exactly when T's collection holds it; a
// tree id has a VRF exactly when one tunnel's collection holds it; no collection is empty.
// (A collection always sits under its own tunnel id: the mapper creates it for that id.)
//
// Issues are reported in a fixed order (family, kind, tunnel id, key text), so two audits of
// equal maps give equal reports whatever the hash seeds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mapper/MvpnMapper.h"

namespace Routing::Multicast {

enum class MvpnMapperAuditFamily : uint8_t { routeKey, routeIntfKey, treeId };

enum class MvpnMapperAuditKind : uint8_t {
  // A forward entry whose tunnel's collection lacks the key (or the tunnel has none). For
  // tree ids: a tree with a VRF that no tunnel's collection holds (tunnelId is 0).
  forwardKeyNotInColl,
  // A key in tunnel T's collection whose forward entry names another tunnel (otherTunnelId).
  // For tree ids: a tree held by the collections of several tunnels (reported for every
  // holder but the first in tunnel id order, which is otherTunnelId).
  collKeyPointsElsewhere,
  // A key in a tunnel's collection without any forward entry.
  collKeyWithoutForward,
  // A tunnel's collection that holds no key.
  emptyColl,
};

// "routeKey", "routeIntfKey", "treeId".
std::string_view mvpnMapperAuditFamilyName(MvpnMapperAuditFamily family);
// "forwardKeyNotInColl", "collKeyPointsElsewhere", "collKeyWithoutForward", "emptyColl".
std::string_view mvpnMapperAuditKindName(MvpnMapperAuditKind kind);

struct MvpnMapperAuditIssue {
  MvpnMapperAuditFamily family;
  MvpnMapperAuditKind kind;
  TunnelId tunnelId;  // the collection's tunnel, or the forward entry's (0: none)
  std::string key;    // the key's text; empty for collection-level issues
  std::optional<TunnelId> otherTunnelId;  // see the kinds

  // One line for people, e.g. "routeKey VRF 5 (10.0.0.1, 239.1.1.1) maps to tunnel 7, whose
  // collection lacks it".
  std::string toStrep() const;
  friend bool operator==(const MvpnMapperAuditIssue&, const MvpnMapperAuditIssue&) = default;
};

struct MvpnMapperAuditReport {
  // What was looked at.
  size_t routeKeys = 0;
  size_t routeIntfKeys = 0;
  size_t treeIds = 0;
  size_t collections = 0;
  std::vector<MvpnMapperAuditIssue> issues;

  bool clean() const { return issues.empty(); }
  // Issues of one kind (of any family when family is not given).
  size_t count(MvpnMapperAuditKind kind,
               std::optional<MvpnMapperAuditFamily> family = std::nullopt) const;
};

MvpnMapperAuditReport auditMvpnMapper(const MvpnMapper& mapper);

// The report as one JSON document, shaped like mvpnstat's --json output:
//   {"type": "Routing::Multicast::MvpnMapper", "routeKeys": 2, "routeIntfKeys": 0,
//    "treeIds": 1, "collections": 2, "clean": false, "issues": [
//     {"family": "routeKey", "kind": "emptyColl", "tunnelId": "7", "key": null,
//      "otherTunnelId": null, "text": "..."}
//   ]}
// with one issue per line; keys and tunnel ids are given in their text form, null where the
// issue has none (tunnel id 0 is no tunnel).
std::string mvpnMapperAuditJson(const MvpnMapperAuditReport& report);

}  // namespace Routing::Multicast
