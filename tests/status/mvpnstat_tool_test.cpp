// The mvpnstat binary against tables written by this process: its dump and JSON output, its
// errors for an unknown path, a damaged segment, a table of another type and bad usage, names
// holding hostile bytes, and a JSON walk while a writer moves keys. A real Prometheus server
// scrapes `mvpnstat metrics --listen` on loopback and answers a query for a writer's counter:
// that test waits on events only (the tool prints a line per scrape, and the query is asked
// after the second one, as Prometheus scrapes a target again only once it has stored the
// previous scrape); a guard time bounds each wait in case something never comes.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "common/mvpnstat_run.h"
#include "common/shm_test_util.h"
#include "merge/MvpnTunnelEncapStatus.h"
#include "platform/shm/ShmSegment.h"
#include "platform/shm/ShmTable.h"
#include "status/MvpnIntfStatus.h"
#include "status/MvpnRouteStatus.h"
#include "status/MvpnVrfStatus.h"

namespace Routing::Multicast {
namespace {

using ::testing::HasSubstr;

using shmtest::mvpnstat;
using shmtest::mvpnstatExpect;
using shmtest::promtool;
using shmtest::Result;
using enum MvpnClient;
using Vrf::VrfIdMap::VrfId;

class MvpnstatToolTest : public ::testing::Test {
 protected:
  void SetUp() override { Oro::shmUnlinkNamespace(); }
  void TearDown() override { Oro::shmUnlinkNamespace(); }
};

// The lines of a watch, sorted: a reader's first dispatch reports what is present in store
// order, which is not the order of writing.
std::vector<std::string> sortedLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) lines.push_back(l);
  std::sort(lines.begin(), lines.end());
  return lines;
}

