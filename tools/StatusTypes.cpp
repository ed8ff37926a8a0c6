#include "tools/StatusTypes.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <system_error>

#include <fmt/format.h>

#include "merge/MvpnTunnelEncapStatus.h"
#include "platform/DumpContext.h"
#include "platform/runtime/Entity.h"
#include "platform/runtime/TaskScheduler.h"
#include "platform/shm/ShmBinding.h"
#include "platform/shm/WalkOnce.h"
#include "status/MvpnIntfStatus.h"
#include "status/MvpnRouteStatus.h"
#include "status/MvpnVrfStatus.h"
#include "tools/HangupWatch.h"
#include "tools/MergerView.h"
#include "tools/SafeText.h"

namespace Mvpnstat {

using namespace Routing::Multicast;
using Vrf::VrfIdMap::VrfId;

namespace {

std::atomic<Oro::TaskScheduler*> gWatching{nullptr};
std::atomic<bool> gStopRequested{false};

// Writes `text` to `out` at once, bypassing its buffer. A write blocked on a full pipe or
// terminal is ended by SIGINT or SIGTERM (the handler asks the watch to stop; the signal
// interrupts the write, stdio would have written on): the rest of the text is dropped then.
void writeNow(FILE* out, std::string_view text) {
  if (std::fflush(out) != 0) throw std::system_error(errno, std::generic_category(), "write");
  const int fd = fileno(out);
  while (!text.empty() && !gStopRequested.load()) {
    const ssize_t n = ::write(fd, text.data(), text.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      throw std::system_error(errno, std::generic_category(), "write");
    }
    text.remove_prefix(static_cast<size_t>(n));
  }
}

std::string recordJson(const MvpnVrf& r) {
  return fmt::format("{{\"key\": {}, \"client\": {}}}", r.key().value(),
                     jsonQuote(stringValue(r.client())));
}

std::string recordJson(const MvpnVrfIntfId& r) {
  return fmt::format("{{\"key\": {}, \"pmsiIntfId\": {}}}", r.key().value(),
                     jsonQuote(r.pmsiIntfId().toStrep()));
}

// The start of a table's JSON document: its path, its type and, for a merged status, its
// merger ("{"path": ..., "type": ..., ["merger": {...}, ]").
std::string jsonHead(const std::string& path, std::string_view type) {
  const auto m = mergerOf(path);
  return fmt::format("{{\"path\": {}, \"type\": {}, {}", jsonQuote(path), jsonQuote(type),
                     m ? fmt::format("\"merger\": {}, ", mergerJson(*m)) : std::string());
}

}  // namespace

void printDamagedDocument(FILE* out, const std::string& path, std::string_view type,
                          std::string_view damage) {
  fmt::print(out, "{{\"path\": {}, {}\"damaged\": {}}}\n", jsonQuote(path),
             type.empty() ? std::string() : fmt::format("\"type\": {}, ", jsonQuote(type)),
             jsonQuote(damage));
}

namespace {

// A reader instance of Root attached to the table at `path`; unmounted when it goes. A root's
// dump and walks end quietly once they have reported damage to its corruption handler: the
// first report is kept here, and the command fails with it once it has printed what it read.
template <class Root>
struct ReaderRoot {
  Oro::Ptr<Root> root;
  std::string damage;
  // A watch passes its scheduler, which stops at the first damage. A JSON show passes its
  // output: damage found while attaching still gives it one whole document, naming the damage.
  ReaderRoot(const std::string& path, Oro::TaskScheduler* scheduler, FILE* json = nullptr)
      : root(new Root(path)) {
    root->corruptionHandlerIs([this, scheduler](const std::string& message) {
      if (!damage.empty()) return;
      damage = message;
      if (scheduler) scheduler->stop();
    });
    try {
      root->mount(Oro::ShmAttach{path, Oro::ShmRole::reader, scheduler});
    } catch (const Oro::ShmCorruptionException& e) {
      if (json)
        printDamagedDocument(json, path, root->typeName(), damage.empty() ? e.what() : damage);
      throw;
    }
  }
  ReaderRoot(const ReaderRoot&) = delete;
  ReaderRoot& operator=(const ReaderRoot&) = delete;
  ~ReaderRoot() {
    root->unmount();
    root->corruptionHandlerIs(nullptr);
  }
  void failIfDamaged() const {
    if (!damage.empty()) throw Oro::ShmCorruptionException(damage);
  }
};

// One JSON document printed as it is built (a table of millions of records is never held in
// memory), knowing which of its brackets are open. Damage met half-way closes them, so that
// what was read stays a valid document, and names the damage in the document's last member.
class JsonOut {
 public:
  explicit JsonOut(FILE* out) : out_(out) {}
  // Prints `text`, which leaves the brackets `opens` open (outermost first).
  void open(std::string_view opens, std::string_view text) {
    fmt::print(out_, "{}", text);
    for (char c : opens) closers_.push_back(c == '{' ? '}' : ']');
  }
  // Prints `before`, then closes the `n` innermost brackets.
  void close(std::string_view before, size_t n = 1) {
    fmt::print(out_, "{}", before);
    for (; n > 0 && !closers_.empty(); --n) {
      std::fputc(closers_.back(), out_);
      closers_.pop_back();
    }
  }
  void put(std::string_view text) { fmt::print(out_, "{}", text); }

