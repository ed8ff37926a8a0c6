#include "merge/MergeAudit.h"

#include <algorithm>
#include <memory>
#include <set>
#include <utility>

#include <absl/container/flat_hash_map.h>
#include <fmt/format.h>

#include "merge/MvpnTunnelEncapStatusMergeSm.h"
#include "merge/MvpnVrfStatusMergeSm.h"
#include "platform/CharRange.h"
#include "platform/Error.h"
#include "platform/shm/ShmBinding.h"
#include "platform/shm/ShmSegment.h"

namespace Routing::Multicast {

namespace {

using VrfId = Vrf::VrfIdMap::VrfId;

// A reader instance of a status root attached by mount path, without a scheduler (the audit
// reads what is there now); unmounted when it goes. An input with no table at its path
// (removed with its dead writer) is empty, as it is for the merger, which reads a removed
// store as one that lost every key.
template <class Root>
struct Attached {
  Oro::Ptr<Root> root;
  bool mounted = false;
  Attached(Oro::Ptr<Root> (*factory)(const std::string&), const std::string& path,
           bool absentIsEmpty = false)
      : root(factory(path)) {
    if (absentIsEmpty && !Oro::shmStoreExists(path)) return;
    root->mount(Oro::ShmAttach{path, Oro::ShmRole::reader, nullptr});
    mounted = true;
  }
  ~Attached() {
    if (mounted) root->unmount();
  }
  Attached(const Attached&) = delete;
  Attached& operator=(const Attached&) = delete;
  const Root& operator*() const { return *root; }
  const Root* operator->() const { return root.get(); }
};

// The merger's inputs, opened in argument order, after checking that the record describes the
// machine the audit knows.
template <class Root>
std::vector<std::unique_ptr<Attached<Root>>> openInputs(
    const Oro::ShmMergeState& m, const DynaCode::MachineDesc& d,
    Oro::Ptr<Root> (*factory)(const std::string&), const std::string& mergedPath) {
  if (m.desc.inputs.size() != d.inputs.size()) {
    throw Oro::Exception(fmt::format("the merge record names {} inputs, {} has {}",
                                     m.desc.inputs.size(), d.shortName, d.inputs.size()));
  }
  if (const std::string self = mergeRecordSelfInput(m, mergedPath); !self.empty()) {
    // The audit would otherwise judge the merged status by itself.
    throw Oro::ShmCorruptionException(
        fmt::format("the merge record names the merged status itself as its input {}", self));
  }
  std::vector<std::unique_ptr<Attached<Root>>> in;
  for (const Oro::ShmMergeInput& i : m.desc.inputs) {
    if (i.path.empty()) {
      throw Oro::Exception(fmt::format("input {} of the merger is not in shared memory", i.name));
    }
    in.push_back(std::make_unique<Attached<Root>>(factory, i.path, /*absentIsEmpty=*/true));
  }
  return in;
}

}  // namespace

std::string mergeRecordSelfInput(const Oro::ShmMergeState& m, const std::string& mergedPath) {
  for (const Oro::ShmMergeInput& i : m.desc.inputs) {
    if (i.path == mergedPath) return i.name;
  }
  return {};
}

namespace {

template <class T>
std::optional<std::string> textOf(const std::optional<T>& v) {
  if (!v) return std::nullopt;
  if constexpr (requires { v->toValueForm(); }) {
    return v->toValueForm();
  } else {
    return v->toStrep();
  }
}

// A finding is reported only when a second look, after the whole walk, still finds it: a
// writer or the merger may have moved on between two reads of one walk.
struct Candidates {
  std::vector<std::function<std::optional<AuditFinding>()>> recheck;
  void finish(AuditReport& r) {
    for (auto& f : recheck) {
      if (auto finding = f()) r.add(std::move(*finding));
    }
  }
};

// ---- MergedMvpnVrfStatusSm ----------------------------------------------------------------

class VrfAudit : public MergeAudit {
  using Desc =
      std::integral_constant<const DynaCode::MachineDesc*, &DynaCode::MergedMvpnVrfStatusSm::kDesc>;

 public:
  std::string_view machineType() const override { return Desc::value->typeName; }
  std::string_view keySyntax() const override { return "VRF"; }

