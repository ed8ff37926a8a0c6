#include "mapper/MvpnMapperAudit.h"

#include <algorithm>
#include <map>
#include <tuple>

#include <fmt/format.h>

namespace Routing::Multicast {

namespace {

using Family = MvpnMapperAuditFamily;
using Kind = MvpnMapperAuditKind;
using Issue = MvpnMapperAuditIssue;

// The route and route-interface families: a forward map key -> tunnel against a reverse map
// tunnel -> collection of keys.
template <class ForwardMap, class ReverseMap>
void auditKeyFamily(Family family, const ForwardMap& forward, const ReverseMap& reverse,
                    std::vector<Issue>& issues) {
  for (const auto& [key, tunnelId] : forward) {
    const auto it = reverse.find(tunnelId);
    if (it == reverse.end() || !it->second->keyCollHas(key)) {
      issues.push_back({family, Kind::forwardKeyNotInColl, tunnelId, key.toStrep(), {}});
    }
  }
  for (const auto& [tunnelId, coll] : reverse) {
    if (coll->keyCollEmpty()) issues.push_back({family, Kind::emptyColl, tunnelId, {}, {}});
    for (const auto& key : coll->keyColl()) {
      const auto it = forward.find(key);
      if (it == forward.end()) {
        issues.push_back({family, Kind::collKeyWithoutForward, tunnelId, key.toStrep(), {}});
      } else if (it->second != tunnelId) {
        issues.push_back(
            {family, Kind::collKeyPointsElsewhere, tunnelId, key.toStrep(), it->second});
      }
    }
  }
}

// Tree ids: treeIdToVrfId says which trees exist (and their VRF), tunnelIdToTreeIdColl which
// tunnel carries each; every tree is carried by exactly one tunnel.
void auditTreeIds(const MvpnMapper& mapper, std::vector<Issue>& issues) {
  constexpr Family family = Family::treeId;
  std::map<std::string, std::vector<TunnelId>> holders;
  for (const auto& [tunnelId, coll] : mapper.tunnelIdToTreeIdCollMap()) {
    if (coll->keyCollEmpty()) issues.push_back({family, Kind::emptyColl, tunnelId, {}, {}});
    for (const MulticastTreeId& treeId : coll->keyColl()) {
      holders[treeId.value()].push_back(tunnelId);
      if (!mapper.treeIdToVrfIdHas(treeId)) {
        issues.push_back({family, Kind::collKeyWithoutForward, tunnelId, treeId.value(), {}});
      }
    }
  }
  for (const auto& entry : mapper.treeIdToVrfIdMap()) {
    if (!holders.contains(entry.first.value())) {
      issues.push_back({family, Kind::forwardKeyNotInColl, TunnelId(), entry.first.value(), {}});
    }
  }
  for (auto& [treeId, tunnels] : holders) {
    if (tunnels.size() < 2) continue;
    std::sort(tunnels.begin(), tunnels.end());
    for (size_t i = 1; i < tunnels.size(); ++i) {
      issues.push_back({family, Kind::collKeyPointsElsewhere, tunnels[i], treeId, tunnels[0]});
    }
  }
}

std::string jsonQuote(std::string_view s) {
  std::string out = "\"";
  for (const unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      out += fmt::format("\\u{:04x}", c);
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

}  // namespace

std::string_view mvpnMapperAuditFamilyName(MvpnMapperAuditFamily family) {
  switch (family) {
    case Family::routeKey:
      return "routeKey";
    case Family::routeIntfKey:
      return "routeIntfKey";
    case Family::treeId:
      return "treeId";
  }
  return "unknown";
}

std::string_view mvpnMapperAuditKindName(MvpnMapperAuditKind kind) {
  switch (kind) {
    case Kind::forwardKeyNotInColl:
      return "forwardKeyNotInColl";
    case Kind::collKeyPointsElsewhere:
      return "collKeyPointsElsewhere";
    case Kind::collKeyWithoutForward:
      return "collKeyWithoutForward";
    case Kind::emptyColl:
      return "emptyColl";
  }
  return "unknown";
}

std::string MvpnMapperAuditIssue::toStrep() const {
  const std::string_view fam = mvpnMapperAuditFamilyName(family);
  const TunnelId other = otherTunnelId.value_or(TunnelId());
  const bool tree = family == Family::treeId;
  switch (kind) {
    case Kind::forwardKeyNotInColl:
      if (tree) return fmt::format("treeId {} has a VRF but no tunnel's collection holds it", key);
      return fmt::format("{} {} maps to tunnel {}, whose collection lacks it", fam, key, tunnelId);
    case Kind::collKeyPointsElsewhere:
      if (tree) {
        return fmt::format("treeId {} is held by tunnel {} and by tunnel {}", key, tunnelId, other);
      }
      return fmt::format("{} {} in tunnel {}'s collection maps to tunnel {}", fam, key, tunnelId,
                         other);
    case Kind::collKeyWithoutForward:
      return fmt::format("{} {} in tunnel {}'s collection has no {}", fam, key, tunnelId,
                         tree ? "VRF" : "tunnel");
    case Kind::emptyColl:
      return fmt::format("tunnel {}'s {} collection is empty", tunnelId, fam);
  }
  return {};
}

size_t MvpnMapperAuditReport::count(MvpnMapperAuditKind kind,
                                    std::optional<MvpnMapperAuditFamily> family) const {
  return static_cast<size_t>(std::count_if(issues.begin(), issues.end(), [&](const Issue& i) {
    return i.kind == kind && (!family || i.family == *family);
  }));
}

MvpnMapperAuditReport auditMvpnMapper(const MvpnMapper& mapper) {
  MvpnMapperAuditReport report;
  report.routeKeys = mapper.routeKeyToTunnelIdSize();
  report.routeIntfKeys = mapper.routeIntfKeyToTunnelIdSize();
  report.treeIds = mapper.treeIdToVrfIdSize();
  report.collections = mapper.tunnelIdToRouteKeysSize() + mapper.tunnelIdToRouteIntfKeysSize() +
                       mapper.tunnelIdToTreeIdCollSize();
  auditKeyFamily(Family::routeKey, mapper.routeKeyToTunnelIdMap(), mapper.tunnelIdToRouteKeysMap(),
                 report.issues);
  auditKeyFamily(Family::routeIntfKey, mapper.routeIntfKeyToTunnelIdMap(),
                 mapper.tunnelIdToRouteIntfKeysMap(), report.issues);
  auditTreeIds(mapper, report.issues);
  std::sort(report.issues.begin(), report.issues.end(), [](const Issue& a, const Issue& b) {
    return std::tie(a.family, a.kind, a.tunnelId, a.key, a.otherTunnelId) <
           std::tie(b.family, b.kind, b.tunnelId, b.key, b.otherTunnelId);
  });
  return report;
}

std::string mvpnMapperAuditJson(const MvpnMapperAuditReport& report) {
  std::string out = fmt::format(
      "{{\"type\": \"Routing::Multicast::MvpnMapper\", \"routeKeys\": {}, \"routeIntfKeys\": {}, "
      "\"treeIds\": {}, \"collections\": {}, \"clean\": {}, \"issues\": [",
      report.routeKeys, report.routeIntfKeys, report.treeIds, report.collections,
      report.clean() ? "true" : "false");
  const char* sep = "";
  for (const Issue& i : report.issues) {
    const bool keyed = i.kind != Kind::emptyColl;
    out += fmt::format(
        "{}\n  {{\"family\": {}, \"kind\": {}, \"tunnelId\": {}, \"key\": {}, "
        "\"otherTunnelId\": {}, \"text\": {}}}",
        sep, jsonQuote(mvpnMapperAuditFamilyName(i.family)),
        jsonQuote(mvpnMapperAuditKindName(i.kind)),
        i.tunnelId.isValid() ? jsonQuote(i.tunnelId.toStrep()) : "null",
        keyed ? jsonQuote(i.key) : "null",
        i.otherTunnelId ? jsonQuote(i.otherTunnelId->toStrep()) : "null", jsonQuote(i.toStrep()));
    sep = ",";
  }
  out += *sep ? "\n]}\n" : "]}\n";
  return out;
}

}  // namespace Routing::Multicast