TEST_F(MvpnstatToolTest, ShowsListsAndWatchesTablesAndNestedStatuses) {
  const std::string path = MvpnVrfStatus::mountPath(Nevo::ipv4, evpn_);
  auto vrfs = shmtest::mounted(mvpnVrfStatusFactory(path), {path, Oro::ShmRole::writer});
  vrfs->mvpnVrfIs(MvpnVrf(VrfId(7), evpn_));
  auto intfs = shmtest::mounted(mvpnIntfStatusFactory(MvpnIntfStatus::mountPath()),
                                {MvpnIntfStatus::mountPath(), Oro::ShmRole::writer});
  intfs->vrfIntfIdIs(MvpnVrfIntfId(VrfId(7), Nevo::IntfId::vlan(107)));

  EXPECT_EQ(mvpnstatExpect("show " + path, 0).out, "MvpnVrfStatus #1:\n  VRF 7\n");
  mvpnstatExpect("show routing/multicast/vpn/intfStatus --json", 0,
                 {"{\"key\": 7, \"pmsiIntfId\": \"Vlan107\"}"});
  mvpnstatExpect("list", 0,
                 {path + "  Routing::Multicast::MvpnVrfStatus  writer pid ",
                  "    mvpnVrf  Routing::Multicast::MvpnVrf  1 record", "mvpnVrfIs 1"});
  // A reader reports what is present when it attaches: one change is enough to end the watch.
  EXPECT_EQ(mvpnstatExpect("watch " + path + " --count 1", 0).out,
            "7: Value('Routing::Multicast::MvpnVrf', ** {'key': 7, 'client': evpn})\n");
  Result metrics = mvpnstatExpect(
      "metrics", 0,
      {"mvpn_table_records{path=\"" + path +
           "\",collection=\"mvpnVrf\",type=\"Routing::Multicast::MvpnVrf\"} 1\n",
       "mvpn_table_writer_events_total{path=\"" + path + "\",name=\"mvpnVrfIs\"} 1\n",
       "mvpn_table_writer_alive{path=\"" + path + "\"} 1\n",
       "mvpn_table_writer_takeovers{path=\"" + path + "\"} 0\n"});
  EXPECT_EQ(promtool(metrics.out).status, 0) << promtool(metrics.out).out;

  // Statuses with entities inside: the route status tree and a tunnel encapsulation status.
  const auto v4 = Nevo::IpGenAddr::ipv4Addr;
  const std::string treePath = MvpnRouteStatus::mountPath(Nevo::ipv4, bgp_);
  auto tree = shmtest::mounted(mvpnRouteStatusFactory(treePath), {treePath, Oro::ShmRole::writer});
  tree->vrfRouteStatusIs(VrfId(3))->mvpnSourceIs(v4(0xef000001), v4(0x0a000001),
                                                 Nevo::IpGenPrefix(v4(0x0a000000), 8), true,
                                                 MvpnSource::SourceFlags(1));

  const auto doc = nlohmann::json::parse(mvpnstatExpect("show " + treePath + " --json", 0).out);
  ASSERT_EQ(doc["vrfs"].size(), 1u);
  EXPECT_EQ(doc["vrfs"][0]["vrfId"], 3);
  const auto& group = doc["vrfs"][0]["groups"][0];
  EXPECT_EQ(group["group"], "239.0.0.1");
  EXPECT_EQ(group["sharedTree"][0]["source"], "10.0.0.1");
  EXPECT_EQ(group["sharedTree"][0]["umhPrefix"], "10.0.0.0/8");
  EXPECT_TRUE(group["sourceTree"].empty());

  const auto treeLines = sortedLines(mvpnstatExpect("watch " + treePath + " --count 3", 0).out);
  ASSERT_EQ(treeLines.size(), 3u) << ::testing::PrintToString(treeLines);
  EXPECT_EQ(treeLines[0], "vrf 3 group 239.0.0.1 sharedTree 10.0.0.1: " +
                              tree->vrfRouteStatus(VrfId(3))
                                  ->mvpnSource(v4(0xef000001), v4(0x0a000001), true)
                                  .toStrep());
  EXPECT_EQ(treeLines[1], "vrf 3 group 239.0.0.1: present");
  EXPECT_EQ(treeLines[2], "vrf 3: present");

  const std::string encapPath = MvpnTunnelEncapStatus::mountPath("static");
  EXPECT_THROW(MvpnTunnelEncapStatus::mountPath("bgp"), Oro::RangeException);
  auto encap = mvpnTunnelEncapStatusFactory("static");
  encap->mount(Oro::ShmAttach{encapPath, Oro::ShmRole::writer});
  const MvpnRouteKey rk(v4(0x0a000001), v4(0xef000001), false);
  // Text shows the record's text form as it is: its string escapes its own backslash.
  const MvpnEncapTunnel route(rk, "ingress \"a\\b\"");
  const MvpnEncapIntfTunnel intf(MvpnRouteIntfKey(rk, Nevo::IntfId::vlan(5)), "vx");
  encap->vrfStatusIs(VrfId(1))->encapTunnelIs(route);
  encap->vrfStatusIs(VrfId(2))->encapIntfTunnelIs(intf);

  mvpnstatExpect("show " + encapPath, 0,
                 {"  VRF ID: 1\n    Encap tunnels #1\n      " + route.toStrep() +
                  "\n    Encap interface tunnels #0\n"});
  const auto edoc = nlohmann::json::parse(mvpnstatExpect("show " + encapPath + " --json", 0).out);
  ASSERT_EQ(edoc["vrfs"].size(), 2u);
  for (const auto& v : edoc["vrfs"]) {
    if (v["vrfId"] == 1) {
      EXPECT_EQ(v["encapTunnel"][0]["encapData"], "ingress \"a\\b\"");
    } else {
      EXPECT_EQ(v["encapIntfTunnel"][0]["routeIntfKey"], intf.routeIntfKey().toStrep());
    }
  }
  EXPECT_EQ(sortedLines(mvpnstatExpect("watch " + encapPath + " --count 4", 0).out),
            (std::vector<std::string>{
                "vrf 1 encapTunnel " + rk.toStrep() + ": " + route.toStrep(), "vrf 1: present",
                "vrf 2 encapIntfTunnel " + intf.routeIntfKey().toStrep() + ": " + intf.toStrep(),
                "vrf 2: present"}));
}