  Explanation explain(const Oro::ShmMergeState& m, const std::string& mergedPath,
                      std::string_view key) const override {
    Oro::CharRange text(key);
    text.skipSpaces();
    const VrfId vrfId(text);
    const auto in = openInputs<MvpnVrfStatus>(m, *Desc::value, mvpnVrfStatusFactory, mergedPath);
    const Attached<MvpnVrfStatus> out(mvpnVrfStatusFactory, mergedPath);
    Explanation e;
    e.collection = "mvpnVrf";
    e.key = vrfId.toStrep();
    std::vector<std::optional<MvpnVrf>> records;
    for (size_t i = 0; i < in.size(); ++i) {
      records.push_back((*in[i])->mvpnVrf(vrfId));
      e.inputs.push_back({m.desc.inputs[i].name, m.desc.inputs[i].path, textOf(records.back())});
    }
    const auto* w = DynaCode::MergedMvpnVrfStatusSm::vrfWinner(
        [&](size_t stream) { return records[inputOf(stream)].has_value(); });
    if (w) e.winner = m.desc.inputs[inputOf(w->stream)].name;
    e.expected = textOf(DynaCode::MergedMvpnVrfStatusSm::mergedVrfOf(vrfId, w));
    e.merged = textOf(out->mvpnVrf(vrfId));
    return e;
  }

  AuditReport check(const Oro::ShmMergeState& m, const std::string& mergedPath) const override {
    const auto in = openInputs<MvpnVrfStatus>(m, *Desc::value, mvpnVrfStatusFactory, mergedPath);
    const Attached<MvpnVrfStatus> out(mvpnVrfStatusFactory, mergedPath);
    auto expected = [&](VrfId v) {
      return DynaCode::MergedMvpnVrfStatusSm::mergedVrfOf(
          v, DynaCode::MergedMvpnVrfStatusSm::vrfWinner(
                 [&](size_t stream) { return (*in[inputOf(stream)])->mvpnVrf(v).has_value(); }));
    };
    // The finding for one VRF, if any.
    auto judge = [&](VrfId v) -> std::optional<AuditFinding> {
      const auto want = expected(v);
      const auto have = out->mvpnVrf(v);
      if (want == have) return std::nullopt;
      const char* kind = !want ? "stale" : !have ? "missing" : "differs";
      return AuditFinding{kind, "mvpnVrf", v.toStrep(), textOf(want).value_or(""),
                          textOf(have).value_or("")};
    };
    // One walk of each input gives every VRF's set of listing streams; one walk of the merged
    // status then compares each entry with the rule's record for that set. Walks read the
    // stores in order, where looking every key up in five stores would miss the cache for each.
    absl::flat_hash_map<uint32_t, uint8_t> lists;
    constexpr uint8_t kInMerged = 0x80;
    for (size_t i = 0; i < in.size(); ++i) {
      const auto bit = static_cast<uint8_t>(1u << Desc::value->inputs[i].streams[0]);
      for (auto it = (*in[i])->mvpnVrfIter(); it.valid(); it.next()) {
        lists[it.key().value()] |= bit;
      }
    }
    AuditReport r;
    Candidates c;
    for (auto it = out->mvpnVrfIter(); it.valid(); it.next()) {
      ++r.keysChecked;
      const VrfId v = it.key();
      uint8_t mask = 0;
      if (auto f = lists.find(v.value()); f != lists.end()) {
        mask = f->second;
        f->second |= kInMerged;
      }
      const auto want = DynaCode::MergedMvpnVrfStatusSm::mergedVrfOf(
          v, DynaCode::MergedMvpnVrfStatusSm::vrfWinner(
                 [mask](size_t stream) { return (mask >> stream) & 1; }));
      if (!want || !(*want == it.value())) c.recheck.push_back([&judge, v] { return judge(v); });
    }
    for (const auto& entry : lists) {
      const VrfId v(entry.first);
      if (!(entry.second & kInMerged)) c.recheck.push_back([&judge, v] { return judge(v); });
    }
    c.finish(r);
    return r;
  }