  // Runs `walk`, which opens the document's object and prints its members; then closes the
  // document. When the walk meets damage (thrown, or reported to the root's handler) whatever
  // is open inside the object is closed, the damage is its last member ("damaged"), and it is
  // thrown once the document is printed.
  template <class Root, class Walk>
  void document(const ReaderRoot<Root>& r, const Walk& walk) {
    std::string damage;
    try {
      walk();
      damage = r.damage;
    } catch (const Oro::ShmCorruptionException& e) {
      damage = r.damage.empty() ? e.what() : r.damage;
    }
    if (closers_.empty()) {  // nothing printed yet
      if (!damage.empty()) throw Oro::ShmCorruptionException(damage);
      return;
    }
    close("", closers_.size() - 1);
    if (!damage.empty()) fmt::print(out_, ", \"damaged\": {}", jsonQuote(damage));
    close("", 1);
    std::fputc('\n', out_);
    if (!damage.empty()) throw Oro::ShmCorruptionException(damage);
  }

 private:
  FILE* out_;
  std::string closers_;
};

// The root's own dump, then the damage it met, if any.
template <class Root>
void printDump(const ReaderRoot<Root>& r, FILE* out) {
  Oro::DumpContext dc;
  r.root->dumpState(dc, 0);
  fmt::print(out, "{}", displayText(dc.str(), Shown::dump));
  r.failIfDamaged();
}

// Where a walk that only looks for damage prints.
std::unique_ptr<FILE, int (*)(FILE*)> devNull() {
  std::unique_ptr<FILE, int (*)(FILE*)> sink(std::fopen("/dev/null", "w"), &std::fclose);
  if (!sink) throw Oro::Exception("cannot open /dev/null");
  return sink;
}

template <class Root>
void show(const std::string& path, bool json, FILE* out) {
  using Key = typename Root::Key;
  ReaderRoot<Root> r(path, nullptr, json ? out : nullptr);
  if (!json) {
    printDump(r, out);
    return;
  }
  JsonOut j(out);
  Oro::WalkOnce<Key> listed;  // the walk may meet a key the writer moved twice
  const char* sep = "";
  j.document(r, [&] {
    j.open("{[", jsonHead(path, r.root->typeName()) + "\"records\": [");
    for (auto it = r.root->recordIter(); it.valid(); it.next()) {
      if (!listed.first(it.key())) continue;
      j.put(fmt::format("{}\n  {}", sep, recordJson(it.value())));
      sep = ",";
    }
    j.close(*sep ? "\n" : "");
  });
}

// What every watch shares: its scheduler, the count of changes printed and the stop after
// the last one wanted.
struct Watch {
  Watch(FILE* o, bool j, uint64_t max) : out(o), json(j), maxChanges(max) {}
  FILE* out;
  bool json;
  uint64_t maxChanges;
  Oro::TaskScheduler scheduler;
  uint64_t printed = 0;

