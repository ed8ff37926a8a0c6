// A real Prometheus server scrapes `mvpnstat metrics --listen` on loopback and answers a query
// for a writer's counter. The test waits on events only: the tool prints a line per scrape, and
// the query is asked after the second one (Prometheus scrapes a target again only once it has
// stored the previous scrape). A guard time bounds each wait in case something never comes.
#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <fmt/format.h>

#include "platform/shm/ShmSegment.h"
#include "status/MvpnVrfStatus.h"

namespace Routing::Multicast {
namespace {

// A child process running `argv`, its stdout readable line by line (stderr to /dev/null).
struct Child {
  pid_t pid = -1;
  int out = -1;
  std::string buffered;

  explicit Child(const std::vector<std::string>& argv) {
    int p[2];
    if (::pipe(p) != 0) return;
    pid = ::fork();
    if (pid == 0) {
      ::dup2(p[1], 1);
      const int devnull = ::open("/dev/null", O_WRONLY);
      ::dup2(devnull, 2);
      std::vector<char*> args;
      for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
      args.push_back(nullptr);
      ::execvp(args[0], args.data());
      ::_exit(127);
    }
    ::close(p[1]);
    out = p[0];
  }
  ~Child() {
    if (pid > 0) {
      ::kill(pid, SIGTERM);
      ::waitpid(pid, nullptr, 0);
    }
    if (out >= 0) ::close(out);
  }
  // The next line of output; empty when the child ends or nothing comes within `guardMs`.
  std::string line(int guardMs = 60000) {
    for (;;) {
      const size_t nl = buffered.find('\n');
      if (nl != std::string::npos) {
        std::string l = buffered.substr(0, nl);
        buffered.erase(0, nl + 1);
        return l;
      }
      pollfd pfd{out, POLLIN, 0};
      if (::poll(&pfd, 1, guardMs) <= 0) return {};
      char buf[4096];
      const ssize_t n = ::read(out, buf, sizeof buf);
      if (n <= 0) return {};
      buffered.append(buf, static_cast<size_t>(n));
    }
  }
};

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
  const std::string path = MvpnVrfStatus::mountPath(Nevo::ipv4, MvpnClient::bgp_);
  auto vrfs = mvpnVrfStatusFactory(path);
  vrfs->mount(Oro::ShmAttach{path, Oro::ShmRole::writer});
  for (uint32_t v = 1; v <= 3; ++v) vrfs->mvpnVrfIs(MvpnVrf(Vrf::VrfIdMap::VrfId(v)));

  Child tool(
      {MVPNSTAT_PATH, "--namespace", Oro::shmNamespace(), "metrics", "--listen", "127.0.0.1:0"});
  const std::string serving = tool.line();
  const size_t colon = serving.rfind(':');
  ASSERT_NE(colon, std::string::npos) << serving;
  const int metricsPort = std::atoi(serving.c_str() + colon + 1);
  ASSERT_GT(metricsPort, 0) << serving;

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
  Child prometheus({"prometheus", "--config.file=" + config,
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