// A watch prints no more changes than asked for, even when more arrive in one delivery; and an
// operator's SIGTERM ends a watch whose output nobody reads (blocked writing to a full pipe).
TEST_F(MvpnstatToolTest, AWatchStopsAtItsCountAndOnSigtermWhileItsOutputIsBlocked) {
  const std::string path = MvpnVrfStatus::mountPath(Nevo::ipv4, bgp_);
  auto vrfs = shmtest::mounted(mvpnVrfStatusFactory(path), {path, Oro::ShmRole::writer});
  for (uint32_t v = 0; v < 3000; ++v) vrfs->mvpnVrfIs(MvpnVrf(VrfId(v), bgp_));
  EXPECT_EQ(sortedLines(mvpnstatExpect("watch " + path + " --count 5", 0).out).size(), 5u);

  shmtest::Child watch({MVPNSTAT_PATH, "--namespace", Oro::shmNamespace(), "watch", path});
  ASSERT_GT(watch.pid, 0);
  // 3000 lines are more than a pipe holds: the watch ends up asleep in its write.
  const auto blockedInWrite = [&] {
    std::ifstream wchan(fmt::format("/proc/{}/wchan", watch.pid));
    std::string w;
    std::getline(wchan, w);
    return w.find("pipe") != std::string::npos;
  };
  while (!blockedInWrite()) sched_yield();
  ASSERT_EQ(::kill(watch.pid, SIGTERM), 0);
  EXPECT_EQ(shmtest::waitChild(watch.pid), 0);
  watch.pid = -1;
}

TEST_F(MvpnstatToolTest, ReportsUnknownDamagedAndForeignTablesAndBadUsage) {
  mvpnstatExpect("show routing/multicast/vpn/vrfStatus/bgp", 1,
                 {"no status table at routing/multicast/vpn/vrfStatus/bgp"});
  // A path or namespace that cannot name a table is bad usage.
  for (const char* args : {"show ../etc", "remove ''", "check a//b", "--namespace '' list"}) {
    mvpnstatExpect(args, 2, {"invalid ", "usage: mvpnstat"});
  }
  mvpnstatExpect("show", 2);
  // An empty namespace is said to be empty, not passed over in silence.
  mvpnstatExpect("check", 0, {"no status tables in shared-memory namespace"});

  // A store of another type at a VRF status path.
  Oro::ShmTable<VrfId, uint64_t> foreign("Test::Other", "mvpnVrf", {});
  foreign.attach(Oro::ShmAttach{"routing/multicast/vpn/vrfStatus/evpn", Oro::ShmRole::writer});
  mvpnstatExpect("show routing/multicast/vpn/vrfStatus/evpn", 1,
                 {"holds a Test::Other, which mvpnstat does not know"});

  // A header overwritten with garbage.
  const std::string path = MvpnVrfStatus::mountPath(Nevo::ipv4, bgp_);
  {
    auto vrfs = shmtest::mounted(mvpnVrfStatusFactory(path), {path, Oro::ShmRole::writer});
    vrfs->mvpnVrfIs(MvpnVrf(VrfId(1), bgp_));
    vrfs->unmount();
  }
  const std::string file = "/dev/shm/" + Oro::shmStoreName(path).substr(1);
  shmtest::overwriteHeader(path, std::string(64, 'Z'));
  mvpnstatExpect("show " + path, 1, {"is damaged"});
  // A JSON reader gets a whole document naming the damage even when it is found at once.
  mvpnstatExpect("show --json " + path, 1,
                 {"{\"path\": \"" + path + "\", \"damaged\": \"shared memory store " + path +
                  " is corrupt: bad magic number in the header\"}\n"});
  // Output that could not be written is a failure, never a silent success.
  for (const char* command : {"list", "metrics", "check", "show --json "}) {
    const shmtest::Result r =
        shmtest::run(fmt::format("({} --namespace {} {}{} > /dev/full)", MVPNSTAT_PATH,
                                 Oro::shmNamespace(), command, *command == 's' ? path : ""));
    EXPECT_EQ(r.status, 1) << command;
    EXPECT_THAT(r.out, HasSubstr("mvpnstat: cannot write output: No space left on device"));
  }
  mvpnstatExpect("metrics", 0, {"mvpn_table_up{path=\"" + path + "\"} 0\n"});
  // Its writer is gone: a damaged table is removed like any other.
  mvpnstatExpect("remove " + path, 0);
  mvpnstatExpect("show " + path, 1);
  // A FIFO planted at a table's name keeps its writer out until removed; nobody hangs on it.
  ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
  mvpnstatExpect("show " + path, 1, {"is not a regular file"});
  mvpnstatExpect("remove " + path, 0, {"(1 shared-memory file)"});
  EXPECT_FALSE(std::filesystem::exists(file));

  // Bad counts are usage errors.
  const std::string watch = "watch " + MvpnVrfStatus::mountPath(Nevo::ipv4, bgp_);
  for (const char* count : {"-1", "-5", "''", "abc", "' 3'", "+3", "3x", "0", "0x10",
                            "18446744073709551616", "99999999999999999999999"}) {
    mvpnstatExpect(watch + " --count " + count, 2,
                   {"--count needs a whole number from 1 to 18446744073709551615"});
  }
  mvpnstatExpect(watch + " --count", 2);
  mvpnstatExpect("show " + MvpnVrfStatus::mountPath(Nevo::ipv4, bgp_) + " --count 3", 2,
                 {"--count goes with watch only"});
  mvpnstatExpect("remove " + path + " --json", 2, {"remove has no --json"});
  // What the user typed is shown escaped once: one backslash as two.
  mvpnstatExpect("'--x\\y'", 2, {"unknown option --x\\\\y\n"});
}