  // One change printed as it is (a line of text or one JSON object).
  void line(const std::string& text) {
    // Changes delivered together with the last one wanted are not printed.
    if (maxChanges != 0 && printed == maxChanges) return;
    writeNow(out, text + "\n");
    if (++printed == maxChanges) scheduler.stop();
  }
  // A change of a nested status: its level, the keys from the VRF down, the new value.
  void change(const std::string& level, const std::string& keys, const std::string& what) {
    line(json ? fmt::format("{{\"level\": {}, \"keys\": {}, \"change\": {}}}", jsonQuote(level),
                            jsonQuote(keys), jsonQuote(what))
              : fmt::format("{}: {}", displayText(keys, Shown::form),
                            displayText(what, Shown::form)));
  }
  // Reports the transitions of a merged status's merger ("merger: ready") as changes,
  // including its end: a merger killed between two writes changes nothing in its store, so
  // its doorbell connection's hang-up tells instead.
  void followMerger(Oro::ShmBinding& b) {
    binding = &b;
    const auto m = mergerState();
    if (m) lastMergerPhase = m->phase();
    b.mergeStateHandlerIs([this](uint32_t) {
      const auto now = mergerState();
      reportMerger(now);
      followWriter(now);
    });
    followWriter(m);
  }
  std::optional<Oro::ShmMergeState> mergerState() const {
    return Oro::shmReadMergeState(*binding->store().header(), binding->store().writerAlive());
  }
  void reportMerger(const std::optional<Oro::ShmMergeState>& m) {
    if (!m || m->phase() == lastMergerPhase) return;
    lastMergerPhase = m->phase();
    line(json ? fmt::format("{{\"merger\": {}, \"progress\": {}}}", jsonQuote(m->phase()),
                            jsonQuote(m->phaseText()))
              : fmt::format("merger: {}", m->phaseText()));
  }
  // Listens for the hang-up of the merger writing the store now (none for a status no
  // merger writes, or whose merger is not running).
  void followWriter(const std::optional<Oro::ShmMergeState>& m) {
    if (!m || !m->running) return;
    std::string bell = binding->store().bellPath();
    if (bell == followed) return;
    if (!hangups) hangups = std::make_unique<HangupWatch>(scheduler, [this] { afterHangup(0); });
    hangups->follow(bell);
    followed = std::move(bell);
  }
  // The writer hung up; its process may hold its lock on the store a moment longer while it
  // ends, so a merger still seen alive is looked at again shortly (for a second at most).
  void afterHangup(int attempt) {
    followed.clear();  // a successor at the same doorbell is followed anew
    const auto m = mergerState();
    reportMerger(m);
    if (attempt < 50 && m && m->running) {
      scheduler.timerIs(std::chrono::milliseconds(20),
                        [this, attempt] { afterHangup(attempt + 1); });
    }
  }
  Oro::ShmBinding* binding = nullptr;
  std::string lastMergerPhase;
  std::unique_ptr<HangupWatch> hangups;  // declared after the scheduler it posts to
  std::string followed;                  // the doorbell followed, "" after its hang-up

