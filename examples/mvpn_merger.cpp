// A merging reader agent for demos: attaches to the four writers' VRF status tables (IPv4) as
// a reader, runs MergedMvpnVrfStatusSm on its scheduler and publishes the merged VRF status
// at MERGED_PATH (default "routing/multicast/vpn/vrfStatus/merged"), until SIGINT/SIGTERM.
// Set MVPN_TRACE=MergedMvpnVrfStatusSm/1-5 to follow the machine.
//
//   mvpn_merger [MERGED_PATH]
#include <csignal>
#include <cstdio>
#include <string>

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

Oro::Ptr<const MvpnVrfStatus> reader(MvpnClient client, Oro::TaskScheduler* scheduler) {
  const std::string path = MvpnVrfStatus::mountPath(Nevo::ipv4, client);
  auto root = mvpnVrfStatusFactory(path);
  root->mount(Oro::ShmAttach{path, Oro::ShmRole::reader, scheduler});
  return root;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mergedPath = argc > 1 ? argv[1] : "routing/multicast/vpn/vrfStatus/merged";
  Oro::TaskScheduler scheduler;
  gScheduler = &scheduler;
  struct sigaction sa {};
  sa.sa_handler = onSignal;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  try {
    auto merged = mvpnVrfStatusFactory(mergedPath);
    merged->mount(Oro::ShmAttach{mergedPath, Oro::ShmRole::writer});
    auto sm = mergedMvpnVrfStatusSmFactory(
        reader(MvpnClient::bgp_, &scheduler), reader(MvpnClient::staticMvpn_, &scheduler),
        reader(MvpnClient::evpn_, &scheduler), reader(MvpnClient::staticEvpn_, &scheduler), merged,
        Dyx::SmControl{&scheduler, Oro::TaskPriority::normal, false});
    sm->initializedIs(true);
    scheduler.run();
    std::fprintf(stderr, "mvpn_merger: stopping, merged status %s ready, %zu VRFs\n",
                 sm->ready() ? "was" : "was not", merged->mvpnVrfSize());
  } catch (const Oro::Exception& e) {
    std::fprintf(stderr, "mvpn_merger: %s\n", e.what());
    return 1;
  }
  return 0;
}