 private:
  // The input (in argument order) that stream `stream` reads.
  static size_t inputOf(size_t stream) {
    const auto& inputs = Desc::value->inputs;
    for (size_t i = 0; i < inputs.size(); ++i) {
      if (inputs[i].streams[0] == stream) return i;
    }
    return 0;
  }
};

// ---- MergedMcastTunnelEncapStatusSm -------------------------------------------------------

// The two merged collections: the static writer's input and the other writer's, by argument.
struct RouteColl {
  using Key = MvpnRouteKey;
  static constexpr const char* kName = "encapTunnel";
  static constexpr size_t kOther = 0;  // mvpnEncap
  static auto get(const MvpnVrfTunnelEncapStatus& e, const Key& k) { return e.encapTunnel(k); }
  static auto iter(const MvpnVrfTunnelEncapStatus& e) { return e.encapTunnelIter(); }
};
struct IntfColl {
  using Key = MvpnRouteIntfKey;
  static constexpr const char* kName = "encapIntfTunnel";
  static constexpr size_t kOther = 2;  // evpnEncap
  static auto get(const MvpnVrfTunnelEncapStatus& e, const Key& k) { return e.encapIntfTunnel(k); }
  static auto iter(const MvpnVrfTunnelEncapStatus& e) { return e.encapIntfTunnelIter(); }
};
constexpr size_t kStaticInput = 1;  // staticEncap

class EncapAudit : public MergeAudit {
  using Inputs = std::vector<std::unique_ptr<Attached<MvpnTunnelEncapStatus>>>;

 public:
  std::string_view machineType() const override {
    return DynaCode::MergedMcastTunnelEncapStatusSm::kDesc.typeName;
  }
  std::string_view keySyntax() const override {
    return "VRF ROUTE-KEY (encapTunnel) or VRF ROUTE-KEY on INTERFACE (encapIntfTunnel)";
  }

  Explanation explain(const Oro::ShmMergeState& m, const std::string& mergedPath,
                      std::string_view key) const override {
    Oro::CharRange text(key);
    text.skipSpaces();
    const VrfId vrfId = VrfId::readFrom(text);
    text.skipSpaces();
    const size_t at = text.position();
    const auto in =
        openInputs<MvpnTunnelEncapStatus>(m, DynaCode::MergedMcastTunnelEncapStatusSm::kDesc,
                                          mvpnTunnelEncapStatusFactory, mergedPath);
    const Attached<MvpnTunnelEncapStatus> out(mvpnTunnelEncapStatusFactory, mergedPath);
    if (std::string_view(key).find(" on ") != std::string_view::npos) {
      return explainIn<IntfColl>(m, in, out, vrfId, IntfColl::Key(text));
    }
    text.positionIs(at);
    return explainIn<RouteColl>(m, in, out, vrfId, RouteColl::Key(text));
  }

  AuditReport check(const Oro::ShmMergeState& m, const std::string& mergedPath) const override {
    const auto in =
        openInputs<MvpnTunnelEncapStatus>(m, DynaCode::MergedMcastTunnelEncapStatusSm::kDesc,
                                          mvpnTunnelEncapStatusFactory, mergedPath);
    const Attached<MvpnTunnelEncapStatus> out(mvpnTunnelEncapStatusFactory, mergedPath);
    AuditReport r;
    Candidates c;
    for (auto v = out->vrfStatusIter(); v.valid(); v.next()) {
      const Oro::Ptr<MvpnVrfTunnelEncapStatus> e = v.value();
      if (!e) continue;
      const VrfId vrfId = v.key();
      if (e->encapTunnelSize() == 0 && e->encapIntfTunnelSize() == 0) {
        c.recheck.push_back([&out, vrfId]() -> std::optional<AuditFinding> {
          const auto again = out->vrfStatus(vrfId);
          if (!again || again->encapTunnelSize() != 0 || again->encapIntfTunnelSize() != 0) {
            return std::nullopt;
          }
          return AuditFinding{"empty", "vrfStatus", vrfId.toStrep(), "", "a VRF with no records"};
        });
      }
      checkMerged<RouteColl>(in, out, vrfId, *e, r, c);
      checkMerged<IntfColl>(in, out, vrfId, *e, r, c);
    }
    std::set<std::pair<uint32_t, std::string>> missing;
    checkInputs<RouteColl>(in, out, r, c, missing);
    checkInputs<IntfColl>(in, out, r, c, missing);
    c.finish(r);
    return r;
  }