// A record whose bytes hold no value (a route key of no address family): show prints what it
// read before it and fails, the JSON document stays whole and names the damage, and check
// finds it.
TEST_F(MvpnstatToolTest, ARecordThatDoesNotReadBackFailsShowAndCheck) {
  const std::string path = MvpnTunnelEncapStatus::mountPath("mvpn");
  {
    auto encap = shmtest::mounted(mvpnTunnelEncapStatusFactory(path), {path, Oro::ShmRole::writer});
    encap->vrfStatusIs(VrfId(1));
    auto vrf = encap->vrfStatusIs(VrfId(2));
    for (uint32_t g : {1, 2}) {
      vrf->encapTunnelIs(
          MvpnEncapTunnel(MvpnRouteKey(Nevo::IpGenAddr::ipv4Addr(1),
                                       Nevo::IpGenAddr::ipv4Addr(0xef000000 + g), false),
                          "x"));
    }
    encap->unmount();
  }
  // The first route's slot: its sequence word, its VRF's reference (two words), then the
  // family of its source.
  const std::string chunk = shmtest::firstChunkOf(path, "encapTunnel");
  ASSERT_FALSE(chunk.empty());
  const char bad = 0x77;
  shmtest::writeSegment(chunk, 3 * 4, &bad, 1);

  const std::string damage = "is damaged: bad image of a Routing::Multicast::MvpnRouteKey";
  const Result text = mvpnstatExpect("show " + path, 1, {"VRF ID: 1\n", damage});
  EXPECT_THAT(text.out, ::testing::Not(HasSubstr("239.0.0.2")));
  const Result json = shmtest::run(fmt::format("({} --namespace {} show {} --json 2>/dev/null)",
                                               MVPNSTAT_PATH, Oro::shmNamespace(), path));
  EXPECT_EQ(json.status, 1);
  const auto doc = nlohmann::json::parse(json.out);  // whole, although the walk stopped
  EXPECT_EQ(doc["vrfs"].size(), 2u);
  EXPECT_TRUE(doc["vrfs"][1]["encapTunnel"].empty());
  EXPECT_THAT(doc["damaged"].get<std::string>(), HasSubstr("bad image"));
  mvpnstatExpect("check " + path, 1, {"a record does not read back: bad image"});

  // A tree's dump shows one of its two models; damage in the other fails the show too.
  const std::string tree = MvpnRouteStatus::mountPath(Nevo::ipv4, bgp_);
  {
    auto w = shmtest::mounted(mvpnRouteStatusFactory(tree), {tree, Oro::ShmRole::writer});
    w->vrfRouteStatusIs(VrfId(1))->mvpnSourceIs(Nevo::IpGenAddr::ipv4Addr(0xef000001),
                                                Nevo::IpGenAddr::ipv4Addr(1), Nevo::IpGenPrefix(),
                                                false, MvpnSource::SourceFlags(1));
    w->unmount();
  }
  shmtest::writeSegment(shmtest::firstChunkOf(tree, "sourceTree"), 3 * 4, &bad, 1);
  mvpnstatExpect("show " + tree, 1, {"MvpnRouteStatus", "is damaged: bad image"});
}