  uint64_t run() {
    gWatching.store(&scheduler);
    // A signal that came before the scheduler could be stopped ends the watch here.
    if (!gStopRequested.load()) scheduler.run();
    gWatching.store(nullptr);
    return printed;
  }
};

template <class Root>
uint64_t watch(const std::string& path, bool json, FILE* out, uint64_t maxChanges) {
  using Key = typename Root::Key;
  Watch w(out, json, maxChanges);
  ReaderRoot<Root> r(path, &w.scheduler);
  Oro::KeyReactor<Key> reactor(Root::recordAttr, [&](const Key& key) {
    const auto rec = r.root->record(key);
    w.line(json ? fmt::format("{{\"key\": {}, \"record\": {}}}", jsonQuote(key.toStrep()),
                              rec ? recordJson(*rec) : std::string("null"))
                : fmt::format("{}: {}", displayText(key.toStrep(), Shown::form),
                              rec ? displayText(rec->toValueForm(), Shown::form) : "deleted"));
  });
  reactor.notifierIs(r.root.get());
  w.followMerger(r.root->binding());
  const uint64_t printed = w.run();
  r.failIfDamaged();
  return printed;
}

// Hands every key notification of one entity (any attribute) to a function.
class AnyKeyReactor : public Oro::Notifiee {
 public:
  explicit AnyKeyReactor(std::function<void(Oro::AttrId, const void*)> fn) : fn_(std::move(fn)) {}
  void onAttributeKey(Oro::AttrId a, const void* key) override { fn_(a, key); }

