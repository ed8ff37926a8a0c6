#include "tools/Metrics.h"

#include <httplib.h>
#include <pthread.h>
#include <signal.h>

#include <netdb.h>
#include <sys/socket.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "platform/shm/ShmStoreInfo.h"
#include "tools/SafeText.h"

namespace Mvpnstat {

namespace {

// A label value that reads as the plain-text display of `s` (printable UTF-8, control
// characters and invalid bytes shown as \xNN), escaped for the exposition format, which
// knows only \\, \" and \n.
std::string label(std::string_view s) {
  std::string out;
  for (char c : displayText(s)) {
    if (c == '"' || c == '\\') out.push_back('\\');
    out.push_back(c);
  }
  return out;
}

// The samples of one metric family, written together under its HELP and TYPE lines.
struct Family {
  const char* name;
  const char* type;
  const char* help;
  std::string samples;

  void add(const std::string& labels, uint64_t value) {
    samples += fmt::format("{}{{{}}} {}\n", name, labels, value);
  }
  void writeTo(std::string& out) const {
    out += fmt::format("# HELP {} {}\n# TYPE {} {}\n{}", name, help, name, type, samples);
  }
};

}  // namespace

std::string metricsText() {
  Family up{"mvpn_table_up",
            "gauge",
            "1 when the status table can be read, 0 when it is damaged or unreadable.",
            {}};
  Family info{"mvpn_table_info",
              "gauge",
              "The status table's root type and its writer's mount status (always 1).",
              {}};
  Family alive{
      "mvpn_table_writer_alive", "gauge", "1 when the status table has a live writer.", {}};
  Family records{"mvpn_table_records", "gauge", "Records in a collection of a status table.", {}};
  Family counters{"mvpn_table_writer_events_total",
                  "counter",
                  "Events the status table's writer counted, by counter name.",
                  {}};
  Family bytes{"mvpn_table_shared_memory_bytes",
               "gauge",
               "Shared memory the status table's segments hold.",
               {}};
  Family epoch{"mvpn_table_writer_takeovers",
               "gauge",
               "Writers that took the status table over after its previous writer died.",
               {}};
  Family merger{"mvpn_merger_info",
                "gauge",
                "The merge machine writing a merged status table, and its rule (always 1).",
                {}};
  Family phase{"mvpn_merger_phase",
               "gauge",
               "1 for the phase the merge machine is in, 0 for the others.",
               {}};
  Family scanned{"mvpn_merger_input_scanned_keys",
                 "gauge",
                 "Keys the current scan of a merge machine's input stream has handled.",
                 {}};
  Family inputKeys{"mvpn_merger_input_keys",
                   "gauge",
                   "Keys in a merge machine's input stream when its scan last looked.",
                   {}};
  Family walked{"mvpn_merger_reconciled_entries",
                "gauge",
                "Output entries the merge machine's reconciliation has walked.",
                {}};
  Family staleDeleted{"mvpn_merger_stale_deleted_total",
                      "counter",
                      "Stale output entries the merge machine's reconciliation deleted.",
                      {}};
  for (const Oro::ShmStoreInfo& t : Oro::listShmStores()) {
    const std::string path = fmt::format("path=\"{}\"", label(t.mountPath));
    up.add(path, t.problem.empty() ? 1 : 0);
    if (!t.problem.empty()) continue;
    info.add(fmt::format("{},type=\"{}\",mount_status=\"{}\"", path, label(t.rootType),
                         TylKetab::mountStatusName(t.mountStatus)),
             1);
    alive.add(path, t.writerAlive ? 1 : 0);
    for (const auto& c : t.collections) {
      records.add(
          fmt::format("{},collection=\"{}\",type=\"{}\"", path, label(c.name), label(c.typeName)),
          c.records);
    }
    for (const auto& c : t.counters) {
      counters.add(fmt::format("{},name=\"{}\"", path, label(c.name)), c.value);
    }
    bytes.add(path, t.committedBytes);
    // The first writer starts the epoch at 1; each take-over advances it.
    epoch.add(path, t.epoch > 0 ? t.epoch - 1 : 0);
    if (!t.merge) continue;
    const Oro::ShmMergeState& m = *t.merge;
    merger.add(fmt::format("{},type=\"{}\",rule=\"{}\"", path, label(m.desc.machineType),
                           label(m.desc.rule)),
               1);
    for (const char* p :
         {"not running", "starting", "initial scan", "scanning", "reconciling", "ready"}) {
      phase.add(fmt::format("{},phase=\"{}\"", path, p), m.phase() == p ? 1 : 0);
    }
    for (size_t s = 0; s < m.streams.size(); ++s) {
      const uint8_t in = m.desc.streamInput[s];
      const std::string labels =
          fmt::format("{},stream=\"{}\",input=\"{}\"", path, s,
                      label(in < m.desc.inputs.size() ? m.desc.inputs[in].name : ""));
      scanned.add(labels, m.streams[s].done);
      inputKeys.add(labels, m.streams[s].total);
    }
    for (size_t o = 0; o < m.outputs.size(); ++o) {
      const std::string labels = fmt::format("{},output=\"{}\"", path, label(m.desc.outputs[o]));
      walked.add(labels, m.outputs[o].done);
      staleDeleted.add(labels, m.outputs[o].deleted);
    }
  }
  std::string out;
  for (const Family* f : {&up, &info, &alive, &records, &counters, &bytes, &epoch, &merger, &phase,
                          &scanned, &inputKeys, &walked, &staleDeleted}) {
    f->writeTo(out);
  }
  return out;
}

void serveMetrics(const std::string& listen) {
  const size_t colon = listen.rfind(':');
  if (colon == std::string::npos || colon == 0) {
    throw std::invalid_argument(
        fmt::format("--listen needs ADDRESS:PORT, not '{}'", displayText(listen)));
  }
  std::string host = listen.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  const std::string portText = listen.substr(colon + 1);
  int port = 0;
  const auto [end, ec] = std::from_chars(portText.data(), portText.data() + portText.size(), port);
  if (portText.empty() || ec != std::errc() || end != portText.data() + portText.size() ||
      port < 0 || port > 65535 || portText.find_first_not_of("0123456789") != std::string::npos) {
    throw std::invalid_argument(
        fmt::format("--listen needs a port from 0 to 65535, not '{}'", displayText(portText)));
  }

  // SIGINT and SIGTERM are taken by this thread with sigwait; the server's threads inherit
  // the blocked mask.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  httplib::Server server;
  server.Get("/metrics", [](const httplib::Request& req, httplib::Response& res) {
    const std::string text = metricsText();
    res.set_content(text, "text/plain; version=0.0.4; charset=utf-8");
    fmt::print("scrape from {}: {} bytes\n", displayText(req.remote_addr), text.size());
    std::fflush(stdout);
  });
  // The address must be this server's alone: with a shared port the kernel would hand some
  // scrapes to another instance (of another namespace, or a stale one).
  server.set_socket_options([](socket_t sock) {
    int yes = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  auto cannotListen = [&](std::string_view why) {
    return std::runtime_error(
        fmt::format("cannot listen on {}: {}", displayText(listen), displayText(why)));
  };
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE;
  addrinfo* found = nullptr;
  if (const int rc = getaddrinfo(host.c_str(), portText.c_str(), &hints, &found); rc != 0) {
    throw cannotListen(gai_strerror(rc));
  }
  freeaddrinfo(found);
  errno = 0;
  if (port == 0) {
    port = server.bind_to_any_port(host);
  } else if (!server.bind_to_port(host, port)) {
    port = -1;
  }
  if (port < 0) throw cannotListen(errno != 0 ? std::strerror(errno) : "the address is not usable");
  const bool v6 = host.find(':') != std::string::npos;
  fmt::print("serving metrics at http://{}{}{}:{}/metrics\n", v6 ? "[" : "", displayText(host),
             v6 ? "]" : "", port);
  std::fflush(stdout);
  std::thread serving([&] { server.listen_after_bind(); });
  int sig = 0;
  sigwait(&stopSignals, &sig);
  server.stop();
  serving.join();
}

}  // namespace Mvpnstat
