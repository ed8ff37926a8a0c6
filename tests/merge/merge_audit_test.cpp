// Merged statuses explain themselves: the merger's record in its output store (phase, inputs),
// as mvpnstat list, watch, metrics, explain and check show it, against writer processes and a
// merger in this process; check finds entries written behind the merger's back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <set>
#include <string>

#include <fmt/format.h>

#include "common/mvpnstat_run.h"
#include "merge/MergeTestRig.h"
#include "merge/MvpnVrfStatusMergeSm.h"
#include "merge/WriterProcesses.h"
#include "platform/shm/ShmStoreInfo.h"

namespace {

using ::testing::HasSubstr;

using namespace MergeTest;
using enum MvpnClient;
using namespace std::chrono_literals;
using Oro::ShmAttach;
using Oro::ShmRole;
using Routing::Multicast::mvpnVrfStatusFactory;
using Json = nlohmann::json;

constexpr const char* kMerged = "test/multicast/vpn/vrfStatus/merged";

using shmtest::mvpnstat;
using shmtest::mvpnstatExpect;
using shmtest::Result;

class MergeAuditTest : public shmtest::ShmTest {};

// VRF k (1..15) is listed by the writers whose bit is set in k: every combination of inputs.
TEST_F(MergeAuditTest, VrfMergeExplainsEveryPrecedenceAndChecksAgainstWriterProcesses) {
  WriterProcesses writers(4, [](int w) {
    auto status = mvpnVrfStatusFactory(fmt::format("writer{}", w));
    status->mount(ShmAttach{MvpnVrfStatus::mountPath(Nevo::ipv4, kWriters[w]), ShmRole::writer});
    return [w, status](int) {
      for (uint32_t k = 1; k < 16; ++k) {
        if (k & (1u << w)) status->mvpnVrfIs(MvpnVrf(VrfId(k), kWriters[w]));
      }
    };
  });
  writers.runPhase(0);

  Oro::TaskScheduler scheduler;
  auto in = mountedReaders(scheduler);
  auto merged = shmtest::mounted(mvpnVrfStatusFactory("merged"), {kMerged, ShmRole::writer});
  merged->mvpnVrfIs(MvpnVrf(VrfId(99), bgp_));  // left by an earlier merger
  auto sm = Routing::Multicast::mergedMvpnVrfStatusSmFactory(in[0], in[1], in[2], in[3], merged,
                                                             Dyx::SmControl{&scheduler});
  EXPECT_FALSE(Oro::shmStoreInfo(kMerged).merge);  // a machine not started records nothing

  // A watch attached before the machine starts reports its transitions.
  shmtest::Child watch({MVPNSTAT_PATH, "--namespace", Oro::shmNamespace(), "watch", kMerged});
  ASSERT_TRUE(
      watch.waitFor("99: Value('Routing::Multicast::MvpnVrf', ** {'key': 99, 'client': bgp})"))
      << watch.seen;

  sm->initializedIs(true);
  const auto started = Oro::shmStoreInfo(kMerged).merge;
  ASSERT_TRUE(started);
  EXPECT_EQ(started->phase(), "initial scan");
  EXPECT_EQ(started->desc.inputs[2].path, MvpnVrfStatus::mountPath(Nevo::ipv4, kWriters[2]));
  mvpnstatExpect(std::string("check ") + kMerged, 0, {"not ready (initial scan 0/"});

  ASSERT_TRUE(
      scheduler.runUntil([&] { return sm->ready(); }, Oro::TaskScheduler::Clock::now() + 60s));
  EXPECT_TRUE(watch.waitFor("merger: ready")) << watch.seen;
  EXPECT_THAT(watch.seen, HasSubstr("99: deleted"));
  const auto done = Oro::shmStoreInfo(kMerged).merge;
  EXPECT_EQ(done->outputs[0].deleted, 1u);  // VRF 99, reconciled away
  EXPECT_EQ(done->streams[0].done, 8u);     // the BGP writer's eight VRFs, scanned

  mvpnstatExpect("list", 0, {"    merger Routing::Multicast::MergedMvpnVrfStatusSm: ready\n"});
  Result metrics =
      mvpnstatExpect("metrics", 0,
                     {fmt::format("mvpn_merger_phase{{path=\"{}\",phase=\"ready\"}} 1\n", kMerged),
                      fmt::format("mvpn_merger_input_keys{{path=\"{}\",stream=\"3\","
                                  "input=\"staticEvpnVrfStatus\"}} 8\n",
                                  kMerged)});
  EXPECT_EQ(shmtest::promtool(metrics.out).status, 0) << shmtest::promtool(metrics.out).out;

  // The winner of every combination: BGP, then EVPN, then static MVPN, then static EVPN.
  const char* names[] = {"mvpnVrfStatus", "staticMvpnVrfStatus", "evpnVrfStatus",
                         "staticEvpnVrfStatus"};
  for (uint32_t k = 1; k < 17; ++k) {
    Result r = mvpnstatExpect(fmt::format("explain {} {} --json", kMerged, k), 0);
    const Json e = Json::parse(r.out);
    Json winner = nullptr;
    for (int w : {3, 1, 2, 0}) {  // from the lowest rank: the last one present wins
      if (k & (1u << w)) winner = names[w];
    }
    EXPECT_EQ(e["winner"], winner) << k;
    EXPECT_EQ(e["agrees"], true) << r.out;
    ASSERT_EQ(e["inputs"].size(), 4u);
    for (int w = 0; w < 4; ++w) EXPECT_EQ(e["inputs"][w]["record"].is_null(), !(k & (1u << w)));
  }
  mvpnstatExpect("check", 0,
                 {fmt::format("{}: merger Routing::Multicast::MergedMvpnVrfStatusSm ready: 15 keys "
                              "checked, consistent; integrity ok",
                              kMerged)});

  // Entries written behind the merger's back: a wrong winner, a VRF no writer lists, a VRF
  // missing.
  merged->mvpnVrfIs(MvpnVrf(VrfId(5), staticEvpn_));
  merged->mvpnVrfIs(MvpnVrf(VrfId(40), evpn_));
  merged->mvpnVrfDel(VrfId(3));
  const Json report = Json::parse(mvpnstatExpect(std::string("check --json ") + kMerged, 1).out);
  EXPECT_EQ(report["ok"], false);
  EXPECT_EQ(report["tables"].size(), 5u);  // the merged status and its four inputs
  const Json& merge = report["tables"][0]["merge"];
  EXPECT_EQ(merge["problems"], 3);
  std::set<std::string> found;
  for (const Json& f : merge["findings"])
    found.insert(f["kind"].get<std::string>() + " " + f["key"].get<std::string>());
  EXPECT_EQ(found, (std::set<std::string>{"differs 5", "stale 40", "missing 3"}));
  mvpnstatExpect(fmt::format("explain {} 5", kMerged), 0,
                 {"  winner: mvpnVrfStatus\n", "(DISAGREES)"});
  mvpnstatExpect(fmt::format("explain {} 12x", kMerged), 2);
  mvpnstatExpect("explain " + MvpnVrfStatus::mountPath(Nevo::ipv4, kWriters[0]) + " 1", 1);

  // The BGP writer decommissioned: once its table is removed the merger falls back to the
  // other writers (VRF 1 was the BGP writer's alone), and the audit reads the input as empty,
  // as the merger does.
  merged->mvpnVrfDel(VrfId(40));
  writers.stop(0);
  mvpnstatExpect("remove " + MvpnVrfStatus::mountPath(Nevo::ipv4, kWriters[0]), 0);
  ASSERT_TRUE(scheduler.runUntil(
      [&] {
        return !merged->mvpnVrf(VrfId(1)) &&
               merged->mvpnVrf(VrfId(3)) == MvpnVrf(VrfId(3), staticMvpn_);
      },
      Oro::TaskScheduler::Clock::now() + 60s));
  EXPECT_EQ(merged->mvpnVrf(VrfId(5)), MvpnVrf(VrfId(5), evpn_));
  mvpnstatExpect(std::string("check ") + kMerged, 0,
                 {"14 keys checked, consistent", "no status table (an input read as empty)"});
  const Json e =
      Json::parse(mvpnstatExpect(fmt::format("explain {} ' 3 ' --json", kMerged), 0).out);
  EXPECT_EQ(e["winner"], "staticMvpnVrfStatus");
  EXPECT_TRUE(e["inputs"][0]["record"].is_null());

  // A damaged input is named as what is damaged, not the merged status.
  ASSERT_TRUE(shmtest::damageTable(MvpnVrfStatus::mountPath(Nevo::ipv4, evpn_), "mvpnVrf"));
  mvpnstatExpect(fmt::format("explain {} 3", kMerged), 1,
                 {fmt::format("cannot explain 3 at {}: ", kMerged), "vrfStatus.evpn@"});
}

TEST_F(MergeAuditTest, EncapMergeExplainsAndChecksBothCollections) {
  using namespace EncapTest;
  EncapTest::Rig rig;
  const char* writers[] = {"mvpn", "static", "evpn"};
  for (int w = 0; w < 3; ++w) {
    rig.in[w]->mount(ShmAttach{MvpnTunnelEncapStatus::mountPath(writers[w]), ShmRole::writer});
  }
  const std::string merged = MvpnTunnelEncapStatus::mountPath("merged");
  rig.merged->mount(ShmAttach{merged, ShmRole::writer});
  rig.putRoutes({{kMvpn, 7, 1, "m1"}, {kStatic, 7, 1, "s1"}, {kMvpn, 7, 2, "m2"}});
  rig.putIntfs({{kEvpn, 8, 3, "e3"}, {kEvpn, 8, 4, "e4"}, {kStatic, 8, 4, "s4"}});
  rig.start();
  ASSERT_TRUE(rig.settle());

  const std::string r1 = route(1).toStrep(), r2 = route(2).toStrep();
  const std::string i3 = intf(3).toStrep(), i4 = intf(4).toStrep();
  for (const auto& [key, winner, collection] :
       {std::tuple{"7 " + r1, Json("staticEncap"), "encapTunnel"},
        std::tuple{"7 " + r2, Json("mvpnEncap"), "encapTunnel"},
        std::tuple{"9 " + r2, Json(nullptr), "encapTunnel"},
        std::tuple{"8 " + i3, Json("evpnEncap"), "encapIntfTunnel"},
        std::tuple{"8 " + i4, Json("staticEncap"), "encapIntfTunnel"}}) {
    Result r = mvpnstatExpect(fmt::format("explain {} '{}' --json", merged, key), 0);
    const Json e = Json::parse(r.out);
    EXPECT_EQ(e["winner"], winner) << key;
    EXPECT_EQ(e["collection"], collection);
    EXPECT_EQ(e["agrees"], true) << r.out;
  }
  mvpnstatExpect("check " + merged, 0);

  // Behind the merger's back: the MVPN record where the static one wins, and an empty VRF.
  rig.putRoute(kOutput, 7, 1, "m1");
  rig.merged->vrfStatusIs(VrfId(9));
  mvpnstatExpect("check " + merged, 1,
                 {"2 inconsistent", "    differs encapTunnel 7 " + r1, "    empty vrfStatus 9"});

  // The machine goes, its writer stays: nobody keeps the merged status up to date any more.
  rig.sm = nullptr;
  EXPECT_EQ(Oro::shmStoreInfo(merged).merge->phase(), "not running");
  EXPECT_THAT(mvpnstat("check " + merged).out, HasSubstr("not ready (not running)"));
}

}  // namespace