// The shared-memory files of the table at `path`: its header and every segment named after it.
std::vector<std::string> filesOf(const std::string& path) {
  const std::string name = Oro::shmStoreName(path).substr(1);
  std::vector<std::string> out;
  for (const std::string& n : Oro::shmNamespaceEntries()) {
    if (n == name || n.rfind(name + "@", 0) == 0) out.push_back(n);
  }
  return out;
}

TEST_F(MvpnstatToolTest, RemoveRefusesALiveWriterAndLeavesNothingOfADeadOne) {
  const std::string path = MvpnVrfStatus::mountPath(Nevo::ipv4, evpn_);
  shmtest::Pipe ready;
  const pid_t writer = shmtest::forkChild([&]() -> int {
    auto vrfs = shmtest::mounted(mvpnVrfStatusFactory(path), {path, Oro::ShmRole::writer});
    // Enough records for several chunks and index generations.
    for (uint32_t v = 1; v <= 50000; ++v) vrfs->mvpnVrfIs(MvpnVrf(VrfId(v)));
    ready.send();
    for (;;) ::pause();
  });
  ASSERT_TRUE(ready.receive());
  const size_t files = filesOf(path).size();
  EXPECT_GE(files, 4u);  // header, lock, slot chunk, index
  mvpnstatExpect("remove " + path, 1,
                 {fmt::format("has a live writer (pid {}): not removed", writer)});
  EXPECT_EQ(filesOf(path).size(), files);
  mvpnstatExpect("show " + path, 0);

  ::kill(writer, SIGKILL);
  shmtest::waitChild(writer);
  // A writer that died while creating another instance left segments without a header.
  Oro::ShmSegment::create(Oro::shmStoreSegmentName(path, 0x1234, "0k0"), 4096, 0600, false);
  // What the killed writer left: its segments, the other instance's, and its doorbell.
  EXPECT_EQ(mvpnstatExpect("remove " + path, 0).out,
            fmt::format("removed {} ({} shared-memory files)\n", path, files + 2));
  EXPECT_EQ(Oro::shmNamespaceEntries(), std::vector<std::string>{});
  mvpnstatExpect("remove " + path, 1, {"no status table at " + path});
}

// True when text holds no raw control character but '\n' (C0, DEL, or C1 encoded in UTF-8).
bool terminalSafe(const std::string& text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if ((c < 0x20 && c != '\n') || c == 0x7f) return false;
    if (c == 0xc2 && i + 1 < text.size() &&
        (static_cast<unsigned char>(text[i + 1]) & 0xe0) == 0x80) {
      return false;
    }
  }
  return true;
}

