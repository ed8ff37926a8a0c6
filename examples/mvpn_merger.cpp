// A merging reader agent for demos, until SIGINT/SIGTERM.
//
//   mvpn_merger vrf [MERGED_PATH]     the four writers' VRF statuses (IPv4) into the merged VRF
//                                     status (default "routing/multicast/vpn/vrfStatus/merged")
//   mvpn_merger encap                 the mvpn, static and evpn tunnel encapsulation statuses
//                                     into the merged one
//
// The writers' tables must exist: the merger attaches to them as a reader. Set
// MVPN_TRACE=MergedMvpnVrfStatusSm/1-5 (or MergedMcastTunnelEncapStatusSm/...) to follow a
// machine.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "merge/MvpnTunnelEncapStatusMergeSm.h"
#include "merge/MvpnVrfStatusMergeSm.h"
#include "platform/Error.h"
#include "platform/runtime/TaskScheduler.h"
#include "status/MvpnVrfStatus.h"

using namespace Routing::Multicast;

namespace {

Oro::TaskScheduler* gScheduler = nullptr;

extern "C" void onSignal(int) {
  if (gScheduler) gScheduler->stop();
}

// Damage met in an input is reported on stderr once per new message (a damaged input is
// met again by every rescan and every look for a repaired store).
template <class Root, class Factory>
Oro::Ptr<Root> mounted(Factory factory, const std::string& path, Oro::ShmRole role,
                       Oro::TaskScheduler* scheduler) {
  auto root = factory(path);
  if (role == Oro::ShmRole::reader) {
    root->corruptionHandlerIs([path, last = std::string()](const std::string& message) mutable {
      if (message == last) return;
      last = message;
      std::fprintf(stderr, "mvpn_merger: %s is damaged: %s\n", path.c_str(), message.c_str());
    });
  }
  root->mount(Oro::ShmAttach{path, role, scheduler, 0644});
  return root;
}

void stopping(bool ready, size_t vrfs) {
  std::fprintf(stderr, "mvpn_merger: stopping, merged status %s ready, %zu VRF%s\n",
               ready ? "was" : "was not", vrfs, vrfs == 1 ? "" : "s");
}

int mergeVrfs(const std::string& mergedPath, Oro::TaskScheduler& scheduler) {
  auto reader = [&](MvpnClient client) -> Oro::Ptr<const MvpnVrfStatus> {
    return mounted<MvpnVrfStatus>(mvpnVrfStatusFactory,
                                  MvpnVrfStatus::mountPath(Nevo::ipv4, client),
                                  Oro::ShmRole::reader, &scheduler);
  };
  const MvpnClient clients[] = {MvpnClient::bgp_, MvpnClient::staticMvpn_, MvpnClient::evpn_,
                                MvpnClient::staticEvpn_};
  // Checked before anything is mounted: mounting an input's table as the writer would take it
  // over from its writer before the machine refused the arguments.
  for (MvpnClient client : clients) {
    if (mergedPath == MvpnVrfStatus::mountPath(Nevo::ipv4, client)) {
      std::fprintf(stderr, "mvpn_merger: MERGED_PATH %s is an input of the merge\n",
                   mergedPath.c_str());
      return 2;
    }
  }
  // The inputs first: a merger that cannot read one leaves no merged table behind.
  auto bgp = reader(clients[0]), staticMvpn = reader(clients[1]), evpn = reader(clients[2]),
       staticEvpn = reader(clients[3]);
  auto merged =
      mounted<MvpnVrfStatus>(mvpnVrfStatusFactory, mergedPath, Oro::ShmRole::writer, nullptr);
  auto sm =
      mergedMvpnVrfStatusSmFactory(bgp, staticMvpn, evpn, staticEvpn, merged,
                                   Dyx::SmControl{&scheduler, Oro::TaskPriority::normal, false});
  sm->initializedIs(true);
  scheduler.run();
  stopping(sm->ready(), merged->mvpnVrfSize());
  return 0;
}

int mergeEncaps(Oro::TaskScheduler& scheduler) {
  auto reader = [&](const char* writer) -> Oro::Ptr<const MvpnTunnelEncapStatus> {
    return mounted<MvpnTunnelEncapStatus>(mvpnTunnelEncapStatusFactory,
                                          MvpnTunnelEncapStatus::mountPath(writer),
                                          Oro::ShmRole::reader, &scheduler);
  };
  auto mvpn = reader("mvpn"), staticEncap = reader("static"), evpn = reader("evpn");
  auto merged = mounted<MvpnTunnelEncapStatus>(mvpnTunnelEncapStatusFactory,
                                               MvpnTunnelEncapStatus::mountPath("merged"),
                                               Oro::ShmRole::writer, nullptr);
  auto sm = mergedMcastTunnelEncapStatusSmFactory(
      mvpn, staticEncap, evpn, merged,
      Dyx::SmControl{&scheduler, Oro::TaskPriority::normal, false});
  sm->initializedIs(true);
  scheduler.run();
  stopping(sm->ready(), merged->vrfStatusSize());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  if ((what != "vrf" && what != "encap") || (what == "encap" && argc > 2) || argc > 3) {
    std::fprintf(stderr, "usage: mvpn_merger vrf [MERGED_PATH] | mvpn_merger encap\n");
    return 2;
  }
  Oro::TaskScheduler scheduler;
  gScheduler = &scheduler;
  struct sigaction sa {};
  sa.sa_handler = onSignal;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  try {
    if (what == "vrf") {
      return mergeVrfs(argc > 2 ? argv[2] : "routing/multicast/vpn/vrfStatus/merged", scheduler);
    }
    return mergeEncaps(scheduler);
  } catch (const Oro::Exception& e) {
    std::fprintf(stderr, "mvpn_merger: %s\n", e.what());
    return 1;
  }
}