 private:
  std::function<void(Oro::AttrId, const void*)> fn_;
};

std::string sourceJson(const MvpnSource& s) {
  return fmt::format("{{\"source\": {}, \"umhPrefix\": {}, \"flags\": {}}}",
                     jsonQuote(s.source().toStrep()), jsonQuote(s.umhPrefix().toStrep()),
                     s.sourceFlags().value());
}

std::string routeJson(const MvpnRoute& r) {
  return fmt::format("{{\"key\": {}, \"umhPrefix\": {}, \"flags\": {}}}",
                     jsonQuote(r.key().toStrep()), jsonQuote(r.umhPrefix().toStrep()),
                     r.routeFlags().value());
}

// The route status tree: the dump, or VRFs with their routes and groups, groups with their
// sources.
void treeJson(const ReaderRoot<MvpnRouteStatus>& r, const std::string& path, FILE* out);

void showTree(const std::string& path, bool json, FILE* out) {
  ReaderRoot<MvpnRouteStatus> r(path, nullptr, json ? out : nullptr);
  if (!json) {
    printDump(r, out);
    // The dump shows one of the tree's two models; the other's records are read too, so that
    // damage anywhere in the tree fails the show as it fails the JSON one.
    treeJson(r, path, devNull().get());
    return;
  }
  treeJson(r, path, out);
}

void treeJson(const ReaderRoot<MvpnRouteStatus>& r, const std::string& path, FILE* out) {
  JsonOut j(out);
  j.document(r, [&] {
    j.open("{[", jsonHead(path, r.root->typeName()) + "\"vrfs\": [");
    const char* vsep = "";
    Oro::WalkOnce<VrfId> vrfs;
    for (auto v = r.root->vrfRouteStatusIter(); v.valid(); v.next()) {
      Oro::Ptr<MvpnVrfRouteStatus> vrf = v.value();
      if (!vrf || !vrfs.first(vrf->vrfId())) continue;
      j.open("{[", fmt::format("{}\n  {{\"vrfId\": {}, \"routes\": [", vsep, vrf->vrfId().value()));
      const char* sep = "";
      Oro::WalkOnce<MvpnRouteKey> routes;
      for (auto it = vrf->mvpnRouteIter(); it.valid(); it.next()) {
        if (!routes.first(it.value().key())) continue;
        j.put(fmt::format("{}{}", sep, routeJson(it.value())));
        sep = ", ";
      }
      j.close("");
      j.open("[", ", \"groups\": [");
      const char* gsep = "";
      Oro::WalkOnce<Nevo::IpGenAddr> groups;
      for (auto g = vrf->mvpnGroupIter(); g.valid(); g.next()) {
        Oro::Ptr<MvpnGroup> group = g.value();
        if (!group || !groups.first(group->group())) continue;
        j.open("{[", fmt::format("{}\n    {{\"group\": {}, \"sharedTree\": [", gsep,
                                 jsonQuote(group->group().toStrep())));
        sep = "";
        Oro::WalkOnce<Nevo::IpGenAddr> shared;
        for (auto it = group->sharedTreeIter(); it.valid(); it.next()) {
          if (!shared.first(it.value().source())) continue;
          j.put(fmt::format("{}{}", sep, sourceJson(it.value())));
          sep = ", ";
        }
        j.close("");
        j.open("[", ", \"sourceTree\": [");
        sep = "";
        Oro::WalkOnce<Nevo::IpGenAddr> sources;
        for (auto it = group->sourceTreeIter(); it.valid(); it.next()) {
          if (!sources.first(it.value().source())) continue;
          j.put(fmt::format("{}{}", sep, sourceJson(it.value())));
          sep = ", ";
        }
        j.close("", 2);
        gsep = ",";
      }
      j.close(*gsep ? "\n  " : "", 2);
      vsep = ",";
    }
    j.close(*vsep ? "\n" : "");
  });
}

// Each change of the tree, named by its level and keys; the watch follows VRFs and groups as
// they come and go.
uint64_t watchTree(const std::string& path, bool json, FILE* out, uint64_t maxChanges) {
  Watch w(out, json, maxChanges);
  ReaderRoot<MvpnRouteStatus> r(path, &w.scheduler);
  struct GroupWatch {
    Oro::Ptr<MvpnGroup> group;
    std::unique_ptr<Oro::Notifiee> reactor;
  };
  struct VrfWatch {
    Oro::Ptr<MvpnVrfRouteStatus> vrf;
    std::unique_ptr<Oro::Notifiee> reactor;
    std::map<Nevo::IpGenAddr, GroupWatch> groups;
  };
  std::map<uint32_t, VrfWatch> vrfs;
  auto watchGroup = [&](VrfWatch& vw, uint32_t vrfId, const Nevo::IpGenAddr& g) {
    Oro::Ptr<MvpnGroup> group = vw.vrf->mvpnGroup(g);
    if (!group) {
      vw.groups.erase(g);
      return;
    }
    GroupWatch& gw = vw.groups[g];
    if (gw.group == group) return;
    gw.group = group;
    MvpnGroup* gp = group.get();
    gw.reactor =
        std::make_unique<AnyKeyReactor>([&w, gp, vrfId](Oro::AttrId a, const void* key) {
          const auto& source = *static_cast<const Nevo::IpGenAddr*>(key);
          const bool shared = a == MvpnGroup::sharedTreeAttr;
          const auto rec = shared ? gp->sharedTree(source) : gp->sourceTree(source);
          w.change(shared ? "sharedTree" : "sourceTree",
               fmt::format("vrf {} group {} {} {}", vrfId, gp->group().toStrep(),
                           shared ? "sharedTree" : "sourceTree", source.toStrep()),
               rec ? rec->toStrep() : "deleted");
        });
    gw.reactor->notifierIs(gp);
  };
  auto watchVrf = [&](uint32_t vrfId) {
    Oro::Ptr<MvpnVrfRouteStatus> vrf = r.root->vrfRouteStatus(VrfId(vrfId));
    if (!vrf) {
      vrfs.erase(vrfId);
      return;
    }
    VrfWatch& vw = vrfs[vrfId];
    if (vw.vrf == vrf) return;
    vw.vrf = vrf;
    vw.groups.clear();
    MvpnVrfRouteStatus* vp = vrf.get();
    vw.reactor = std::make_unique<AnyKeyReactor>([&, vp, vrfId](Oro::AttrId a, const void* key) {
      if (a == MvpnVrfRouteStatus::mvpnRouteAttr) {
        const auto& k = *static_cast<const MvpnRouteKey*>(key);
        const auto rec = vp->mvpnRoute(k);
        w.change("route", fmt::format("vrf {} route {}", vrfId, k.toStrep()),
             rec ? rec->toStrep() : "deleted");
      } else if (a == MvpnVrfRouteStatus::mvpnGroupAttr) {
        const auto& g = *static_cast<const Nevo::IpGenAddr*>(key);
        const bool present = vp->mvpnGroup(g) != nullptr;
        w.change("group", fmt::format("vrf {} group {}", vrfId, g.toStrep()),
             present ? "present" : "deleted");
        watchGroup(vrfs[vrfId], vrfId, g);
      }
    });
    vw.reactor->notifierIs(vp);
  };
  Oro::KeyReactor<VrfId> rootReactor(MvpnRouteStatus::vrfRouteStatusAttr, [&](const VrfId& v) {
    const bool present = r.root->vrfRouteStatus(v) != nullptr;
    w.change("vrf", fmt::format("vrf {}", v.value()), present ? "present" : "deleted");
    watchVrf(v.value());
  });
  rootReactor.notifierIs(r.root.get());
  w.followMerger(r.root->binding());
  const uint64_t printed = w.run();
  r.failIfDamaged();
  return printed;
}

// A tunnel encapsulation status: per VRF its route and interface encapsulations.
void showEncap(const std::string& path, bool json, FILE* out) {
  ReaderRoot<MvpnTunnelEncapStatus> r(path, nullptr, json ? out : nullptr);
  if (!json) {
    fmt::print(out, "MvpnTunnelEncapStatus #{}:\n", r.root->vrfStatusSize());
    for (auto v = r.root->vrfStatusIter(); v.valid(); v.next()) {
      Oro::Ptr<MvpnVrfTunnelEncapStatus> vrf = v.value();
      if (!vrf) continue;
      fmt::print(out, "  VRF ID: {}\n    Encap tunnels #{}\n", vrf->vrfId().value(),
                 vrf->encapTunnelSize());
      for (auto it = vrf->encapTunnelIter(); it.valid(); it.next()) {
        fmt::print(out, "      {}\n", displayText(it.value().toStrep(), Shown::form));
      }
      fmt::print(out, "    Encap interface tunnels #{}\n", vrf->encapIntfTunnelSize());
      for (auto it = vrf->encapIntfTunnelIter(); it.valid(); it.next()) {
        fmt::print(out, "      {}\n", displayText(it.value().toStrep(), Shown::form));
      }
    }
    r.failIfDamaged();
    return;
  }
  JsonOut j(out);
  j.document(r, [&] {
    j.open("{[", jsonHead(path, r.root->typeName()) + "\"vrfs\": [");
    const char* vsep = "";
    Oro::WalkOnce<VrfId> vrfs;
    for (auto v = r.root->vrfStatusIter(); v.valid(); v.next()) {
      Oro::Ptr<MvpnVrfTunnelEncapStatus> vrf = v.value();
      if (!vrf || !vrfs.first(vrf->vrfId())) continue;
      j.open("{[",
             fmt::format("{}\n  {{\"vrfId\": {}, \"encapTunnel\": [", vsep, vrf->vrfId().value()));
      const char* sep = "";
      Oro::WalkOnce<MvpnRouteKey> routes;
      for (auto it = vrf->encapTunnelIter(); it.valid(); it.next()) {
        const MvpnEncapTunnel& rec = it.value();
        if (!routes.first(rec.routeKey())) continue;
        j.put(fmt::format("{}\n    {{\"routeKey\": {}, \"encapData\": {}}}", sep,
                          jsonQuote(rec.routeKey().toStrep()), jsonQuote(rec.encapData())));
        sep = ",";
      }
      j.close(*sep ? "\n  " : "");
      j.open("[", ", \"encapIntfTunnel\": [");
      sep = "";
      Oro::WalkOnce<MvpnRouteIntfKey> intfs;
      for (auto it = vrf->encapIntfTunnelIter(); it.valid(); it.next()) {
        const MvpnEncapIntfTunnel& rec = it.value();
        if (!intfs.first(rec.routeIntfKey())) continue;
        j.put(fmt::format("{}\n    {{\"routeIntfKey\": {}, \"encapData\": {}}}", sep,
                          jsonQuote(rec.routeIntfKey().toStrep()), jsonQuote(rec.encapData())));
        sep = ",";
      }
      j.close(*sep ? "\n  " : "", 2);
      vsep = ",";
    }
    j.close(*vsep ? "\n" : "");
  });
}

// Each change of an encapsulation status: VRFs coming and going, and every route and
// interface key of the VRFs present.
uint64_t watchEncap(const std::string& path, bool json, FILE* out, uint64_t maxChanges) {
  Watch w(out, json, maxChanges);
  ReaderRoot<MvpnTunnelEncapStatus> r(path, &w.scheduler);
  struct VrfWatch {
    Oro::Ptr<MvpnVrfTunnelEncapStatus> vrf;
    std::unique_ptr<AnyKeyReactor> reactor;
  };
  std::map<uint32_t, VrfWatch> vrfs;
  auto watchVrf = [&](VrfId vrfId) {
    Oro::Ptr<MvpnVrfTunnelEncapStatus> vrf = r.root->vrfStatus(vrfId);
    if (!vrf) {
      vrfs.erase(vrfId.value());
      return;
    }
    VrfWatch& vw = vrfs[vrfId.value()];
    if (vw.vrf == vrf) return;
    vw.vrf = vrf;
    MvpnVrfTunnelEncapStatus* vp = vrf.get();
    vw.reactor = std::make_unique<AnyKeyReactor>([&w, vp](Oro::AttrId a, const void* key) {
      const uint32_t id = vp->vrfId().value();
      if (a == MvpnVrfTunnelEncapStatus::encapTunnelAttr) {
        const auto& k = *static_cast<const MvpnRouteKey*>(key);
        const auto rec = vp->encapTunnel(k);
        w.change("encapTunnel", fmt::format("vrf {} encapTunnel {}", id, k.toStrep()),
             rec ? rec->toStrep() : "deleted");
      } else if (a == MvpnVrfTunnelEncapStatus::encapIntfTunnelAttr) {
        const auto& k = *static_cast<const MvpnRouteIntfKey*>(key);
        const auto rec = vp->encapIntfTunnel(k);
        w.change("encapIntfTunnel", fmt::format("vrf {} encapIntfTunnel {}", id, k.toStrep()),
             rec ? rec->toStrep() : "deleted");
      }
    });
    vw.reactor->notifierIs(vp);
  };
  Oro::KeyReactor<VrfId> rootReactor(MvpnTunnelEncapStatus::vrfStatusAttr, [&](const VrfId& v) {
    const bool present = r.root->vrfStatus(v) != nullptr;
    w.change("vrf", fmt::format("vrf {}", v.value()), present ? "present" : "deleted");
    watchVrf(v);
  });
  rootReactor.notifierIs(r.root.get());
  w.followMerger(r.root->binding());
  const uint64_t printed = w.run();
  r.failIfDamaged();
  return printed;
}

template <class Root>
StatusType makeType(const char* rootType) {
  return StatusType{rootType, &show<Root>, &watch<Root>};
}

}  // namespace

const std::vector<StatusType>& statusTypes() {
  static const std::vector<StatusType> types = {
      makeType<MvpnVrfStatus>(MvpnVrfStatusTraits::typeName),
      makeType<MvpnIntfStatus>(MvpnIntfStatusTraits::typeName),
      StatusType{MvpnRouteStatus::kTypeName, &showTree, &watchTree},
      StatusType{MvpnTunnelEncapStatus::kTypeName, &showEncap, &watchEncap},
  };
  return types;
}

const StatusType* statusTypeOf(std::string_view rootType) {
  for (const StatusType& t : statusTypes()) {
    if (rootType == t.rootType) return &t;
  }
  return nullptr;
}

std::string recordDamage(const std::string& rootType, const std::string& path) {
  const StatusType* t = statusTypeOf(rootType);
  if (!t) return {};
  try {
    t->show(path, true, devNull().get());
  } catch (const Oro::ShmCorruptionException& e) {
    return e.what();
  }
  return {};
}

void watchStop() {
  gStopRequested.store(true);
  if (Oro::TaskScheduler* s = gWatching.load()) s->stop();
}

}  // namespace Mvpnstat