// Type and counter names come from shared memory and may hold anything: an escape sequence,
// a bell, invalid UTF-8, a C1 control, quotes and backslashes. JSON stays valid and carries
// every valid character (invalid bytes become U+FFFD); plain text shows them visibly.
TEST_F(MvpnstatToolTest, HostileNamesStayValidJsonAndVisibleText) {
  const std::string evilType = "Evil\x1b[31m\xff\"\\\xc2\x9b\xe2\x80\xa8\x7f";
  const std::string evilCounter = "hits\x07\x1b]0;owned\x07\xc3";  // ends mid-sequence
  const std::string path = "routing/multicast/vpn/vrfStatus/evpn";
  Oro::ShmTable<VrfId, uint64_t> foreign(evilType, "mvpnVrf", {});
  foreign.attach(Oro::ShmAttach{path, Oro::ShmRole::writer});
  foreign.counterSlot(0, evilCounter)->store(5);

  Result json = mvpnstatExpect("list --json", 0);
  nlohmann::json tables;
  ASSERT_NO_THROW(tables = nlohmann::json::parse(json.out)) << json.out;
  ASSERT_EQ(tables.size(), 1u) << json.out;
  EXPECT_EQ(tables[0]["type"], "Evil\x1b[31m\xef\xbf\xbd\"\\\xc2\x9b\xe2\x80\xa8\x7f");
  EXPECT_EQ(tables[0]["counters"]["hits\x07\x1b]0;owned\x07\xef\xbf\xbd"], 5);

  Result plain = mvpnstatExpect(
      "list", 0,
      {"Evil\\x1b[31m\\xff\"\\\\\\u009b\xe2\x80\xa8\\x7f", "hits\\x07\\x1b]0;owned\\x07\\xc3 5"});
  Result show = mvpnstatExpect("show " + path, 1, {"holds a Evil\\x1b[31m"});
  // The exposition stays valid: promtool reads it, label values read as the plain text.
  Result metrics = mvpnstatExpect("metrics", 0,
                                  {"mvpn_table_writer_events_total{path=\"" + path +
                                   "\",name=\"hits\\\\x07\\\\x1b]0;owned\\\\x07\\\\xc3\"} 5\n"});
  EXPECT_EQ(promtool(metrics.out).status, 0) << promtool(metrics.out).out;
  for (const Result* r : {&json, &plain, &show, &metrics}) {
    EXPECT_TRUE(terminalSafe(r->out)) << r->out;
  }
}

// The walk goes by slot. The tool's output pipe is left unread until it is half full, so the
// tool is in the middle of its walk (it blocks once the pipe is full); then odd keys it has
// passed are moved: deleted, their slot taken by a filler key, inserted again into a new
// slot ahead of the walk. The walk meets them again, and the JSON must still list each key
// once, with every key that was never touched.
TEST_F(MvpnstatToolTest, ShowJsonListsEachKeyOnceWhileKeysMove) {
  constexpr uint32_t kKeys = 20000, kMoved = 1000, kFiller = 1000000;
  const std::string path = MvpnVrfStatus::mountPath(Nevo::ipv4, bgp_);
  auto vrfs = shmtest::mounted(mvpnVrfStatusFactory(path), {path, Oro::ShmRole::writer});
  for (uint32_t k = 0; k < kKeys; ++k) vrfs->mvpnVrfIs(MvpnVrf(VrfId(k)));

  shmtest::Child tool({MVPNSTAT_PATH, "--namespace", Oro::shmNamespace(), "show", path, "--json"});
  const int capacity = fcntl(tool.out, F_GETPIPE_SZ);
  int available = 0, status = 0;
  bool exited = false;
  while (available < capacity / 2 && !exited) {
    ASSERT_EQ(ioctl(tool.out, FIONREAD, &available), 0);
    exited = waitpid(tool.pid, &status, WNOHANG) == tool.pid;
    sched_yield();
  }
  for (uint32_t k = 1; k < kMoved; k += 2) {
    vrfs->mvpnVrfDel(VrfId(k));
    vrfs->mvpnVrfIs(MvpnVrf(VrfId(kFiller + k)));
    vrfs->mvpnVrfIs(MvpnVrf(VrfId(k)));
  }
  std::string out;
  char buf[65536];
  for (ssize_t n; (n = read(tool.out, buf, sizeof buf)) > 0;)
    out.append(buf, static_cast<size_t>(n));
  if (!exited) waitpid(tool.pid, &status, 0);
  tool.pid = -1;  // reaped: nothing left for its destructor to stop
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << out.substr(0, 2000);

  nlohmann::json doc;
  ASSERT_NO_THROW(doc = nlohmann::json::parse(out)) << out.substr(0, 2000);
  std::set<uint32_t> keys;
  for (const auto& record : doc["records"]) {
    const auto key = record["key"].get<uint32_t>();
    EXPECT_TRUE(keys.insert(key).second) << "key " << key << " listed twice";
  }
  for (uint32_t k = 0; k < kKeys; ++k) {
    if (k % 2 == 0 || k >= kMoved) {
      ASSERT_TRUE(keys.contains(k)) << "untouched key " << k;
    }
  }
}