 private:
  template <class C>
  static auto lookup(const Attached<MvpnTunnelEncapStatus>& root, VrfId v, const typename C::Key& k)
      -> decltype(C::get(std::declval<const MvpnVrfTunnelEncapStatus&>(), k)) {
    const Oro::Ptr<MvpnVrfTunnelEncapStatus> e = root->vrfStatus(v);
    if (!e) return std::nullopt;
    return C::get(*e, k);
  }
  template <class C>
  static auto expected(const Inputs& in, VrfId v, const typename C::Key& k) {
    auto fromStatic = lookup<C>(*in[kStaticInput], v, k);
    if (fromStatic) return fromStatic;
    return DynaCode::MergedMcastTunnelEncapStatusSm::staticWins(fromStatic,
                                                                lookup<C>(*in[C::kOther], v, k));
  }
  template <class C>
  static std::optional<AuditFinding> judge(const Inputs& in,
                                           const Attached<MvpnTunnelEncapStatus>& out, VrfId v,
                                           const typename C::Key& k) {
    const auto want = expected<C>(in, v, k);
    const auto have = lookup<C>(out, v, k);
    if (want == have) return std::nullopt;
    const char* kind = !want ? "stale" : !have ? "missing" : "differs";
    return AuditFinding{kind, C::kName, fmt::format("{} {}", v.toStrep(), k.toStrep()),
                        textOf(want).value_or(""), textOf(have).value_or("")};
  }

  template <class C>
  static void checkMerged(const Inputs& in, const Attached<MvpnTunnelEncapStatus>& out, VrfId v,
                          const MvpnVrfTunnelEncapStatus& e, AuditReport& r, Candidates& c) {
    for (auto it = C::iter(e); it.valid(); it.next()) {
      ++r.keysChecked;
      const typename C::Key k = it.key();
      const auto want = expected<C>(in, v, k);
      if (want && *want == it.value()) continue;
      c.recheck.push_back([&in, &out, v, k] { return judge<C>(in, out, v, k); });
    }
  }

  template <class C>
  static void checkInputs(const Inputs& in, const Attached<MvpnTunnelEncapStatus>& out,
                          AuditReport& r, Candidates& c,
                          std::set<std::pair<uint32_t, std::string>>& missing) {
    for (size_t i : {kStaticInput, C::kOther}) {
      for (auto v = (*in[i])->vrfStatusIter(); v.valid(); v.next()) {
        const Oro::Ptr<MvpnVrfTunnelEncapStatus> e = v.value();
        if (!e) continue;
        const VrfId vrfId = v.key();
        for (auto it = C::iter(*e); it.valid(); it.next()) {
          const typename C::Key k = it.key();
          if (lookup<C>(out, vrfId, k) ||
              !missing.emplace(vrfId.value(), std::string(C::kName) + k.toStrep()).second) {
            continue;
          }
          ++r.keysChecked;
          c.recheck.push_back([&in, &out, vrfId, k] { return judge<C>(in, out, vrfId, k); });
        }
      }
    }
  }

  template <class C>
  static Explanation explainIn(const Oro::ShmMergeState& m, const Inputs& in,
                               const Attached<MvpnTunnelEncapStatus>& out, VrfId v,
                               const typename C::Key& k) {
    Explanation e;
    e.collection = C::kName;
    e.key = fmt::format("{} {}", v.toStrep(), k.toStrep());
    for (size_t i : {std::min(kStaticInput, C::kOther), std::max(kStaticInput, C::kOther)}) {
      e.inputs.push_back(
          {m.desc.inputs[i].name, m.desc.inputs[i].path, textOf(lookup<C>(*in[i], v, k))});
    }
    const auto fromStatic = lookup<C>(*in[kStaticInput], v, k);
    const auto other = lookup<C>(*in[C::kOther], v, k);
    if (fromStatic || other) e.winner = m.desc.inputs[fromStatic ? kStaticInput : C::kOther].name;
    e.expected = textOf(DynaCode::MergedMcastTunnelEncapStatusSm::staticWins(fromStatic, other));
    e.merged = textOf(lookup<C>(out, v, k));
    return e;
  }
};

}  // namespace

const MergeAudit* mergeAuditFor(std::string_view machineType) {
  static const VrfAudit vrf;
  static const EncapAudit encap;
  for (const MergeAudit* a : std::initializer_list<const MergeAudit*>{&vrf, &encap}) {
    if (a->machineType() == machineType) return a;
  }
  return nullptr;
}

}  // namespace Routing::Multicast
