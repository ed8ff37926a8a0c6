// The mvpnstat binary against tables written by this process: its dump and JSON output, and
// its errors for an unknown path, a damaged segment and a table of another type.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "platform/shm/ShmSegment.h"
#include "platform/shm/ShmTable.h"
#include "status/MvpnIntfStatus.h"
#include "status/MvpnVrfStatus.h"

namespace Routing::Multicast {
namespace {

struct Result {
  int status;
  std::string out;
};

Result mvpnstat(const std::string& args) {
  const std::string cmd =
      std::string(MVPNSTAT_PATH) + " --namespace " + Oro::shmNamespace() + " " + args + " 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  Result r{-1, {}};
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  const int st = pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return r;
}

class MvpnstatToolTest : public ::testing::Test {
 protected:
  void SetUp() override { Oro::shmUnlinkNamespace(); }
  void TearDown() override { Oro::shmUnlinkNamespace(); }
};

TEST_F(MvpnstatToolTest, ShowsListsAndWatchesTables) {
  const std::string path = MvpnVrfStatus::mountPath(Nevo::ipv4, MvpnClient::evpn_);
  auto vrfs = mvpnVrfStatusFactory(path);
  vrfs->mount(Oro::ShmAttach{path, Oro::ShmRole::writer});
  vrfs->mvpnVrfIs(MvpnVrf(Vrf::VrfIdMap::VrfId(7), MvpnClient::evpn_));
  auto intfs = mvpnIntfStatusFactory(MvpnIntfStatus::mountPath());
  intfs->mount(Oro::ShmAttach{MvpnIntfStatus::mountPath(), Oro::ShmRole::writer});
  intfs->vrfIntfIdIs(MvpnVrfIntfId(Vrf::VrfIdMap::VrfId(7), Nevo::IntfId::vlan(107)));

  Result show = mvpnstat("show " + path);
  EXPECT_EQ(show.status, 0);
  EXPECT_EQ(show.out, "MvpnVrfStatus #1:\n  VRF 7\n");

  Result json = mvpnstat("show routing/multicast/vpn/intfStatus --json");
  EXPECT_EQ(json.status, 0);
  EXPECT_NE(json.out.find("{\"key\": 7, \"pmsiIntfId\": \"Vlan107\"}"), std::string::npos)
      << json.out;

  Result list = mvpnstat("list");
  EXPECT_EQ(list.status, 0);
  EXPECT_NE(list.out.find(path + "/mvpnVrf  Routing::Multicast::MvpnVrf  1 records"),
            std::string::npos)
      << list.out;
  EXPECT_NE(list.out.find("mvpnVrfIs 1"), std::string::npos) << list.out;

  // A reader reports what is present when it attaches: one change is enough to end the watch.
  Result watch = mvpnstat("watch " + path + " --count 1");
  EXPECT_EQ(watch.status, 0);
  EXPECT_EQ(watch.out, "7: Value('Routing::Multicast::MvpnVrf', ** {'key': 7, 'client': evpn})\n");
}

TEST_F(MvpnstatToolTest, ReportsUnknownDamagedAndForeignTables) {
  Result unknown = mvpnstat("show routing/multicast/vpn/vrfStatus/bgp");
  EXPECT_EQ(unknown.status, 1);
  EXPECT_NE(unknown.out.find("no status table at routing/multicast/vpn/vrfStatus/bgp"),
            std::string::npos);
  EXPECT_EQ(mvpnstat("show ../etc").status, 1);
  EXPECT_EQ(mvpnstat("show").status, 2);

  // A store of another type at a VRF status path.
  Oro::ShmTable<Vrf::VrfIdMap::VrfId, uint64_t> foreign("Test::Other", "mvpnVrf", {});
  foreign.attach(Oro::ShmAttach{"routing/multicast/vpn/vrfStatus/evpn", Oro::ShmRole::writer});
  Result other = mvpnstat("show routing/multicast/vpn/vrfStatus/evpn");
  EXPECT_EQ(other.status, 1);
  EXPECT_NE(other.out.find("holds a Test::Other, which mvpnstat does not know"),
            std::string::npos)
      << other.out;

  // A header overwritten with garbage.
  const std::string path = MvpnVrfStatus::mountPath(Nevo::ipv4, MvpnClient::bgp_);
  {
    auto vrfs = mvpnVrfStatusFactory(path);
    vrfs->mount(Oro::ShmAttach{path, Oro::ShmRole::writer});
    vrfs->mvpnVrfIs(MvpnVrf(Vrf::VrfIdMap::VrfId(1), MvpnClient::bgp_));
    vrfs->unmount();
  }
  const std::string file = "/dev/shm/" + Oro::shmStoreName(path).substr(1);
  {
    std::fstream f(file, std::ios::in | std::ios::out | std::ios::binary);
    ASSERT_TRUE(f.good()) << file;
    const std::string garbage(64, '\x5a');
    f.write(garbage.data(), static_cast<std::streamsize>(garbage.size()));
  }
  Result damaged = mvpnstat("show " + path);
  EXPECT_EQ(damaged.status, 1);
  EXPECT_NE(damaged.out.find("is damaged"), std::string::npos) << damaged.out;
}

}  // namespace
}  // namespace Routing::Multicast