// A loopback port nobody listens on now.
int freePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  socklen_t len = sizeof a;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  ::close(fd);
  return ntohs(a.sin_port);
}

TEST(MetricsScrape, PrometheusScrapesTheEndpointAndAnswersACounterQuery) {
  Oro::shmUnlinkNamespace();
  const std::string path = MvpnVrfStatus::mountPath(Nevo::ipv4, bgp_);
  auto vrfs = shmtest::mounted(mvpnVrfStatusFactory(path), {path, Oro::ShmRole::writer});
  for (uint32_t v = 1; v <= 3; ++v) vrfs->mvpnVrfIs(MvpnVrf(VrfId(v)));

  shmtest::Child tool(
      {MVPNSTAT_PATH, "--namespace", Oro::shmNamespace(), "metrics", "--listen", "127.0.0.1:0"});
  const std::string serving = tool.line();
  const size_t colon = serving.rfind(':');
  ASSERT_NE(colon, std::string::npos) << serving;
  const int metricsPort = std::atoi(serving.c_str() + colon + 1);
  ASSERT_GT(metricsPort, 0) << serving;
  // The port is this server's alone: a second one would take a share of the scrapes.
  mvpnstatExpect(
      fmt::format("metrics --listen 127.0.0.1:{}", metricsPort), 1,
      {fmt::format("cannot listen on 127.0.0.1:{}: Address already in use", metricsPort)});

  struct TempDir {
    char name[64] = "/tmp/mvpnstat-prometheus-XXXXXX";
    ~TempDir() { std::filesystem::remove_all(name); }
  } temp;
  const char* dir = ::mkdtemp(temp.name);
  ASSERT_NE(dir, nullptr);
  const std::string config = std::string(dir) + "/prometheus.yml";
  std::ofstream(config) << fmt::format(
      "global:\n  scrape_interval: 1s\nscrape_configs:\n  - job_name: mvpnstat\n"
      "    static_configs:\n      - targets: ['127.0.0.1:{}']\n",
      metricsPort);
  const int webPort = freePort();
  shmtest::Child prometheus({"prometheus", "--config.file=" + config,
                             "--storage.tsdb.path=" + std::string(dir) + "/data",
                             fmt::format("--web.listen-address=127.0.0.1:{}", webPort)});

  ASSERT_NE(tool.line().find("scrape from 127.0.0.1"), std::string::npos);
  httplib::Client api("127.0.0.1", webPort);
  const std::string query =
      "/api/v1/query?query=mvpn_table_writer_events_total%7Bname%3D%22mvpnVrfIs%22%7D";
  nlohmann::json answer;
  // Each attempt follows a scrape; the server may still be starting its web side.
  for (int attempt = 0; attempt < 30 && answer.empty(); ++attempt) {
    ASSERT_NE(tool.line().find("scrape from 127.0.0.1"), std::string::npos);
    const auto res = api.Get(query);
    if (!res || res->status != 200) continue;
    const auto body = nlohmann::json::parse(res->body);
    if (!body["data"]["result"].empty()) answer = body["data"]["result"][0];
  }
  ASSERT_FALSE(answer.empty());
  EXPECT_EQ(answer["metric"]["path"], path);
  EXPECT_EQ(answer["metric"]["job"], "mvpnstat");
  EXPECT_EQ(answer["value"][1], "3");

  vrfs->unmount();
  Oro::shmUnlinkNamespace();
}

}  // namespace
}  // namespace Routing::Multicast
